// SCSI commands, and the decoding of their data.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <span>
#include <string>

#include "client/c_api/call.h"
#include "orvik/orvik.h"

namespace {

using namespace orvik::c_api;

/// `make` returns the CDB.
template <typename Make>
orvik_status WriteCdb(std::uint8_t* cdb, Make make) noexcept {
    return Call([&] {
        RequirePointer(cdb != nullptr, "cdb");
        const auto bytes = make();
        std::memcpy(cdb, bytes.data(), bytes.size());
        return ORVIK_OK;
    });
}

/// `decode` fills a structure from the data.
template <typename Structure, typename Decode>
orvik_status WriteDecoded(const void* data, std::uint32_t length, Structure* target,
                          const char* name, Decode decode) noexcept {
    return Call([&] {
        RequirePointer(data != nullptr || length == 0, "data");
        RequirePointer(target != nullptr, name);
        RequireSize(target->size, sizeof(Structure), name);
        Structure decoded = decode(std::span(static_cast<const std::byte*>(data), length));
        decoded.size = target->size;
        std::memcpy(target, &decoded, sizeof(decoded));
        return ORVIK_OK;
    });
}

/// Cuts a text that is too long. The texts are ASCII.
template <std::size_t size>
void CopyText(char (&target)[size], const std::string& text) noexcept {
    const std::size_t length = std::min(text.size(), size - 1);
    std::memcpy(target, text.data(), length);
    target[length] = '\0';
}

}  // namespace

extern "C" {

orvik_status ORVIK_CALL orvik_cdb_inquiry(uint8_t cdb[6]) {
    return WriteCdb(cdb, orvik::InquiryCdb);
}

orvik_status ORVIK_CALL orvik_cdb_test_unit_ready(uint8_t cdb[6]) {
    return WriteCdb(cdb, orvik::TestUnitReadyCdb);
}

orvik_status ORVIK_CALL orvik_cdb_read_capacity(uint8_t cdb[8]) {
    return WriteCdb(cdb, orvik::ReadCapacityCdb);
}

orvik_status ORVIK_CALL orvik_cdb_request_sense(uint8_t cdb[6]) {
    return WriteCdb(cdb, orvik::RequestSenseCdb);
}

orvik_status ORVIK_CALL orvik_cdb_read6(uint32_t first, uint32_t count, uint8_t cdb[6]) {
    return WriteCdb(cdb, [&] { return orvik::Read6Cdb(first, count); });
}

orvik_status ORVIK_CALL orvik_cdb_write6(uint32_t first, uint32_t count, uint8_t cdb[6]) {
    return WriteCdb(cdb, [&] { return orvik::Write6Cdb(first, count); });
}

orvik_status ORVIK_CALL orvik_decode_inquiry(const void* data, uint32_t length,
                                             orvik_inquiry* inquiry) {
    return WriteDecoded(data, length, inquiry, "inquiry", [](auto bytes) {
        const orvik::Inquiry decoded = orvik::DecodeInquiry(bytes);
        orvik_inquiry result{};
        result.device_type = decoded.deviceType;
        result.removable = decoded.removable ? 1 : 0;
        CopyText(result.vendor, decoded.vendor);
        CopyText(result.product, decoded.product);
        CopyText(result.revision, decoded.revision);
        return result;
    });
}

orvik_status ORVIK_CALL orvik_decode_capacity(const void* data, uint32_t length,
                                              orvik_capacity* capacity) {
    return WriteDecoded(data, length, capacity, "capacity", [](auto bytes) {
        const orvik::Capacity decoded = orvik::DecodeCapacity(bytes);
        orvik_capacity result{};
        result.block_length = decoded.blockLength;
        result.block_count = decoded.blockCount;
        return result;
    });
}

orvik_status ORVIK_CALL orvik_decode_sense(const void* data, uint32_t length, orvik_sense* sense) {
    return WriteDecoded(data, length, sense, "sense", [](auto bytes) {
        const orvik::Sense decoded = orvik::DecodeSense(bytes);
        orvik_sense result{};
        result.key = decoded.key;
        result.code = decoded.code;
        result.qualifier = decoded.qualifier;
        result.deferred = decoded.deferred ? 1 : 0;
        CopyText(result.text, decoded.text);
        return result;
    });
}

}  // extern "C"
