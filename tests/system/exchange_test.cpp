// What the protocol page shows, played against the service: page and service cannot drift apart.

#include <cstddef>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "disconnect.h"
#include "raw_client.h"
#include "support/plugged_camera.h"
#include "system_test.h"

namespace system_test {
namespace {

/// What one side sends before the other has its turn.
struct Turn {
    bool fromClient;
    Bytes bytes;
};

/// Reads the block that begins with "```hex": lines of "> bytes" from client to service and
/// "< bytes" back; those that begin with # are comments. Lines of one direction behind each other
/// are one turn.
std::vector<Turn> ReadExchange(std::istream& page) {
    std::vector<Turn> turns;
    std::string line;
    while (std::getline(page, line) && !line.starts_with("```hex")) {
    }
    while (std::getline(page, line) && !line.starts_with("```")) {
        std::istringstream words(line);
        std::string direction;
        if (!(words >> direction) || direction.starts_with('#'))
            continue;
        if (direction != ">" && direction != "<") {
            ADD_FAILURE() << "not a line of an exchange: " << line;
            continue;
        }
        const bool fromClient = direction == ">";
        if (turns.empty() || turns.back().fromClient != fromClient)
            turns.push_back({fromClient, {}});
        unsigned value = 0;
        while (words >> std::hex >> value)
            turns.back().bytes.push_back(static_cast<std::byte>(value));
        EXPECT_TRUE(words.eof()) << "not hexadecimal: " << line;
    }
    return turns;
}

/// The block of C++ without the indentation of the list that it is in.
std::string ReadCode(std::istream& page) {
    const std::string indentation = "    ";
    std::string code;
    std::string line;
    while (std::getline(page, line) && line != indentation + "```cpp") {
    }
    while (std::getline(page, line) && line != indentation + "```")
        code += (line.starts_with(indentation) ? line.substr(indentation.size()) : line) + "\n";
    return code;
}

TEST_F(SystemTest, ExchangeOnTheProtocolPageIsWhatHappens) {
    std::ifstream page(ToUtf8(TestFolder() + L"\\protocol.md"));  // the build copies it
    ASSERT_TRUE(page.is_open());
    const std::vector<Turn> turns = ReadExchange(page);
    ASSERT_GE(turns.size(), 3u) << "the page shows no exchange";

    PluggedCamera camera(bus);
    RunningService service;
    RawClient client;
    for (const Turn& turn : turns) {
        if (turn.fromClient)
            client.Send(turn.bytes);
        else
            EXPECT_EQ(client.Receive(turn.bytes.size()), turn.bytes);
    }
    EXPECT_TRUE(client.RoundTrip());  // and nothing more
}

TEST_F(SystemTest, DisconnectOnTheProtocolPageLeavesTheServiceRunning) {
    std::ifstream page(ToUtf8(TestFolder() + L"\\protocol.md"));
    const std::string code = ReadCode(page);
    ASSERT_FALSE(code.empty());
    std::ifstream source(ToUtf8(TestFolder() + L"\\disconnect.cpp"));
    const std::string compiled(std::istreambuf_iterator<char>(source), {});
    EXPECT_TRUE(compiled.ends_with("\n\n" + code)) << compiled;

    RunningService service;
    const DWORD process = service.ProcessId();
    for (int round = 0; round < 200; ++round) {
        RawClient client;
        EXPECT_TRUE(client.RoundTrip());  // whose answer is a failure
        Disconnect(client.Release(), false, process);
    }
    EXPECT_TRUE(RawClient().RoundTrip());
    EXPECT_EQ(service.ProcessId(), process);
}

}  // namespace
}  // namespace system_test
