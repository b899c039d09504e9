// The interactive console driven through a pipe on its standard input.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <poll.h>
#include <sys/stat.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "harness/server_fixture.h"
#include "protocol/rp_server.h"

namespace {

// Takes the server's socket path over, so that what the console sends
// arrives here and can be checked field by field; answers go back to the
// console's own client path.
class StolenServerPath {
public:
    bool Bind()
    {
        unlink(kServerSocketPath);
        m_nFD = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        strcpy(addr.sun_path, kServerSocketPath);
        return m_nFD >= 0 && bind(m_nFD, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    }
    ~StolenServerPath()
    {
        if (m_nFD >= 0)
            close(m_nFD);
    }
    bool Receive(structZorPlayMsg& msg, int timeoutMs = 5000)
    {
        pollfd pfd{m_nFD, POLLIN, 0};
        if (poll(&pfd, 1, timeoutMs) <= 0)
            return false;
        memset(&msg, 0, sizeof(msg));
        return recv(m_nFD, &msg, sizeof(msg), 0) == static_cast<ssize_t>(sizeof(msg));
    }
    bool SendToConsole(const structZorPlayMsg& msg)
    {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        strcpy(addr.sun_path, kClientSocketPath);
        return sendto(m_nFD, &msg, sizeof(msg), 0, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) ==
               static_cast<ssize_t>(sizeof(msg));
    }

private:
    int m_nFD = -1;
};

class Console : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_pJack = std::make_unique<JackServer>();
        ASSERT_TRUE(s_pJack->Start());
    }
    static void TearDownTestSuite() { s_pJack.reset(); }

    void StartConsole(const std::vector<std::string>& extraArgs = {})
    {
        std::vector<std::string> args{"-i", "-s"};
        args.insert(args.end(), extraArgs.begin(), extraArgs.end());
        ASSERT_TRUE(m_Server.Start(args, s_pJack->Name(), true));
        ASSERT_TRUE(m_Server.WaitForOutput("x - halt everything and exit\r\n\r\n> ", 10000)) << m_Server.Output();
        ASSERT_TRUE(WaitUntil([] { return FileExists(kServerSocketPath) && FileExists(kClientSocketPath); }, 5000));
    }

    // Types a line and returns what the stolen server path received, if anything.
    bool Type(const std::string& line, structZorPlayMsg& msg, int timeoutMs = 5000)
    {
        EXPECT_TRUE(m_Server.WriteInput(line + "\n"));
        return m_Stolen.Receive(msg, timeoutMs);
    }

    static std::unique_ptr<JackServer> s_pJack;
    ZorPlayProcess m_Server;
    StolenServerPath m_Stolen;
};

std::unique_ptr<JackServer> Console::s_pJack;

} // namespace

TEST_F(Console, EachCommandSendsItsRequestAndParseErrorsSendNothing)
{
    StartConsole();
    ASSERT_TRUE(m_Stolen.Bind());
    structZorPlayMsg m;

    ASSERT_TRUE(Type("h", m));
    EXPECT_EQ(m.nVersion, 0u);
    EXPECT_EQ(m.nLength, kZorPlayMsgSize);
    EXPECT_EQ(m.nID, 0);
    EXPECT_EQ(m.nReq, eReqRequest);
    EXPECT_EQ(m.eType, eZorPlayRecorder);
    EXPECT_EQ(m.eCmd, eCmdHello);
    EXPECT_EQ(m.nIndex, 0);

    // Parse errors send nothing and use no request id.
    for (const char* bad : {"GO", "go 0", "go 0 1 2", "# go 0 1", "", "sf x 0 name", "sp 1 y list"})
        EXPECT_FALSE(Type(bad, m, 300)) << "'" << bad << "' sent something";
    ASSERT_TRUE(m_Server.WaitForOutput("First param not integer\r\n", 5000));
    const std::string out = m_Server.Output();
    EXPECT_NE(out.find("No valid command found.\r\n"), std::string::npos);
    EXPECT_NE(out.find("Too few parameters for command\r\n"), std::string::npos);
    EXPECT_NE(out.find("Too many parameters for command\n"), std::string::npos);

    // Header fields and the first two words of the payload. Request ids go
    // on from 1.
    const struct {
        const char* line;
        enumZorPlayCmd cmd;
        uint32_t type;
        int index;
        int32_t word0, word1;
    } cases[] = {
        {"go,0;1", eCmdStart, 0, 1, 0, 0},           {"ami 0 2 2 1", eCmdCreate, 0, 2, 2, 0}, // ports typed from 1
        {"am 1 3 4", eCmdCreate, 1, 0, 3, 4},        {"sk 1 0 -2", eCmdSkipInPlaylist, 1, 0, 1, -2},
        {"ska 1 0 5", eCmdSkipInPlaylist, 1, 0, 0, 5}, {"se 1 4 30", eCmdSeek, 1, 4, 0, 30},
        {"p 1 5", eCmdPause, 1, 5, 0, 0},            {"ff 1 6", eCmdFastForward, 1, 6, 0, 0},
        {"rw 1 7", eCmdRewind, 1, 7, 0, 0},          {"q 0 1", eCmdStop, 0, 1, 0, 0},
        {"dd 1 4", eCmdQueryStatus, 1, 4, 0, 0},     {"d 5 3", eCmdDelete, 1, 3, 0, 0},
        {"da 0", eCmdDeleteAll, 0, 0, 0, 0},         {"ls", eCmdHello, 0, 1, 0, 0},
        {"go a 1", eCmdStart, 0, 1, 0, 0}, // a number that does not parse goes out as 0
    };
    int id = 1;
    for (const auto& c : cases) {
        ASSERT_TRUE(Type(c.line, m)) << c.line;
        int32_t words[2];
        memcpy(words, &m.payload, sizeof(words));
        EXPECT_EQ(m.nID, id++) << c.line;
        EXPECT_EQ(m.eCmd, c.cmd) << c.line;
        EXPECT_EQ(m.eType, c.type) << c.line;
        EXPECT_EQ(m.nIndex, c.index) << c.line;
        EXPECT_EQ(words[0], c.word0) << c.line;
        EXPECT_EQ(words[1], c.word1) << c.line;
    }
    EXPECT_TRUE(m_Server.WaitForOutput("Parameters not both integer\r\n", 5000));

    ASSERT_TRUE(Type("sf 0 3 take1", m));
    EXPECT_EQ(m.eCmd, eCmdSetupFile);
    EXPECT_EQ(m.eType, eZorPlayRecorder);
    EXPECT_EQ(m.nIndex, 3);
    const structSetupFile& rec = m.payload.setupFile;
    EXPECT_EQ(rec.bSecondary, 0);
    EXPECT_EQ(rec.nFileSeconds, 10u);
    EXPECT_EQ(rec.nFileFormat, 0);
    EXPECT_EQ(rec.nSampleRate, 0u);
    EXPECT_EQ(rec.nWordLength, 2);
    EXPECT_EQ(rec.bRoll, 0);
    EXPECT_STREQ(rec.szFilenames[0], "take1.wav");
    EXPECT_EQ(rec.szFilenames[1][0], '\0');

    ASSERT_TRUE(Type("rf 0 3 b.WAV", m));
    EXPECT_EQ(m.payload.setupFile.bSecondary, 1);
    EXPECT_EQ(m.payload.setupFile.nFileSeconds, 10u);
    EXPECT_EQ(m.payload.setupFile.nWordLength, 0);
    EXPECT_STREQ(m.payload.setupFile.szFilenames[0], "b.WAV");

    ASSERT_TRUE(Type("sf 1 2 song.WAV", m));
    EXPECT_EQ(m.eCmd, eCmdSetupPlayFile);
    EXPECT_EQ(m.eType, eZorPlayPlayer);
    EXPECT_EQ(m.nIndex, 2);
    EXPECT_EQ(m.payload.setupPlayFile.bSecondary, 0);
    EXPECT_STREQ(m.payload.setupPlayFile.szFilename, "song.WAV");

    ASSERT_TRUE(Type("rf 1 2 .wav", m));
    EXPECT_EQ(m.payload.setupPlayFile.bSecondary, 1);
    EXPECT_STREQ(m.payload.setupPlayFile.szFilename, ".wav.wav");

    ASSERT_TRUE(Type("sp 1 4 list.txt", m));
    EXPECT_EQ(m.eCmd, eCmdSetupPlaylist);
    EXPECT_EQ(m.eType, eZorPlayPlayer);
    EXPECT_EQ(m.nIndex, 4);
    EXPECT_STREQ(m.payload.setupPlaylist.szPlaylist, "list.txt") << "no extension added";

    // End of input halts like "x".
    const int lastID = m.nID;
    m_Server.CloseInput();
    ASSERT_TRUE(m_Stolen.Receive(m));
    EXPECT_EQ(m.eCmd, eCmdExit);
    EXPECT_EQ(m.nID, lastID + 1);
    EXPECT_EQ(m_Server.Stop(), 0);
}

TEST_F(Console, PrintsResponsesAndUnrequestedMessages)
{
    StartConsole();
    ASSERT_TRUE(m_Stolen.Bind());
    structZorPlayMsg m;
    ASSERT_TRUE(Type("go 0 1", m));

    structZorPlayMsg resp = m;
    resp.nReq = eReqResponse;
    memset(&resp.payload, 0, sizeof(resp.payload));
    resp.payload.eResult = eResultNoFile;
    ASSERT_TRUE(m_Stolen.SendToConsole(resp));
    EXPECT_TRUE(m_Server.WaitForOutput("Response to id:0, status: 11-Module has no file\r\n", 5000))
        << m_Server.Output();

    structZorPlayMsg progress;
    InitUnrequested(progress, eZorPlayPlayer, eCmdFileProgress, 2);
    progress.payload.fileProgress = {4, 5, 15, 20, 37, 1, 9, 22, 3};
    ASSERT_TRUE(m_Stolen.SendToConsole(progress));
    EXPECT_TRUE(m_Server.WaitForOutput(
        "Player[2]: Running progress->#####               <- idx[03] (5/20) Buffer  37%, Runs 1, u's: 22,9\r\n", 5000))
        << m_Server.Output();

    InitUnrequested(progress, eZorPlayRecorder, eCmdFileProgress, 1);
    progress.payload.fileProgress = {6, 3, 0, 0, 100, 0, 0, 0, 0};
    ASSERT_TRUE(m_Stolen.SendToConsole(progress));
    EXPECT_TRUE(m_Server.WaitForOutput(
        "Recorder[1]: Draining progress->                    <- (3/0) Buffer 100%, Runs 0, u's: 0,0\r\n", 5000))
        << m_Server.Output();

    structZorPlayMsg done;
    InitUnrequested(done, eZorPlayPlayer, eCmdFileCompletion, 0);
    strcpy(done.payload.fileCompletion.szFilename, "a.wav");
    done.payload.fileCompletion.nLength = 12;
    done.payload.fileCompletion.bRolled = 1;
    strcpy(done.payload.fileCompletion.szNewFilename, "b.wav");
    done.payload.fileCompletion.nXRuns = 2;
    done.payload.fileCompletion.nIndex = 4;
    done.payload.fileCompletion.nNewIndex = 5;
    ASSERT_TRUE(m_Stolen.SendToConsole(done));
    EXPECT_TRUE(m_Server.WaitForOutput("Player[0] File Complete: a.wav, [04]\r\n\tLength: 12 Sec\r\n\tXRuns: 2\r\n"
                                       "\tRolled to new file: b.wav[05]\r\n",
                                       5000))
        << m_Server.Output();

    InitUnrequested(done, eZorPlayRecorder, eCmdFileCompletion, 3);
    strcpy(done.payload.fileCompletion.szFilename, "r.wav");
    ASSERT_TRUE(m_Stolen.SendToConsole(done));
    EXPECT_TRUE(m_Server.WaitForOutput("Recorder[3] File Complete: r.wav\r\n\tLength: 0 Sec\r\n\tXRuns: 0\r\n"
                                       "\tDid not roll on completion.\r\n",
                                       5000))
        << m_Server.Output();

    structZorPlayMsg odd;
    InitRequest(odd, 77, eZorPlayRecorder, eCmdStop, 0);
    ASSERT_TRUE(m_Stolen.SendToConsole(odd));
    EXPECT_TRUE(m_Server.WaitForOutput("Client got 3236 byte UD message, ID=77, cmd=5, req=0 \r\n", 5000));
    EXPECT_EQ(m_Server.Stop(), 0);
}

TEST_F(Console, AgainstTheRealServer)
{
    // A second -i keeps the console but turns its log category off again.
    StartConsole({"-e", "-i"});
    // The module table comes from the server's thread and the log table
    // from the console's: the second is asked for once the first is out
    // (the answer to "ls" follows its table).
    ASSERT_TRUE(m_Server.WriteInput("h\nls\n"));
    ASSERT_TRUE(m_Server.WaitForOutput("Response to id:1, status: 0-Operation successful\r\n", 10000))
        << m_Server.Output();
    ASSERT_TRUE(m_Server.WriteInput("tl 8\ntl 8\nsl\n"));
    ASSERT_TRUE(m_Server.WaitForOutput("\t 64 - 0 - INTERACTIVE\n\n", 10000)) << m_Server.Output();
    const std::string out = m_Server.Output();
    EXPECT_NE(out.find("> h\n"), std::string::npos) << "-e echoes each line";
    EXPECT_NE(out.find("Response to id:0, status: 0-Operation successful\r\n"), std::string::npos);
    EXPECT_NE(out.find("Recorders:\r\n\t[0]: is empty.\r\n"), std::string::npos);
    EXPECT_NE(out.find("Enabled logging for category 8 \r\n"), std::string::npos);
    EXPECT_NE(out.find("Disabled logging for category 8 \r\n"), std::string::npos);
    EXPECT_NE(out.find("          Category\n          |   Enabled\n          |   |   Name\n"
                       "\t  1 - 0 - JACK\n\t  2 - 0 - CREATION\n\t  4 - 0 - RUNTIME\n\t  8 - 0 - FILE\n"
                       "\t 16 - 0 - MESSAGING\n\t 32 - 0 - PERFORMANCE\n\t 64 - 0 - INTERACTIVE\n\n"),
              std::string::npos)
        << out;

    // End of input sends Exit: the whole process ends cleanly.
    m_Server.CloseInput();
    EXPECT_EQ(m_Server.WaitExit(10000), 0) << m_Server.Output();
}

TEST_F(Console, InterruptEndsTheProcessWhileTheConsoleWaitsForInput)
{
    StartConsole();
    ASSERT_TRUE(m_Server.WaitUntilIdle(5000));
    m_Server.Signal(SIGINT);
    EXPECT_EQ(m_Server.WaitExit(10000), 0) << m_Server.Output();
    EXPECT_FALSE(FileExists(kClientSocketPath)) << "the console removes its socket file";
}

TEST_F(Console, WithoutItsSocketTheConsoleDoesNotStartAndShutdownStillEnds)
{
    rmdir(kClientSocketPath);
    ASSERT_EQ(mkdir(kClientSocketPath, 0700), 0) << "a directory where the console binds";
    ASSERT_TRUE(m_Server.Start({"-i", "-s"}, s_pJack->Name(), true));
    EXPECT_TRUE(m_Server.WaitForOutput("Can't bind unix socket '/tmp/recorder_unix_socket_client': ", 10000))
        << m_Server.Output();
    EXPECT_EQ(m_Server.Stop(), 0) << m_Server.Output();
    EXPECT_EQ(m_Server.Output().find("Command Menu"), std::string::npos);
    rmdir(kClientSocketPath);
}
