// The camera as a SCSI device: a small direct-access unit backed by memory. Uses no kernel
// function; the caller passes checked buffers and serializes the calls.
#pragma once

#include <cstdint>

namespace vcam {

inline constexpr std::uint8_t kScsiGood = 0x00;
inline constexpr std::uint8_t kScsiCheckCondition = 0x02;

/// Direction of the data phase, with the values of SCSI_PASS_THROUGH.DataIn.
enum class DataPhase : std::uint8_t { kOut = 0, kIn = 1, kNone = 2 };

/// One command with the buffer of its data phase.
struct ScsiCommand {
    std::uint8_t cdb[16];  // bytes that were not sent are 0
    DataPhase phase;
    std::uint8_t* data;        // not owned; `dataLength` bytes
    std::uint32_t dataLength;  // most bytes to transfer
};

struct ScsiResult {
    std::uint8_t status;        // kScsiGood or kScsiCheckCondition
    std::uint32_t transferred;  // bytes of the data phase
};

/// The unit. Blocks have 512 bytes. Commands: TEST UNIT READY, REQUEST SENSE, READ(6), WRITE(6),
/// INQUIRY, READ CAPACITY(10); every other one ends with CHECK CONDITION. The sense data of the
/// last CHECK CONDITION is kept until REQUEST SENSE has read it.
struct ScsiUnit {
    static constexpr std::uint32_t kBlockBytes = 512;

    std::uint8_t* memory;      // not owned; blockCount * kBlockBytes bytes
    std::uint32_t blockCount;  // at least 1
    char vendor[8];            // padded with spaces, as are the next two
    char product[16];
    char revision[4];
    std::uint8_t senseKey;  // 0: nothing to report
    std::uint8_t additionalSense;

    /// Carries out one command. A transfer is cut to the command's buffer: a READ(6) of 256
    /// blocks into 65536 bytes transfers those.
    ScsiResult Execute(const ScsiCommand& command);

private:
    ScsiResult Fail(std::uint8_t key, std::uint8_t additional);
    ScsiResult Answer(const ScsiCommand& command, const std::uint8_t* bytes, std::uint32_t length,
                      std::uint32_t allocationLength);
    ScsiResult ReadOrWrite(const ScsiCommand& command, DataPhase phase);
    ScsiResult Inquiry(const ScsiCommand& command);
    ScsiResult RequestSense(const ScsiCommand& command);
    ScsiResult ReadCapacity(const ScsiCommand& command);
};

}  // namespace vcam
