// ServiceMain from its start to its end, and the control handler. The test takes the calls to the
// service control manager. The status record, the checkpoints and the server's address last as long
// as the process, so each run has a process of its own, and the test compares the text that it
// leaves on standard error.
#include "service/service_main.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbt.h>

#include "device/io_operation.h"
#include "import_hook.h"
#include "output_capture.h"
#include "protocol/message.h"
#include "protocol/run_end.h"
#include "server/server.h"
#include "service/notification_window.h"
#include "virtual_camera.h"
#include "windows/unique_handle.h"

extern "C" {
extern decltype(&::SetServiceStatus) __imp_SetServiceStatus;
extern decltype(&::RegisterServiceCtrlHandlerW) __imp_RegisterServiceCtrlHandlerW;
extern decltype(&::CreateIoCompletionPort) __imp_CreateIoCompletionPort;
extern decltype(&::CreateThread) __imp_CreateThread;
extern decltype(&::CreateNamedPipeW) __imp_CreateNamedPipeW;
extern decltype(&::RaiseException) __imp_RaiseException;
extern decltype(&::SetUnhandledExceptionFilter) __imp_SetUnhandledExceptionFilter;
}

namespace {

constexpr DWORD kFailure = 5;  // last error of a call that is made to fail
constexpr int kReturned = 0;
constexpr int kFaulted = 3;

void Say(const std::string& line) {
    std::fprintf(stderr, "%s\n", line.c_str());
    std::fflush(stderr);
}

[[noreturn]] void EndProcess(int code) {
    std::fflush(stderr);
    std::_Exit(code);  // with all its threads
}

/// Without the system's message, which differs between systems.
std::string WithoutMessage(const std::string& text) {
    return text.substr(0, text.find(" ("));
}

/// The text of the C++ exception that ended the service, as a dump would have it.
std::string RecordedText(const EXCEPTION_RECORD& record) {
    if (record.NumberParameters != kRunEndedParameters)
        return "no text";
    return WithoutMessage({reinterpret_cast<const char*>(record.ExceptionInformation[kTextAddress]),
                           record.ExceptionInformation[kTextLength]});
}

/// A client that is connected and has had one answer.
UniqueHandle ConnectAndAsk() {
    UniqueHandle pipe = OwnFile(::CreateFileW(kCameraPipeName, GENERIC_READ | GENERIC_WRITE, 0,
                                              nullptr, OPEN_EXISTING, 0, nullptr));
    const MessageHeader request{kTransferNoData, 1, 0, 0};
    MessageHeader answer{};
    DWORD done = 0;
    if (!::WriteFile(pipe.get(), &request, sizeof(request), &done, nullptr) ||
        !::ReadFile(pipe.get(), &answer, sizeof(answer), &done, nullptr) ||
        answer.messageType != kTransferFailed)
        Say("the client was not served");
    return pipe;
}

enum class Failing { kNothing, kRegistration, kPort, kThread };

/// One run of ServiceMain, in a process of its own. A line for each call that it makes.
class Run {
public:
    Run(bool asService, Failing what, std::function<void(Run&)> script)
        : failing(what),
          whileRunning(std::move(script)),
          registration(
              [this](LPCWSTR name, LPHANDLER_FUNCTION handler) { return Register(name, handler); }),
          status([this](SERVICE_STATUS_HANDLE handle, SERVICE_STATUS* report) {
              return Report(handle, *report);
          }),
          portCreation([this](HANDLE file, HANDLE existing, ULONG_PTR key, DWORD threads) {
              return CreatePort(file, existing, key, threads);
          }),
          threadCreation([this](SECURITY_ATTRIBUTES* security, SIZE_T stack,
                                LPTHREAD_START_ROUTINE procedure, void* parameter, DWORD flags,
                                DWORD* id) {
              return CreateThread(security, stack, procedure, parameter, flags, id);
          }),
          pipeCreation([](const wchar_t* name, DWORD open, DWORD mode, DWORD most, DWORD out,
                          DWORD in, DWORD timeout, SECURITY_ATTRIBUTES* security) {
              if (std::wcscmp(name, kCrashPipeName) == 0)
                  Say("crash server");
              return decltype(pipeCreation)::Original(name, open, mode, most, out, in, timeout,
                                                      security);
          }),
          crashHandler([](LPTOP_LEVEL_EXCEPTION_FILTER filter) {
              Say("crash handler");
              return decltype(crashHandler)::Original(filter);
          }) {
        current = this;
        runningAsService = asService ? 1 : 0;
        ::AddVectoredExceptionHandler(1, OnFault);
    }

    /// Never returns: the process ends as the service's thread does.
    [[noreturn]] void Serve() {
        try {
            ServiceMain(0, nullptr);
            Say("returned" + State());
        } catch (const std::exception& exception) {
            Say("thrown: " + WithoutMessage(exception.what()) + State());
        }
        if (actor.joinable())
            actor.join();
        UseServerAsTheWindowThreadMay();
        if (port != nullptr)
            Say("quit packets left: " + std::to_string(QuitPacketsLeft()));
        EndProcess(kReturned);
    }

    /// For the script, which runs on a thread of its own beside the dispatcher.
    void Connect() { client = ConnectAndAsk(); }
    void Post(IoCallback callback) {
        auto operation = std::make_unique<IoOperation>(std::move(callback));
        if (::PostQueuedCompletionStatus(port, 0, 0, &operation->overlapped))
            static_cast<void>(operation.release());
    }

private:
    SERVICE_STATUS_HANDLE Register(const wchar_t* name, LPHANDLER_FUNCTION handler) {
        const bool right = std::wcscmp(name, kServiceName) == 0 && handler == ServiceCtrlHandler;
        Say(right ? "registers" : "registers something else");
        if (!Fails(Failing::kRegistration))
            return reinterpret_cast<SERVICE_STATUS_HANDLE>(this);
        return nullptr;
    }

    BOOL Report(SERVICE_STATUS_HANDLE handle, const SERVICE_STATUS& report) {
        std::array<char, 200> line{};
        std::snprintf(line.data(), line.size(),
                      "state %lu: type %lu, controls %lu, exit %lu %lu, checkpoint %lu, hint %lu",
                      report.dwCurrentState, report.dwServiceType, report.dwControlsAccepted,
                      report.dwWin32ExitCode, report.dwServiceSpecificExitCode, report.dwCheckPoint,
                      report.dwWaitHint);
        Say((handle == reinterpret_cast<SERVICE_STATUS_HANDLE>(this) ? "" : "wrong handle, ") +
            std::string(line.data()) + State());
        return TRUE;
    }

    HANDLE CreatePort(HANDLE file, HANDLE existing, ULONG_PTR key, DWORD threads) {
        if (file != INVALID_HANDLE_VALUE)
            return decltype(portCreation)::Original(file, existing, key, threads);
        const bool right = existing == nullptr && key == 0 && threads == 1;
        Say(right ? "port" : "port with other arguments");
        if (Fails(Failing::kPort))
            return nullptr;
        port = decltype(portCreation)::Original(file, existing, key, threads);
        Post([this](IoOperation* operation) {
            actor = std::thread([this] { whileRunning(*this); });
            delete operation;  // and this callable
        });
        return port;
    }

    /// The window's thread is not started: it would see every device of the machine.
    HANDLE CreateThread(SECURITY_ATTRIBUTES* security, SIZE_T stack,
                        LPTHREAD_START_ROUTINE procedure, void* parameter, DWORD flags, DWORD* id) {
        if (procedure != NotificationWindowThread)
            return decltype(threadCreation)::Original(security, stack, procedure, parameter, flags,
                                                      id);
        const bool right = security == nullptr && stack == 0 && parameter == nullptr &&
                           flags == 0 && id == nullptr;
        Say(right ? "window thread" : "window thread with other arguments");
        return Fails(Failing::kThread) ? nullptr : ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    }

    bool Fails(Failing what) const noexcept {
        if (failing == what)
            ::SetLastError(kFailure);
        return failing == what;
    }

    /// What of the service is there; while the dispatcher writes nothing.
    std::string State() const {
        std::string text = theServer.load() != nullptr ? "; server set" : "";
        if (client)
            text += ::PeekNamedPipe(client.get(), nullptr, 0, nullptr, nullptr, nullptr)
                        ? ", client connected"
                        : ", client disconnected";
        if (const std::size_t ended = output.CountOut("ServerClient shutdown.\n"))
            text += ", sessions ended: " + std::to_string(ended);
        return text;
    }

    /// That thread is never stopped, so the server's memory must be there although the server has
    /// been destroyed. On the guarded heap it would be a fault otherwise.
    static void UseServerAsTheWindowThreadMay() {
        DEV_BROADCAST_HDR record{};
        record.dbch_size = sizeof(record);
        if (Server* const server = theServer)
            server->PostDeviceEvent(DBT_DEVICEARRIVAL, &record);
    }

    std::size_t QuitPacketsLeft() const {
        std::size_t count = 0;
        DWORD bytes = 0;
        ULONG_PTR key = 0;
        for (OVERLAPPED* overlapped = nullptr;; overlapped = nullptr) {
            ::GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, 0);
            if (overlapped == nullptr)
                return count;
            count += IoOperation::FromOverlapped(overlapped)->status == IoOperation::kQuit ? 1u : 0;
        }
    }

    /// Before any handler: the one of the service would write a dump.
    static LONG CALLBACK OnFault(EXCEPTION_POINTERS* fault) {
        if (fault->ExceptionRecord->ExceptionCode != kRunEnded)
            return EXCEPTION_CONTINUE_SEARCH;
        Say("faults: " + RecordedText(*fault->ExceptionRecord) + current->State());
        EndProcess(kFaulted);
    }

    static inline Run* current = nullptr;
    Failing failing;
    std::function<void(Run&)> whileRunning;
    HANDLE port = nullptr;
    UniqueHandle client;
    std::thread actor;
    OutputCapture output;
    HookedImport<&__imp_RegisterServiceCtrlHandlerW> registration;
    HookedImport<&__imp_SetServiceStatus> status;
    HookedImport<&__imp_CreateIoCompletionPort> portCreation;
    HookedImport<&__imp_CreateThread> threadCreation;
    HookedImport<&__imp_CreateNamedPipeW> pipeCreation;
    HookedImport<&__imp_SetUnhandledExceptionFilter> crashHandler;
};

/// Starts ServiceMain and, once the dispatcher runs, the script on a thread beside it. Ends the
/// process.
[[noreturn]] void Serve(bool asService, Failing failing, std::function<void(Run&)> script) {
    Run run(asService, failing, std::move(script));
    run.Serve();
}

/// A client, every control but stop, and two stops before the first quit packet can be taken.
void BeStoppedTwice(Run& run) {
    run.Connect();
    for (DWORD control = 0; control < 256; ++control) {
        if (control != SERVICE_CONTROL_STOP)
            ServiceCtrlHandler(control);
    }
    const HANDLE stopped = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    run.Post([stopped](IoOperation* operation) {
        ::WaitForSingleObject(stopped, INFINITE);
        delete operation;
    });
    ServiceCtrlHandler(SERVICE_CONTROL_STOP);
    ServiceCtrlHandler(SERVICE_CONTROL_STOP);
    ::SetEvent(stopped);
}

/// As nothing in the service does it in the foreground.
void Quit(Run& run) {
    run.Connect();
    theServer.load()->PostQuit();
}

/// Has a handler throw `exception`.
template <typename Exception>
void Throw(Run& run, const Exception& exception) {
    run.Connect();
    run.Post([exception](IoOperation* operation) {
        const std::unique_ptr<IoOperation> owner(operation);  // and it owns this callback
        throw Exception(exception);
    });
}

void FailInAHandler(Run& run) {
    Throw(run, std::runtime_error("from a handler"));
}

const ::testing::ExitedWithCode kHasReturned(kReturned);
const ::testing::ExitedWithCode kHasFaulted(kFaulted);

/// All of standard error.
::testing::Matcher<const std::string&> Is(const std::string& text) {
    return {text};
}

/// How each run as a service begins, up to the creation of the port.
const std::string kServiceStart =
    "crash server\n"
    "registers\n"
    "crash handler\n"
    "state 2: type 16, controls 0, exit 0 0, checkpoint 1, hint 3000\n"
    "port\n";

/// Serves until a handler throws `exception`.
template <typename Exception>
void ServeAndThrow(const Exception& exception) {
    Serve(true, Failing::kNothing, [&](Run& run) { Throw(run, exception); });
}

TEST(ServiceMain, ReportsItsStatesAndBeingStoppedBeforeAnythingIsTakenDown) {
    vcam::Bus().UnplugAll();
    EXPECT_EXIT(Serve(true, Failing::kNothing, BeStoppedTwice), kHasReturned,
                Is(kServiceStart +
                   "window thread\n"
                   "state 4: type 16, controls 1, exit 0 0, checkpoint 0, hint 0; server set\n"
                   "state 3: type 16, controls 1, exit 0 0, checkpoint 2, hint 0; server set, "
                   "client connected\n"
                   "state 3: type 16, controls 1, exit 0 0, checkpoint 3, hint 0; server set, "
                   "client connected\n"
                   "state 1: type 16, controls 1, exit 0 0, checkpoint 0, hint 0; server set, "
                   "client connected\n"
                   "returned; server set, client disconnected, sessions ended: 1\n"
                   "quit packets left: 1\n"));
}

TEST(ServiceMain, InTheForegroundReportsNothing) {
    vcam::Bus().UnplugAll();
    EXPECT_EXIT(Serve(false, Failing::kNothing, Quit), kHasReturned,
                Is("crash server\n"
                   "port\n"
                   "window thread\n"
                   "returned; server set, client disconnected, sessions ended: 1\n"
                   "quit packets left: 0\n"));
}

TEST(ServiceMain, FailedStartEndsTheServiceWithoutAReportOfStopped) {
    EXPECT_EXIT(Serve(true, Failing::kRegistration, Quit), kHasFaulted,
                Is("crash server\n"
                   "registers\n"
                   "faults: RegisterServiceCtrlHandler() failed.  GetLastError() = 0x5\n"));
    EXPECT_EXIT(
        Serve(true, Failing::kPort, Quit), kHasFaulted,
        Is(kServiceStart + "crash handler\n"  // the old one goes, the new one is installed
                           "crash handler\n"
                           "faults: CreateIoCompletionPort() failed.  GetLastError() = 0x5\n"));
    EXPECT_EXIT(Serve(true, Failing::kThread, Quit), kHasFaulted,
                Is(kServiceStart + "window thread\n"
                                   "crash handler\n"
                                   "crash handler\n"
                                   "faults: CreateThread() failed.  GetLastError() = 0x5\n"));
}

TEST(ServiceMain, FailedStartInTheForegroundIsThrown) {
    EXPECT_EXIT(Serve(false, Failing::kPort, Quit), kHasReturned,
                Is("crash server\n"
                   "port\n"
                   "thrown: CreateIoCompletionPort() failed.  GetLastError() = 0x5\n"));
    EXPECT_EXIT(Serve(false, Failing::kThread, Quit), kHasReturned,
                Is("crash server\n"
                   "port\n"
                   "window thread\n"
                   "thrown: CreateThread() failed.  GetLastError() = 0x5\n"
                   "quit packets left: 0\n"));
}

TEST(ServiceMain, FailureOfAHandlerEndsTheServiceOnceTheServerIsDestroyed) {
    vcam::Bus().UnplugAll();
    EXPECT_EXIT(Serve(true, Failing::kNothing, FailInAHandler), kHasFaulted,
                Is(kServiceStart +
                   "window thread\n"
                   "state 4: type 16, controls 1, exit 0 0, checkpoint 0, hint 0; server set\n"
                   "crash handler\n"
                   "crash handler\n"
                   "faults: from a handler; server set, client disconnected, "
                   "sessions ended: 1\n"));
}

TEST(ServiceMain, TextOfTheExceptionThatEndsTheServiceIsCutOffAt1024Bytes) {
    vcam::Bus().UnplugAll();
    const std::string text(1024, 'x');
    EXPECT_EXIT(ServeAndThrow(std::runtime_error(text)), kHasFaulted, "faults: " + text + ";");
    EXPECT_EXIT(ServeAndThrow(std::runtime_error(text + "y")), kHasFaulted,
                "faults: " + text + ";");
}

TEST(ServiceMain, ExceptionOfAnotherTypeEndsTheServiceWithoutAText) {
    vcam::Bus().UnplugAll();
    EXPECT_EXIT(ServeAndThrow(5), kHasFaulted, "faults: ;");
}

// RaiseException returns under Wine 10 when its debugger is on.
TEST(ServiceMain, FailureOfAHandlerEndsTheProcessAlsoWhenRaisingTheFaultReturns) {
    vcam::Bus().UnplugAll();
    const auto serve = [] {
        using Raise = HookedImport<&__imp_RaiseException>;
        const Raise raise([](DWORD code, DWORD flags, DWORD count, const ULONG_PTR* arguments) {
            if (code == kRunEnded)
                Say("raised");
            else
                Raise::Original(code, flags, count, arguments);  // a C++ exception
        });
        Serve(true, Failing::kNothing, FailInAHandler);
    };
    EXPECT_EXIT(serve(), ::testing::ExitedWithCode(static_cast<int>(kRunEnded)), "raised\n$");
}

TEST(ServiceMain, FailureOfAHandlerInTheForegroundIsThrownOnceTheServerIsDestroyed) {
    vcam::Bus().UnplugAll();
    EXPECT_EXIT(Serve(false, Failing::kNothing, FailInAHandler), kHasReturned,
                Is("crash server\n"
                   "port\n"
                   "window thread\n"
                   "thrown: from a handler; server set, client disconnected, sessions ended: 1\n"
                   "quit packets left: 0\n"));
}

}  // namespace
