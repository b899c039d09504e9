// The interactive console driven through a pipe on its standard input.
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cstring>
#include <map>

#include "harness/server_fixture.h"
#include "protocol/rp_server.h"

namespace {

class Console : public ServerTest {
protected:
    Console() { m_bStartServer = false; }
    ~Console() override { close(m_nStolen); }
    void StartConsole(std::vector<std::string> args = {}, bool steal = true)
    {
        args.insert(args.begin(), {"-i", "-s"});
        m_Client.Close(); // the console binds the client path
        ASSERT_TRUE(m_Server.Start(args, JackName(), true));
        ASSERT_TRUE(m_Server.WaitForOutput("x - halt everything and exit\r\n\r\n> ", 10000)) << m_Server.Output();
        ASSERT_TRUE(WaitUntil([] { return FileExists(kServerSocketPath) && FileExists(kClientSocketPath); }, 5000));
        if (!steal)
            return;
        // Takes the server's path over: requests come here, answers go to the console's path.
        unlink(kServerSocketPath);
        m_nStolen = socket(AF_UNIX, SOCK_DGRAM, 0);
        const sockaddr_un addr = UnixAddress(kServerSocketPath);
        ASSERT_EQ(bind(m_nStolen, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)), 0);
    }
    // Types a line (none: closes the input); true when a request reached the stolen path.
    bool Type(const char* line, structZorPlayMsg& msg, int timeoutMs = 5000)
    {
        EXPECT_TRUE(line ? m_Server.WriteInput(line + std::string("\n")) : (m_Server.CloseInput(), true));
        pollfd pfd{m_nStolen, POLLIN, 0};
        return poll(&pfd, 1, timeoutMs) > 0 && recv(m_nStolen, &msg, sizeof(msg), 0) == sizeof(msg);
    }
    void ExpectPrinted(const structZorPlayMsg& msg, const std::string& text)
    {
        const sockaddr_un addr = UnixAddress(kClientSocketPath);
        sendto(m_nStolen, &msg, sizeof(msg), 0, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
        EXPECT_TRUE(m_Server.WaitForOutput(text)) << m_Server.Output();
    }
    int m_nStolen = -1;
};

} // namespace

// Each command line sends its request (header, payload words, any file name);
// parse errors send nothing, print their line and use no request id. Messages
// that come are printed; end of input sends Exit.
TEST_F(Console, CommandsSendRequestsAndMessagesArePrinted)
{
    StartConsole();
    structZorPlayMsg m;
    for (const char* bad : {"GO", "go 0", "go 0 1 2", "# go 0 1", "", "sf x 0 name", "sp 1 y list"})
        EXPECT_FALSE(Type(bad, m, 300)) << "'" << bad << "' sent something";
    EXPECT_TRUE(Printed(0, {"No valid command found.\r\n", "Too few parameters for command\r\n",
                            "Too many parameters for command\n", "First param not integer\r\n"}));
    struct Case { // the header's command, type and index, payload words by index, the file name
        const char* line; enumZorPlayCmd cmd; uint32_t type; int index;
        std::map<int, int32_t> words; const char* name = nullptr; };
    const Case cases[] = {
        {"h", eCmdHello, 0, 0, {}},
        {"go,0;1", eCmdStart, 0, 1, {}},
        {"ami 0 2 2 1", eCmdCreate, 0, 2, {{0, 2}, {1, 0}}}, // ports typed from 1
        {"am 1 3 4", eCmdCreate, 1, 0, {{0, 3}, {1, 4}}},
        {"sk 1 0 -2", eCmdSkipInPlaylist, 1, 0, {{0, 1}, {1, -2}}},
        {"ska 1 0 5", eCmdSkipInPlaylist, 1, 0, {{0, 0}, {1, 5}}},
        {"se 1 4 30", eCmdSeek, 1, 4, {{1, 30}}},
        {"p 1 5", eCmdPause, 1, 5, {}},
        {"ff 1 6", eCmdFastForward, 1, 6, {}},
        {"rw 1 7", eCmdRewind, 1, 7, {}},
        {"q 0 1", eCmdStop, 0, 1, {}},
        {"dd 1 4", eCmdQueryStatus, 1, 4, {}},
        {"d 5 3", eCmdDelete, 1, 3, {}},
        {"da 0", eCmdDeleteAll, 0, 0, {}},
        {"ls", eCmdHello, 0, 1, {}},
        {"go a 1", eCmdStart, 0, 1, {}}, // a number that does not parse goes out as 0
        // Record set-ups: secondary flag, seconds, then format, rate, word length and roll.
        {"sf 0 3 take1", eCmdSetupFile, 0, 3, {{0, 0}, {1, 10}, {770, 0}, {771, 0}, {772, 2}, {780, 0}}, "take1.wav"},
        {"rf 0 3 b.WAV", eCmdSetupFile, 0, 3, {{0, 1}, {1, 10}, {770, 0}, {771, 0}, {772, 0}, {780, 0}}, "b.WAV"},
        {"sf 1 2 song.WAV", eCmdSetupPlayFile, 1, 2, {{0, 0}}, "song.WAV"},
        {"rf 1 2 .wav", eCmdSetupPlayFile, 1, 2, {{0, 1}}, ".wav.wav"},
        {"sp 1 4 list.txt", eCmdSetupPlaylist, 1, 4, {}, "list.txt"}, // no extension added
    };
    int id = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        ASSERT_TRUE(Type(c.line, m));
        structZorPlayMsg want;
        InitRequest(want, id++, static_cast<enumZorPlayType>(c.type), c.cmd, c.index);
        EXPECT_EQ(memcmp(&m, &want, 28), 0) << "header";
        int32_t words[sizeof(m.payload) / 4];
        memcpy(words, &m.payload, sizeof(words));
        for (const auto& w : c.words)
            EXPECT_EQ(words[w.first], w.second) << "payload word " << w.first;
        if (c.name) {
            EXPECT_STREQ(reinterpret_cast<const char*>(&m.payload) + (c.cmd == eCmdSetupFile ? 8 : 4), c.name);
        }
    }
    EXPECT_TRUE(m_Server.WaitForOutput("Parameters not both integer\r\n"));

    m.nReq = eReqResponse; // to the last request
    memset(&m.payload, 0, sizeof(m.payload));
    m.payload.eResult = eResultNoFile;
    ExpectPrinted(m, "Response to id:" + std::to_string(id - 1) + ", status: 11-Module has no file\r\n");
    InitUnrequested(m, eZorPlayPlayer, eCmdFileProgress, 2);
    m.payload.fileProgress = {4, 5, 15, 20, 37, 1, 9, 22, 3};
    ExpectPrinted(m, "Player[2]: Running progress->#####               <- idx[03] (5/20) Buffer  37%, Runs 1, u's: 22,9\r\n");
    InitUnrequested(m, eZorPlayRecorder, eCmdFileProgress, 1);
    m.payload.fileProgress = {6, 3, 0, 0, 100, 0, 0, 0, 0};
    ExpectPrinted(m, "Recorder[1]: Draining progress->                    <- (3/0) Buffer 100%, Runs 0, u's: 0,0\r\n");
    InitUnrequested(m, eZorPlayPlayer, eCmdFileCompletion, 0);
    m.payload.fileCompletion = {"a.wav", 12, 1, "b.wav", 2, 4, 5};
    ExpectPrinted(m, "Player[0] File Complete: a.wav, [04]\r\n\tLength: 12 Sec\r\n\tXRuns: 2\r\n"
                     "\tRolled to new file: b.wav[05]\r\n");
    InitUnrequested(m, eZorPlayRecorder, eCmdFileCompletion, 3);
    m.payload.fileCompletion = {"r.wav", 0, 0, "", 0, 0, 0};
    ExpectPrinted(m, "Recorder[3] File Complete: r.wav\r\n\tLength: 0 Sec\r\n\tXRuns: 0\r\n\tDid not roll on completion.\r\n");
    InitRequest(m, 77, eZorPlayRecorder, eCmdStop, 0);
    ExpectPrinted(m, "Client got 3236 byte UD message, ID=77, cmd=5, req=0 \r\n");
    ASSERT_TRUE(Type(nullptr, m));
    EXPECT_EQ(m.eCmd, eCmdExit);
    EXPECT_EQ(m.nID, id);
}

// Against the real server: echo, the module and log tables, log toggles, end
// of input ending the process (a second -i turns the console's log category off
// again), an interrupt at the input wait, and no console without its socket.
TEST_F(Console, AgainstTheRealServerInputEndInterruptAndAMissingSocket)
{
    StartConsole({"-e", "-i"}, false);
    // The module table comes from the server's thread and the log table from
    // the console's: the second is asked for once the first is out.
    ASSERT_TRUE(m_Server.WriteInput("h\nls\n"));
    ASSERT_TRUE(m_Server.WaitForOutput("Response to id:1, status: 0-Operation successful\r\n", 10000));
    ASSERT_TRUE(m_Server.WriteInput("tl 8\ntl 8\nsl\n"));
    EXPECT_TRUE(Printed(0, {"> h\n", "Recorders:\r\n\t[0]: is empty.\r\n", "Enabled logging for category 8 \r\n",
                            "Disabled logging for category 8 \r\n",
                            "          Category\n          |   Enabled\n          |   |   Name\n"
                            "\t  1 - 0 - JACK\n\t  2 - 0 - CREATION\n\t  4 - 0 - RUNTIME\n\t  8 - 0 - FILE\n"
                            "\t 16 - 0 - MESSAGING\n\t 32 - 0 - PERFORMANCE\n\t 64 - 0 - INTERACTIVE\n\n"}));
    m_Server.CloseInput();
    EXPECT_EQ(m_Server.WaitExit(10000), 0) << m_Server.Output();

    StartConsole({}, false);
    EXPECT_EQ(m_Server.Stop(), 0) << m_Server.Output(); // an interrupt at the input wait
    EXPECT_FALSE(FileExists(kClientSocketPath)) << "the console removes its socket file";

    ASSERT_EQ(mkdir(kClientSocketPath, 0700), 0) << "a directory where the console binds";
    ASSERT_TRUE(m_Server.Start({"-i", "-s"}, JackName(), true));
    EXPECT_TRUE(m_Server.WaitForOutput("Can't bind unix socket '/tmp/recorder_unix_socket_client': ", 10000));
    EXPECT_EQ(m_Server.Stop(), 0) << m_Server.Output();
    EXPECT_EQ(m_Server.Output().find("Command Menu"), std::string::npos);
    rmdir(kClientSocketPath);
}
