#include <algorithm>
#include <cctype>
#include <charconv>
#include <memory>

#include "commands.h"
#include "exit_code.h"
#include "input_file.h"
#include "json.h"
#include "partial_file.h"
#include "transfers.h"

namespace {

/// Most bytes that -s sends by itself: many host adapters refuse a longer command, and the service
/// then gives the camera up until it is plugged again.
constexpr std::uint32_t kOrdinarySendLimit = 64 * 1024;

/// The service copies the data of a request into its memory, and ends its run if that fails.
/// No camera accepts this much with one command.
constexpr std::uint32_t kSendLimit = 16 * 1024 * 1024;

struct Options {
    std::vector<std::string> words;  // [CAMERA] CDB...
    std::optional<std::uint32_t> receive;
    std::optional<std::uint32_t> send;
    bool large = false;  // --send may exceed kOrdinarySendLimit
    std::string input;
    std::string output;
    std::chrono::milliseconds timeout = orvik::kTransferTimeout;
};

struct Command {
    std::optional<orvik::CameraId> camera;
    std::vector<std::byte> cdb;
};

bool HasTwoHexDigits(const std::string& word) {
    return word.size() == 2 &&
           std::all_of(word.begin(), word.end(), [](unsigned char c) { return std::isxdigit(c); });
}

std::byte ByteOf(const std::string& word) {
    if (!HasTwoHexDigits(word))
        throw Failure(
            ExitCode::kUsage,
            "CDB must consist of bytes of two hexadecimal digits each, not \"" + word + "\"");
    unsigned value = 0;
    std::from_chars(word.data(), word.data() + word.size(), value, 16);
    return static_cast<std::byte>(value);
}

/// A byte always has two digits. So a first word with one digit, or with more than two, is the
/// camera.
Command CommandOf(const std::vector<std::string>& words) {
    Command command;
    auto word = words.begin();
    if (word->size() != 2)
        command.camera = ParseCamera(*word++);
    std::transform(word, words.end(), std::back_inserter(command.cdb), ByteOf);
    const std::size_t size = command.cdb.size();
    if (size == 0 || size > orvik::kCdbLimit)
        throw Failure(ExitCode::kUsage, "CDB must have 1 to " + std::to_string(orvik::kCdbLimit) +
                                            " bytes, not " + std::to_string(size));
    // The user can still send such a command: the service pads commands with zeros to 8 bytes.
    if (size == 7)
        throw Failure(ExitCode::kUsage,
                      "CDB has 7 bytes, but no SCSI command has. If the first word is meant as "
                      "CAMERA, write it with three digits: 0" +
                          words.front());
    return command;
}

std::vector<std::byte> ReadInput(const Options& options) {
    InputFile file = options.input.empty() ? InputFile() : InputFile(PathOf(options.input));
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

void Raw(const Settings& settings, const Options& options) {
    const Command command = CommandOf(options.words);
    if (options.send > kOrdinarySendLimit && !options.large)
        throw Failure(ExitCode::kUsage,
                      "--send must be at most " + std::to_string(kOrdinarySendLimit) +
                          " without --allow-large, because many host adapters refuse a longer "
                          "command, and the service then gives the camera up");
    // Before connecting to the service, because these can take time, and can fail.
    std::vector<std::byte> data;
    if (options.send)
        data = ReadInput(options);
    std::optional<PartialFile> file;
    if (!options.output.empty())
        file.emplace(PathOf(options.output));

    orvik::Client client = Connect(settings);
    const orvik::CameraId camera = ChooseCamera(client, command.camera);
    Transfers transfers(client, camera, options.timeout);
    if (options.receive)
        transfers.StartIn(command.cdb);
    else if (options.send)
        transfers.StartOut(command.cdb, data);
    else
        transfers.StartNoData(command.cdb);
    std::vector<std::byte> received = transfers.Finish();

    Json json = NewJson();
    json["camera"] = camera;
    if (options.receive) {
        std::string message = "the camera returned " + Count(received.size());
        if (received.size() > *options.receive) {
            received.resize(*options.receive);
            message += ", of which the first " + std::to_string(received.size()) + " are kept";
        }
        Say(message + "\n");
        json["bytes_received"] = received.size();
        if (file) {
            file->Write(received);
            file->Commit();
        } else if (settings.json) {
            json["data"] = Hex(received);
        } else if (StandardOutputIsTerminal()) {
            PrintHexDump(received);
        } else {
            PrintBytes(received);
        }
    } else if (options.send) {
        json["bytes_sent"] = data.size();
        Say("sent " + Count(data.size()) + "\n");
    } else {
        Say("command completed\n");
    }
    if (settings.json)
        PrintJson(json);
}

}  // namespace

void AddRaw(CLI::App& app, const Settings& settings) {
    auto* const command = app.add_subcommand("raw", "Send one SCSI command to a camera");
    command->footer(
        "CDB is the command: 1 to 8 bytes of exactly two hexadecimal digits each. A first word of\n"
        "another length is taken as CAMERA: write 012 for camera 12.\n\n" +
        command->get_footer());
    auto options = std::make_shared<Options>();
    auto* const direction = command->add_option_group("Data");
    auto* const receive =
        direction
            ->add_option_function<std::string>(
                "-r,--receive",
                Decimal<std::uint32_t>("--receive", options->receive, 1,
                                       static_cast<std::uint32_t>(orvik::kTransferInLimit)),
                "Receive up to LEN bytes from the camera, at most 65536")
            ->type_name("LEN");
    auto* const send =
        direction
            ->add_option_function<std::string>(
                "-s,--send", Decimal<std::uint32_t>("--send", options->send, 1, kSendLimit),
                "Send LEN bytes to the camera, at most 65536")
            ->type_name("LEN");
    command
        ->add_flag("--allow-large", options->large,
                   "Allow up to 16777216 bytes with -s; many host adapters refuse such a command")
        ->needs(send);
    direction->add_flag("-n,--no-data")->description("Transfer no data");
    direction->require_option(1);
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
    AddTimeout(*command, options->timeout);
    command->add_option("CDB", options->words, "[CAMERA] CDB...")->type_name("")->required();
    command->callback([&settings, options] { Raw(settings, *options); });
}
