#include "scsi_unit.h"

#include <cstring>

namespace vcam {
namespace {

constexpr std::uint8_t kTestUnitReady = 0x00;
constexpr std::uint8_t kRequestSense = 0x03;
constexpr std::uint8_t kRead6 = 0x08;
constexpr std::uint8_t kWrite6 = 0x0a;
constexpr std::uint8_t kInquiry = 0x12;
constexpr std::uint8_t kReadCapacity10 = 0x25;

constexpr std::uint8_t kIllegalRequest = 0x05;
constexpr std::uint8_t kInvalidOperationCode = 0x20;
constexpr std::uint8_t kBlockOutOfRange = 0x21;
constexpr std::uint8_t kInvalidFieldInCdb = 0x24;

constexpr std::uint32_t Smaller(std::uint32_t a, std::uint32_t b) {
    return a < b ? a : b;
}

void StoreBigEndian(std::uint8_t* to, std::uint32_t value) {
    to[0] = static_cast<std::uint8_t>(value >> 24);
    to[1] = static_cast<std::uint8_t>(value >> 16);
    to[2] = static_cast<std::uint8_t>(value >> 8);
    to[3] = static_cast<std::uint8_t>(value);
}

}  // namespace

ScsiResult ScsiUnit::Execute(const ScsiCommand& command) {
    switch (command.cdb[0]) {
        case kTestUnitReady:
            return {kScsiGood, 0};
        case kRequestSense:
            return RequestSense(command);
        case kRead6:
            return ReadOrWrite(command, DataPhase::kIn);
        case kWrite6:
            return ReadOrWrite(command, DataPhase::kOut);
        case kInquiry:
            return Inquiry(command);
        case kReadCapacity10:
            return ReadCapacity(command);
        default:
            return Fail(kIllegalRequest, kInvalidOperationCode);
    }
}

ScsiResult ScsiUnit::Fail(std::uint8_t key, std::uint8_t additional) {
    senseKey = key;
    additionalSense = additional;
    return {kScsiCheckCondition, 0};
}

ScsiResult ScsiUnit::Answer(const ScsiCommand& command, const std::uint8_t* bytes,
                            std::uint32_t length, std::uint32_t allocationLength) {
    if (command.phase != DataPhase::kIn)
        return {kScsiGood, 0};
    const std::uint32_t count = Smaller(Smaller(length, allocationLength), command.dataLength);
    std::memcpy(command.data, bytes, count);
    return {kScsiGood, count};
}

ScsiResult ScsiUnit::ReadOrWrite(const ScsiCommand& command, DataPhase phase) {
    const std::uint8_t* cdb = command.cdb;
    const std::uint32_t first = (cdb[1] & 0x1fu) << 16 | static_cast<std::uint32_t>(cdb[2]) << 8 |
                                static_cast<std::uint32_t>(cdb[3]);
    const std::uint32_t blocks = cdb[4] != 0 ? cdb[4] : 256;  // 0 means 256 in 6-byte commands
    if (first >= blockCount || blocks > blockCount - first)
        return Fail(kIllegalRequest, kBlockOutOfRange);
    if (command.phase != phase)
        return Fail(kIllegalRequest, kInvalidFieldInCdb);

    const std::uint32_t count = Smaller(blocks * kBlockBytes, command.dataLength);
    std::uint8_t* const at = memory + static_cast<std::size_t>(first) * kBlockBytes;
    if (phase == DataPhase::kIn)
        std::memcpy(command.data, at, count);
    else
        std::memcpy(at, command.data, count);
    return {kScsiGood, count};
}

ScsiResult ScsiUnit::Inquiry(const ScsiCommand& command) {
    const std::uint8_t* cdb = command.cdb;
    if ((cdb[1] & 1) != 0 || cdb[2] != 0)  // vital product data pages
        return Fail(kIllegalRequest, kInvalidFieldInCdb);
    std::uint8_t answer[36] = {};  // direct-access device
    answer[1] = 0x80;              // removable medium
    answer[2] = 0x04;              // SPC-2
    answer[3] = 0x02;              // response data format
    answer[4] = sizeof(answer) - 5;
    std::memcpy(answer + 8, vendor, sizeof(vendor));
    std::memcpy(answer + 16, product, sizeof(product));
    std::memcpy(answer + 32, revision, sizeof(revision));
    return Answer(command, answer, sizeof(answer),
                  static_cast<std::uint32_t>(cdb[3]) << 8 | cdb[4]);
}

ScsiResult ScsiUnit::RequestSense(const ScsiCommand& command) {
    std::uint8_t answer[18] = {};
    answer[0] = 0x70;  // current error, fixed format
    answer[2] = senseKey;
    answer[7] = sizeof(answer) - 8;
    answer[12] = additionalSense;
    senseKey = 0;
    additionalSense = 0;
    return Answer(command, answer, sizeof(answer), command.cdb[4]);
}

ScsiResult ScsiUnit::ReadCapacity(const ScsiCommand& command) {
    std::uint8_t answer[8];
    StoreBigEndian(answer, blockCount - 1);  // the last block's address
    StoreBigEndian(answer + 4, kBlockBytes);
    return Answer(command, answer, sizeof(answer), sizeof(answer));
}

}  // namespace vcam
