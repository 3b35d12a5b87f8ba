// Who may use the camera pipe and of what kind it is, read back from the live pipe.

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

// After <windows.h>, whose types they use.
#include <aclapi.h>
#include <sddl.h>

#include "raw_client.h"
#include "system_test.h"
#include "windows/unique_memory.h"

namespace system_test {
namespace {

/// In both run modes.
class SecurityTest : public ServiceTest, public testing::WithParamInterface<RunMode> {
protected:
    RunningService service{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(Modes, SecurityTest,
                         testing::Values(RunMode::kForeground, RunMode::kServiceManager), NameOf);

/// One entry of an access list.
struct Entry {
    int type;
    int flags;  // of inheritance
    DWORD mask;
    std::string sid;

    friend bool operator==(const Entry&, const Entry&) = default;
    friend std::ostream& operator<<(std::ostream& stream, const Entry& entry) {
        return stream << "{type " << entry.type << ", flags " << entry.flags << ", mask "
                      << std::hex << entry.mask << std::dec << ", " << entry.sid << "}";
    }
};

std::string TextOf(PSID sid) {
    char* text = nullptr;
    if (!::ConvertSidToStringSidA(sid, &text))
        return "?";
    const std::unique_ptr<char, LocalFreer> owner(text);
    return text;
}

std::vector<Entry> AccessListOf(HANDLE object) {
    PACL list = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    EXPECT_EQ(::GetSecurityInfo(object, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                                nullptr, &list, nullptr, &descriptor),
              DWORD{ERROR_SUCCESS});
    const std::unique_ptr<void, LocalFreer> owner(descriptor);
    std::vector<Entry> entries;
    for (DWORD index = 0; list != nullptr && index < list->AceCount; ++index) {
        void* ace = nullptr;
        if (!::GetAce(list, index, &ace))
            break;
        // Entries of the other types differ behind the mask, but then the test fails anyway.
        auto* const allowed = static_cast<ACCESS_ALLOWED_ACE*>(ace);
        entries.push_back({allowed->Header.AceType, allowed->Header.AceFlags, allowed->Mask,
                           TextOf(&allowed->SidStart)});
    }
    return entries;
}

TEST_P(SecurityTest, EveryInstanceAdmitsTheLocallyLoggedOnAndLocalSystemAlone) {
    const std::vector<Entry> expected = {
        {ACCESS_ALLOWED_ACE_TYPE, 0, 0x1F01FF, "S-1-2-0"},
        {ACCESS_ALLOWED_ACE_TYPE, 0, 0x1F01FF, "S-1-5-18"},
    };
    std::vector<RawClient> clients;
    for (int instance = 0; instance < 3; ++instance) {
        clients.emplace_back(READ_CONTROL);
        EXPECT_EQ(AccessListOf(clients.back().Pipe()), expected);
    }
}

TEST_P(SecurityTest, PipeIsAByteStreamWithItsBuffersAndAnyNumberOfInstances) {
    RawClient client;
    EXPECT_TRUE(client.RoundTrip());  // the next instance is open then
    DWORD flags = 0;
    DWORD outputSize = 0;
    DWORD inputSize = 0;
    DWORD mostInstances = 0;
    ASSERT_TRUE(::GetNamedPipeInfo(client.Pipe(), &flags, &outputSize, &inputSize, &mostInstances))
        << ::GetLastError();
    EXPECT_EQ(flags, DWORD{PIPE_CLIENT_END | PIPE_TYPE_BYTE});
    EXPECT_EQ(outputSize, 65536u);
    EXPECT_EQ(inputSize, 65536u);
    // Windows gives back what was asked for, others the largest number.
    EXPECT_TRUE(mostInstances == PIPE_UNLIMITED_INSTANCES || mostInstances == 0xFFFFFFFF)
        << mostInstances;

    DWORD state = 0;
    DWORD instances = 0;
    ASSERT_TRUE(
        ::GetNamedPipeHandleStateW(client.Pipe(), &state, &instances, nullptr, nullptr, nullptr, 0))
        << ::GetLastError();
    EXPECT_EQ(state, DWORD{PIPE_READMODE_BYTE | PIPE_WAIT});
    EXPECT_EQ(instances, 2u);  // this client's, and the one that waits for the next
}

}  // namespace
}  // namespace system_test
