#include "arguments.h"

#include <cmath>
#include <vector>

#include "cancellation.h"
#include "exit_code.h"

namespace {

/// Ctrl-C does not end a call of the client library that waits for the service. It counts when the
/// call has ended, however it did.
template <class Call>
auto ThenThrowIfCancelled(const Call& call) {
    try {
        auto result = call();
        ThrowIfCancelled();
        return result;
    } catch (const orvik::Error&) {
        ThrowIfCancelled();
        throw;
    }
}

}  // namespace

CLI::Option* AddCamera(CLI::App& command, std::optional<orvik::CameraId>& camera) {
    return command
        .add_option_function<std::string>(
            "CAMERA", Decimal<orvik::CameraId>(camera),
            "Number of the camera, as list prints it; may be left out if there is only one")
        ->type_name("");
}

CLI::Option* AddTimeout(CLI::App& command, std::chrono::milliseconds& timeout) {
    return command
        .add_option_function<std::string>("-t,--timeout", Seconds(timeout),
                                          "How long the camera may take for one command")
        ->type_name("SECONDS")
        ->default_str("30");
}

std::function<void(const std::string&)> Seconds(std::chrono::milliseconds& target) {
    return [&target](const std::string& text) {
        constexpr double kMost = 1'000'000;  // which fits into what Windows can wait for
        double seconds = 0;
        Decimal<double>(seconds, 0.001, kMost)(text);
        target = std::chrono::milliseconds(std::llround(seconds * 1000));
    };
}

std::filesystem::path PathOf(const std::string& utf8) {
    return std::u8string(utf8.begin(), utf8.end());
}

orvik::Client Connect(const Settings& settings) {
    ThrowIfCancelled();
    orvik::ConnectOptions options;
    options.checkServer = settings.checkServer;
    return ThenThrowIfCancelled([&options] { return orvik::Client(options); });
}

double MillisecondsOfRoundTrip(orvik::Client& client) {
    return ThenThrowIfCancelled([&client] {
        using Clock = std::chrono::steady_clock;
        const auto start = Clock::now();
        client.RoundTrip(orvik::kConnectTimeout);
        const std::chrono::duration<double, std::micro> time = Clock::now() - start;
        return std::round(time.count()) / 1000;
    });
}

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
