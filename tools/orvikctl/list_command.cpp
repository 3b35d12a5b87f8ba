#include <memory>
#include <optional>
#include <vector>

#include "commands.h"
#include "error_report.h"
#include "json.h"
#include "refusal.h"
#include "transfers.h"

namespace {

struct Options {
    bool inquire = true;
    std::chrono::milliseconds timeout{5'000};
};

/// One camera, and its answer to INQUIRY.
struct Entry {
    orvik::CameraId camera;
    std::optional<orvik::Inquiry> inquiry;
    std::optional<orvik::Error> error;
    bool connectionLost = false;
};

/// Whether no further command can be sent after such an error of a command.
bool LosesConnection(orvik::ErrorKind kind) noexcept {
    return kind == orvik::ErrorKind::kServiceGone || kind == orvik::ErrorKind::kBadAnswer ||
           kind == orvik::ErrorKind::kSystem;
}

Entry Inquire(const Settings& settings, orvik::Client& client, orvik::CameraId camera,
              std::chrono::milliseconds timeout) {
    Entry entry{camera, std::nullopt, std::nullopt};
    std::optional<std::vector<std::byte>> data;
    try {
        Transfers transfers(client, camera, timeout);
        transfers.StartIn(orvik::InquiryCdb());
        data = transfers.Finish();
        entry.inquiry = orvik::DecodeInquiry(*data);
    } catch (const orvik::Error& error) {
        entry.error = error;
        entry.connectionLost = !data && LosesConnection(error.Kind());
    }
    if (entry.error && entry.error->Kind() == orvik::ErrorKind::kRefused &&
        HasGone(settings, camera))
        entry.error = CameraGone(camera);
    return entry;
}

std::string LineOf(const Entry& entry) {
    const std::string number = std::to_string(entry.camera);
    if (entry.error)
        return number + "  no answer: " + Printable(entry.error->what()) + "\n";
    return number + "  " + entry.inquiry->vendor + " " + entry.inquiry->product + " " +
           entry.inquiry->revision + "\n";
}

Json JsonOf(const Entry& entry) {
    Json json;
    json["camera"] = entry.camera;
    if (entry.error) {
        json["error"] = JsonOf(ErrorOf(*entry.error));
        return json;
    }
    json["vendor"] = entry.inquiry->vendor;
    json["product"] = entry.inquiry->product;
    json["revision"] = entry.inquiry->revision;
    return json;
}

void List(const Settings& settings, const Options& options) {
    orvik::Client client = Connect(settings);
    const std::vector<orvik::CameraId> cameras = client.Cameras();
    Json json = NewJson();
    json["cameras"] = cameras;
    if (options.inquire)
        json["details"] = Json::array();
    std::string text;
    std::optional<orvik::Error> connectionError;
    for (const orvik::CameraId camera : cameras) {
        if (!options.inquire) {
            text += std::to_string(camera) + "\n";
            continue;
        }
        const Entry entry = Inquire(settings, client, camera, options.timeout);
        text += LineOf(entry);
        json["details"].push_back(JsonOf(entry));
        if (entry.connectionLost && !connectionError)
            connectionError = entry.error;
    }
    if (settings.json)
        PrintJson(json);
    else
        Print(text);
    if (cameras.empty())
        Inform(settings, "no camera is present");
    if (connectionError)
        throw orvik::Error(*connectionError);
}

}  // namespace

void AddList(CLI::App& app, const Settings& settings) {
    auto* const command = app.add_subcommand(
        "list", "Print the number, vendor, product and revision of each camera present");
    auto options = std::make_shared<Options>();
    AddTimeout(*command, options->timeout);
    command->add_flag("!--no-inquiry", options->inquire,
                      "Print the numbers only, and send no command to a camera");
    command->callback([&settings, options] { List(settings, *options); });
}
