// Kinds of virtual cameras, and how they answer.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include <windows.h>

#include "virtual_camera.h"

/// The interface class of tapes: storage, but none that the service looks at.
/// {53F5630B-B6BF-11D0-94F2-00A0C91EFB8B}
inline constexpr GUID kTapeInterface = {
    0x53f5630b, 0xb6bf, 0x11d0, {0x94, 0xf2, 0x00, 0xa0, 0xc9, 0x1e, 0xfb, 0x8b}};

// One choice that differs from the default each.
inline vcam::PlugOptions WithClass(const GUID& interfaceClass) {
    vcam::PlugOptions options;
    options.interfaceClass = interfaceClass;
    return options;
}
inline vcam::PlugOptions WithProduct(const std::string& product) {
    vcam::PlugOptions options;
    options.product = product;
    return options;
}
inline vcam::PlugOptions WithVendor(const std::string& vendor) {
    vcam::PlugOptions options;
    options.vendor = vendor;
    return options;
}

/// For a test whose transfers are longer than most host adapters allow.
inline vcam::PlugOptions WithTransferLimit(std::uint32_t bytes) {
    vcam::PlugOptions options;
    options.transferLimit = bytes;
    return options;
}

// The ways in which a request can end, from <ntstatus.h>, which doesn't go with <windows.h>.
inline constexpr auto kStatusIoDeviceError = static_cast<vcam::NtStatus>(0xC0000185);   // 1117
inline constexpr auto kStatusCancelled = static_cast<vcam::NtStatus>(0xC0000120);       // 995
inline constexpr auto kStatusBufferOverflow = static_cast<vcam::NtStatus>(0x80000005);  // 234

// One departure from an ordinary camera each.
inline vcam::Behaviour FailsAtOnce(vcam::NtStatus status) {
    vcam::Behaviour behaviour;
    behaviour.immediateStatus = status;
    return behaviour;
}
inline vcam::Behaviour CompletesWith(vcam::NtStatus status) {
    vcam::Behaviour behaviour;
    behaviour.completionStatus = status;
    return behaviour;
}
/// As Windows' CD-ROM driver while a command runs.
inline vcam::Behaviour BlocksTheCaller(std::chrono::milliseconds time) {
    vcam::Behaviour behaviour;
    behaviour.block = time;
    return behaviour;
}
inline vcam::Behaviour AnswersScsiStatus(std::uint8_t status) {
    vcam::Behaviour behaviour;
    behaviour.scsiStatus = status;
    return behaviour;
}
inline vcam::Behaviour Holds() {
    vcam::Behaviour behaviour;
    behaviour.hold = true;
    return behaviour;
}
