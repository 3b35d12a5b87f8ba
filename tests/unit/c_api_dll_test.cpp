// orvik.dll is loaded, used and unloaded again.

#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include "c_api_fake_service.h"
#include "client/device_hints.h"
#include "orvik/orvik.h"
#include "support/client_results.h"
#include "support/deadline.h"
#include "support/fake_service.h"
#include "windows/utf.h"

namespace {

using client_test::FakeService;
using client_test::Signal;

/// orvik.dll while this object lives.
class Dll {
public:
    Dll() {
        wchar_t self[MAX_PATH] = {};
        ::GetModuleFileNameW(nullptr, self, MAX_PATH);
        const auto folder = std::filesystem::path(self).parent_path().parent_path();
        module = ::LoadLibraryW((folder / "bin" / "orvik.dll").c_str());
        EXPECT_NE(module, nullptr) << ::GetLastError();
        close = Find<decltype(&orvik_client_close)>("orvik_client_close");
        initialize = Find<decltype(&orvik_options_init)>("orvik_options_init");
        connect = Find<Connect*>("orvik_client_connect");
        open = Find<Connect*>("orvik_client_open");
    }
    ~Dll() { ::FreeLibrary(module); }

    Dll(const Dll&) = delete;
    Dll& operator=(const Dll&) = delete;

    HMODULE Module() const noexcept { return module; }

    using Connect = orvik_status ORVIK_CALL(const orvik_options*, orvik_client**);
    decltype(&orvik_client_close) close;
    decltype(&orvik_options_init) initialize;
    Connect* connect;
    Connect* open;

private:
    template <typename Function>
    Function Find(const char* name) const {
        // By way of void*, as the compiler warns of casts between function types.
        return reinterpret_cast<Function>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
    }

    HMODULE module;
};

/// A client that its first event closes.
struct Use {
    explicit Use(const Dll& loaded) : dll(&loaded) {}

    static void ORVIK_CALL OnEvent(orvik_client* client, const orvik_event*, void* user) {
        auto* const self = static_cast<Use*>(user);
        self->dll->close(client);
        self->closed.Set();
    }

    const Dll* dll;
    Signal closed;
};

TEST(CApiDll, IsUnloadedAfterCallbacksHaveClosedTheirClients) {
    FakeService service(c_api_test::ServeCommands, {}, FakeService::UniqueName(),
                        FakeService::kEveryClient);
    const std::string pipe = ToUtf8(service.Name());
    for (int round = 0; round < 20; ++round) {
        {
            const Dll dll;
            orvik_options options;
            ASSERT_EQ(dll.initialize(&options, sizeof(options)), ORVIK_OK);
            options.check_server = 0;
            options.pipe = pipe.c_str();
            options.on_event = Use::OnEvent;
            Use plain(dll);
            Use persistent(dll);
            orvik_client* client = nullptr;
            options.user = &plain;
            ASSERT_EQ(dll.connect(&options, &client), ORVIK_OK);
            options.user = &persistent;
            ASSERT_EQ(dll.open(&options, &client), ORVIK_OK);
            ASSERT_TRUE(plain.closed.Wait());
            ASSERT_TRUE(persistent.closed.Wait());
            WNDCLASSEXW windowClass{};
            EXPECT_FALSE(
                ::GetClassInfoExW(dll.Module(), orvik::DeviceHints::kWindowClass, &windowClass))
                << "the window's class is still registered";
        }
        const Deadline deadline;
        while (::GetModuleHandleW(L"orvik.dll") != nullptr) {
            ASSERT_FALSE(deadline.Over()) << "the DLL stays loaded";
            ::Sleep(1);  // no event reports it
        }
    }
}

}  // namespace
