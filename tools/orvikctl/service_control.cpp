#include "service_control.h"

#include "exit_code.h"
#include "protocol/message.h"
#include "service_record.h"

namespace {

/// Empty if it is not installed.
UniqueServiceHandle FindService(DWORD access) {
    const UniqueServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager)
        throw SystemFailure("cannot connect to the service control manager");
    UniqueServiceHandle service(::OpenServiceW(manager.get(), kServiceName, access));
    if (!service && ::GetLastError() != ERROR_SERVICE_DOES_NOT_EXIST)
        throw SystemFailure("cannot open the service OrvikService");
    return service;
}

SERVICE_STATUS_PROCESS Status() {
    const UniqueServiceHandle service = OpenInstalledService(SERVICE_QUERY_STATUS);
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    if (!::QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO,
                                reinterpret_cast<BYTE*>(&status), sizeof(status), &needed))
        throw SystemFailure("cannot query the status of the service OrvikService");
    return status;
}

using ServiceConfig = VariableRecord<QUERY_SERVICE_CONFIGW>;

ServiceConfig Config() {
    const UniqueServiceHandle service = OpenInstalledService(SERVICE_QUERY_CONFIG);
    ServiceConfig config;
    DWORD needed = 0;
    if (!::QueryServiceConfigW(service.get(), &*config, ServiceConfig::kLimit, &needed))
        throw SystemFailure("cannot query the configuration of the service OrvikService");
    return config;
}

std::string Words(DWORD state) {
    switch (state) {
        case SERVICE_STOPPED:
            return "stopped";
        case SERVICE_START_PENDING:
            return "starting";
        case SERVICE_STOP_PENDING:
            return "stopping";
        case SERVICE_RUNNING:
            return "running";
        case SERVICE_CONTINUE_PENDING:
        case SERVICE_PAUSE_PENDING:
        case SERVICE_PAUSED:
            return "paused";
    }
    return "state " + std::to_string(state);
}

}  // namespace

UniqueServiceHandle OpenInstalledService(DWORD access) {
    UniqueServiceHandle service = FindService(access);
    if (!service)
        throw Failure(ExitCode::kNotReachable, "the service OrvikService is not installed");
    return service;
}

bool IsServiceInstalled() {
    return FindService(SERVICE_QUERY_STATUS) != nullptr;
}

std::string ServiceState() {
    const SERVICE_STATUS_PROCESS status = Status();
    const std::string words = Words(status.dwCurrentState);
    if (status.dwWin32ExitCode == ERROR_SERVICE_SPECIFIC_ERROR)
        return words + ": service-specific error " +
               std::to_string(status.dwServiceSpecificExitCode);
    return SystemFailure(words, status.dwWin32ExitCode).what();
}

std::optional<DWORD> ServiceProcess() {
    const DWORD id = Status().dwProcessId;
    return id == 0 ? std::nullopt : std::optional(id);
}

std::wstring ServiceDisplayName() {
    return Config()->lpDisplayName;
}

std::string ServiceStartType() {
    const DWORD type = Config()->dwStartType;
    switch (type) {
        case SERVICE_AUTO_START:
            return "automatic";
        case SERVICE_DEMAND_START:
            return "manual";
        case SERVICE_DISABLED:
            return "disabled";
        default:
            return "type " + std::to_string(type);
    }
}

std::wstring ServiceCommandLine() {
    return Config()->lpBinaryPathName;
}

std::wstring ServiceAccount() {
    return Config()->lpServiceStartName;
}

std::vector<RecoveryAction> ServiceRecovery() {
    const UniqueServiceHandle service = OpenInstalledService(SERVICE_QUERY_CONFIG);
    VariableRecord<SERVICE_FAILURE_ACTIONSW> config;
    DWORD needed = 0;
    if (!::QueryServiceConfig2W(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS, config.Bytes(),
                                decltype(config)::kLimit, &needed))
        throw SystemFailure("cannot query the recovery actions of the service OrvikService");
    return RecoveryActionsOf(*config);
}
