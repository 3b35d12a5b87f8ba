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
    // Shared, because a call of the handler may still be ending when this function is left.
    const auto events = std::make_shared<Events>();
    const orvik::Subscription subscription =
        client.Subscribe([events](const orvik::Event& event) { events->Put(event); });
    for (std::uint64_t shown = 0; shown != options.count; ++shown) {
        const std::optional<orvik::Event> event = events->Take(deadline);
        if (!event)
            throw Failure(ExitCode::kTimedOut, "the time is over");
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
        // The ways to end a watch that doesn't wait for a number of lines.
        const bool wanted = end.Code() == ExitCode::kTimedOut || end.Code() == ExitCode::kCancelled;
        if (options.count || !wanted)
            throw;
    }
}

}  // namespace

void AddWatch(CLI::App& app, const Settings& settings) {
    auto* const command = app.add_subcommand(
        "watch", "Print a line for each camera present, then one for each that comes or goes");
    command->footer(
        "While no desktop program is connected, this one takes its place as the main\n"
        "communicator: the service tells it of cameras, and starts no desktop program until it\n"
        "ends. While a desktop program is connected, that one is told, and this one sees only the\n"
        "cameras present.\n\n" +
        command->get_footer());
    auto options = std::make_shared<Options>();
    command
        ->add_option_function<std::string>("--count", Decimal<std::uint64_t>(options->count, 1),
                                           "End after so many lines")
        ->type_name("LINES");
    command
        ->add_option_function<std::string>(
            "--timeout",
            [options](const std::string& text) { Seconds(options->timeout.emplace())(text); },
            "End after this time")
        ->type_name("SECONDS");
    command->callback([&settings, options] { Watch(settings, *options); });
}
