// vcamctl: the command line of the virtual cameras.

#include <windows.h>

#include <objbase.h>
#include <shellapi.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "driver_setup.h"
#include "virtual_camera.h"
#include "windows/unique_handle.h"
#include "windows/unique_memory.h"

namespace {

/// `what` and `name` begin the text of the exception.
[[noreturn]] void FailLast(const char* what, const std::string& name = {}) {
    const DWORD error = ::GetLastError();
    throw std::system_error(static_cast<int>(error), std::system_category(), what + name);
}

/// The largest camera memory: what the driver allows.
constexpr std::size_t kMemoryLimit = std::size_t{131072} * vcam::kBlockSize;

std::wstring Wide(const std::string& utf8) {
    if (utf8.empty())
        return {};
    const int bytes = static_cast<int>(utf8.size());
    const int length =
        ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), bytes, nullptr, 0);
    if (length == 0)
        throw std::runtime_error("not a valid UTF-8 text");
    std::wstring wide(static_cast<std::size_t>(length), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), bytes, wide.data(), length);
    return wide;
}

std::string Utf8(const std::wstring& wide) {
    if (wide.empty())
        return {};
    const int characters = static_cast<int>(wide.size());
    const int length =
        ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), characters, nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<std::size_t>(length), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), characters, utf8.data(), length, nullptr,
                          nullptr);
    return utf8;
}

/// The arguments without the program's name, last one first as CLI::App::parse() wants them.
std::vector<std::string> ReversedArguments() {
    int count = 0;
    const std::unique_ptr<LPWSTR, LocalFreer> arguments(
        ::CommandLineToArgvW(::GetCommandLineW(), &count));
    if (!arguments)
        FailLast("cannot read the command line");
    std::vector<std::string> reversed;
    for (int i = count - 1; i > 0; --i)
        reversed.push_back(Utf8(arguments.get()[i]));
    return reversed;
}

GUID ParseClass(const std::string& name) {
    if (name == "cdrom")
        return vcam::kCdromInterface;
    if (name == "disk")
        return vcam::kDiskInterface;
    GUID guid = {};
    if (FAILED(::CLSIDFromString(Wide(name).c_str(), &guid)))
        throw std::runtime_error("the interface class is cdrom, disk or a GUID in braces");
    return guid;
}

std::string ClassName(const GUID& guid) {
    if (::IsEqualGUID(guid, vcam::kCdromInterface))
        return "cdrom";
    if (::IsEqualGUID(guid, vcam::kDiskInterface))
        return "disk";
    std::array<wchar_t, 40> text = {};
    ::StringFromGUID2(guid, text.data(), static_cast<int>(text.size()));
    return Utf8(text.data());
}

std::vector<std::byte> ReadFile(const std::string& path) {
    const std::wstring name = Wide(path);
    const UniqueHandle file =
        OwnFile(::CreateFileW(name.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        FailLast("cannot open ", path);
    // One byte more than any memory holds, so that a larger file is noticed.
    std::vector<std::byte> bytes(kMemoryLimit + 1);
    DWORD count = 0;
    if (!::ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr))
        FailLast("cannot read ", path);
    bytes.resize(count);
    return bytes;
}

void WriteFile(const std::string& path, const std::vector<std::byte>& bytes) {
    const std::wstring name = Wide(path);
    const UniqueHandle file = OwnFile(::CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr,
                                                    CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        FailLast("cannot create ", path);
    DWORD count = 0;
    if (!::WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr))
        FailLast("cannot write ", path);
}

vcam::CameraInfo FindCamera(vcam::Bus& bus, vcam::CameraId id) {
    for (vcam::CameraInfo& camera : bus.List()) {
        if (camera.id == id)
            return std::move(camera);
    }
    throw std::runtime_error("there is no camera " + std::to_string(id));
}

void CheckFits(const std::vector<std::byte>& bytes, std::uint32_t blockCount) {
    if (bytes.size() > std::uint64_t{blockCount} * vcam::kBlockSize)
        throw std::runtime_error("the file is larger than the camera's memory (" +
                                 std::to_string(blockCount) + " blocks of 512 bytes)");
}

void HexDump(const std::vector<std::byte>& bytes) {
    for (std::size_t offset = 0; offset < bytes.size(); offset += 16) {
        const std::size_t count = std::min<std::size_t>(16, bytes.size() - offset);
        std::string hex;
        std::string text;
        for (std::size_t i = 0; i < count; ++i) {
            const auto value = std::to_integer<unsigned>(bytes[offset + i]);
            std::array<char, 4> digits = {};
            std::snprintf(digits.data(), digits.size(), "%02x ", value);
            hex += digits.data();
            text += value >= 0x20 && value < 0x7f ? static_cast<char>(value) : '.';
        }
        std::printf("  %06zx  %-48s %s\n", offset, hex.c_str(), text.c_str());
    }
}

std::string Quoted(const std::optional<std::string>& text) {
    return text ? "\"" + *text + "\"" : "(none)";
}

// --- one function per subcommand adds it to the command line ---

void AddInstall(CLI::App& app) {
    auto* const command = app.add_subcommand("install", "Install the driver and its bus device");
    auto inf = std::make_shared<std::string>();
    command->add_option("--inf", *inf, "The driver's INF file (default: beside this program)");
    command->callback([inf] {
        std::wstring path = Wide(*inf);
        if (path.empty()) {
            std::array<wchar_t, 32768> program = {};
            if (::GetModuleFileNameW(nullptr, program.data(), static_cast<DWORD>(program.size())) ==
                0)
                FailLast("cannot find this program");
            path = program.data();
            path.replace(path.find_last_of(L'\\') + 1, std::wstring::npos, L"orvikvcam.inf");
        }
        // The set-up functions want the whole path.
        std::array<wchar_t, 32768> full = {};
        if (::GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(),
                               nullptr) == 0)
            FailLast("bad path of the INF file");
        vcam::InstallDriver(full.data());
    });
}

void AddUninstall(CLI::App& app) {
    app.add_subcommand("uninstall", "Unplug all cameras and remove the driver")->callback([] {
        vcam::UninstallDriver();
    });
}

/// A camera that does not get its memory has not been plugged: nobody would know its id.
void WriteMemoryOrUnplug(vcam::Bus& bus, vcam::CameraId id, const std::vector<std::byte>& memory) {
    try {
        bus.WriteMemory(id, 0, memory);
    } catch (const std::exception&) {
        try {
            bus.Unplug(id);
        } catch (const std::system_error&) {
            // Why the memory could not be written says more.
        }
        throw;
    }
}

void AddPlug(CLI::App& app) {
    struct Arguments {
        vcam::PlugOptions plug;
        std::string vendor = *vcam::PlugOptions().vendor;
        std::string product = *vcam::PlugOptions().product;
        std::string revision = *vcam::PlugOptions().revision;
        std::vector<std::string> absent;
        std::string interfaceClass = "cdrom";
        std::string instance;
        std::string memory;
    };
    auto* const command = app.add_subcommand("plug", "Plug a camera and print its id");
    auto arguments = std::make_shared<Arguments>();
    Arguments& a = *arguments;
    command->add_option("--vendor", a.vendor, "Vendor string")->capture_default_str();
    command->add_option("--product", a.product, "Product string")->capture_default_str();
    command->add_option("--revision", a.revision, "Revision string")->capture_default_str();
    command->add_option("--absent", a.absent, "Strings that the descriptor does not have")
        ->check(CLI::IsMember({"vendor", "product", "revision"}));
    command->add_option("--class", a.interfaceClass, "cdrom, disk or a {GUID}")
        ->capture_default_str();
    command->add_option("--blocks", a.plug.blockCount, "Memory in blocks of 512 bytes")
        ->capture_default_str();
    command->add_option("--memory", a.memory, "File to fill the memory from");
    command->add_option("--instance", a.instance, "Instance id, a part of the device path");
    command->callback([arguments] {
        Arguments& given = *arguments;
        const auto unlessAbsent = [&](const char* name, const std::string& text) {
            const bool absent =
                std::find(given.absent.begin(), given.absent.end(), name) != given.absent.end();
            return absent ? std::nullopt : std::optional(text);
        };
        given.plug.vendor = unlessAbsent("vendor", given.vendor);
        given.plug.product = unlessAbsent("product", given.product);
        given.plug.revision = unlessAbsent("revision", given.revision);
        given.plug.interfaceClass = ParseClass(given.interfaceClass);
        given.plug.instanceId = Wide(given.instance);
        std::vector<std::byte> memory;
        if (!given.memory.empty()) {
            memory = ReadFile(given.memory);
            CheckFits(memory, given.plug.blockCount);
        }
        vcam::Bus bus;
        const vcam::CameraId id = bus.Plug(given.plug);
        if (!memory.empty())
            WriteMemoryOrUnplug(bus, id, memory);
        std::printf("%u\n", id);
    });
}

void AddUnplug(CLI::App& app) {
    auto* const command = app.add_subcommand("unplug", "Unplug one camera, or all");
    auto id = std::make_shared<vcam::CameraId>(0);
    auto all = std::make_shared<bool>(false);
    auto* const one = command->add_option("id", *id, "The camera");
    auto* const every = command->add_flag("--all", *all, "All cameras");
    one->excludes(every);
    command->callback([id, all] {
        if (!*all && *id == 0)
            throw std::runtime_error("unplug needs the id of a camera, or --all");
        vcam::Bus bus;
        if (*all)
            bus.UnplugAll();
        else
            bus.Unplug(*id);
    });
}

void AddList(CLI::App& app) {
    app.add_subcommand("list", "List the plugged cameras")->callback([] {
        vcam::Bus bus;
        for (const vcam::CameraInfo& camera : bus.List()) {
            const vcam::PlugOptions& plug = camera.options;
            const vcam::CameraCounters counters = bus.Counters(camera.id);
            std::printf("%u  %s  %s %s %s  %u blocks\n", camera.id,
                        ClassName(plug.interfaceClass).c_str(), Quoted(plug.vendor).c_str(),
                        Quoted(plug.product).c_str(), Quoted(plug.revision).c_str(),
                        plug.blockCount);
            std::printf("   %s\n", Utf8(bus.InterfacePath(camera.id)).c_str());
            std::printf("   %llu requests, %u pending, %llu handles open\n", counters.requests,
                        counters.pending, counters.opens - counters.closes);
        }
    });
}

void AddBehave(CLI::App& app) {
    struct Arguments {
        vcam::CameraId id = 0;
        unsigned scsiStatus = 0;
        std::uint32_t completionStatus = 0;
        std::uint32_t immediateStatus = 0;
        std::uint32_t delay = 0;
        bool hold = false;
        bool ignoreCancel = false;
        std::optional<std::uint32_t> maximumData;
        std::optional<std::uint32_t> returned;
        std::optional<std::uint32_t> descriptorHeader;
        std::optional<std::uint32_t> descriptorBytes;
        std::string descriptor;
    };
    auto* const command = app.add_subcommand(
        "behave", "Set how a camera treats requests from now on (no option: as usual)");
    auto arguments = std::make_shared<Arguments>();
    Arguments& a = *arguments;
    command->add_option("id", a.id, "The camera")->required();
    command->add_option("--scsi-status", a.scsiStatus, "SCSI status of every command")
        ->check(CLI::Range(0, 255));
    command->add_option("--completion-status", a.completionStatus,
                        "NTSTATUS that completes every request after it was pended");
    command->add_option("--immediate-status", a.immediateStatus,
                        "NTSTATUS with which every request fails at once");
    command->add_option("--delay", a.delay, "Milliseconds that every request is pended");
    command->add_flag("--hold", a.hold, "Requests are pended until they are released");
    command->add_flag("--ignore-cancel", a.ignoreCancel, "Pended requests cannot be cancelled");
    command->add_option("--max-data", a.maximumData, "The most data bytes of an answer");
    command->add_option("--returned", a.returned, "Count of bytes every request returns");
    command->add_option("--descriptor-header", a.descriptorHeader,
                        "The most bytes of an answer to the 8-byte descriptor query");
    command->add_option("--descriptor-bytes", a.descriptorBytes,
                        "The most bytes of an answer to the whole descriptor query");
    command->add_option("--descriptor", a.descriptor, "File with the bytes of the descriptor");
    command->callback([arguments] {
        const Arguments& given = *arguments;
        vcam::Behaviour behaviour;
        behaviour.scsiStatus = static_cast<std::uint8_t>(given.scsiStatus);
        behaviour.completionStatus = static_cast<vcam::NtStatus>(given.completionStatus);
        behaviour.immediateStatus = static_cast<vcam::NtStatus>(given.immediateStatus);
        behaviour.delay = std::chrono::milliseconds(given.delay);
        behaviour.hold = given.hold;
        behaviour.ignoreCancel = given.ignoreCancel;
        behaviour.maximumDataBytes = given.maximumData;
        behaviour.returnedBytes = given.returned;
        behaviour.descriptorHeaderBytes = given.descriptorHeader;
        behaviour.descriptorBytes = given.descriptorBytes;
        if (!given.descriptor.empty())
            behaviour.descriptor = ReadFile(given.descriptor);
        vcam::Bus().SetBehaviour(given.id, behaviour);
    });
}

void AddRelease(CLI::App& app) {
    auto* const command = app.add_subcommand("release", "End held requests");
    auto id = std::make_shared<vcam::CameraId>(0);
    auto sequenceNumber = std::make_shared<std::optional<std::uint64_t>>();
    command->add_option("id", *id, "The camera")->required();
    command->add_option("sequence", *sequenceNumber, "Only this request (default: all held)");
    command->callback([id, sequenceNumber] {
        vcam::Bus bus;
        if (*sequenceNumber)
            bus.Release(*id, **sequenceNumber);
        else
            bus.ReleaseAll(*id);
    });
}

void AddRequests(CLI::App& app) {
    auto* const command =
        app.add_subcommand("requests", "Show the last requests of a camera as they came");
    auto id = std::make_shared<vcam::CameraId>(0);
    auto count = std::make_shared<std::uint32_t>(8);
    command->add_option("id", *id, "The camera")->required();
    command->add_option("--count", *count, "How many, at most 64")->capture_default_str();
    command->callback([id, count] {
        for (const vcam::Request& request : vcam::Bus().LastRequests(*id, *count)) {
            std::printf("request %llu: input %u bytes, output %u bytes\n", request.sequenceNumber,
                        request.inputLength, request.outputLength);
            HexDump(request.block);
        }
    });
}

void AddLoadAndSave(CLI::App& app) {
    struct Arguments {
        vcam::CameraId id = 0;
        std::string file;
    };
    auto arguments = std::make_shared<Arguments>();
    auto* const load = app.add_subcommand("load", "Fill a camera's memory from a file");
    auto* const save = app.add_subcommand("save", "Write a camera's memory to a file");
    for (CLI::App* const command : {load, save}) {
        command->add_option("id", arguments->id, "The camera")->required();
        command->add_option("file", arguments->file, "The file")->required();
    }
    load->callback([arguments] {
        vcam::Bus bus;
        const std::vector<std::byte> bytes = ReadFile(arguments->file);
        CheckFits(bytes, FindCamera(bus, arguments->id).options.blockCount);
        bus.WriteMemory(arguments->id, 0, bytes);
    });
    save->callback([arguments] {
        vcam::Bus bus;
        const std::uint32_t blocks = FindCamera(bus, arguments->id).options.blockCount;
        WriteFile(arguments->file,
                  bus.ReadMemory(arguments->id, 0, std::size_t{blocks} * vcam::kBlockSize));
    });
}

}  // namespace

int main() {
    ::SetConsoleOutputCP(CP_UTF8);
    CLI::App app("Virtual cameras for tests", "vcamctl");
    app.require_subcommand(1);
    app.allow_windows_style_options(false);  // a path may begin with a slash
    AddInstall(app);
    AddUninstall(app);
    AddPlug(app);
    AddUnplug(app);
    AddList(app);
    AddBehave(app);
    AddRelease(app);
    AddRequests(app);
    AddLoadAndSave(app);
    try {
        app.parse(ReversedArguments());
        return EXIT_SUCCESS;
    } catch (const CLI::ParseError& error) {
        return app.exit(error);  // prints the help or what is wrong with the command line
    } catch (const std::system_error& error) {
        std::fprintf(stderr, "vcamctl: %s (error %d)\n", error.what(), error.code().value());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vcamctl: %s\n", error.what());
    }
    return EXIT_FAILURE;
}
