#include <memory>

#include "commands.h"
#include "json.h"
#include "transfers.h"

namespace {

struct Options {
    std::optional<orvik::CameraId> camera;
    std::chrono::milliseconds timeout = orvik::kTransferTimeout;
};

void Inquire(const Settings& settings, const Options& options) {
    orvik::Client client = Connect(settings);
    const orvik::CameraId camera = ChooseCamera(client, options.camera);
    Transfers transfers(client, camera, options.timeout);
    transfers.StartIn(orvik::InquiryCdb());
    const std::vector<std::byte> data = transfers.Finish();
    const orvik::Inquiry inquiry = orvik::DecodeInquiry(data);
    if (settings.json) {
        Json json = NewJson();
        json["camera"] = camera;
        json["vendor"] = inquiry.vendor;
        json["product"] = inquiry.product;
        json["revision"] = inquiry.revision;
        json["device_type"] = inquiry.deviceType;
        json["removable"] = inquiry.removable;
        json["data"] = Hex(data);
        PrintJson(json);
        return;
    }
    Print("vendor:      " + inquiry.vendor + "\nproduct:     " + inquiry.product +
          "\nrevision:    " + inquiry.revision +
          "\ndevice type: " + std::to_string(inquiry.deviceType) +
          "\nremovable:   " + (inquiry.removable ? "yes" : "no") + "\n");
}

}  // namespace

void AddInquiry(CLI::App& app, const Settings& settings) {
    auto* const command =
        app.add_subcommand("inquiry", "Print the vendor, product and revision of a camera");
    auto options = std::make_shared<Options>();
    AddCamera(*command, options->camera);
    AddTimeout(*command, options->timeout);
    command->callback([&settings, options] { Inquire(settings, *options); });
}
