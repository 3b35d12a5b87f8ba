// The folders of a service that runs as another account than LocalSystem, for answers of Windows
// that the test chooses.

#include "service_folders.h"

#include <algorithm>
#include <cstring>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include <sddl.h>

#include "fake_service_manager.h"
#include "windows/unique_memory.h"
#include "windows/utf.h"

extern "C" {
extern decltype(&::LookupAccountNameW) __imp_LookupAccountNameW;
extern decltype(&::RegGetValueW) __imp_RegGetValueW;
}

namespace {

class ServiceFolders : public testing::Test {
protected:
    /// Makes the service run as `account`. Windows knows all accounts but those of a domain.
    void RunAs(std::wstring name) {
        account = std::move(name);
        manager.config.lpServiceStartName = account.data();
    }

    std::wstring account;
    std::wstring lookedUp;
    std::wstring key;  // of the registry value that was read
    bool hasProfile = true;
    const wchar_t* identifier = L"S-1-5-21-1-2-3-1000";  // of every account
    FakeManager manager;
    const HookedImport<&__imp_LookupAccountNameW> lookUp{
        [this](const wchar_t* machine, const wchar_t* name, void* to, DWORD* size, wchar_t*, DWORD*,
               SID_NAME_USE*) {
            EXPECT_EQ(machine, nullptr);
            lookedUp = name;
            if (lookedUp.starts_with(L"domain\\")) {
                ::SetLastError(ERROR_NONE_MAPPED);
                return FALSE;
            }
            void* sid = nullptr;
            EXPECT_TRUE(::ConvertStringSidToSidW(identifier, &sid));
            const std::unique_ptr<void, LocalFreer> owner(sid);
            return ::CopySid(*size, to, sid);
        }};
    const HookedImport<&__imp_RegGetValueW> read{[this](HKEY root, const wchar_t* path,
                                                        const wchar_t* value, DWORD, DWORD*,
                                                        void* to, DWORD* size) -> LSTATUS {
        EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
        EXPECT_STREQ(value, L"ProfileImagePath");
        key = path;
        if (!hasProfile)
            return ERROR_FILE_NOT_FOUND;
        constexpr wchar_t kProfile[] = LR"(C:\Users\camera)";
        EXPECT_GE(*size, sizeof(kProfile));
        std::memcpy(to, kProfile, sizeof(kProfile));
        return ERROR_SUCCESS;
    }};
};

TEST_F(ServiceFolders, LogIsInTheProfileOfTheServicesAccount) {
    RunAs(LR"(.\camera)");
    EXPECT_EQ(ServiceLogFolder().path, LR"(C:\Users\camera\AppData\Local\Orvik)");
    EXPECT_EQ(lookedUp, L"camera") << "an account of this machine";
    EXPECT_EQ(key,
              LR"(SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList\)"
              L"S-1-5-21-1-2-3-1000");
}

TEST_F(ServiceFolders, LocalSystemHasTwoNames) {
    for (const wchar_t* const name : {L"localsystem", LR"(.\LocalSystem)"}) {
        RunAs(name);
        EXPECT_EQ(ServiceLogFolder().path, LR"(C:\Users\camera\AppData\Local\Orvik)");
        EXPECT_EQ(lookedUp, L"") << "it is no account that can be looked up";
        EXPECT_EQ(key, LR"(SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList\S-1-5-18)");
    }
}

TEST_F(ServiceFolders, ProfileThatTheRegistryDoesNotNameIsTheDefaultOfWindows) {
    hasProfile = false;
    const struct {
        const wchar_t* account;
        const wchar_t* identifier;
        const wchar_t* profile;
    } cases[] = {
        {L"LocalSystem", L"S-1-5-18", LR"(System32\config\systemprofile)"},
        {LR"(NT AUTHORITY\LocalService)", L"S-1-5-19", LR"(ServiceProfiles\LocalService)"},
        {LR"(NT AUTHORITY\NetworkService)", L"S-1-5-20", LR"(ServiceProfiles\NetworkService)"}};
    for (const auto& [name, sid, profile] : cases) {
        RunAs(name);
        identifier = sid;
        const ServiceFolder folder = ServiceLogFolder();
        EXPECT_EQ(folder.path, std::filesystem::path(ExpandForSystem(L"%SystemRoot%")) / profile /
                                   LR"(AppData\Local\Orvik)");
        EXPECT_EQ(folder.origin,
                  "Windows' default for the account, because there is no registry value "
                  R"(HKLM\SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList\)" +
                      ToUtf8(sid) + R"(\ProfileImagePath)");
    }
}

TEST_F(ServiceFolders, ProfileOfAnAccountOfAPersonIsNotGuessed) {
    hasProfile = false;
    RunAs(LR"(.\camera)");
    EXPECT_EQ(FailureOf(ServiceLogFolder),
              R"(there is no registry value HKLM\SOFTWARE\Microsoft\Windows NT\CurrentVersion\)"
              R"(ProfileList\S-1-5-21-1-2-3-1000\ProfileImagePath)");
}

TEST_F(ServiceFolders, AccountThatIsNotFoundIsNamed) {
    RunAs(LR"(domain\camera)");
    EXPECT_EQ(
        FailureOf(ServiceLogFolder),
        SystemFailure(R"(cannot look up the service's account domain\camera)", ERROR_NONE_MAPPED)
            .what());
    EXPECT_EQ(lookedUp, LR"(domain\camera)");
}

TEST_F(ServiceFolders, TemporaryFolderOfAnotherAccountIsNotKnown) {
    RunAs(LR"(.\camera)");
    EXPECT_EQ(FailureOf(ServiceDumpFolder),
              R"(the service runs as .\camera, and only processes of that account know its )"
              "temporary folder");
}

}  // namespace
