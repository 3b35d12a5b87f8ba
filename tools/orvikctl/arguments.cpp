#include "arguments.h"

#include <cmath>
#include <locale>
#include <sstream>

#include "cancellation.h"
#include "streams.h"

namespace {

/// Ctrl-C does not interrupt a call of the client library that waits for the service. It takes
/// effect when the call has returned or thrown.
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

/// Empty if the text is not a number from 0.001 to 1,000,000: in milliseconds the largest is below
/// INFINITE. Not std::from_chars, which not every C++ library has for floating point.
std::optional<double> ParseSeconds(const std::string& text) {
    // A stream would also take blanks, a plus sign and hexadecimal digits.
    if (text.find_first_not_of("0123456789.e+-") != std::string::npos || text.starts_with('+'))
        return std::nullopt;
    std::istringstream stream(text);
    stream.imbue(std::locale::classic());
    double seconds = 0;
    stream >> seconds;
    const bool whole = stream && stream.peek() == std::istringstream::traits_type::eof();
    if (!whole || seconds < 0.001 || seconds > 1'000'000)
        return std::nullopt;
    return seconds;
}

}  // namespace

void Inform(const Settings& settings, const std::string& message) {
    if (!settings.json)
        Say(message + "\n");
}

CLI::Option* AddTimeout(CLI::App& command, std::chrono::milliseconds& timeout) {
    return command
        .add_option_function<std::string>("-t,--timeout", Seconds("--timeout", timeout),
                                          "Time limit for the camera's answer to one command")
        ->type_name("SECONDS")
        ->default_str(
            std::to_string(std::chrono::duration_cast<std::chrono::seconds>(timeout).count()));
}

void AddCameraOptions(CLI::App& command, CameraOptions& options) {
    command
        .add_option_function<std::string>(
            "--camera", Decimal<orvik::CameraId>("--camera", options.camera),
            "Number of the camera, as printed by list (default: the only camera present)")
        ->type_name("N");
    AddTimeout(command, options.timeout);
    command.add_flag("!--no-sense", options.askForSense,
                     "Do not ask the camera for sense data when it has refused a command");
}

std::function<void(const std::string&)> Seconds(const char* name,
                                                std::chrono::milliseconds& target) {
    return [name, &target](const std::string& text) {
        const std::optional<double> seconds = ParseSeconds(text);
        if (!seconds)
            throw UsageError(std::string(name) +
                             " must be a number of seconds from 0.001 to 1000000, not \"" + text +
                             "\"");
        target = std::chrono::milliseconds(std::llround(*seconds * 1000));
    };
}

std::filesystem::path PathOf(const std::string& utf8) {
    return std::u8string(utf8.begin(), utf8.end());
}

orvik::Client Connect(const Settings& settings) {
    ThrowIfCancelled();
    orvik::ConnectOptions options;
    options.checkServer = settings.checkServer;
    options.transferOutLimit = orvik::kTransferOutLimit;  // each command limits what it sends
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
