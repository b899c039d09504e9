// The server process on its own: options, start-up and shutdown, the header check of every request, and the socket's
// behaviour towards clients.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstring>
#include <regex>

#include "harness/server_fixture.h"
#include "protocol/rp_server.h"

namespace {

const char* const kPidFile = "/tmp/info/zor_play_pid";
const char* const kVersionFile = "/tmp/info/zor_play_version";

// Runs the binary (after prefix, when given) without a JACK server; the exit status.
int RunOnce(ChildProcess& proc, const std::vector<std::string>& args, std::vector<std::string> argv = {})
{
    argv.push_back(ZorPlayProcess::BinaryPath());
    argv.insert(argv.end(), args.begin(), args.end());
    return proc.Start(argv, {"JACK_NO_START_SERVER=1"}) ? proc.WaitExit(20000) : -2;
}

} // namespace

TEST(CommandLine, VersionAndHelpExitAtOnceAfterTheOptionsBeforeThem)
{
    // An unknown option is reported before the version, an empty one is skipped, and nothing after -v is looked at.
    ChildProcess proc;
    const auto output = [&](const std::vector<std::string>& args) {
        EXPECT_EQ(RunOnce(proc, args), 0) << args[0];
        return proc.Output();
    };
    const std::string out = output({"-x", "", "-lm", "-v", "-bogus"});
    EXPECT_TRUE(std::regex_match(out, std::regex("zor_play V2\\.02, built [^\r\n]+\r\nJACK version: [^\r\n]+\r\n"))) << out;
    EXPECT_EQ(proc.Output(0, true), "zor_play: unrecognized option '-x', ignoring\n");
    for (const char* alias : {"--version", "-vq"})
        EXPECT_EQ(output({alias}).rfind("zor_play V2.02, built ", 0), 0u) << alias;
    const std::string help = output({"--help"});
    ASSERT_EQ(help.rfind("JACK version: ", 0), 0u) << help;
    EXPECT_EQ(help.substr(help.find("\n\n") + 2),
              "Usage: zor_play [options]\n\nOptions:\n"
              "\t-h,--help\n\t\tprint this help and exit\n"
              "\t-v\tprint version infomration and exit\n"
              "\t-i\tset interactive mode and log interactive operations\n"
              "\t-e\techo command in interactive mode\n"
              "\t-lj\tlog JACK actions such as port creation, connection, etc.\n"
              "\t-lc\tlog creation and destruction operations\n"
              "\t-lr\tlog runtime, verbose tracing of the internals of the module, including the buffer, FSM, "
              "over/underruns, etc.\n"
              "\t-lf\tlog file operations such as opening and closing\n"
              "\t-lm\tlog sending and reception of socket messages\n"
              "\t-lp\tlog performance data such as timing of critical performance bottlenecks\n"
              "\t-s\tdon't report status\n"
              "\t-nc\tdon't connect JACK ports, assume this is managed elsewhere\n");
    EXPECT_EQ(output({"-h"}), help);

    // Queue memory too small for all modules stops the start-up.
    const int status = RunOnce(proc, {"-lc"}, {"/usr/bin/prlimit", "--msgqueue=4096:4096", "--"});
    const std::string err = proc.Output(0, true);
    if (err.find("setrlimit() failed") == std::string::npos)
        GTEST_SKIP() << "this machine lets the process raise its queue limit";
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(err.rfind("zor_play: setrlimit() failed: ", 0) == 0 && err.find("going on") == err.npos) << err;
    EXPECT_EQ(proc.Output().find("Creating RP server"), std::string::npos) << "nothing is started";
}

using Server = ServerTest;

// A response is the request with nReq 1 and the result alone as payload (the request fuzzer sends datagrams of every
// size). The header checks in their order, each with its code and line; type and index are checked for every command,
// even those that ignore them; commands only the server sends and codes past the table answer 6. Then the info files,
// Exit, a leftover socket file, an interrupt, and a socket path that cannot be bound.
TEST_F(Server, ResponsesHeaderChecksAndShutdown)
{
    structZorPlayMsg req = m_Client.MakeRequest(eZorPlayPlayer, eCmdHello, 2), resp, expected;
    memset(req.payload.raw, 0x5A, sizeof(req.payload.raw));
    expected = req;
    expected.nReq = eReqResponse;
    memset(&expected.payload, 0, sizeof(expected.payload));
    ASSERT_TRUE(m_Client.Request(req, resp));
    EXPECT_EQ(memcmp(&resp, &expected, sizeof(resp)), 0);
    const size_t mark = m_Server.OutputSize();
    // One fault each, the version tested before the length; a wrong length is echoed back.
    const structZorPlayMsg hello = m_Client.MakeRequest(eZorPlayRecorder, eCmdHello, 0);
    const std::tuple<uint32_t, int32_t, int32_t, enumZorPlayResult> faults[] = {
        {1, 12, eReqRequest, eResultBadVersion},
        {0, 100, eReqRequest, eResultBadLength},
        {0, 3236, eReqResponse, eResultNotRequest}};
    for (const auto& [version, length, kind, result] : faults) {
        req = hello;
        req.nVersion = version, req.nLength = length, req.nReq = kind;
        ASSERT_TRUE(m_Client.Request(req, resp));
        EXPECT_TRUE(resp.payload.eResult == result && resp.nLength == length) << result << ": " << resp.nLength;
    }
    ASSERT_TRUE(Printed(mark, {"Server message was not a request\r\n"}));
    EXPECT_EQ(m_Server.Output(mark),
              "Message fails validation: Unsupported protocol version\r\n"
              "Got msg size 100, expecting size 3236\r\nMessage fails validation: Message length incorrect\r\n"
              "Message fails validation: Server message was not a request\r\n");
    const std::string badType = "Message fails validation: Message not for player or recorder\r\n";
    const std::string badIndex = "Message fails validation: Module index out of bounds\r\n";
    for (enumZorPlayCmd cmd : {eCmdHello, eCmdExit, eCmdDeleteAll, eCmdCreate}) {
        EXPECT_TRUE(Prints([&] { return Cmd(static_cast<enumZorPlayType>(2), cmd, 0); }, eResultBadType, badType)) << cmd;
        for (int index : {8, -1})
            EXPECT_TRUE(Prints([&] { return Cmd(eZorPlayPlayer, cmd, index); }, eResultBadIndex, badIndex)) << cmd;
    }
    for (uint32_t n : {9u, 10u, 18u, 1000u}) {
        const auto cmd = static_cast<enumZorPlayCmd>(n);
        EXPECT_TRUE(Prints([&] { return Cmd(eZorPlayPlayer, cmd, 0); }, eResultUnknownCommand, "Unhandled command\r\n"));
    }

    // Answers go to the client path only; with nobody there the send fails and serving goes on.
    const std::string otherPath = Path("other_client");
    const int other = socket(AF_UNIX, SOCK_DGRAM, 0);
    const sockaddr_un addr = UnixAddress(otherPath.c_str()), server = UnixAddress(kServerSocketPath);
    ASSERT_EQ(bind(other, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)), 0);
    ASSERT_EQ(connect(other, reinterpret_cast<const sockaddr*>(&server), sizeof(server)), 0);
    ASSERT_EQ(send(other, &hello, sizeof(hello), 0), static_cast<ssize_t>(sizeof(hello)));
    ASSERT_TRUE(m_Client.ReceiveAny(resp, 10000)) << "the refused Exit did not stop the server";
    EXPECT_TRUE(resp.nID == hello.nID && resp.nReq == eReqResponse) << resp.nID << " " << resp.nReq;
    EXPECT_EQ(recv(other, nullptr, 0, MSG_DONTWAIT), -1) << "the sender's own path hears nothing";
    m_Client.Close();
    ASSERT_EQ(send(other, &hello, sizeof(hello), 0), static_cast<ssize_t>(sizeof(hello)));
    close(other);
    EXPECT_TRUE(m_Server.WaitForOutput("SendResponse send() failed: No such file or directory\r\n"));
    ASSERT_TRUE(m_Client.Open());

    EXPECT_EQ(ReadFile(kPidFile), std::to_string(m_Server.Pid())) << "the pid file holds the bare process id";
    const std::string err = m_Server.Output(0, true); // where the queue limit cannot be raised, the one in force is used
    EXPECT_TRUE(err.find("setrlimit() failed") == std::string::npos ||
                err.find("\nzor_play: going on with the current message queue limit") != std::string::npos) << err;
    EXPECT_EQ(Cmd(eZorPlayRecorder, eCmdExit, 0), eResultSuccess) << "Exit is answered before the process ends";
    EXPECT_EQ(m_Server.WaitExit(10000), 0);
    EXPECT_FALSE(FileExists(kPidFile));
    EXPECT_EQ(ReadFile(kVersionFile), "2.02");
    EXPECT_FALSE(FileExists(kServerSocketPath));

    WriteFile(kServerSocketPath, "stale"); // replaced at start-up
    StartServer(ServerArgs());
    EXPECT_EQ(m_Server.Stop(), 0) << "an interrupt at the main loop's wait";
    EXPECT_TRUE(Printed(0, {"Select returned -1: Interrupted system call\r\nErrno indicates interrupt -\r\nEXITING!\r\n"}));
    EXPECT_EQ(m_Server.Output().find("Signal Received"), std::string::npos) << "only logged in the creation category";

    // A directory is not removed by unlink: the bind fails, status 1.
    ASSERT_EQ(mkdir(kServerSocketPath, 0700), 0);
    ASSERT_TRUE(m_Server.Start({}, JackName()));
    EXPECT_EQ(m_Server.WaitExit(10000), 1);
    EXPECT_EQ(m_Server.Output(), "Can't bind unix socket '/tmp/recorder_unix_socket_server': Address already in use\n");
    EXPECT_FALSE(FileExists(kPidFile));
    rmdir(kServerSocketPath);
}
