#include <memory>

#include "camera_use.h"
#include "commands.h"
#include "json.h"

namespace {

void Inquire(const Settings& settings, const CameraOptions& options) {
    orvik::CameraId camera = 0;
    std::vector<std::byte> data;
    UseCamera(settings, options, [&](Transfers& transfers, orvik::CameraId chosen) {
        camera = chosen;
        transfers.StartIn(orvik::InquiryCdb());
        data = transfers.Finish();
    });
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
    auto options = std::make_shared<CameraOptions>();
    AddCameraOptions(*command, *options);
    command->callback([&settings, options] { Inquire(settings, *options); });
}
