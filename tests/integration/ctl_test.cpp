// zor_play_ctl and the C example driven against the real server: answers and
// exit codes, a waited-for completion, a recording, and the one reply path
// that only one live client may hold.
#include <sys/socket.h>
#include <sys/un.h>

#include "harness/server_fixture.h"
#include "protocol/rp_server.h"

namespace {

struct Result { int status; std::string out, err; };

// Runs the program named by the environment variable with args.
Result RunProgram(const char* binaryVariable, std::vector<std::string> args)
{
    const char* binary = getenv(binaryVariable);
    args.insert(args.begin(), binary ? binary : "");
    ChildProcess p;
    EXPECT_TRUE(p.Start(args)) << binaryVariable;
    const int status = p.WaitExit(30000);
    return {status, p.Output(), p.Output(0, true)};
}

Result Ctl(const std::vector<std::string>& args) { return RunProgram("ZOR_PLAY_CTL_BIN", args); }

::testing::AssertionResult Says(const Result& r, int status, const std::string& text)
{
    if (r.status == status && (r.out + r.err).find(text) != std::string::npos)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "exit " << r.status << " (expected " << status << " and \"" << text
                                         << "\")\nstdout: " << r.out << "stderr: " << r.err;
}

using CtlTest = ServerTest;

// The C example and the command play a file to its end; refusals are exit codes.
TEST_F(CtlTest, PlaysAndRecordsWithTheServersAnswersAsExitCodes)
{
    const std::string one = Path("one.wav");
    ASSERT_TRUE(WriteSound(one, 2, 48000, SF_FORMAT_PCM_16, 48000, [](uint32_t, unsigned) { return 0.25f; }));
    m_Client.Close(); // the reply path is the command's
    EXPECT_TRUE(Says(RunProgram("ZOR_PLAY_EXAMPLE_BIN", {one}), 0, "played " + one + " (1 s)"));
    EXPECT_TRUE(Says(Ctl({"create", "player", "0", "2"}), 0, "player 0: Create recorder/player instance: 0"));
    const Result refused = Ctl({"start", "player", "0"});
    EXPECT_TRUE(Says(refused, 11, "Module has no file"));
    EXPECT_EQ(refused.out, "") << "a refusal goes to standard error";
    EXPECT_TRUE(Says(Ctl({"play", "0", one}), 0, "Set up single player file: 0 Operation successful"));
    const Result played = Ctl({"start", "player", "0", "--wait"});
    EXPECT_TRUE(Says(played, 0, "player 0 completed: " + one + ", 1 s"));
    EXPECT_LT(played.out.find("Start playing/recording: 0"), played.out.find("completed"));

    EXPECT_TRUE(Says(Ctl({"create", "recorder", "1", "2"}), 0, "Operation successful"));
    EXPECT_TRUE(Says(Ctl({"record", "1", "--seconds", "1", "--bits", "24", Path("rec.wav")}), 0, "recorder 1:"));
    EXPECT_TRUE(Says(Ctl({"--json", "start", "recorder", "1", "--wait"}), 0,
                     "{\"kind\":\"completion\",\"module\":\"recorder\",\"slot\":1,\"file\":\"" + Path("rec.wav") +
                         "\",\"length\":1,\"rolled\":false,"));
    SF_INFO info;
    EXPECT_EQ(ReadCodes(Path("rec.wav"), info, 24).size(), 2u * 48000);
    EXPECT_EQ(info.channels, 2);
    EXPECT_EQ(info.format, SF_FORMAT_WAV | SF_FORMAT_PCM_24);
    EXPECT_TRUE(Says(Ctl({"status", "recorder", "1"}), 0, "Query status: 0 Operation successful"));

    // Bad arguments are refused before anything is sent.
    EXPECT_TRUE(Says(Ctl({"record", "1", "--rate", "44100", Path("x.wav")}), 100, "--rate"));
    EXPECT_TRUE(Says(Ctl({"play", "0", std::string(1100, 'a')}), 100, "longer than 1027"));
}
TEST_F(CtlTest, OnlyOneLiveClientHoldsTheReplyPath)
{
    // The fixture's client holds the path: the command leaves it alone.
    EXPECT_TRUE(Says(Ctl({"hello"}), 102, "held by another running client"));
    EXPECT_EQ(m_Client.Call(eZorPlayPlayer, eCmdHello, 0), eResultSuccess) << "the holder lost its socket";

    // A file left by a client that died is taken over.
    m_Client.Close();
    const int stale = socket(AF_UNIX, SOCK_DGRAM, 0);
    const sockaddr_un addr = UnixAddress(kClientSocketPath);
    ASSERT_EQ(bind(stale, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)), 0);
    close(stale);
    EXPECT_TRUE(Says(Ctl({"hello"}), 0, "Hello: 0 Operation successful"));
    EXPECT_FALSE(FileExists(kClientSocketPath)) << "the command leaves no reply path behind";

    EXPECT_TRUE(Says(Ctl({"exit"}), 0, "Exit recorder/player process: 0"));
    EXPECT_EQ(m_Server.WaitExit(10000), 0);
    EXPECT_TRUE(Says(Ctl({"hello"}), 101, "no server at /tmp/recorder_unix_socket_server"));
}

} // namespace
