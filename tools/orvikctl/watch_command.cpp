#include <memory>

#include "commands.h"
#include "exit_code.h"
#include "json.h"
#include "mailbox.h"

namespace {

struct Options {
    std::optional<std::uint64_t> count;
    std::optional<std::chrono::milliseconds> timeout;
};

void Show(const Settings& settings, const orvik::Event& event) {
    const char* const what =
        event.kind == orvik::Event::Kind::kCameraAttached ? "attached" : "detached";
    if (settings.json) {
        Json json = NewJson();
        json["event"] = what;
        json["camera"] = event.camera;
        PrintJson(json);
    } else {
        Print(std::string(what) + " " + std::to_string(event.camera) + "\n");
    }
}

void ShowEvents(const Settings& settings, const Options& options) {
    using Events = Mailbox<orvik::Event>;
    std::optional<Events::Clock::time_point> deadline;
    if (options.timeout)
        deadline = Events::Clock::now() + *options.timeout;
    orvik::Client client = Connect(settings);
    // Shared, because a call of the handler may still be running when this function returns.
    const auto events = std::make_shared<Events>();
    const orvik::Subscription subscription =
        client.Subscribe([events](const orvik::Event& event) { events->Put(event); });
    for (std::uint64_t shown = 0; shown != options.count; ++shown) {
        const std::optional<orvik::Event> event = events->Take(deadline);
        if (!event)
            throw Failure(ExitCode::kTimedOut, "timed out (--timeout) after " +
                                                   std::to_string(shown) +
                                                   " lines, fewer than --count");
        if (event->kind == orvik::Event::Kind::kServiceGone)
            throw orvik::Error(orvik::ErrorKind::kServiceGone,
                               "the service has closed the connection");
        Show(settings, *event);
    }
}

void Watch(const Settings& settings, const Options& options) {
    try {
        ShowEvents(settings, options);
    } catch (const Failure& end) {
        // Without --count, these are the ordinary ways to end.
        const bool wanted = end.Code() == ExitCode::kTimedOut || end.Code() == ExitCode::kCancelled;
        if (options.count || !wanted)
            throw;
    }
}

}  // namespace

void AddWatch(CLI::App& app, const Settings& settings) {
    auto* const command = app.add_subcommand(
        "watch", "Print a line for each camera present, then for each one attached or detached");
    command->footer(
        "While no desktop program is connected, watch becomes the main communicator: it receives\n"
        "the service's notifications, and the service starts no desktop program until watch ends.\n"
        "While a desktop program is connected, that program receives the notifications, and watch\n"
        "prints only the cameras present when it starts.\n\n" +
        command->get_footer());
    auto options = std::make_shared<Options>();
    command
        ->add_option_function<std::string>("--count",
                                           Decimal<std::uint64_t>("--count", options->count, 1),
                                           "End after this number of lines")
        ->type_name("LINES");
    command
        ->add_option_function<std::string>(
            "--timeout",
            [options](const std::string& text) {
                Seconds("--timeout", options->timeout.emplace())(text);
            },
            "End after this time")
        ->type_name("SECONDS");
    command->callback([&settings, options] { Watch(settings, *options); });
}
