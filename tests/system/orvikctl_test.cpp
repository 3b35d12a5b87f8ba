// orvikctl as it ships: arguments, exit codes without a service, and the commands that ask little.

#include <stdexcept>

#include "orvikctl_fixture.h"
#include "raw_client.h"

namespace system_test {
namespace {

class OrvikctlWithoutService : public OrvikctlTest {
protected:
    OrvikctlWithoutService() { MakeFile(L"x", Bytes(512)); }

    const std::wstring commands[8] = {L"list",
                                      L"watch",
                                      L"ping",
                                      L"inquiry",
                                      L"inquiry --camera 1",
                                      L"read -o " + Quoted(L"y"),
                                      L"write -i " + Quoted(L"x"),
                                      L"raw -n 00 00 00 00 00 00"};
};

TEST_F(OrvikctlWithoutService, ThatIsNotInstalled) {
    for (const std::wstring& command : commands)
        EXPECT_TRUE(Failed(Orvikctl(command), 5, "the service OrvikService is not installed"));
}

TEST_F(OrvikctlWithoutService, ThatIsStopped) {
    RunningService service(RunMode::kServiceManager);
    service.Stop();
    for (const std::wstring& command : commands)
        EXPECT_TRUE(Failed(Orvikctl(command), 5, "the service is not running"));
}

TEST_F(OrvikctlTest, ServiceInAConsoleIsNotTheServiceUnlessOneSaysSo) {
    const RunningService service;
    EXPECT_TRUE(Failed(Orvikctl(L"ping"), 5));
    EXPECT_EQ(Orvikctl(L"--no-server-check ping").exitCode, 0u);
    EXPECT_EQ(Orvikctl(L"ping --no-server-check").exitCode, 0u);
}

/// A pipe that can only be written to refuses to be opened for both, as an access list would.
TEST_F(OrvikctlTest, AccessDenied) {
    const UniqueHandle pipe = OwnFile(::CreateNamedPipeW(kCameraPipeName, PIPE_ACCESS_INBOUND,
                                                         PIPE_TYPE_BYTE, 1, 0, 0, 0, nullptr));
    ASSERT_TRUE(pipe);
    const Result result = OrvikctlInForeground(L"list");
    EXPECT_TRUE(Failed(result, 3)) << result;
    EXPECT_TRUE(result.errors.at(0).ends_with("(error 5)")) << result;
    EXPECT_EQ(OrvikctlInForeground(L"status").exitCode, 3u);
}

TEST_F(OrvikctlTest, WrongArguments) {
    const RunningService service;
    for (const wchar_t* const arguments : {L"",
                                           L"nonsense",
                                           L"list 1",
                                           L"list --nonsense",
                                           L"inquiry x",
                                           L"inquiry 1",
                                           L"inquiry --camera -1",
                                           L"inquiry --camera 4294967296",
                                           L"inquiry --camera 0x1",
                                           L"inquiry -t 0",
                                           L"inquiry -t x",
                                           L"inquiry -t nan",
                                           L"inquiry -t +1",
                                           L"inquiry -t 0x1",
                                           L"inquiry -t 1e",
                                           L"inquiry -t 1e300",
                                           L"read",
                                           L"read -o",
                                           L"read --first x -o f",
                                           L"read --blocks 0 -o f",
                                           L"read 1 -o f",
                                           L"write",
                                           L"write -o f",
                                           L"watch --count 0",
                                           L"watch --timeout -1",
                                           L"raw -n",
                                           L"raw 00 00 00 00 00 00",
                                           L"raw -n -r 1 00 00 00 00 00 00",
                                           L"raw -r 65537 00 00 00 00 00 00",
                                           L"raw -r 0 00 00 00 00 00 00",
                                           L"raw -s 65537 00 00 00 00 00 00",
                                           L"raw -s 16777217 --allow-large 00 00 00 00 00 00",
                                           L"raw -n --allow-large 00 00 00 00 00 00",
                                           L"raw -n -i f 00 00 00 00 00 00",
                                           L"raw -n -o f 00 00 00 00 00 00",
                                           L"raw -s 1 -o f 00 00 00 00 00 00",
                                           L"raw -n 1",
                                           L"raw -n 00 0 00 00 00 00",
                                           L"raw -n 00 000 00 00 00 00",
                                           L"raw -n 00 0x 00 00 00 00",
                                           L"raw -n 00 00 00 00 00 +1",
                                           L"raw -n g0 00 00 00 00 00",
                                           L"raw -n x 00 00 00 00 00",
                                           L"raw -n 00 00 00 00 00 00 00 00 01",
                                           (L"raw -n 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
                                            L"00 00"),
                                           L"raw -n 12 00 00 00 00 00 00"}) {
        const Result result = OrvikctlInForeground(arguments);
        EXPECT_TRUE(Failed(result, 2)) << ToUtf8(arguments);
        const std::string word = ToUtf8(arguments).substr(0, ToUtf8(arguments).find(' '));
        const bool command = !word.empty() && word != "nonsense";
        EXPECT_EQ(result.errors.back(), "Try orvikctl " + (command ? word + " --help" : "--help"))
            << ToUtf8(arguments);
    }
}

TEST_F(OrvikctlTest, ControlCharactersDoNotReachTheTerminal) {
    const Result result = Orvikctl(L"inquiry --camera \"\x1B[31m\x07\u009B1m\u009F|\u00A0\"");
    EXPECT_TRUE(Failed(result, 2,
                       "--camera must be a number from 0 to 4294967295, not "
                       "\"?[31m??1m?|\xC2\xA0\""))
        << result;
}

TEST_F(OrvikctlTest, HelpGoesToStandardOutput) {
    for (const wchar_t* const arguments : {L"--help", L"list --help", L"read -h", L"raw -h"}) {
        const Result result = Orvikctl(arguments);
        EXPECT_EQ(result.exitCode, 0u);
        EXPECT_FALSE(result.output.empty());
        EXPECT_TRUE(result.errors.empty());
    }
}

TEST_F(OrvikctlTest, Version) {
    EXPECT_EQ(Orvikctl(L"version").output, Lines{"orvikctl 4.0.4"});
    EXPECT_EQ(JsonOf(Orvikctl(L"version --json")).at("version"), "4.0.4");
    EXPECT_EQ(Orvikctl(L"--version").output, Lines{"orvikctl 4.0.4"});
    EXPECT_EQ(JsonOf(Orvikctl(L"--version --json")).at("version"), "4.0.4");
}

/// Runs it with a pipe for its standard output whose reading end is closed; returns its message.
class OrvikctlWithoutReader : public OrvikctlTest {
protected:
    std::string ErrorOf(const std::wstring& arguments) const {
        SECURITY_ATTRIBUTES inheritable{sizeof(inheritable), nullptr, TRUE};
        HANDLE readEnd = nullptr;
        HANDLE writeEnd = nullptr;
        if (!::CreatePipe(&readEnd, &writeEnd, &inheritable, 0))
            throw std::runtime_error("CreatePipe failed");
        const UniqueHandle output(writeEnd);
        ::CloseHandle(readEnd);
        const UniqueHandle errors = OpenForChild(L"errors", GENERIC_WRITE, CREATE_ALWAYS);
        EXPECT_EQ(RunWith(arguments, nullptr, output.get(), errors.get()), 1u);
        std::ifstream stream(folder / L"errors");
        std::string last;
        for (std::string line; std::getline(stream, line);)
            last = line;
        return last;
    }
};

TEST_F(OrvikctlWithoutReader, SaysWhatTheSystemSays) {
    const PluggedCamera camera(bus);
    const RunningService service;
    for (const wchar_t* const arguments :
         {L"version", L"--help", L"--no-server-check list", L"--no-server-check list --json",
          L"--no-server-check raw -r 36 12 00 00 00 24 00"}) {
        const std::string error = ErrorOf(arguments);
        const std::string start = "cannot write to standard output: ";
        EXPECT_NE(error.find(start), std::string::npos) << error;
        const std::size_t code = error.find(" (error 232)");  // the pipe is being closed
        EXPECT_NE(code, std::string::npos) << error;
        EXPECT_GT(code, error.find(start) + start.size()) << error;
    }
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(OrvikctlTest, NoCamera) {
    const RunningService service;
    const Result list = OrvikctlInForeground(L"list");
    EXPECT_EQ(list.exitCode, 0u);
    EXPECT_EQ(list.output, Lines{});
    EXPECT_EQ(list.errors, Lines{"no camera is present"});
    const Json json = JsonOf(OrvikctlInForeground(L"list --json"));
    EXPECT_EQ(json.at("details"), Json::array());
    EXPECT_EQ(JsonOf(OrvikctlInForeground(L"list --json")).at("cameras"), Json::array());
    MakeFile(L"x", Bytes(512));
    for (const std::wstring& command :
         {std::wstring(L"inquiry"), L"read -o " + Quoted(L"y"), L"write -i " + Quoted(L"x"),
          std::wstring(L"raw -n 00 00 00 00 00 00")})
        EXPECT_TRUE(Failed(OrvikctlInForeground(command), 6, "no camera is present"));
    for (const std::wstring& command :
         {std::wstring(L"inquiry"), L"read -o " + Quoted(L"y"), L"write -i " + Quoted(L"x"),
          std::wstring(L"raw -n 00 00 00 00 00 00")})
        EXPECT_TRUE(
            Failed(OrvikctlInForeground(command + L" --camera 1"), 6, "there is no camera 1"));
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(OrvikctlTest, OneOfTwoCamerasMustBeNamed) {
    vcam::PlugOptions other;
    other.product = "The other \xFF one";
    const PluggedCamera first(bus);
    const PluggedCamera second(bus, other);
    const RunningService service;
    EXPECT_EQ(OrvikctlInForeground(L"list").output,
              (Lines{"1  Orvik Virtual Camera F01", "2  Orvik The other ? one F01"}));
    const Json json = JsonOf(OrvikctlInForeground(L"--json list"));
    EXPECT_EQ(json.at("cameras"), Json({1, 2}));
    EXPECT_EQ(json.at("details").at(1), (Json{{"camera", 2},
                                              {"vendor", "Orvik"},
                                              {"product", "The other ? one"},
                                              {"revision", "F01"}}));
    for (const wchar_t* const command : {L"inquiry", L"read -o x", L"raw -n 00 00 00 00 00 00"})
        EXPECT_EQ(OrvikctlInForeground(command).errors,
                  Lines{"orvikctl: error: --camera must be given, because several cameras are "
                        "present: 1 2"});
    EXPECT_EQ(OrvikctlInForeground(L"inquiry --camera 1").output.at(1),
              "product:     Virtual Camera");
    EXPECT_EQ(OrvikctlInForeground(L"inquiry --camera 2").output.at(1),
              "product:     The other ? one");
    EXPECT_EQ(JsonOf(OrvikctlInForeground(L"inquiry --camera 02 --json")).at("product"),
              "The other ? one");
    EXPECT_TRUE(Failed(OrvikctlInForeground(L"inquiry --camera 3"), 6, "there is no camera 3"));
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(OrvikctlTest, ListWithoutInquirySendsNoCommand) {
    const PluggedCamera camera(bus);
    const RunningService service;
    EXPECT_EQ(OrvikctlInForeground(L"list --no-inquiry").output, Lines{"1"});
    EXPECT_FALSE(JsonOf(OrvikctlInForeground(L"list --no-inquiry --json")).contains("details"));
    EXPECT_EQ(camera.Counters().requests, 0u);
}

TEST_F(OrvikctlTest, ListKeepsTheLineOfACameraThatDoesNotAnswer) {
    PluggedCamera silent(bus);
    PluggedCamera refusing(bus);
    const PluggedCamera other(bus);
    silent.Set(Holds());
    refusing.Set(AnswersScsiStatus(2));
    const RunningService service;
    const Result result = OrvikctlInForeground(L"list -t 0.2");
    EXPECT_EQ(result.exitCode, 0u) << result;
    ASSERT_EQ(result.output.size(), 3u) << result;
    EXPECT_TRUE(result.output[0].starts_with("1  no answer: camera 1 did not answer within 200 ms"))
        << result;
    EXPECT_EQ(result.output[1], "2  no answer: the command failed on camera 2");
    EXPECT_EQ(result.output[2], "3  Orvik Virtual Camera F01");
    const Json json = JsonOf(OrvikctlInForeground(L"list -t 0.2 --json"));
    EXPECT_EQ(json.at("details").at(0).at("error").at("kind"), "timed out");
    EXPECT_EQ(json.at("details").at(1).at("error").at("exit_code"), 8);
    EXPECT_EQ(json.at("details").at(2).at("product"), "Virtual Camera");
    bus.ReleaseAll(silent.Id());
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(OrvikctlWithCamera, ListDistinguishesUnpluggedFromRefused) {
    const Json error = JsonOf(RunUnplugged(L"list --json")).at("details").at(0).at("error");
    EXPECT_EQ(error.at("kind"), "camera gone");
    EXPECT_EQ(error.at("exit_code"), 10);
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(OrvikctlTest, PingTellsTheTimeOfAnAnswer) {
    const RunningService service;
    const Result result = OrvikctlInForeground(L"ping");
    EXPECT_EQ(result.exitCode, 0u);
    ASSERT_EQ(result.output.size(), 1u) << result;
    EXPECT_TRUE(result.output[0].starts_with("the service answered in ")) << result;
    EXPECT_TRUE(result.output[0].ends_with(" ms")) << result;
    const double milliseconds =
        JsonOf(OrvikctlInForeground(L"ping --json")).at("round_trip_ms").get<double>();
    EXPECT_GT(milliseconds, 0);
    EXPECT_LT(milliseconds, 5'000);
}

TEST_F(OrvikctlWithCamera, Inquiry) {
    const Result result = OrvikctlInForeground(L"inquiry");
    EXPECT_EQ(result.exitCode, 0u);
    EXPECT_EQ(result.output, (Lines{"vendor:      Orvik", "product:     Virtual Camera",
                                    "revision:    F01", "device type: 0", "removable:   yes"}));
    EXPECT_EQ(result.errors, Lines{});
    const Json json = JsonOf(OrvikctlInForeground(L"inquiry --json"));
    EXPECT_EQ(json.at("camera"), 1);
    EXPECT_EQ(json.at("vendor"), "Orvik");
    EXPECT_EQ(json.at("product"), "Virtual Camera");
    EXPECT_EQ(json.at("revision"), "F01");
    EXPECT_EQ(json.at("device_type"), 0);
    EXPECT_EQ(json.at("removable"), true);
    EXPECT_EQ(json.at("data"),
              "008004021f0000004f7276696b2020205669727475616c2043616d657261202046303120");
}

TEST_F(OrvikctlWithCamera, InquiryOfACameraThatRefuses) {
    camera.Set(AnswersScsiStatus(2));
    EXPECT_TRUE(Failed(OrvikctlInForeground(L"inquiry"), 8));
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(OrvikctlWithCamera, InquiryOfACameraThatReturnsTooLittle) {
    vcam::Behaviour few;
    few.maximumDataBytes = 10;
    camera.Set(few);
    EXPECT_TRUE(Failed(OrvikctlInForeground(L"inquiry"), 9));
}

TEST_F(OrvikctlWithCamera, InquiryOfACameraThatIsUnpluggedMeanwhile) {
    camera.Set(Holds());
    OrvikctlProgram inquiry(kNoServerCheck + L"inquiry");
    bus.WaitForPending(camera.Id(), 1, kDeadline);
    camera.Unplug();
    EXPECT_TRUE(
        Failed(inquiry.Finish(), 10, "camera 1 was unplugged, or given up, during the command"));
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(OrvikctlWithCamera, InquiryOfAServiceThatIsKilledMeanwhile) {
    camera.Set(Holds());
    OrvikctlProgram inquiry(kNoServerCheck + L"inquiry");
    bus.WaitForPending(camera.Id(), 1, kDeadline);
    service.Stop();
    EXPECT_TRUE(Failed(inquiry.Finish(), 9, "the service has closed the connection"));
}

TEST_F(OrvikctlWithCamera, InquiryOfACameraThatNeverAnswers) {
    camera.Set(Holds());
    EXPECT_TRUE(Failed(OrvikctlInForeground(L"inquiry -t 0.1"), 7,
                       "camera 1 did not answer within 100 ms (--timeout)"));
    bus.ReleaseAll(camera.Id());
    camera.Set({});
    EXPECT_EQ(OrvikctlInForeground(L"inquiry").exitCode, 0u);
    EXPECT_TRUE(service.IsRunning());
}

}  // namespace
}  // namespace system_test
