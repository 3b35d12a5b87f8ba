#include <algorithm>
#include <memory>
#include <span>

#include "camera_use.h"
#include "cdb.h"
#include "command_line.h"
#include "commands.h"
#include "exit_code.h"
#include "input_file.h"
#include "json.h"
#include "output.h"

namespace {

/// Most bytes that -s sends by itself: many host adapters refuse a longer command, and the service
/// then gives the camera up until it is plugged again.
constexpr std::uint32_t kOrdinarySendLimit = 64 * 1024;

/// The service copies the data of a request into its memory, and ends its run if that fails.
/// No camera accepts this much with one command.
constexpr std::uint32_t kSendLimit = 16 * 1024 * 1024;

struct Options : CameraOptions {
    std::vector<std::string> cdb;
    std::optional<std::uint32_t> receive;
    std::optional<std::uint32_t> send;
    bool noData = false;
    bool large = false;  // --send may exceed kOrdinarySendLimit
    std::string input;
    std::string output;
};

/// The arguments of this process, in order.
std::vector<std::string> CommandLine() {
    std::vector<std::string> words = ReversedArguments();
    std::reverse(words.begin(), words.end());
    return words;
}

std::vector<std::byte> ReadInput(const Options& options) {
    const bool standardInput = options.input.empty() || options.input == "-";
    InputFile file = standardInput ? InputFile() : InputFile(PathOf(options.input));
    std::vector<std::byte> data = file.Read(*options.send);
    if (data.size() != *options.send)
        throw Failure(ExitCode::kFailure, "cannot send " + std::to_string(*options.send) +
                                              " bytes: " + file.Name() + " has only " +
                                              std::to_string(data.size()));
    return data;
}

std::string Count(std::size_t bytes) {
    return std::to_string(bytes) + " bytes";
}

/// Sends the command and returns the data that it received.
std::vector<std::byte> Send(Transfers& transfers, const Options& options,
                            std::span<const std::byte> cdb, std::span<const std::byte> data) {
    if (options.receive)
        transfers.StartIn(cdb);
    else if (options.send)
        transfers.StartOut(cdb, data);
    else
        transfers.StartNoData(cdb);
    return transfers.Finish();
}

void Raw(const Settings& settings, const Options& options) {
    const std::vector<std::byte> cdb = ParseCdb(options.cdb, CommandLine());
    const int directions =
        (options.receive ? 1 : 0) + (options.send ? 1 : 0) + (options.noData ? 1 : 0);
    if (directions != 1)
        throw UsageError("exactly one of --receive, --send and --no-data must be given, not " +
                         std::to_string(directions));
    if (options.send > kOrdinarySendLimit && !options.large)
        throw UsageError("--send must be at most " + std::to_string(kOrdinarySendLimit) +
                         " without --allow-large, because many host adapters refuse a longer "
                         "command, and the service then gives the camera up");
    // Before connecting to the service, because these can take time, and can fail.
    std::vector<std::byte> data;
    if (options.send)
        data = ReadInput(options);
    std::optional<Output> output;
    if (!options.output.empty())
        output.emplace(settings, options.output);

    Json json = NewJson();
    std::vector<std::byte> received;
    UseCamera(settings, options, [&](Transfers& transfers, orvik::CameraId camera) {
        json["camera"] = camera;
        received = Send(transfers, options, cdb, data);
    });

    if (options.receive) {
        std::string message = "the camera returned " + Count(received.size());
        if (received.size() > *options.receive) {
            received.resize(*options.receive);
            message += ", of which the first " + std::to_string(received.size()) + " are kept";
        }
        Inform(settings, message);
        json["bytes_received"] = received.size();
        if (output) {
            output->Write(received);
            output->Commit();
        } else if (settings.json) {
            json["data"] = Hex(received);
        } else if (StandardOutputIsTerminal()) {
            PrintHexDump(received);
        } else {
            PrintBytes(received);
        }
    } else if (options.send) {
        json["bytes_sent"] = data.size();
        Inform(settings, "sent " + Count(data.size()));
    } else {
        Inform(settings, "command completed");
    }
    if (settings.json)
        PrintJson(json);
}

}  // namespace

void AddRaw(CLI::App& app, const Settings& settings) {
    auto* const command = app.add_subcommand("raw", "Send one SCSI command to a camera");
    command->footer(
        "CDB is the command: bytes of exactly two hexadecimal digits each. The service passes on\n"
        "the first 8; a command of 10, 12 or 16 bytes can be sent if those beyond the first 8\n"
        "are 00.\n\n" +
        command->get_footer());
    auto options = std::make_shared<Options>();
    auto* const receive =
        command
            ->add_option_function<std::string>(
                "-r,--receive",
                Decimal<std::uint32_t>("--receive", options->receive, 1,
                                       static_cast<std::uint32_t>(orvik::kTransferInLimit)),
                "Receive up to LEN bytes from the camera, at most 65536")
            ->type_name("LEN");
    auto* const send =
        command
            ->add_option_function<std::string>(
                "-s,--send", Decimal<std::uint32_t>("--send", options->send, 1, kSendLimit),
                "Send LEN bytes to the camera, at most 65536")
            ->type_name("LEN");
    command
        ->add_flag("--allow-large", options->large,
                   "Allow up to 16777216 bytes with -s; many host adapters refuse such a command")
        ->needs(send);
    command->add_flag("-n,--no-data", options->noData, "Transfer no data");
    command
        ->add_option("-i,--input", options->input,
                     "File with the bytes to send (default: standard input)")
        ->type_name("FILE")
        ->needs(send);
    command
        ->add_option("-o,--output", options->output,
                     "File for the received bytes (default: standard output, as a hex dump if that "
                     "is a console)")
        ->type_name("FILE")
        ->needs(receive);
    AddCameraOptions(*command, *options);
    command->add_option("CDB", options->cdb, "Bytes of the command")->type_name("")->required();
    command->callback([&settings, options] { Raw(settings, *options); });
}
