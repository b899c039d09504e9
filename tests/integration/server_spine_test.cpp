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

// Sends a request to the server path from a socket of the test's own.
bool SendFrom(int fd, const structZorPlayMsg& msg)
{
    sockaddr_un server{};
    server.sun_family = AF_UNIX;
    strcpy(server.sun_path, kServerSocketPath);
    return sendto(fd, &msg, sizeof(msg), 0, reinterpret_cast<const sockaddr*>(&server), sizeof(server)) ==
           static_cast<ssize_t>(sizeof(msg));
}

} // namespace

// ---------------------------------------------------------------------------
// Command line (these runs exit before any socket is opened)

TEST(CommandLine, VersionPrintsTwoLinesAndExits)
{
    ChildProcess proc;
    ASSERT_EQ(RunOnce(proc, {"-lm", "-v", "-bogus"}), 0);
    const std::string out = proc.Output();
    EXPECT_EQ(out.rfind("zor_play V2.02, built ", 0), 0u) << out;
    EXPECT_NE(out.find("\r\nJACK version: "), std::string::npos) << out;
    EXPECT_EQ(Count(out, "\r\n"), 2u) << out;
    // Nothing after -v is looked at.
    EXPECT_EQ(proc.ErrorOutput(), "");

    for (const char* alias : {"--version", "-vq"}) {
        ChildProcess again;
        ASSERT_EQ(RunOnce(again, {alias}), 0);
        EXPECT_EQ(again.Output().rfind("zor_play V2.02, built ", 0), 0u) << alias;
    }
}

TEST(CommandLine, UnknownOptionsAreReportedBeforeVersionAndEmptyOnesSkipped)
{
    ChildProcess proc;
    ASSERT_EQ(RunOnce(proc, {"-x", "", "-v"}), 0);
    EXPECT_EQ(proc.ErrorOutput(), "zor_play: unrecognized option '-x', ignoring\n");
    EXPECT_EQ(proc.Output().rfind("zor_play V2.02", 0), 0u);
}

TEST(CommandLine, HelpText)
{
    ChildProcess proc;
    ASSERT_EQ(RunOnce(proc, {"--help"}), 0);
    const std::string out = proc.Output();
    ASSERT_EQ(out.rfind("JACK version: ", 0), 0u) << out;
    const std::string body = out.substr(out.find("\n\n") + 2);
    const std::string expected =
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
        "\t-nc\tdon't connect JACK ports, assume this is managed elsewhere\n";
    EXPECT_EQ(body, expected);
    ChildProcess shortForm;
    ASSERT_EQ(RunOnce(shortForm, {"-h"}), 0);
    EXPECT_EQ(shortForm.Output(), out);
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
    // Sends raw bytes and waits for the response to them.
    bool SendAndReceive(const void* data, size_t len, structZorPlayMsg& resp, size_t* respLen)
    {
        if (!m_Client.SendRaw(data, len))
            return false;
        return m_Client.ReceiveAny(resp, 10000, respLen);
    }

    int Answer(structZorPlayMsg req)
    {
        structZorPlayMsg resp;
        if (!m_Client.Request(req, resp))
            return -1;
        return static_cast<int>(resp.payload.eResult);
    }
};

TEST_F(ServerSpine, ResponseEchoesTheHeaderWithResultAndZeroPayload)
{
    structZorPlayMsg req = m_Client.MakeRequest(eZorPlayPlayer, eCmdHello, 2);
    memset(req.payload.raw, 0x5A, sizeof(req.payload.raw));
    structZorPlayMsg resp;
    size_t len = 0;
    ASSERT_TRUE(SendAndReceive(&req, sizeof(req), resp, &len));
    EXPECT_EQ(len, static_cast<size_t>(kZorPlayMsgSize));
    EXPECT_EQ(resp.nVersion, 0u);
    EXPECT_EQ(resp.nLength, kZorPlayMsgSize);
    EXPECT_EQ(resp.nID, req.nID);
    EXPECT_EQ(resp.nReq, eReqResponse);
    EXPECT_EQ(resp.eType, eZorPlayPlayer);
    EXPECT_EQ(resp.eCmd, eCmdHello);
    EXPECT_EQ(resp.nIndex, 2);
    EXPECT_EQ(resp.payload.eResult, eResultSuccess);
    for (int i = 4; i < kZorPlayPayloadSize; ++i)
        ASSERT_EQ(resp.payload.raw[i], 0) << "payload byte " << i;
}

TEST_F(ServerSpine, HeaderChecksInOrderWithTheirLines)
{
    size_t mark = m_Server.OutputSize();

    // Version is tested before length: no size line.
    structZorPlayMsg req = m_Client.MakeRequest(eZorPlayRecorder, eCmdHello, 0);
    req.nVersion = 1;
    req.nLength = 12;
    EXPECT_EQ(Answer(req), eResultBadVersion);
    ASSERT_TRUE(m_Server.WaitForOutput("Message fails validation: Unsupported protocol version\r\n", 5000));
    EXPECT_EQ(m_Server.OutputSince(mark).find("Got msg size"), std::string::npos);

    // A wrong length is echoed back unchanged.
    req = m_Client.MakeRequest(eZorPlayRecorder, eCmdHello, 0);
    req.nLength = 100;
    structZorPlayMsg resp;
    ASSERT_TRUE(m_Client.Request(req, resp));
    EXPECT_EQ(resp.payload.eResult, eResultBadLength);
    EXPECT_EQ(resp.nLength, 100);
    ASSERT_TRUE(m_Server.WaitForOutput(
        "Got msg size 100, expecting size 3236\r\nMessage fails validation: Message length incorrect\r\n", 5000));

    req = m_Client.MakeRequest(eZorPlayRecorder, eCmdHello, 0);
    req.nReq = eReqResponse;
    EXPECT_EQ(Answer(req), eResultNotRequest);
    ASSERT_TRUE(m_Server.WaitForOutput("Message fails validation: Server message was not a request\r\n", 5000));

    // Type and index are checked for every command, even those that ignore them.
    for (enumZorPlayCmd cmd : {eCmdHello, eCmdExit, eCmdDeleteAll, eCmdCreate}) {
        req = m_Client.MakeRequest(static_cast<enumZorPlayType>(2), cmd, 0);
        EXPECT_EQ(Answer(req), eResultBadType) << "command " << cmd;
        for (int index : {8, -1}) {
            req = m_Client.MakeRequest(eZorPlayPlayer, cmd, index);
            EXPECT_EQ(Answer(req), eResultBadIndex) << "command " << cmd << " index " << index;
        }
    }
    ASSERT_TRUE(WaitUntil(
        [&] {
            const std::string out = m_Server.OutputSince(mark);
            return Count(out, "Message fails validation: Message not for player or recorder\r\n") == 4 &&
                   Count(out, "Message fails validation: Module index out of bounds\r\n") == 8;
        },
        5000))
        << m_Server.OutputSince(mark);
    // The refused Exit did not stop the server.
    EXPECT_EQ(Answer(m_Client.MakeRequest(eZorPlayPlayer, eCmdHello, 0)), eResultSuccess);
}

TEST_F(ServerSpine, AllZeroShortAndLongDatagrams)
{
    structZorPlayMsg resp;
    size_t len = 0;

    structZorPlayMsg zero;
    memset(&zero, 0, sizeof(zero));
    ASSERT_TRUE(SendAndReceive(&zero, sizeof(zero), resp, &len));
    EXPECT_EQ(resp.payload.eResult, eResultBadLength);
    ASSERT_TRUE(m_Server.WaitForOutput(
        "Got msg size 0, expecting size 3236\r\nMessage fails validation: Message length incorrect\r\n", 5000));

    // 100 bytes: the header is whole, the rest reads as zero.
    structZorPlayMsg hello = m_Client.MakeRequest(eZorPlayPlayer, eCmdHello, 0);
    ASSERT_TRUE(SendAndReceive(&hello, 100, resp, &len));
    EXPECT_EQ(len, static_cast<size_t>(kZorPlayMsgSize));
    EXPECT_EQ(resp.nID, hello.nID);
    EXPECT_EQ(resp.payload.eResult, eResultSuccess);

    // 4000 bytes: cut to the record; what follows is never read as a second message.
    std::vector<uint8_t> big(4000, 0xFF);
    structZorPlayMsg exitLater = m_Client.MakeRequest(eZorPlayPlayer, eCmdHello, 3);
    memcpy(big.data(), &exitLater, sizeof(exitLater));
    ASSERT_TRUE(SendAndReceive(big.data(), big.size(), resp, &len));
    EXPECT_EQ(len, static_cast<size_t>(kZorPlayMsgSize));
    EXPECT_EQ(resp.nIndex, 3);
    EXPECT_EQ(resp.payload.eResult, eResultSuccess);
    EXPECT_FALSE(m_Client.ReceiveAny(resp, 300, &len)) << "one datagram, one response";
}

TEST_F(ServerSpine, UnrequestedCommandsAndUnknownCodesAnswerSix)
{
    for (uint32_t cmd : {9u, 10u, 18u, 1000u}) {
        structZorPlayMsg req = m_Client.MakeRequest(eZorPlayPlayer, static_cast<enumZorPlayCmd>(cmd), 0);
        EXPECT_EQ(Answer(req), eResultUnknownCommand) << "command " << cmd;
    }
    ASSERT_TRUE(WaitUntil([&] { return Count(m_Server.Output(), "Unhandled command\r\n") == 4; }, 5000))
        << m_Server.Output();
    structZorPlayMsg msg;
    EXPECT_FALSE(m_Client.WaitUnrequested(msg, 300)) << "a request never produces an unrequested message";
}

TEST_F(ServerSpine, RequestFromAnotherPathIsAnsweredToTheClientPath)
{
    const char* otherPath = "/tmp/zp_test_other_client";
    unlink(otherPath);
    int other = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_GE(other, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, otherPath);
    ASSERT_EQ(bind(other, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    structZorPlayMsg req = m_Client.MakeRequest(eZorPlayRecorder, eCmdHello, 0);
    ASSERT_TRUE(SendFrom(other, req));
    structZorPlayMsg resp;
    ASSERT_TRUE(m_Client.ReceiveAny(resp, 10000));
    EXPECT_EQ(resp.nID, req.nID);
    EXPECT_EQ(resp.nReq, eReqResponse);
    char buf[16];
    EXPECT_EQ(recv(other, buf, sizeof(buf), MSG_DONTWAIT), -1) << "the sender's own path hears nothing";
    close(other);
    unlink(otherPath);
}

TEST_F(ServerSpine, WithNoClientBoundSendsFailAndServingGoesOn)
{
    m_Client.Close();
    // Send from an unbound socket: the server's answer has nowhere to go.
    int anon = socket(AF_UNIX, SOCK_DGRAM, 0);
    structZorPlayMsg req;
    InitRequest(req, 99, eZorPlayPlayer, eCmdHello, 0);
    ASSERT_TRUE(SendFrom(anon, req));
    close(anon);
    EXPECT_TRUE(m_Server.WaitForOutput("SendResponse send() failed: No such file or directory\r\n", 5000))
        << m_Server.Output();

    ASSERT_TRUE(m_Client.Open());
    EXPECT_EQ(m_Client.Call(eZorPlayPlayer, eCmdHello, 0), eResultSuccess);
}

TEST_F(ServerSpine, ExitAnswersThenShutsDownCleanly)
{
    std::string pid = ReadFile(kPidFile);
    EXPECT_EQ(pid, std::to_string(m_Server.Pid())) << "the pid file holds the bare process id";
    EXPECT_EQ(ReadFile(kVersionFile), "2.02");
    // Where the queue limit cannot be raised, the one in force covers every module.
    const std::string err = m_Server.ErrorOutput();
    if (err.find("setrlimit() failed") != std::string::npos) {
        EXPECT_NE(err.find("\nzor_play: going on with the current message queue limit"), std::string::npos) << err;
    }

    EXPECT_EQ(m_Client.Call(eZorPlayRecorder, eCmdExit, 0), eResultSuccess);
    EXPECT_EQ(m_Server.WaitExit(10000), 0);
    EXPECT_FALSE(FileExists(kPidFile));
    EXPECT_EQ(ReadFile(kVersionFile), "2.02");
    EXPECT_FALSE(FileExists(kServerSocketPath));
}

TEST_F(ServerSpine, InterruptWhileWaiting)
{
    ASSERT_TRUE(m_Server.WaitUntilIdle(5000));
    m_Server.Signal(SIGINT);
    EXPECT_EQ(m_Server.WaitExit(10000), 0);
    const std::string out = m_Server.Output();
    EXPECT_NE(out.find("Select returned -1: Interrupted system call\r\nErrno indicates interrupt -\r\nEXITING!\r\n"),
              std::string::npos)
        << out;
    EXPECT_EQ(out.find("Signal Received"), std::string::npos) << "only logged in the creation category";
    EXPECT_FALSE(FileExists(kPidFile));
}

class ServerSpineCreationLog : public ServerSpine {
protected:
    std::vector<std::string> ServerArgs() override { return {"-lc", "-lj", "-lj"}; }
};

TEST_F(ServerSpineCreationLog, TogglesAndShutdownTraces)
{
    ASSERT_TRUE(m_Server.WaitUntilIdle(5000));
    m_Server.Signal(SIGINT);
    EXPECT_EQ(m_Server.WaitExit(10000), 0);
    const std::string out = m_Server.Output();
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

class MessagingLog : public ServerSpine {
protected:
    std::vector<std::string> ServerArgs() override { return {"-lm"}; }
};

TEST_F(MessagingLog, ReceiveDispatchAndResponseTraces)
{
    structZorPlayMsg req = m_Client.MakeRequest(eZorPlayPlayer, eCmdFileProgress, 0);
    req.nID = 0x2a;
    structZorPlayMsg resp;
    ASSERT_TRUE(m_Client.Request(req, resp));
    ASSERT_TRUE(m_Server.WaitForOutput("sending response, ID=42, cmd=9, req=1\r\n", 5000));
    const std::string out = m_Server.Output();
    const size_t first = out.find("  MESSAGING: Server got 3236 byte UD message, ID=42");
    ASSERT_NE(first, std::string::npos) << out;
    EXPECT_EQ(out.substr(first),
              "  MESSAGING: Server got 3236 byte UD message, ID=42, cmd=9, req=0\r\n"
              "  MESSAGING: Message & seqnum: 0x2a type: 9\r\n"
              "  MESSAGING: Dispatch received message: File progress\r\n"
              "Unhandled command\r\n"
              "  MESSAGING: Server sending response, ID=42, cmd=9, req=1\r\n");
}

// ---------------------------------------------------------------------------
// Start-up against leftovers at the socket path

TEST(SocketPath, LeftoverFileIsReplacedAndUnbindablePathFailsStartup)
{
    JackServer jack;
    ASSERT_TRUE(jack.Start());
    {
        std::ofstream(kServerSocketPath) << "stale";
        ZorPlayProcess server;
        ASSERT_TRUE(server.Start({}, jack.Name()));
        ProtocolClient client;
        ASSERT_TRUE(client.Open());
        ASSERT_TRUE(WaitUntil([&] { return client.Call(eZorPlayPlayer, eCmdHello, 0, nullptr, 0, 200) == 0; },
                              10000));
        EXPECT_EQ(server.Stop(), 0);
    }
    {
        // A directory cannot be removed by unlink, so the bind fails.
        unlink(kServerSocketPath);
        ASSERT_EQ(mkdir(kServerSocketPath, 0700), 0);
        ZorPlayProcess server;
        ASSERT_TRUE(server.Start({}, jack.Name()));
        EXPECT_EQ(server.WaitExit(10000), 1);
        EXPECT_EQ(server.Output(),
                  "Can't bind unix socket '/tmp/recorder_unix_socket_server': Address already in use\n");
        EXPECT_FALSE(FileExists(kPidFile));
        rmdir(kServerSocketPath);
    }
}
