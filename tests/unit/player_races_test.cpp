// A player's commands meeting its callback's end of play, and the callback's
// reports meeting a full internal queue. The player runs without JACK: the
// test plays its callback one period at a time and hands it commands and
// internal tokens on its own thread, in the order each case chooses; the
// stress case runs the real worker thread against a callback thread. Files
// are real WAV files; queues are the module's own.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sndfile.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "app/globals.h"
#include "app/info_files.h"
#include "modules/rp_player.h"
#include "protocol/rp_server.h"

namespace {

constexpr unsigned kPeriod = 256;

class CSeamPlayer : public CPlayer {
public:
    explicit CSeamPlayer(CRPServer* server) : CPlayer("SeamPlayer", 6, 1, 0, server) {}
    using CPlayer::CreateQueues;
    using CPlayer::SetState;
    using CPlayer::StartWorker;
    using CPlayer::StopWorker;

    // One period of the callback.
    void Period()
    {
        float out[kPeriod];
        float* ports[1] = {out};
        PlayPeriod(ports, kPeriod);
    }
    // The worker's handling of every internal token posted so far (at most
    // 'limit' of them).
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
    void FillInternalQueue()
    {
        for (mq_attr a = {}; mq_getattr(m_mqInternal, &a) == 0 && a.mq_curmsgs < a.mq_maxmsg;)
            SendRTRequest(eInternalService);
    }
    // Completions as "A" (final) or "A>B" (roll-over), by file base name.
    std::vector<std::string> Completions()
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        return m_Completions;
    }

protected:
    void PrepareCompletionMsg(bool bRoll) override
    {
        CPlayer::PrepareCompletionMsg(bRoll);
        const structFileCompletion& c = m_CompletionMsg.payload.fileCompletion;
        auto base = [](const char* path) {
            const std::string p(path);
            const size_t slash = p.rfind('/');
            return p.substr(slash + 1, p.rfind('.') - slash - 1);
        };
        std::lock_guard<std::mutex> lock(m_Lock);
        m_Completions.push_back(base(c.szFilename) + (c.bRolled ? ">" + base(c.szNewFilename) : ""));
    }

private:
    std::mutex m_Lock;
    std::vector<std::string> m_Completions;
};

class PlayerRaces : public ::testing::Test {
protected:
    void SetUp() override
    {
        unsigned depth = 0;
        std::ifstream("/proc/sys/fs/mqueue/msg_max") >> depth;
        ASSERT_GE(depth, 200u) << "module queues need 200 messages: echo 256 > /proc/sys/fs/mqueue/msg_max";
        g_nJackSampleRate = 48000;
        g_nBufferSizeFrames = kPeriod;
        ASSERT_NE(mkdtemp(m_szDir), nullptr);
        // Three and a half periods: the fourth period plays the file out.
        for (const char* name : {"A", "B"})
            Wav(name, kPeriod * 7 / 2);
        std::ofstream(Path("list.txt")) << Path("A.wav") << "\n";
        ASSERT_EQ(m_Player.CreateQueues(), eResultSuccess);
        m_Player.SetState(eStateIdle);
    }
    void TearDown() override
    {
        m_Player.StopWorker();
        EXPECT_EQ(system(("rm -rf " + std::string(m_szDir)).c_str()), 0);
    }
    std::string Path(const std::string& name) const { return std::string(m_szDir) + "/" + name; }
    void Wav(const char* name, unsigned frames)
    {
        SF_INFO info = {};
        info.samplerate = 48000;
        info.channels = 1;
        info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
        SNDFILE* f = sf_open(Path(std::string(name) + ".wav").c_str(), SFM_WRITE, &info);
        ASSERT_NE(f, nullptr);
        std::vector<float> ramp(frames);
        for (unsigned i = 0; i < frames; ++i)
            ramp[i] = static_cast<float>(i + 1) / frames;
        sf_writef_float(f, ramp.data(), frames);
        sf_close(f);
    }
    enumZorPlayResult SetUpFile(const char* name, bool secondary)
    {
        structSetupPlayFile s = {};
        s.bSecondary = secondary;
        strscpy(s.szFilename, Path(std::string(name) + ".wav").c_str(), sizeof(s.szFilename));
        return m_Player.Command(eTokenSetupPlayFile, &s, sizeof(s));
    }
    // Periods, each followed by the worker's tokens, until play has ended.
    void PlayToTheEnd()
    {
        for (int i = 0; i < 200 && m_Player.GetState() != eStateIdle; ++i) {
            m_Player.Period();
            m_Player.Tokens();
        }
        ASSERT_EQ(m_Player.GetState(), eStateIdle);
    }

    char m_szDir[32] = "/tmp/zp_races_XXXXXX";
    CRPServer m_Server; // never bound: messages are taken from the completions
    CSeamPlayer m_Player{&m_Server};
};

// Each command meets the period that plays the last file out, once after it
// (the end of play reported but not yet taken by the worker) and once before
// it. Either way the command gets the answer of the state it meets, the
// completions are those of the files that played, and the player takes a
// new file.
TEST_F(PlayerRaces, CommandsMeetingTheEndOfPlay)
{
    structSkipInPlaylist skip = {0, 0};
    structSetupPlayFile secondary = {1, {}};
    strscpy(secondary.szFilename, Path("B.wav").c_str(), sizeof(secondary.szFilename));
    const struct {
        eRPCommandToken token;
        void* payload;
        unsigned len;
        enumZorPlayResult afterEnd;
        std::vector<std::string> before; // completions when the command comes first
    } cases[] = {
        {eTokenStop, nullptr, 0, eResultNotRunning, {"A"}},
        {eTokenPause, nullptr, 0, eResultNotRunning, {"A"}},
        {eTokenFastForward, nullptr, 0, eResultNotRunning, {"A"}},
        {eTokenRewind, nullptr, 0, eResultNotRunning, {"A"}},
        {eTokenPlaylistSkip, &skip, sizeof(skip), eResultSkipImpossible, {"A>A", "A"}},
        {eTokenSetupPlayFile, &secondary, sizeof(secondary), eResultNeedPrimary, {"A>B", "B"}},
    };
    for (const auto& c : cases) {
        for (bool commandFirst : {false, true}) {
            SCOPED_TRACE(std::to_string(c.token) + (commandFirst ? ", command first" : ", end first"));
            const size_t before = m_Player.Completions().size();
            if (c.token == eTokenPlaylistSkip) {
                structSetupPlaylist list = {0, {}};
                strscpy(list.szPlaylist, Path("list.txt").c_str(), sizeof(list.szPlaylist));
                ASSERT_EQ(m_Player.Command(eTokenSetupPlaylist, &list, sizeof(list)), eResultSuccess);
            } else {
                ASSERT_EQ(SetUpFile("A", false), eResultSuccess);
            }
            ASSERT_EQ(m_Player.Command(eTokenStart), eResultSuccess);
            for (int i = 0; i < 3; ++i) {
                m_Player.Period();
                m_Player.Tokens();
            }
            if (!commandFirst)
                m_Player.Period(); // A plays out; its report waits for the worker
            EXPECT_EQ(m_Player.Command(c.token, c.payload, c.len), commandFirst ? eResultSuccess : c.afterEnd);
            if (m_Player.GetState() != eStateIdle && m_Player.GetState() != eStateDraining &&
                m_Player.GetState() != eStateRunning)
                m_Player.Command(eTokenStop); // paused or winding: play out what is left
            PlayToTheEnd();
            const std::vector<std::string> all = m_Player.Completions();
            EXPECT_EQ(std::vector<std::string>(all.begin() + before, all.end()),
                      commandFirst ? c.before : std::vector<std::string>{"A"});
        }
    }
    EXPECT_EQ(SetUpFile("B", false), eResultSuccess);
}

// A roll-over and the end of play reported while the internal queue is full,
// one before the worker makes room and one after: both reach the client, in
// order and with the right names.
TEST_F(PlayerRaces, ReportsAgainstAFullQueueKeepTheirOrder)
{
    ASSERT_EQ(SetUpFile("A", false), eResultSuccess);
    ASSERT_EQ(SetUpFile("B", true), eResultSuccess);
    ASSERT_EQ(m_Player.Command(eTokenStart), eResultSuccess);
    m_Player.FillInternalQueue();
    for (int i = 0; i < 4; ++i)
        m_Player.Period(); // rolls from A to B with the queue full
    m_Player.Tokens(1);    // the worker makes room
    for (int i = 0; i < 4; ++i) {
        m_Player.Tokens(1);
        m_Player.Period(); // B plays out
    }
    PlayToTheEnd();
    EXPECT_EQ(m_Player.Completions(), (std::vector<std::string>{"A>B", "B"}));
}

// Random commands against a player playing short files back to back, its
// callback and worker on their own threads (run under ThreadSanitizer). At
// the end it must still take a new file.
TEST_F(PlayerRaces, RandomCommandsLeaveThePlayerUsable)
{
    ASSERT_EQ(m_Player.StartWorker(), eResultSuccess);
    std::atomic<bool> quit{false};
    std::thread callback([&] {
        while (!quit.load()) {
            m_Player.Period();
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    structSetupPlaylist list = {0, {}};
    strscpy(list.szPlaylist, Path("list.txt").c_str(), sizeof(list.szPlaylist));
    std::mt19937 rng(16);
    structSetupPlayFile file = {};
    // Thousands of refusals would flood the log: the module's lines go
    // nowhere while the commands run.
    fflush(stdout);
    const int out = dup(1), null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    close(null);
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
         std::chrono::steady_clock::now() < end;) {
        file.bSecondary = rng() % 2;
        strscpy(file.szFilename, Path(rng() % 2 ? "A.wav" : "B.wav").c_str(), sizeof(file.szFilename));
        structSkipInPlaylist skip = {0, 0};
        structSeekOperation seek = {0, 0};
        switch (rng() % 9) {
        case 0: m_Player.SetupFile(&file); break;
        case 1: m_Player.SetupPlaylist(&list); break;
        case 2: m_Player.PlaylistSkip(&skip); break;
        case 3: m_Player.SeekToTime(&seek); break;
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
    for (int i = 0; i < 1000 && m_Player.GetState() != eStateIdle; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(m_Player.GetState(), eStateIdle) << "play never ended after a stop";
    file.bSecondary = 0;
    EXPECT_EQ(m_Player.SetupFile(&file), eResultSuccess);
    quit = true;
    callback.join();
    EXPECT_GT(m_Player.Completions().size(), 20u) << "files rarely played to their end: the test proved little";
    for (const std::string& c : m_Player.Completions())
        EXPECT_TRUE(c.size() == 1 || (c.size() == 3 && c[1] == '>')) << "completion with a missing name: " << c;
}

} // namespace
