// A player's commands and callback reports meeting its end of play, without JACK: the
// test orders callback periods and worker steps itself; the stress case runs the worker.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <random>
#include <thread>

#include "app/globals.h"
#include "app/info_files.h"
#include "harness/process.h"
#include "harness/sound.h"
#include "modules/rp_player.h"
#include "protocol/rp_server.h"

namespace {

constexpr unsigned kPeriod = 256;
using Names = std::vector<std::string>;

class CSeamPlayer : public CPlayer {
public:
    explicit CSeamPlayer(CRPServer* server) : CPlayer("SeamPlayer", 6, 1, 0, server) { SetState(eStateIdle); }
    using CPlayer::CreateQueues;
    using CPlayer::m_mqInternal;
    using CPlayer::SendRTRequest;
    using CPlayer::StartWorker;
    using CPlayer::StopWorker;

    // One period of the callback (on one thread at a time).
    void Period() { PlayPeriod(m_Ports, kPeriod); }
    // The worker's handling of the internal tokens posted so far (at most 'limit').
    void Tokens(unsigned limit = ~0u)
    {
        static const timespec kNow = {0, 0};
        uint32_t token = 0;
        for (; limit && mq_timedreceive(m_mqInternal, reinterpret_cast<char*>(&token), 4, nullptr, &kNow) == 4; --limit)
            HandleInternalToken(token);
    }
    // The worker's handling of one command, with its payload.
    enumZorPlayResult Command(eRPCommandToken token, void* payload = nullptr, unsigned len = 0)
    {
        if (payload)
            SendInternal(payload, len);
        char buffer[kZorPlayPayloadSize];
        HandleCommandToken(token, buffer);
        return GetResponse();
    }
    // Completions since the last call: "A" (final) or "A>B" (roll-over), by base name.
    Names TakeCompletions()
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        return std::exchange(m_Completions, {});
    }

protected:
    void PrepareCompletionMsg(bool bRoll) override
    {
        CPlayer::PrepareCompletionMsg(bRoll);
        const structFileCompletion& c = m_CompletionMsg.payload.fileCompletion;
        const auto base = [](const char* path) { return std::filesystem::path(path).stem().string(); };
        std::lock_guard<std::mutex> lock(m_Lock);
        m_Completions.push_back(base(c.szFilename) + (c.bRolled ? ">" + base(c.szNewFilename) : ""));
    }

private:
    float m_Out[kPeriod];
    float* m_Ports[1] = {m_Out};
    std::mutex m_Lock;
    Names m_Completions;
};

class PlayerRaces : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_nJackSampleRate = 48000;
        g_nBufferSizeFrames = kPeriod;
        ASSERT_NE(mkdtemp(m_szDir), nullptr);
        // Three and a half periods: the fourth period plays the file out.
        for (const char* name : {"A.wav", "B.wav"})
            ASSERT_TRUE(WriteRamp(Path(name), 1, 0, kPeriod * 7 / 2));
        WriteFile(Path("list.txt"), Path("A.wav") + "\n");
        strscpy(m_A.szFilename, Path("A.wav").c_str(), sizeof(m_A.szFilename));
        strscpy(m_B.szFilename, Path("B.wav").c_str(), sizeof(m_B.szFilename));
        strscpy(m_List.szPlaylist, Path("list.txt").c_str(), sizeof(m_List.szPlaylist));
        ASSERT_EQ(m_Player.CreateQueues(), eResultSuccess); // says when msg_max is too small
    }
    void TearDown() override
    {
        m_Player.StopWorker();
        std::filesystem::remove_all(m_szDir);
    }
    std::string Path(const std::string& name) const { return std::string(m_szDir) + "/" + name; }
    // Periods, each followed by the worker's tokens, until play has ended.
    void Play(int periods = 200)
    {
        for (int i = 0; i < periods && m_Player.GetState() != eStateIdle; ++i) {
            m_Player.Period();
            m_Player.Tokens();
        }
    }

    char m_szDir[32] = "/tmp/zp_races_XXXXXX";
    structSetupPlayFile m_A = {0, {}};      // A as the primary file
    structSetupPlayFile m_B = {1, {}};      // B as the secondary
    structSetupPlaylist m_List = {0, {}};   // A alone
    structSkipInPlaylist m_Skip = {0, 0};
    structSeekOperation m_Seek = {0, 0};
    CRPServer m_Server; // never bound: messages are taken from the completions
    CSeamPlayer m_Player{&m_Server};
};

// Each command meets the period that plays the last file out, after it (its
// report not yet taken by the worker) and before it: either way it gets the
// state's answer, play ends with the completions of the files that played
// ('before' when the command comes first), and the player takes a new file.
TEST_F(PlayerRaces, CommandsAndReportsMeetingTheEndOfPlay)
{
    const struct { eRPCommandToken token; void* payload; unsigned len; enumZorPlayResult afterEnd; Names before; } cases[] = {
        {eTokenStop, nullptr, 0, eResultNotRunning, {"A"}},
        {eTokenPause, nullptr, 0, eResultNotRunning, {"A"}},
        {eTokenFastForward, nullptr, 0, eResultNotRunning, {"A"}},
        {eTokenRewind, nullptr, 0, eResultNotRunning, {"A"}},
        {eTokenPlaylistSkip, &m_Skip, sizeof(m_Skip), eResultSkipImpossible, {"A>A", "A"}},
        {eTokenSetupPlayFile, &m_B, sizeof(m_B), eResultNeedPrimary, {"A>B", "B"}},
    };
    for (const auto& c : cases) {
        for (bool commandFirst : {false, true}) {
            SCOPED_TRACE(std::to_string(c.token) + (commandFirst ? ", command first" : ", end first"));
            ASSERT_EQ(c.token == eTokenPlaylistSkip ? m_Player.Command(eTokenSetupPlaylist, &m_List, sizeof(m_List))
                                                    : m_Player.Command(eTokenSetupPlayFile, &m_A, sizeof(m_A)),
                      eResultSuccess);
            ASSERT_EQ(m_Player.Command(eTokenStart), eResultSuccess);
            Play(3);
            if (!commandFirst)
                m_Player.Period(); // A plays out; its report waits for the worker
            EXPECT_EQ(m_Player.Command(c.token, c.payload, c.len), commandFirst ? eResultSuccess : c.afterEnd);
            if (m_Player.GetState() == eStatePaused || m_Player.GetState() >= eStateFastForward)
                m_Player.Command(eTokenStop); // paused or winding: play out what is left
            Play();
            EXPECT_EQ(m_Player.TakeCompletions(), commandFirst ? c.before : Names{"A"});
        }
    }
    // A roll-over and the end of play reported against a full internal queue, before and
    // after the worker makes room, reach the client in order with the right names.
    ASSERT_EQ(m_Player.Command(eTokenSetupPlayFile, &m_A, sizeof(m_A)), eResultSuccess) << "after the last case";
    ASSERT_EQ(m_Player.Command(eTokenSetupPlayFile, &m_B, sizeof(m_B)) + m_Player.Command(eTokenStart), eResultSuccess);
    for (mq_attr a = {}; mq_getattr(m_Player.m_mqInternal, &a) == 0 && a.mq_curmsgs < a.mq_maxmsg;)
        m_Player.SendRTRequest(eInternalService);
    for (int i = 0; i < 4; ++i)
        m_Player.Period(); // rolls from A to B with the queue full
    m_Player.Tokens(1);    // the worker makes room
    for (int i = 0; i < 4; ++i) {
        m_Player.Tokens(1);
        m_Player.Period(); // B plays out
    }
    Play();
    EXPECT_EQ(m_Player.TakeCompletions(), (Names{"A>B", "B"}));
}

// Random commands against a player playing short files back to back, its
// callback and worker on their own threads: it must still take a new file.
TEST_F(PlayerRaces, RandomCommandsLeaveThePlayerUsable)
{
    ASSERT_EQ(m_Player.StartWorker(), eResultSuccess);
    std::atomic<bool> quit{false};
    std::thread callback([&] {
        for (; !quit.load(); std::this_thread::sleep_for(std::chrono::microseconds(200)))
            m_Player.Period();
    });
    std::mt19937 rng(16);
    // Thousands of refusals would flood the log: stdout goes nowhere meanwhile.
    fflush(stdout);
    const int out = dup(1), null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    close(null);
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
         std::chrono::steady_clock::now() < end;) {
        structSetupPlayFile file = rng() % 2 ? m_A : m_B;
        file.bSecondary = rng() % 2;
        switch (rng() % 9) {
        case 0: m_Player.SetupFile(&file); break;
        case 1: m_Player.SetupPlaylist(&m_List); break;
        case 2: m_Player.PlaylistSkip(&m_Skip); break;
        case 3: m_Player.SeekToTime(&m_Seek); break;
        case 4: m_Player.Pause(); break;
        case 5: m_Player.FastForward(); break;
        case 6: m_Player.Rewind(); break;
        case 7: m_Player.Stop(); break;
        default: m_Player.Start(); break;
        }
    }
    fflush(stdout);
    dup2(out, 1);
    close(out);
    m_Player.Stop();
    EXPECT_TRUE(WaitUntil([&] { return m_Player.GetState() == eStateIdle; }, 5000)) << "play never ended after a stop";
    EXPECT_EQ(m_Player.SetupFile(&m_A), eResultSuccess);
    quit = true;
    callback.join();
    const Names done = m_Player.TakeCompletions();
    EXPECT_GT(done.size(), 20u) << "files rarely played to their end: the test proved little";
    for (const std::string& c : done)
        EXPECT_TRUE(c.size() == 1 || (c.size() == 3 && c[1] == '>')) << "completion with a missing name: " << c;
}

} // namespace
