#include <array>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <windows.h>

// After <windows.h>, whose types it uses.
#include <winevt.h>

#include "event_query.h"
#include "exit_code.h"
#include "protocol/message.h"
#include "report_parts.h"
#include "service_control.h"
#include "windows/system_dll.h"
#include "windows/utf.h"

namespace {

constexpr int kEvents = 100;  // at most, the newest

/// The functions of wevtapi.dll.
struct EventLog {
    EventLog() {
        if (query == nullptr || next == nullptr || render == nullptr || close == nullptr)
            throw SystemFailure("cannot load wevtapi.dll");
    }

    template <typename Function>
    static Function Load(const char* name) noexcept {
        return SystemFunction<Function>(L"wevtapi.dll", name);
    }

    decltype(&::EvtQuery) query = Load<decltype(&::EvtQuery)>("EvtQuery");
    decltype(&::EvtNext) next = Load<decltype(&::EvtNext)>("EvtNext");
    decltype(&::EvtRender) render = Load<decltype(&::EvtRender)>("EvtRender");
    decltype(&::EvtClose) close = Load<decltype(&::EvtClose)>("EvtClose");
};

/// As XML.
std::wstring TextOf(const EventLog& log, EVT_HANDLE event) {
    std::vector<wchar_t> text(16'384);
    DWORD used = 0;
    DWORD properties = 0;
    const auto render = [&] {
        return log.render(nullptr, event, EvtRenderEventXml,
                          static_cast<DWORD>(text.size() * sizeof(wchar_t)), text.data(), &used,
                          &properties);
    };
    BOOL rendered = render();
    if (!rendered && ::GetLastError() == ERROR_INSUFFICIENT_BUFFER) {
        text.resize(used / sizeof(wchar_t) + 1);
        rendered = render();
    }
    if (!rendered)
        throw SystemFailure("cannot read an event");
    return text.data();
}

/// In quotes for a query. XPath has no way to write both kinds of quotes in one text.
std::wstring Quoted(const std::wstring& text) {
    const wchar_t quote = text.find(L'\'') == std::wstring::npos ? L'\'' : L'"';
    return quote + text + quote;
}

}  // namespace

std::wstring EventQuery(const std::wstring& serviceName, const std::wstring& displayName) {
    return L"*[System[Provider[@Name='Service Control Manager'] and (EventID=7000 or EventID=7009 "
           L"or EventID=7031 or EventID=7034)] and EventData[Data=" +
           Quoted(serviceName) + L" or Data=" + Quoted(displayName) + L"]]";
}

void ReportEvents(ReportFolder& folder) {
    const EventLog log;
    std::wstring displayName = kServiceName;
    if (IsServiceInstalled())
        displayName = ServiceDisplayName();
    const auto own = [&log](EVT_HANDLE handle) {
        return std::unique_ptr<std::remove_pointer_t<EVT_HANDLE>, decltype(log.close)>(handle,
                                                                                       log.close);
    };
    ::SetLastError(ERROR_SUCCESS);  // Wine's function fails without an error code
    const auto events =
        own(log.query(nullptr, L"System", EventQuery(kServiceName, displayName).c_str(),
                      EvtQueryChannelPath | EvtQueryReverseDirection));
    if (!events)
        throw SystemFailure("cannot query the event log System");
    std::wstring text = L"<Events>\n";
    for (int i = 0; i < kEvents; ++i) {
        EVT_HANDLE event = nullptr;
        DWORD count = 0;
        if (!log.next(events.get(), 1, &event, INFINITE, 0, &count)) {
            if (::GetLastError() != ERROR_NO_MORE_ITEMS)
                throw SystemFailure("cannot read the event log System");
            break;
        }
        const auto owner = own(event);
        text += TextOf(log, event) + L"\n";
    }
    folder.Write("events.xml", ToUtf8(text + L"</Events>\n"));
}
