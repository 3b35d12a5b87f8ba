// orvikctl: asks OrvikService for its cameras, and the cameras for what they are and hold.

#include <cstdint>
#include <exception>
#include <filesystem>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "exit_code.h"
#include "orvik/client.h"
#include "partial_file.h"
#include "read_command.h"
#include "standard_error.h"

namespace {

ExitCode ExitCodeOf(orvik::ErrorKind kind) noexcept {
    switch (kind) {
        case orvik::ErrorKind::kNotRunning:
        case orvik::ErrorKind::kBusy:
            return ExitCode::kNotReachable;
        case orvik::ErrorKind::kAccessDenied:
            return ExitCode::kAccessDenied;
        case orvik::ErrorKind::kTimedOut:
            return ExitCode::kTimedOut;
        case orvik::ErrorKind::kNoSuchCamera:
            return ExitCode::kNoSuchCamera;
        case orvik::ErrorKind::kRefused:
            return ExitCode::kRefused;
        case orvik::ErrorKind::kServiceGone:
        case orvik::ErrorKind::kBadAnswer:
        case orvik::ErrorKind::kSystem:
            return ExitCode::kTransport;
        case orvik::ErrorKind::kBadArgument:
            break;
    }
    return ExitCode::kFailure;
}

/// The camera asked for, or the only one.
orvik::CameraId ChooseCamera(const orvik::Client& client,
                             const std::optional<orvik::CameraId>& wanted) {
    if (wanted)
        return *wanted;  // the client library refuses one that is not there
    const std::vector<orvik::CameraId> cameras = client.Cameras();
    if (cameras.empty())
        throw Failure(ExitCode::kNoSuchCamera, "no camera is present");
    if (cameras.size() > 1) {
        std::string text = "several cameras are present, name one of them:";
        for (const orvik::CameraId camera : cameras)
            text += " " + std::to_string(camera);
        throw Failure(ExitCode::kUsage, text);
    }
    return cameras.front();
}

void List() {
    const orvik::Client client;
    for (const orvik::CameraId camera : client.Cameras())
        std::cout << camera << '\n';
    if (client.Cameras().empty())
        Say("no camera is present\n");
}

void Inquire(const std::optional<orvik::CameraId>& wanted) {
    orvik::Client client;
    const orvik::CameraId camera = ChooseCamera(client, wanted);
    const orvik::Inquiry inquiry =
        orvik::DecodeInquiry(client.TransferIn(camera, orvik::InquiryCdb()));
    std::cout << "vendor:      " << inquiry.vendor << '\n'
              << "product:     " << inquiry.product << '\n'
              << "revision:    " << inquiry.revision << '\n'
              << "device type: " << unsigned{inquiry.deviceType} << '\n'
              << "removable:   " << (inquiry.removable ? "yes" : "no") << '\n';
}

void Read(const std::optional<orvik::CameraId>& wanted, const ReadOptions& options) {
    orvik::Client client;
    ReadBlocks(client, ChooseCamera(client, wanted), options);
}

void Run(int argc, char** argv) {
    CLI::App app("Asks OrvikService for its cameras, and the cameras for what they are and hold.",
                 "orvikctl");
    app.require_subcommand(1);
    app.footer(
        "Exit codes: 0 done, 1 another failure, 2 wrong arguments, 3 access denied, 4 cancelled,\n"
        "5 the service is not running or busy, 6 no such camera, 7 no answer in time,\n"
        "8 refused by the camera, 9 the connection to the service failed.");

    app.add_subcommand("list", "Print the numbers of the cameras present")->callback(List);

    std::optional<orvik::CameraId> camera;
    const char* const kCameraHelp = "Number of the camera; may be left out if there is only one";

    auto* const inquiry = app.add_subcommand("inquiry", "Print what a camera says it is");
    inquiry->add_option("CAMERA", camera, kCameraHelp);
    inquiry->callback([&] { Inquire(camera); });

    auto* const read = app.add_subcommand("read", "Read blocks of a camera into a file");
    ReadOptions options;
    std::string output;
    read->add_option("CAMERA", camera, kCameraHelp);
    read->add_option("--first", options.first, "Number of the first block")->capture_default_str();
    read->add_option("--blocks", options.blocks, "How many blocks; all to the end if left out")
        ->check(CLI::PositiveNumber);
    read->add_option("-o,--output", output, "The file to write")->required();
    read->callback([&] {
        options.output = std::u8string(output.begin(), output.end());
        Read(camera, options);
    });

    try {
        app.parse(argc, argv);  // which calls the callback
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() != static_cast<int>(CLI::ExitCodes::Success))
            throw Failure(ExitCode::kUsage, std::string(error.what()) + "\nTry orvikctl --help");
        app.exit(error);  // prints the help that was asked for
    }
}

ExitCode Fail(const std::exception& error, ExitCode code) {
    Say(std::string("orvikctl: error: ") + error.what() + "\n");
    return code;
}

ExitCode RunAndReport(int argc, char** argv) {
    try {
        Run(argc, argv);
        if (!std::cout.flush())
            throw std::runtime_error("the output could not be written");
        return ExitCode::kSuccess;
    } catch (const Failure& error) {
        return Fail(error, error.Code());
    } catch (const FileError& error) {
        return Fail(error, ExitCode::kFailure);
    } catch (const orvik::Error& error) {
        return Fail(error, ExitCodeOf(error.Kind()));
    } catch (const std::exception& error) {
        return Fail(error, ExitCode::kFailure);
    }
}

}  // namespace

// The manifest makes the arguments UTF-8.
int main(int argc, char** argv) {
    return static_cast<int>(RunAndReport(argc, argv));
}
