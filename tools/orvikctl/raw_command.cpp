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

/// The service puts the data of a request into its memory, and ends its run if there is not enough.
/// No camera takes so much with one command.
constexpr std::uint32_t kSendLimit = 16 * 1024 * 1024;

struct Options {
    std::vector<std::string> words;  // [CAMERA] CDB...
    std::optional<std::uint32_t> receive;
    std::optional<std::uint32_t> send;
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
        throw Failure(ExitCode::kUsage,
                      "\"" + word + "\" is no byte of a command, which is two hex digits");
    unsigned value = 0;
    std::from_chars(word.data(), word.data() + word.size(), value, 16);
    return static_cast<std::byte>(value);
}

/// A byte always has two digits. So if the first word has one digit, or more than two, it is the
/// camera.
Command CommandOf(const std::vector<std::string>& words) {
    Command command;
    auto word = words.begin();
    if (word->size() != 2)
        Decimal<orvik::CameraId>(command.camera)(*word++);
    std::transform(word, words.end(), std::back_inserter(command.cdb), ByteOf);
    const std::size_t size = command.cdb.size();
    if (size == 0 || size > orvik::kCdbLimit)
        throw Failure(ExitCode::kUsage, "a command has 1 to " + std::to_string(orvik::kCdbLimit) +
                                            " bytes, not " + std::to_string(size));
    // Nothing is lost by this: the service fills commands up with zeros to 8 bytes.
    if (size == 7)
        throw Failure(ExitCode::kUsage,
                      "no SCSI command has 7 bytes. If the first of them is meant to be the "
                      "camera, write it with three digits: 0" +
                          words.front());
    return command;
}

std::vector<std::byte> ReadInput(const Options& options) {
    InputFile file = options.input.empty() ? InputFile() : InputFile(PathOf(options.input));
    std::vector<std::byte> data = file.Read(*options.send);
    if (data.size() != *options.send)
        throw Failure(ExitCode::kFailure, "only " + std::to_string(data.size()) +
                                              " bytes to send, not " +
                                              std::to_string(*options.send));
    return data;
}

std::string Count(std::size_t bytes) {
    return std::to_string(bytes) + " bytes";
}

void Raw(const Settings& settings, const Options& options) {
    const Command command = CommandOf(options.words);
    // Before the service is asked: these can take time, and fail.
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
        std::string talk = "the camera returned " + Count(received.size());
        if (received.size() > *options.receive) {
            received.resize(*options.receive);
            talk += ", the first " + Count(received.size()) + " are taken";
        }
        Say(talk + "\n");
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
        Say("done\n");
    }
    if (settings.json)
        PrintJson(json);
}

}  // namespace

void AddRaw(CLI::App& app, const Settings& settings) {
    auto* const command = app.add_subcommand("raw", "Carry one SCSI command to a camera");
    command->footer(
        "CDB are the 1 to 8 bytes of the command, each of exactly two hex digits. A first word\n"
        "of another length is the camera: write 012 for camera 12.\n\n" +
        command->get_footer());
    auto options = std::make_shared<Options>();
    auto* const direction = command->add_option_group("Data");
    auto* const receive =
        direction
            ->add_option_function<std::string>(
                "-r,--receive",
                Decimal<std::uint32_t>(options->receive, 1,
                                       static_cast<std::uint32_t>(orvik::kTransferInLimit)),
                "Take up to LEN bytes from the camera")
            ->type_name("LEN");
    auto* const send = direction
                           ->add_option_function<std::string>(
                               "-s,--send", Decimal<std::uint32_t>(options->send, 1, kSendLimit),
                               "Send LEN bytes to the camera")
                           ->type_name("LEN");
    direction->add_flag("-n,--no-data")->description("Neither");
    direction->require_option(1);
    command->add_option("-i,--input", options->input, "The bytes to send; else standard input")
        ->type_name("FILE")
        ->needs(send);
    command
        ->add_option("-o,--output", options->output,
                     "For the bytes from the camera. Else they go to standard output, to a console "
                     "as a hex dump")
        ->type_name("FILE")
        ->needs(receive);
    AddTimeout(*command, options->timeout);
    command->add_option("CDB", options->words, "[CAMERA] CDB...")->type_name("")->required();
    command->callback([&settings, options] { Raw(settings, *options); });
}
