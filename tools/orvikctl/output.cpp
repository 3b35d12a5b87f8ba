#include "output.h"

#include "exit_code.h"
#include "streams.h"

Output::Place Output::PlaceOf(const std::string& argument) {
    if (argument == "-")
        return Place::kStandardOutput;
    return IsNullDevice(PathOf(argument)) ? Place::kNowhere : Place::kFile;
}

Output::Output(const Settings& settings, const std::string& argument) : place(PlaceOf(argument)) {
    if (place == Place::kFile)
        file.emplace(PathOf(argument));
    if (place != Place::kStandardOutput)
        return;
    if (settings.json)
        throw UsageError("--output - cannot be combined with --json, which uses standard output");
    if (StandardOutputIsTerminal())
        throw UsageError("--output - needs a file or a pipe as standard output, not a console");
}

void Output::RequireSpace(std::uint64_t bytes) const {
    if (file)
        file->RequireSpace(bytes);
}

void Output::Write(std::span<const std::byte> bytes) {
    if (file)
        file->Write(bytes);
    else if (place == Place::kStandardOutput)
        PrintBytes(bytes);
}

void Output::Commit() {
    if (file)
        file->Commit();
}
