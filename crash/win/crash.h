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
/// started afterwards (see LaunchCrashReporter()). The texts are passed on to the reporter.
///
/// The dump is a small one in the temporary folder if this process is the installed service whose
/// name is the executable's base name. Otherwise the crash server is asked for a larger one; if
/// none answers now, this process writes it to Orvik\Crash Reports in the local application data.
///
/// A handler that is installed already is replaced. A failure is a record in the log; then there is
/// no new handler, and one that was installed before stays.
/// Thread: one at a time. Throws std::bad_alloc; then no handler may be installed.
void SetUpCrashHandler(const std::wstring& versionText, const std::wstring& secondDescriptor);

/// Registers the handler anew if it asks a crash server for its dumps: for a process whose own
/// crash server has been destroyed, and with it the handler's registration. The handler then asks
/// the server that answers now, or else writes the dump itself. Without memory there is no handler
/// afterwards. Thread: as SetUpCrashHandler(). Never throws.
void RenewCrashHandler() noexcept;

/// Whether the service control manager runs this process as the service of that name. Also false
/// if the service control manager refuses to answer: the query needs the rights of an
/// administrator. Never throws.
bool IsRunningAsService(const wchar_t* serviceName) noexcept;

/// Breakpad's callback after a dump (google_breakpad::ExceptionHandler::MinidumpCallback): starts
/// the reporter without waiting for it. `dumpFolder` and `minidumpId` are null when a crash server
/// has written the dump: it does not pass them on. Returns `succeeded`, but false if the reporter
/// could not be started.
///
/// Runs in a process that is crashing: on Breakpad's handler thread if this process has written the
/// dump, on the crashing thread if a crash server has. Allocates nothing, unless there is a failure
/// to log.
bool LaunchCrashReporter(const wchar_t* dumpFolder, const wchar_t* minidumpId, void* context,
                         EXCEPTION_POINTERS* exception, MDRawAssertionInfo* assertion,
                         bool succeeded);
