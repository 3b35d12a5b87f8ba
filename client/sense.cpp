// Sense data, which explains why a camera refused a command. Calls no Windows function.

#include "orvik/client.h"

#include <algorithm>
#include <iterator>

namespace orvik {

namespace {

// In the first byte of sense data, without its highest bit.
constexpr std::uint8_t kFixed = 0x70;
constexpr std::uint8_t kDeferredFixed = 0x71;
constexpr std::uint8_t kDescriptors = 0x72;
constexpr std::uint8_t kDeferredDescriptors = 0x73;

/// Of the fixed format, up to and with the field that counts the bytes that follow; and of the
/// format with descriptors.
constexpr std::size_t kHeaderLength = 8;

// The words are those of SPC-4: the table "sense key descriptions", and annex "numeric order
// codes", from which these are the codes that disks, CD-ROM drives and their bridges to USB report.

constexpr const char* kKeys[] = {
    "NO SENSE",       "RECOVERED ERROR", "NOT READY",      "MEDIUM ERROR",
    "HARDWARE ERROR", "ILLEGAL REQUEST", "UNIT ATTENTION", "DATA PROTECT",
    "BLANK CHECK",    "VENDOR SPECIFIC", "COPY ABORTED",   "ABORTED COMMAND",
    "RESERVED",       "VOLUME OVERFLOW", "MISCOMPARE",     "COMPLETED",
};
static_assert(std::size(kKeys) == 16);

struct Code {
    unsigned number;  // additional sense code, and its qualifier in the lower byte
    const char* text;
};

constexpr Code kCodes[] = {
    {0x0000, "NO ADDITIONAL SENSE INFORMATION"},
    {0x0006, "I/O PROCESS TERMINATED"},
    {0x0016, "OPERATION IN PROGRESS"},
    {0x0200, "NO SEEK COMPLETE"},
    {0x0300, "PERIPHERAL DEVICE WRITE FAULT"},
    {0x0400, "LOGICAL UNIT NOT READY, CAUSE NOT REPORTABLE"},
    {0x0401, "LOGICAL UNIT IS IN PROCESS OF BECOMING READY"},
    {0x0402, "LOGICAL UNIT NOT READY, INITIALIZING COMMAND REQUIRED"},
    {0x0403, "LOGICAL UNIT NOT READY, MANUAL INTERVENTION REQUIRED"},
    {0x0404, "LOGICAL UNIT NOT READY, FORMAT IN PROGRESS"},
    {0x0407, "LOGICAL UNIT NOT READY, OPERATION IN PROGRESS"},
    {0x0408, "LOGICAL UNIT NOT READY, LONG WRITE IN PROGRESS"},
    {0x0409, "LOGICAL UNIT NOT READY, SELF-TEST IN PROGRESS"},
    {0x0412, "LOGICAL UNIT NOT READY, OFFLINE"},
    {0x0500, "LOGICAL UNIT DOES NOT RESPOND TO SELECTION"},
    {0x0800, "LOGICAL UNIT COMMUNICATION FAILURE"},
    {0x0801, "LOGICAL UNIT COMMUNICATION TIME-OUT"},
    {0x0802, "LOGICAL UNIT COMMUNICATION PARITY ERROR"},
    {0x0B00, "WARNING"},
    {0x0B01, "WARNING - SPECIFIED TEMPERATURE EXCEEDED"},
    {0x0C00, "WRITE ERROR"},
    {0x0C02, "WRITE ERROR - AUTO REALLOCATION FAILED"},
    {0x1000, "ID CRC OR ECC ERROR"},
    {0x1100, "UNRECOVERED READ ERROR"},
    {0x1101, "READ RETRIES EXHAUSTED"},
    {0x1102, "ERROR TOO LONG TO CORRECT"},
    {0x1105, "L-EC UNCORRECTABLE ERROR"},
    {0x1106, "CIRC UNRECOVERED ERROR"},
    {0x1200, "ADDRESS MARK NOT FOUND FOR ID FIELD"},
    {0x1300, "ADDRESS MARK NOT FOUND FOR DATA FIELD"},
    {0x1400, "RECORDED ENTITY NOT FOUND"},
    {0x1401, "RECORD NOT FOUND"},
    {0x1500, "RANDOM POSITIONING ERROR"},
    {0x1501, "MECHANICAL POSITIONING ERROR"},
    {0x1502, "POSITIONING ERROR DETECTED BY READ OF MEDIUM"},
    {0x1600, "DATA SYNCHRONIZATION MARK ERROR"},
    {0x1700, "RECOVERED DATA WITH NO ERROR CORRECTION APPLIED"},
    {0x1701, "RECOVERED DATA WITH RETRIES"},
    {0x1800, "RECOVERED DATA WITH ERROR CORRECTION APPLIED"},
    {0x1A00, "PARAMETER LIST LENGTH ERROR"},
    {0x1B00, "SYNCHRONOUS DATA TRANSFER ERROR"},
    {0x1D00, "MISCOMPARE DURING VERIFY OPERATION"},
    {0x2000, "INVALID COMMAND OPERATION CODE"},
    {0x2100, "LOGICAL BLOCK ADDRESS OUT OF RANGE"},
    {0x2102, "INVALID ADDRESS FOR WRITE"},
    {0x2400, "INVALID FIELD IN CDB"},
    {0x2500, "LOGICAL UNIT NOT SUPPORTED"},
    {0x2600, "INVALID FIELD IN PARAMETER LIST"},
    {0x2601, "PARAMETER NOT SUPPORTED"},
    {0x2602, "PARAMETER VALUE INVALID"},
    {0x2700, "WRITE PROTECTED"},
    {0x2701, "HARDWARE WRITE PROTECTED"},
    {0x2702, "LOGICAL UNIT SOFTWARE WRITE PROTECTED"},
    {0x2800, "NOT READY TO READY CHANGE, MEDIUM MAY HAVE CHANGED"},
    {0x2900, "POWER ON, RESET, OR BUS DEVICE RESET OCCURRED"},
    {0x2901, "POWER ON OCCURRED"},
    {0x2902, "SCSI BUS RESET OCCURRED"},
    {0x2903, "BUS DEVICE RESET FUNCTION OCCURRED"},
    {0x2904, "DEVICE INTERNAL RESET"},
    {0x2A00, "PARAMETERS CHANGED"},
    {0x2A01, "MODE PARAMETERS CHANGED"},
    {0x2C00, "COMMAND SEQUENCE ERROR"},
    {0x2F00, "COMMANDS CLEARED BY ANOTHER INITIATOR"},
    {0x3000, "INCOMPATIBLE MEDIUM INSTALLED"},
    {0x3001, "CANNOT READ MEDIUM - UNKNOWN FORMAT"},
    {0x3002, "CANNOT READ MEDIUM - INCOMPATIBLE FORMAT"},
    {0x3100, "MEDIUM FORMAT CORRUPTED"},
    {0x3101, "FORMAT COMMAND FAILED"},
    {0x3200, "NO DEFECT SPARE LOCATION AVAILABLE"},
    {0x3700, "ROUNDED PARAMETER"},
    {0x3900, "SAVING PARAMETERS NOT SUPPORTED"},
    {0x3A00, "MEDIUM NOT PRESENT"},
    {0x3A01, "MEDIUM NOT PRESENT - TRAY CLOSED"},
    {0x3A02, "MEDIUM NOT PRESENT - TRAY OPEN"},
    {0x3D00, "INVALID BITS IN IDENTIFY MESSAGE"},
    {0x3E00, "LOGICAL UNIT HAS NOT SELF-CONFIGURED YET"},
    {0x3E01, "LOGICAL UNIT FAILURE"},
    {0x3F00, "TARGET OPERATING CONDITIONS HAVE CHANGED"},
    {0x3F01, "MICROCODE HAS BEEN CHANGED"},
    {0x3F03, "INQUIRY DATA HAS CHANGED"},
    {0x4300, "MESSAGE ERROR"},
    {0x4400, "INTERNAL TARGET FAILURE"},
    {0x4500, "SELECT OR RESELECT FAILURE"},
    {0x4700, "SCSI PARITY ERROR"},
    {0x4800, "INITIATOR DETECTED ERROR MESSAGE RECEIVED"},
    {0x4900, "INVALID MESSAGE ERROR"},
    {0x4A00, "COMMAND PHASE ERROR"},
    {0x4B00, "DATA PHASE ERROR"},
    {0x4C00, "LOGICAL UNIT FAILED SELF-CONFIGURATION"},
    {0x4E00, "OVERLAPPED COMMANDS ATTEMPTED"},
    {0x5300, "MEDIA LOAD OR EJECT FAILED"},
    {0x5302, "MEDIUM REMOVAL PREVENTED"},
    {0x5500, "SYSTEM RESOURCE FAILURE"},
    {0x5700, "UNABLE TO RECOVER TABLE-OF-CONTENTS"},
    {0x5A00, "OPERATOR REQUEST OR STATE CHANGE INPUT"},
    {0x5A01, "OPERATOR MEDIUM REMOVAL REQUEST"},
    {0x5D00, "FAILURE PREDICTION THRESHOLD EXCEEDED"},
    {0x5E00, "LOW POWER CONDITION ON"},
    {0x6300, "END OF USER AREA ENCOUNTERED ON THIS TRACK"},
    {0x6400, "ILLEGAL MODE FOR THIS TRACK"},
    {0x6500, "VOLTAGE FAULT"},
};
static_assert(std::is_sorted(std::begin(kCodes), std::end(kCodes),
                             [](const Code& a, const Code& b) { return a.number < b.number; }));

/// "3Ah"
std::string Hex(std::uint8_t value) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    return {kDigits[value >> 4], kDigits[value & 0xF], 'h'};
}

std::string CodeText(std::uint8_t code, std::uint8_t qualifier) {
    const unsigned number = code * 0x100u + qualifier;
    const Code* const found =
        std::lower_bound(std::begin(kCodes), std::end(kCodes), number,
                         [](const Code& entry, unsigned value) { return entry.number < value; });
    if (found != std::end(kCodes) && found->number == number)
        return found->text;
    if (code == 0x40 && qualifier >= 0x80)
        return "DIAGNOSTIC FAILURE ON COMPONENT " + Hex(qualifier);
    const bool vendorSpecific = code >= 0x80 || qualifier >= 0x80;
    return (vendorSpecific ? "VENDOR SPECIFIC CODE " : "CODE ") + Hex(code) + "/" + Hex(qualifier);
}

}  // namespace

Sense DecodeSense(std::span<const std::byte> data) {
    if (data.size() < kHeaderLength)
        throw Error(ErrorKind::kBadAnswer,
                    "the camera's sense data has " + std::to_string(data.size()) +
                        " bytes; it must have at least " + std::to_string(kHeaderLength));
    const auto byteAt = [data](std::size_t index) {
        return index < data.size() ? std::to_integer<std::uint8_t>(data[index]) : std::uint8_t{0};
    };
    const std::uint8_t format = byteAt(0) & 0x7F;
    Sense sense{};
    switch (format) {
        case kFixed:
        case kDeferredFixed: {
            sense.key = byteAt(2) & 0xF;
            const std::size_t length = kHeaderLength + byteAt(7);
            sense.code = length > 12 ? byteAt(12) : std::uint8_t{0};
            sense.qualifier = length > 13 ? byteAt(13) : std::uint8_t{0};
            break;
        }
        case kDescriptors:
        case kDeferredDescriptors:
            sense.key = byteAt(1) & 0xF;
            sense.code = byteAt(2);
            sense.qualifier = byteAt(3);
            break;
        default:
            throw Error(ErrorKind::kBadAnswer,
                        "the camera's sense data has the unknown format " + Hex(format));
    }
    sense.deferred = format == kDeferredFixed || format == kDeferredDescriptors;
    sense.text = std::string(kKeys[sense.key]) + ": " + CodeText(sense.code, sense.qualifier);
    return sense;
}

}  // namespace orvik
