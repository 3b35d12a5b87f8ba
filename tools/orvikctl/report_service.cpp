#include <filesystem>
#include <string>
#include <system_error>

#include <windows.h>

#include "exit_code.h"
#include "facts.h"
#include "protocol/message.h"
#include "report_parts.h"
#include "server/application_path.h"
#include "service_control.h"
#include "service_folders.h"
#include "service_record.h"
#include "windows/utf.h"

namespace {

/// One of the records that QueryServiceConfig2W gives.
template <class Record>
VariableRecord<Record> Query(DWORD level, const char* name) {
    const UniqueServiceHandle service = OpenInstalledService(SERVICE_QUERY_CONFIG);
    VariableRecord<Record> record;
    DWORD needed = 0;
    if (!::QueryServiceConfig2W(service.get(), level, record.Bytes(),
                                VariableRecord<Record>::kLimit, &needed))
        throw SystemFailure(std::string("cannot query the ") + name +
                            " of the service OrvikService");
    return record;
}

}  // namespace

void ReportService(ReportFolder& folder) {
    Json json = NewJson();
    json["installed"] = IsServiceInstalled();
    json["name"] = ToUtf8(kServiceName);
    AddFact(json, "display_name", [] { return ToUtf8(ServiceDisplayName()); });
    AddFact(json, "command_line", [] { return ToUtf8(ServiceCommandLine()); });
    AddFact(json, "account", [] { return ToUtf8(ServiceAccount()); });
    AddFact(json, "start_type", ServiceStartType);
    AddFact(json, "delayed_start", [] {
        return Query<SERVICE_DELAYED_AUTO_START_INFO>(SERVICE_CONFIG_DELAYED_AUTO_START_INFO,
                                                      "delayed start")
                   ->fDelayedAutostart != FALSE;
    });
    AddFact(json, "state", ServiceState);
    AddFact(json, "recovery", [] { return JsonOf(ServiceRecovery()); });
    AddFact(json, "recovery_reset_seconds", [] {
        return Query<SERVICE_FAILURE_ACTIONSW>(SERVICE_CONFIG_FAILURE_ACTIONS, "recovery actions")
            ->dwResetPeriod;
    });
    AddFact(json, "recovery_without_crash", [] {
        return Query<SERVICE_FAILURE_ACTIONS_FLAG>(SERVICE_CONFIG_FAILURE_ACTIONS_FLAG,
                                                   "condition of the recovery actions")
                   ->fFailureActionsOnNonCrashFailures != FALSE;
    });
    folder.Write("service.json", json);
}

void ReportApplication(ReportFolder& folder) {
    const std::wstring key = LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\App Paths\Orvik.exe)";
    Json json = NewJson();
    json["key"] = ToUtf8(LR"(HKLM\)" + key);
    AddFact(json, "value", [&] {
        const auto value = FindRegistryText(key, nullptr);
        return value ? Json(ToUtf8(*value)) : Json();
    });
    AddFact(json, "is_a_file", [&] {
        std::error_code error;
        return std::filesystem::is_regular_file(FindRegistryText(key, nullptr).value_or(L""),
                                                error);
    });
    // By the service's own rule, which also takes values that are not text.
    ApplicationPath registered{};
    const std::filesystem::path started = FindApplicationPath(registered);
    json["started"] = ToUtf8(started.wstring());
    std::error_code error;
    json["started_is_a_file"] =
        started.is_absolute() && std::filesystem::is_regular_file(started, error);
    folder.Write("application.json", json);
}
