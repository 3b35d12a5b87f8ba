#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "arguments.h"
#include "commands.h"
#include "memory_files.h"
#include "virtual_camera.h"

namespace {

struct Arguments {
    vcam::CameraId id = 0;
    unsigned scsiStatus = 0;
    std::uint32_t completionStatus = 0;
    std::uint32_t immediateStatus = 0;
    std::uint32_t block = 0;
    std::uint32_t delay = 0;
    bool hold = false;
    bool ignoreCancel = false;
    std::optional<std::uint32_t> maximumData;
    std::optional<std::uint32_t> returned;
    std::optional<std::uint32_t> descriptorHeader;
    std::optional<std::uint32_t> descriptorBytes;
    std::string descriptor;
};

void Behave(const Arguments& given) {
    vcam::Behaviour behaviour;
    behaviour.scsiStatus = static_cast<std::uint8_t>(given.scsiStatus);
    behaviour.completionStatus = static_cast<vcam::NtStatus>(given.completionStatus);
    behaviour.immediateStatus = static_cast<vcam::NtStatus>(given.immediateStatus);
    behaviour.block = std::chrono::milliseconds(given.block);
    behaviour.delay = std::chrono::milliseconds(given.delay);
    behaviour.hold = given.hold;
    behaviour.ignoreCancel = given.ignoreCancel;
    behaviour.maximumDataBytes = given.maximumData;
    behaviour.returnedBytes = given.returned;
    behaviour.descriptorHeaderBytes = given.descriptorHeader;
    behaviour.descriptorBytes = given.descriptorBytes;
    if (!given.descriptor.empty())
        behaviour.descriptor = ReadFile(given.descriptor);
    vcam::Bus().SetBehaviour(given.id, behaviour);
}

}  // namespace

void AddBehave(CLI::App& app) {
    auto* const command = app.add_subcommand(
        "behave", "Set the answers to later requests of a camera (no option: ordinary answers)");
    auto arguments = std::make_shared<Arguments>();
    Arguments& a = *arguments;
    AddCamera(*command, a.id)->required();
    command->add_option("--scsi-status", a.scsiStatus, "SCSI status of every command")
        ->check(NumberFrom(0U, 255U));
    const CLI::Validator anyNumber =
        NumberFrom(std::uint32_t{0}, std::numeric_limits<std::uint32_t>::max());
    command
        ->add_option("--completion-status", a.completionStatus,
                     "NTSTATUS that completes every request after it was pended")
        ->check(anyNumber);
    command
        ->add_option("--immediate-status", a.immediateStatus,
                     "NTSTATUS with which every request fails at once")
        ->check(anyNumber);
    command
        ->add_option("--block", a.block,
                     "Milliseconds for which the driver's dispatch routine waits first, and the "
                     "caller with it")
        ->check(NumberFrom(std::uint32_t{0}, std::uint32_t{3'600'000}));
    // 0xFFFFFFFF is no delay that the control library accepts.
    command->add_option("--delay", a.delay, "Milliseconds for which every request is pended")
        ->check(NumberFrom(std::uint32_t{0}, std::numeric_limits<std::uint32_t>::max() - 1));
    command->add_flag("--hold", a.hold, "Pend every request until it is released");
    command->add_flag("--ignore-cancel", a.ignoreCancel, "Pended requests cannot be cancelled");
    command->add_option("--max-data", a.maximumData, "Most data bytes of an answer")
        ->check(anyNumber);
    command->add_option("--returned", a.returned, "Byte count that every request returns")
        ->check(anyNumber);
    command
        ->add_option("--descriptor-header", a.descriptorHeader,
                     "Most bytes of the answer to the 8-byte descriptor query")
        ->check(anyNumber);
    command
        ->add_option("--descriptor-bytes", a.descriptorBytes,
                     "Most bytes of the answer to the query of the whole descriptor")
        ->check(anyNumber);
    command->add_option("--descriptor", a.descriptor, "File with the bytes of the descriptor");
    command->callback([arguments] { Behave(*arguments); });
}
