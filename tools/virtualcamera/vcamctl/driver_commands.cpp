#include <array>
#include <memory>
#include <string>

#include <windows.h>

#include "commands.h"
#include "driver_setup.h"
#include "failure.h"
#include "windows/utf.h"

namespace {

using LongPath = std::array<wchar_t, 32768>;

/// The INF file beside this program.
std::wstring DefaultInf() {
    const auto program = std::make_unique<LongPath>();
    if (::GetModuleFileNameW(nullptr, program->data(), static_cast<DWORD>(program->size())) == 0)
        FailLast("cannot determine the path of this program");
    std::wstring path = program->data();
    path.replace(path.find_last_of(L'\\') + 1, std::wstring::npos, L"orvikvcam.inf");
    return path;
}

/// The set-up functions require a full path.
std::wstring FullPath(const std::wstring& path) {
    const auto full = std::make_unique<LongPath>();
    if (::GetFullPathNameW(path.c_str(), static_cast<DWORD>(full->size()), full->data(), nullptr) ==
        0)
        FailLast("cannot determine the full path of " + ToUtf8(path));
    return full->data();
}

}  // namespace

void AddInstall(CLI::App& app) {
    auto* const command = app.add_subcommand("install", "Install the driver and its bus device");
    auto inf = std::make_shared<std::string>();
    command->add_option("--inf", *inf,
                        "INF file of the driver (default: orvikvcam.inf beside this program)");
    command->callback(
        [inf] { vcam::InstallDriver(inf->empty() ? DefaultInf() : FullPath(ToUtf16(*inf))); });
}

void AddUninstall(CLI::App& app) {
    app.add_subcommand("uninstall", "Unplug all cameras and remove the driver")->callback([] {
        vcam::UninstallDriver();
    });
}
