// The server process on its own: options, start-up and shutdown, the header
// check of every request, and the socket's behaviour towards clients.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "harness/server_fixture.h"
#include "protocol/rp_server.h"

namespace {

const char* const kPidFile = "/tmp/info/zor_play_pid";
const char* const kVersionFile = "/tmp/info/zor_play_version";

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

size_t Count(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + what.size()))
        ++n;
    return n;
}

// Runs the binary with arguments and no JACK server; returns the exit status.
int RunOnce(ChildProcess& proc, const std::vector<std::string>& args, const std::vector<std::string>& prefix = {})
{
    std::vector<std::string> argv = prefix;
    argv.push_back(ZorPlayProcess::BinaryPath());
    argv.insert(argv.end(), args.begin(), args.end());
    if (!proc.Start(argv, {"JACK_NO_START_SERVER=1"}))
        return -2;
    return proc.WaitExit(20000);
}

sockaddr_un Address(const char* path)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, path);
    return addr;
}

// Sends a request to the server path from a socket of the test's own.
bool SendFrom(int fd, const structZorPlayMsg& msg)
{
    const sockaddr_un server = Address(kServerSocketPath);
    return sendto(fd, &msg, sizeof(msg), 0, reinterpret_cast<const sockaddr*>(&server), sizeof(server)) ==
           static_cast<ssize_t>(sizeof(msg));
}

} // namespace

// ---------------------------------------------------------------------------
// Command line (these runs exit before any socket is opened)

TEST(CommandLine, VersionAndHelpExitAtOnceAfterTheOptionsBeforeThem)
{
    // An unknown option is reported before the version, an empty one is
    // skipped, a toggle before -v has no lasting effect and nothing after
    // -v is looked at.
    ChildProcess proc;
    ASSERT_EQ(RunOnce(proc, {"-x", "", "-lm", "-v", "-bogus"}), 0);
    const std::string out = proc.Output();
    EXPECT_EQ(out.rfind("zor_play V2.02, built ", 0), 0u) << out;
    EXPECT_NE(out.find("\r\nJACK version: "), std::string::npos) << out;
    EXPECT_EQ(Count(out, "\r\n"), 2u) << out;
    EXPECT_EQ(proc.ErrorOutput(), "zor_play: unrecognized option '-x', ignoring\n");
    for (const char* alias : {"--version", "-vq"}) {
        ChildProcess again;
        ASSERT_EQ(RunOnce(again, {alias}), 0);
        EXPECT_EQ(again.Output().rfind("zor_play V2.02, built ", 0), 0u) << alias;
    }

    ASSERT_EQ(RunOnce(proc, {"--help"}), 0);
    const std::string help = proc.Output();
    ASSERT_EQ(help.rfind("JACK version: ", 0), 0u) << help;
    EXPECT_EQ(help.substr(help.find("\n\n") + 2),
              "Usage: zor_play [options]\n\n"
              "Options:\n"
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
    ASSERT_EQ(RunOnce(proc, {"-h"}), 0);
    EXPECT_EQ(proc.Output(), help);
}

TEST(CommandLine, QueueMemoryTooSmallForAllModulesStopsStartup)
{
    ChildProcess proc;
    int status = RunOnce(proc, {"-lc"}, {"/usr/bin/prlimit", "--msgqueue=4096:4096", "--"});
    if (proc.ErrorOutput().find("setrlimit() failed") == std::string::npos)
        GTEST_SKIP() << "this machine lets the process raise its queue limit";
    EXPECT_EQ(status, 1);
    EXPECT_EQ(proc.ErrorOutput().rfind("zor_play: setrlimit() failed: ", 0), 0u) << proc.ErrorOutput();
    EXPECT_EQ(proc.ErrorOutput().find("going on"), std::string::npos);
    EXPECT_EQ(proc.Output().find("Creating RP server"), std::string::npos) << "nothing is started";
}

// ---------------------------------------------------------------------------
// A running server

class ServerSpine : public ServerTest {
protected:
    int Answer(structZorPlayMsg req)
    {
        structZorPlayMsg resp;
        return m_Client.Request(req, resp) ? static_cast<int>(resp.payload.eResult) : -1;
    }
    // Waits until the output holds each text the given number of times.
    bool PrintedTimes(std::initializer_list<std::pair<const char*, size_t>> counts)
    {
        return WaitUntil(
            [&] {
                for (const auto& c : counts)
                    if (Count(m_Server.Output(), c.first) != c.second)
                        return false;
                return true;
            },
            5000);
    }
};

TEST_F(ServerSpine, EveryDatagramGetsOneWholeResponse)
{
    // The response is the request with nReq 1 and a payload of the result alone.
    structZorPlayMsg req = m_Client.MakeRequest(eZorPlayPlayer, eCmdHello, 2);
    memset(req.payload.raw, 0x5A, sizeof(req.payload.raw));
    structZorPlayMsg resp, expected = req;
    expected.nReq = eReqResponse;
    memset(&expected.payload, 0, sizeof(expected.payload));
    size_t len = 0;
    ASSERT_TRUE(m_Client.SendRaw(&req, sizeof(req)) && m_Client.ReceiveAny(resp, 10000, &len));
    EXPECT_EQ(len, static_cast<size_t>(kZorPlayMsgSize));
    EXPECT_EQ(memcmp(&resp, &expected, sizeof(resp)), 0);

    // All zero (what a failed receive leaves): the length check fails.
    structZorPlayMsg zero;
    memset(&zero, 0, sizeof(zero));
    ASSERT_TRUE(m_Client.SendRaw(&zero, sizeof(zero)) && m_Client.ReceiveAny(resp, 10000, &len));
    EXPECT_EQ(resp.payload.eResult, eResultBadLength);
    ASSERT_TRUE(m_Server.WaitForOutput(
        "Got msg size 0, expecting size 3236\r\nMessage fails validation: Message length incorrect\r\n", 5000));

    // 100 bytes: the header is whole, the rest reads as zero.
    structZorPlayMsg hello = m_Client.MakeRequest(eZorPlayPlayer, eCmdHello, 0);
    ASSERT_TRUE(m_Client.SendRaw(&hello, 100) && m_Client.ReceiveAny(resp, 10000, &len));
    EXPECT_EQ(len, static_cast<size_t>(kZorPlayMsgSize));
    EXPECT_EQ(resp.nID, hello.nID);
    EXPECT_EQ(resp.payload.eResult, eResultSuccess);

    // 4000 bytes: cut to the record; what follows is never read as a second message.
    std::vector<uint8_t> big(4000, 0xFF);
    hello = m_Client.MakeRequest(eZorPlayPlayer, eCmdHello, 3);
    memcpy(big.data(), &hello, sizeof(hello));
    ASSERT_TRUE(m_Client.SendRaw(big.data(), big.size()) && m_Client.ReceiveAny(resp, 10000, &len));
    EXPECT_EQ(len, static_cast<size_t>(kZorPlayMsgSize));
    EXPECT_EQ(resp.nIndex, 3);
    EXPECT_EQ(resp.payload.eResult, eResultSuccess);
    EXPECT_FALSE(m_Client.ReceiveAny(resp, 300, &len)) << "one datagram, one response";
}

TEST_F(ServerSpine, HeaderChecksInOrderAndUnknownCommands)
{
    // Version is tested before length (no size line), a wrong length is
    // echoed back unchanged, and a response sent back is no request.
    const size_t mark = m_Server.OutputSize();
    structZorPlayMsg req = m_Client.MakeRequest(eZorPlayRecorder, eCmdHello, 0), resp;
    req.nVersion = 1;
    req.nLength = 12;
    EXPECT_EQ(Answer(req), eResultBadVersion);
    req = m_Client.MakeRequest(eZorPlayRecorder, eCmdHello, 0);
    req.nLength = 100;
    ASSERT_TRUE(m_Client.Request(req, resp));
    EXPECT_EQ(resp.payload.eResult, eResultBadLength);
    EXPECT_EQ(resp.nLength, 100);
    req = m_Client.MakeRequest(eZorPlayRecorder, eCmdHello, 0);
    req.nReq = eReqResponse;
    EXPECT_EQ(Answer(req), eResultNotRequest);
    ASSERT_TRUE(m_Server.WaitForOutput("Message fails validation: Server message was not a request\r\n", 5000));
    EXPECT_EQ(m_Server.OutputSince(mark),
              "Message fails validation: Unsupported protocol version\r\n"
              "Got msg size 100, expecting size 3236\r\nMessage fails validation: Message length incorrect\r\n"
              "Message fails validation: Server message was not a request\r\n");

    // Type and index are checked for every command, even those that ignore them.
    for (enumZorPlayCmd cmd : {eCmdHello, eCmdExit, eCmdDeleteAll, eCmdCreate}) {
        EXPECT_EQ(Answer(m_Client.MakeRequest(static_cast<enumZorPlayType>(2), cmd, 0)), eResultBadType) << cmd;
        for (int index : {8, -1})
            EXPECT_EQ(Answer(m_Client.MakeRequest(eZorPlayPlayer, cmd, index)), eResultBadIndex) << cmd << " " << index;
    }
    // Commands only the server sends, and codes past the table, answer 6
    // and never produce an unrequested message.
    for (uint32_t cmd : {9u, 10u, 18u, 1000u})
        EXPECT_EQ(Answer(m_Client.MakeRequest(eZorPlayPlayer, static_cast<enumZorPlayCmd>(cmd), 0)),
                  eResultUnknownCommand)
            << "command " << cmd;
    EXPECT_TRUE(PrintedTimes({{"Message fails validation: Message not for player or recorder\r\n", 4},
                              {"Message fails validation: Module index out of bounds\r\n", 8},
                              {"Unhandled command\r\n", 4}}))
        << m_Server.Output();
    structZorPlayMsg msg;
    EXPECT_FALSE(m_Client.WaitUnrequested(msg, 300));
    // The refused Exit did not stop the server.
    EXPECT_EQ(Answer(m_Client.MakeRequest(eZorPlayPlayer, eCmdHello, 0)), eResultSuccess);
}

TEST_F(ServerSpine, AnswersGoToTheClientPathOnly)
{
    // A request from a socket bound elsewhere is answered to the client path.
    const char* otherPath = "/tmp/zp_test_other_client";
    unlink(otherPath);
    const int other = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_GE(other, 0);
    const sockaddr_un addr = Address(otherPath);
    ASSERT_EQ(bind(other, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)), 0);
    structZorPlayMsg req = m_Client.MakeRequest(eZorPlayRecorder, eCmdHello, 0), resp;
    ASSERT_TRUE(SendFrom(other, req));
    ASSERT_TRUE(m_Client.ReceiveAny(resp, 10000));
    EXPECT_EQ(resp.nID, req.nID);
    EXPECT_EQ(resp.nReq, eReqResponse);
    char buf[16];
    EXPECT_EQ(recv(other, buf, sizeof(buf), MSG_DONTWAIT), -1) << "the sender's own path hears nothing";

    // With nobody bound to the client path the send fails, and serving goes on.
    m_Client.Close();
    ASSERT_TRUE(SendFrom(other, req));
    close(other);
    unlink(otherPath);
    EXPECT_TRUE(m_Server.WaitForOutput("SendResponse send() failed: No such file or directory\r\n", 5000))
        << m_Server.Output();
    ASSERT_TRUE(m_Client.Open());
    EXPECT_EQ(m_Client.Call(eZorPlayPlayer, eCmdHello, 0), eResultSuccess);
}

TEST_F(ServerSpine, ExitAndInterruptShutDownCleanly)
{
    EXPECT_EQ(ReadFile(kPidFile), std::to_string(m_Server.Pid())) << "the pid file holds the bare process id";
    EXPECT_EQ(ReadFile(kVersionFile), "2.02");
    // Where the queue limit cannot be raised, the one in force covers every module.
    const std::string err = m_Server.ErrorOutput();
    if (err.find("setrlimit() failed") != std::string::npos) {
        EXPECT_NE(err.find("\nzor_play: going on with the current message queue limit"), std::string::npos) << err;
    }
    // Exit is answered before the process ends.
    EXPECT_EQ(m_Client.Call(eZorPlayRecorder, eCmdExit, 0), eResultSuccess);
    EXPECT_EQ(m_Server.WaitExit(10000), 0);
    EXPECT_FALSE(FileExists(kPidFile));
    EXPECT_EQ(ReadFile(kVersionFile), "2.02");
    EXPECT_FALSE(FileExists(kServerSocketPath));

    // A leftover file at the socket path is replaced.
    std::ofstream(kServerSocketPath) << "stale";
    StartServer(ServerArgs());
    ASSERT_TRUE(m_Server.WaitUntilIdle(5000));
    m_Server.Signal(SIGINT);
    EXPECT_EQ(m_Server.WaitExit(10000), 0);
    const std::string out = m_Server.Output();
    EXPECT_NE(out.find("Select returned -1: Interrupted system call\r\nErrno indicates interrupt -\r\nEXITING!\r\n"),
              std::string::npos)
        << out;
    EXPECT_EQ(out.find("Signal Received"), std::string::npos) << "only logged in the creation category";
    EXPECT_FALSE(FileExists(kPidFile));

    // A path that cannot be bound (a directory is not removed by unlink)
    // stops the start-up with its line and status 1.
    ASSERT_EQ(mkdir(kServerSocketPath, 0700), 0);
    ASSERT_TRUE(m_Server.Start({}, s_pJack->Name()));
    EXPECT_EQ(m_Server.WaitExit(10000), 1);
    EXPECT_EQ(m_Server.Output(), "Can't bind unix socket '/tmp/recorder_unix_socket_server': Address already in use\n");
    EXPECT_FALSE(FileExists(kPidFile));
    rmdir(kServerSocketPath);
}

class Traces : public ServerSpine {
protected:
    std::vector<std::string> ServerArgs() override { return {"-lc", "-lj", "-lj", "-lm"}; }
};

TEST_F(Traces, TogglesMessagingAndShutdownTraces)
{
    structZorPlayMsg req = m_Client.MakeRequest(eZorPlayPlayer, eCmdFileProgress, 0), resp;
    req.nID = 0xabc;
    ASSERT_TRUE(m_Client.Request(req, resp));
    ASSERT_TRUE(m_Server.WaitForOutput("sending response, ID=2748, cmd=9, req=1\r\n", 5000));
    std::string out = m_Server.Output();
    const size_t first = out.find("  MESSAGING: Server got 3236 byte UD message, ID=2748");
    ASSERT_NE(first, std::string::npos) << out;
    EXPECT_EQ(out.substr(first),
              "  MESSAGING: Server got 3236 byte UD message, ID=2748, cmd=9, req=0\r\n"
              "  MESSAGING: Message & seqnum: 0xabc type: 9\r\n"
              "  MESSAGING: Dispatch received message: File progress\r\n"
              "Unhandled command\r\n"
              "  MESSAGING: Server sending response, ID=2748, cmd=9, req=1\r\n");

    ASSERT_TRUE(m_Server.WaitUntilIdle(5000));
    m_Server.Signal(SIGINT);
    EXPECT_EQ(m_Server.WaitExit(10000), 0);
    out = m_Server.Output();
    EXPECT_EQ(out.rfind("   CREATION: Creating RP server\r\n   CREATION: Creating socket "
                        "'/tmp/recorder_unix_socket_server' for recorder communications\r\n",
                        0),
              0u)
        << out;
    EXPECT_NE(out.find("   CREATION: Signal Received: 2\r\n"), std::string::npos);
    EXPECT_NE(out.find("   CREATION: ~Destructing RP server\r\n"), std::string::npos);
    EXPECT_NE(out.find("   CREATION: main Exiting.\r\n"), std::string::npos);
    EXPECT_EQ(out.find("JACK:"), std::string::npos) << "-lj twice leaves the category off";
}
