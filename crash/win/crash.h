#pragma once

#include <memory>
#include <string>

#include <windows.h>

#include <client/windows/crash_generation/crash_generation_server.h>
#include <client/windows/handler/exception_handler.h>

// Crash dumps: of other processes, which hand theirs to this one, and of this process itself.

/// Starts the server that writes dumps for other processes, which reach it over the pipe
/// "\\.\pipe\orvikcrashserver" with Breakpad's own protocol. A failure to start goes unreported;
/// the server then does nothing. It has threads of its own, until it is destroyed. Throws
/// std::bad_alloc.
std::unique_ptr<google_breakpad::CrashGenerationServer> StartCrashServer();

/// Has a dump written when this process crashes, and the program crashreporter.exe beside its own
/// started afterwards (see LaunchCrashReporter()). A failure is a line in the log, and leaves the
/// process without a handler. The texts are passed on to the reporter.
///
/// The dump is a small one in the temporary folder if this process is the installed service whose
/// name is the executable's base name. Otherwise the crash server is asked for a larger one.
/// Not at the same time by two threads; a handler that is there already is replaced.
/// Throws std::bad_alloc.
void SetUpCrashHandler(const std::wstring& versionText, const std::wstring& secondDescriptor);

/// Whether the service control manager runs this process as the service of that name. False too if
/// it can't be asked, which takes the rights of an administrator. Never throws.
bool IsRunningAsService(const wchar_t* serviceName) noexcept;

/// Breakpad's callback after a dump (google_breakpad::ExceptionHandler::MinidumpCallback): starts
/// the reporter without waiting for it. `dumpFolder` and `minidumpId` may be null: the crash server
/// doesn't tell them. Result: `succeeded`, but false if the reporter could not be started.
///
/// Runs in a process that is crashing, on a thread of Breakpad's: allocates nothing, unless there
/// is a failure to log.
bool LaunchCrashReporter(const wchar_t* dumpFolder, const wchar_t* minidumpId, void* context,
                         EXCEPTION_POINTERS* exception, MDRawAssertionInfo* assertion,
                         bool succeeded);
