// The play file handler driven directly on real files: the test plays the
// worker (services, flushes, completions) and the real-time callback (reading
// the port slot, rolling at the end of a file), in turn on one thread, and in
// the last test on two threads that meet only through the handler.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

#include <sndfile.h>

#include "app/globals.h"
#include "app/info_files.h"
#include "files/playfile_handler.h"
#include "modules/rt_gate.h"

namespace {

constexpr unsigned kPeriod = 64;
typedef std::vector<std::tuple<unsigned, unsigned, unsigned>> Runs; // file, first frame, end frame

// Channel 0 carries the frame index, channel 1 the file: every frame of a
// stream tells where it came from.
float Sample(unsigned file, unsigned frame, unsigned ch)
{
    return ch == 0 ? static_cast<float>(frame) / 1048576.0f : static_cast<float>(file) / 64.0f;
}

// One callback period of n frames into out, taken as the player's callback
// takes it: the port file's audio, rolling onto the next file inside the
// period once the port file has played out. False once play halts.
bool CallbackPeriod(CPlayFileHandler& h, unsigned n, std::vector<float>& out, unsigned& rolls)
{
    while (CZPBuffer* b = h.GetPlayBufferP()) {
        const unsigned k = std::min(b->GetReadableFrames(), n);
        for (unsigned i = 0; i < k * 2; ++i)
            out.push_back(b->ReadSingle());
        if ((n -= k) == 0 || !h.IsCurrentPortFileDone() || !h.IsRollReady())
            break;
        if (!h.RTRoll())
            return false;
        ++rolls;
    }
    return true;
}

class Handler : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_nJackSampleRate = 48000;
        g_nBufferSizeFrames = kPeriod;
        char dir[] = "/tmp/zp_play_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_Dir = dir;
    }
    void TearDown() override
    {
        m_H.EndPlaylist();
        EXPECT_EQ(system(("rm -rf " + m_Dir).c_str()), 0);
    }
    std::string Name(unsigned id) { return m_Dir + "/a" + std::to_string(id) + ".wav"; }
    std::string Audio(unsigned id, unsigned frames, unsigned rate = 48000)
    {
        SF_INFO info = {0, static_cast<int>(rate), 2, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 0, 0};
        SNDFILE* f = sf_open(Name(id).c_str(), SFM_WRITE, &info);
        for (unsigned i = 0; i < frames; ++i) {
            const float frame[2] = {Sample(id, i, 0), Sample(id, i, 1)};
            sf_writef_float(f, frame, 1);
        }
        sf_close(f);
        return Name(id);
    }
    std::string Text(const std::string& text)
    {
        std::ofstream(m_Dir + "/list.txt") << text;
        return m_Dir + "/list.txt";
    }
    int Manual(const std::string& path, bool secondary)
    {
        structSetupPlayFile s = {};
        s.bSecondary = secondary;
        strscpy(s.szFilename, path.c_str(), sizeof(s.szFilename));
        const int r = m_H.AddSingleFile(&s);
        m_H.OpenStagedSecondary(); // as the player does once its callback runs again
        return r;
    }
    int Playlist(const std::string& path)
    {
        structSetupPlaylist s = {};
        strscpy(s.szPlaylist, path.c_str(), sizeof(s.szPlaylist));
        return m_H.AddPlaylist(&s);
    }
    // A worker that keeps well ahead of the callback.
    void Service()
    {
        for (int i = 0; i < 8; ++i)
            m_H.ServiceBuffer();
    }
    // One callback period, then the worker's completion for each roll.
    void Period(unsigned n)
    {
        unsigned rolls = 0;
        m_bHalted = !CallbackPeriod(m_H, n, m_Out, rolls);
        for (; rolls > 0; --rolls) {
            m_Done.emplace_back();
            m_H.PopCompletionMessage(&m_Done.back(), true);
        }
    }
    // Worker and callback in turn until play halts, then the final completion.
    void PlayToEnd(unsigned periodFrames)
    {
        for (int guard = 0; guard < 100000 && !m_bHalted; ++guard)
            Service(), Period(periodFrames);
        ASSERT_TRUE(m_bHalted);
        m_Done.emplace_back();
        m_H.PopCompletionMessage(&m_Done.back(), false);
        m_bHalted = false;
        EXPECT_TRUE(m_H.IsEmpty() && !m_H.IsPlaylistActive());
        EXPECT_EQ(m_H.GetNextStageIndex() + m_H.GetReadingIndex() + m_H.GetPortPlayingIndex(), 0u);
    }
    // The stream from `from` on is exactly these runs back to back.
    void ExpectStream(const Runs& runs, size_t from = 0)
    {
        for (auto [id, first, end] : runs)
            for (unsigned f = first; f < end; ++f, from += 2) {
                ASSERT_LT(from, m_Out.size()) << "stream ends in file " << id << " frame " << f;
                ASSERT_TRUE(m_Out[from] == Sample(id, f, 0) && m_Out[from + 1] == Sample(id, f, 1))
                    << "file " << id << " frame " << f << " is " << m_Out[from] << ", " << m_Out[from + 1];
            }
        EXPECT_EQ(from, m_Out.size()) << "nothing after the last run";
    }

    std::string m_Dir;
    CPlayFileHandler m_H{2};
    std::vector<float> m_Out;
    std::vector<structFileCompletion> m_Done;
    bool m_bHalted = false;
};

} // namespace

// Files shorter than a period roll twice inside one; files longer than the
// play buffer wrap it. A secondary given once the reading side has run out
// (the player drains and no longer services) follows at once, inside the same
// period; one given after a stop is not played. A file read to its end and
// sought back (to the very end, then the start) plays again in full.
TEST_F(Handler, ManualFilesRollGaplesslyLateSecondariesFollowAndSeeksRevive)
{
    ASSERT_EQ(Manual(Audio(1, 48000 + 100), false), eResultSuccess);
    ASSERT_EQ(Manual(Audio(2, 77), true) + Manual(Audio(3, 40), true) + Manual(Audio(4, 1000), true), 0);
    EXPECT_STREQ(m_H.GetActiveFilename(), Name(1).c_str());
    PlayToEnd(1000);
    ExpectStream({{1, 0, 48100}, {2, 0, 77}, {3, 0, 40}, {4, 0, 1000}});
    EXPECT_EQ(m_Done.size(), 4u);

    m_Out.clear();
    ASSERT_EQ(Manual(Audio(6, 300), false), eResultSuccess);
    while (m_H.ServiceBuffer() != 0) {
    }
    ASSERT_EQ(Manual(Audio(7, 200), true), eResultSuccess);
    Period(1000);
    ExpectStream({{6, 0, 300}, {7, 0, 200}});
    PlayToEnd(1000);

    ASSERT_EQ(Manual(Audio(8, 3000), false), eResultSuccess);
    Service();
    Period(100);
    EXPECT_EQ(m_H.ManualStop(), 0);
    ASSERT_EQ(Manual(Audio(9, 100), true), eResultSuccess);
    Period(1000);
    EXPECT_TRUE(m_bHalted);
    PlayToEnd(1000);

    g_nJackSampleRate = 1000; // a second of 1000 frames: the whole file fits the play buffer
    ASSERT_EQ(Manual(Audio(3, 2000, 1000), false), eResultSuccess);
    while (m_H.ServiceBuffer() != 0) {
    }
    EXPECT_EQ(m_H.SeekToTime(3), eResultSkipImpossible);
    ASSERT_EQ(m_H.SeekToTime(2) + m_H.SeekToTime(0), 0);
    m_Out.clear();
    Period(2000);
    EXPECT_FALSE(m_bHalted);
    PlayToEnd(1000);
    ExpectStream({{3, 0, 2000}});
}

// With conversion, a file read to its end while read frames still wait for
// room in the play buffer has not played out until they have.
TEST_F(Handler, ConvertedFileEndsOnlyOnceEverythingReadHasPlayed)
{
    ASSERT_EQ(Manual(Audio(1, 16000, 44100), false) + Manual(Audio(2, 100), true), 0);
    while (!m_H.GetSlot(0)->IsReadToEnd())
        Service(), Period(kPeriod);
    Period(20000); // the play buffer runs dry before the worker comes again
    EXPECT_FALSE(m_bHalted);
    PlayToEnd(1000);
    EXPECT_NEAR(m_Out.size() / 2.0, 16000 * 48000 / 44100.0 + 100, 3.0);
    ExpectStream({{2, 0, 100}}, m_Out.size() - 200);
}

// A wind moves through the port file; a change of direction keeps it
// audible; once it ends the ports resume exactly where they are, and the file
// read ahead follows from its start.
TEST_F(Handler, FastWindResumesWhereThePortsAre)
{
    ASSERT_EQ(Manual(Audio(1, 12000), false) + Manual(Audio(2, 3000), true), 0);
    while (m_H.GetReadingIndex() == 0)
        m_H.ServiceBuffer();
    Service();
    Period(1000);
    ASSERT_EQ(m_H.FastWind(true, true, false), 0); // the first step is taken at once
    EXPECT_EQ(m_H.GetPortPosition(), 1000u + kPeriod);
    m_Out.clear();
    for (int i = 0; i < 3; ++i)
        Service(), Period(kPeriod);
    // Each period heard is the file's period two periods on from the last.
    ExpectStream({{1, 1064, 1128}, {1, 1192, 1256}, {1, 1320, 1384}});

    ASSERT_EQ(m_H.FastWind(true, false, true), 0);
    m_Out.clear();
    Period(kPeriod / 2);
    ExpectStream({{1, 1384 - 3 * kPeriod, 1384 - 3 * kPeriod + kPeriod / 2}});
    ASSERT_EQ(m_H.FastWind(false, false, false), 0);
    const unsigned resume = 1384 - 2 * kPeriod - kPeriod / 2;
    EXPECT_EQ(m_H.GetPortPosition(), resume);
    m_Out.clear();
    PlayToEnd(kPeriod);
    ExpectStream({{1, resume, 12000}, {2, 0, 3000}});
}

// The callback's part on a thread of its own and the worker's on the test
// thread, the flushes racing the callback as they do in a running player.
// Until a flush (seek, skip, a new playlist, stop) returns, the ports may
// still get the audio before it; from then on they get the frame the flush
// asked for and what follows it, never anything older. A wind (engaged, left
// to run, ended) may put any frames of the files out while it runs; once it
// has ended the stream runs on frame by frame.
TEST_F(Handler, FlushesKeepEarlierAudioOffThePorts)
{
    g_nJackSampleRate = 1000; // whole seconds of 1000 frames keep the files short
    g_nBufferSizeFrames = 16;
    constexpr unsigned kLen = 20000, kFiles = 6, kOps = 41;
    std::string text;
    for (unsigned id = 0; id < kFiles; ++id)
        text += Audio(id, kLen, 1000) + "\n";
    const std::string list = Text(text);
    ASSERT_EQ(Playlist(list), eResultSuccess);

    std::vector<float> stream; // the callback's until the join
    stream.reserve(1 << 22);
    std::atomic<size_t> played{0};
    std::atomic<unsigned> rolls{0};
    std::atomic<bool> halted{false}, quit{false};
    CRTGate gate; // the player's part: its flushes run parked
    std::thread rt([&] {
        for (unsigned n = 0; !quit.load(); std::this_thread::yield()) {
            if (!gate.Enter())
                continue;
            if (!halted.load() && !CallbackPeriod(m_H, 16, stream, n))
                halted.store(true);
            rolls.store(n);
            played.store(stream.size() / 2);
            gate.Leave();
        }
    });

    struct Flush {
        unsigned ids[2], frame; // the file (one of two, when a roll raced the seek) and frame it asked for
        size_t before, after;   // frames played before the flush began and once it had returned
        bool wind;
    };
    std::vector<Flush> flushes;
    unsigned popped = 0;
    std::mt19937 rng(7);
    // The worker's part while the callback plays on: services and roll-over completions.
    auto work = [&](size_t frames) {
        for (const size_t until = played.load() + frames; played.load() < until && !halted.load();) {
            m_H.ServiceBuffer();
            for (structFileCompletion c = {}; popped < rolls.load(); ++popped)
                m_H.PopCompletionMessage(&c, true);
            std::this_thread::yield();
        }
    };
    for (unsigned op = 1; op <= kOps && !halted.load(); ++op) {
        work(300);
        Flush f = {{m_H.GetActivePlaylistIndex(), 0}, 0, played.load(), 0, false};
        if (op == kOps) {
            CRTGatePark park(gate);
            m_H.ManualStop();
            f.ids[0] = f.ids[1] = kFiles; // nothing at all
        } else if (op % 8 == 0) {
            // Rolls of the old files are not reported once the new list is in.
            CRTGatePark park(gate);
            ASSERT_EQ(Playlist(list), eResultSuccess);
            popped = rolls.load();
            f.ids[0] = f.ids[1] = 0;
        } else if (op % 8 == 4) {
            f.wind = true;
            // Not forward in the last entry: play would end there.
            const bool forward = rng() % 2 && f.ids[0] + 1 < kFiles;
            {
                CRTGatePark park(gate);
                m_H.FastWind(true, forward, rng() % 2);
            }
            work(200);
            CRTGatePark park(gate);
            m_H.FastWind(false, false, false);
        } else if (op % 2) {
            f.frame = rng() % (kLen / 1000) * 1000;
            CRTGatePark park(gate);
            EXPECT_EQ(m_H.SeekToTime(static_cast<int>(f.frame / 1000)), eResultSuccess);
            f.ids[1] = m_H.GetActivePlaylistIndex();
        } else {
            // Not the entry that follows: a natural roll in the race would look the same.
            for (f.ids[1] = f.ids[0] + 1; f.ids[1] == f.ids[0] + 1;)
                f.ids[1] = rng() % (kFiles - 1);
            CRTGatePark park(gate);
            EXPECT_EQ(m_H.SkipInPlaylist(false, static_cast<int>(f.ids[1])), eResultSuccess);
            f.ids[0] = f.ids[1];
        }
        f.after = played.load();
        flushes.push_back(f);
    }
    while (!halted.load())
        std::this_thread::yield();
    quit.store(true);
    rt.join();
    for (structFileCompletion c = {}; popped < rolls.load(); ++popped)
        m_H.PopCompletionMessage(&c, true);
    m_bHalted = true;
    PlayToEnd(16);

    // Offline: the stream runs frame by frame and file by file, except where
    // a flush takes over, which happens inside its window or not at all.
    const size_t total = played.load();
    ASSERT_EQ(flushes.size(), kOps);
    unsigned id = 0, frame = 0;
    size_t next = 0;
    for (size_t k = 0; k < total; ++k) {
        const float s0 = stream[2 * k], s1 = stream[2 * k + 1];
        if (next < flushes.size() && k >= flushes[next].before && flushes[next].wind) {
            const float file = s1 * 64.0f, at = s0 * 1048576.0f;
            ASSERT_TRUE(file == std::floor(file) && file < kFiles && at == std::floor(at) && at < kLen) << k;
            if (k <= flushes[next].after)
                continue;
            id = static_cast<unsigned>(file), frame = static_cast<unsigned>(at); // on from where the wind left it
            ++next;
        } else if (next < flushes.size() && k >= flushes[next].before) {
            const Flush& f = flushes[next];
            if (s0 == Sample(0, f.frame, 0) && (s1 == Sample(f.ids[0], 0, 1) || s1 == Sample(f.ids[1], 0, 1))) {
                id = static_cast<unsigned>(s1 * 64.0f), frame = f.frame;
                ++next;
            } else {
                ASSERT_LE(k, f.after) << "audio from before flush " << next << " after it returned";
            }
        }
        ASSERT_EQ(s0, Sample(id, frame, 0)) << "file " << id << " frame " << frame << " at " << k;
        ASSERT_EQ(s1, Sample(id, frame, 1)) << "file " << id << " frame " << frame << " at " << k;
        if (++frame == kLen)
            ++id, frame = 0;
    }
    EXPECT_GE(next, kOps / 2) << "flushes whose audio was checked";
}
