// The play file handler driven directly: the test plays the worker (service
// steps, completions) and the real-time callback (reading the port slot and
// rolling at the end of a file) in turn, on real files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include <sndfile.h>

#include "app/globals.h"
#include "files/playfile_handler.h"

namespace {

constexpr unsigned kPeriod = 64;

// Every file gets its own base, so a stream shows which file each frame is from.
float Sample(unsigned file, unsigned frame, unsigned ch)
{
    return static_cast<float>(static_cast<int>(file * 1000 + (frame * 4 + ch) % 1000)) / 32768.0f;
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
        for (const std::string& f : m_Paths)
            unlink(f.c_str());
        rmdir(m_Dir.c_str());
    }

    // A 48 kHz file of `frames` frames whose samples are Sample(id, ...).
    std::string Audio(unsigned id, unsigned frames, unsigned channels = 2)
    {
        std::string path = m_Dir + "/a" + std::to_string(id) + ".wav";
        SF_INFO info = SF_INFO();
        info.channels = static_cast<int>(channels);
        info.samplerate = 48000;
        info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
        SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
        EXPECT_NE(f, nullptr);
        std::vector<float> data(static_cast<size_t>(frames) * channels);
        for (unsigned i = 0; i < frames; ++i)
            for (unsigned c = 0; c < channels; ++c)
                data[static_cast<size_t>(i) * channels + c] = Sample(id, i, c);
        sf_writef_float(f, data.data(), frames);
        sf_close(f);
        m_Paths.push_back(path);
        return path;
    }
    std::string Text(const std::string& name, const std::string& text)
    {
        std::string path = m_Dir + "/" + name;
        FILE* f = fopen(path.c_str(), "wb");
        fputs(text.c_str(), f);
        fclose(f);
        m_Paths.push_back(path);
        return path;
    }
    enumZorPlayResult Manual(const std::string& path, bool secondary)
    {
        structSetupPlayFile s = {};
        s.bSecondary = secondary ? 1 : 0;
        strncpy(s.szFilename, path.c_str(), sizeof(s.szFilename) - 1);
        return m_H.AddSingleFile(&s);
    }
    enumZorPlayResult Playlist(const std::string& path)
    {
        structSetupPlaylist s = {};
        strncpy(s.szPlaylist, path.c_str(), sizeof(s.szPlaylist) - 1);
        return m_H.AddPlaylist(&s);
    }

    // A worker that keeps well ahead of the callback.
    void Service()
    {
        for (int i = 0; i < 8; ++i)
            m_H.ServiceBuffer();
    }
    // One callback period of n frames: the port slot's audio, rolling onto
    // the next file when the current one has played out.
    void Period(unsigned n)
    {
        unsigned want = n;
        for (;;) {
            CZPBuffer* b = m_H.GetPlayBufferP();
            if (!b)
                return;
            unsigned k = std::min(b->GetReadableFrames(), want);
            for (unsigned i = 0; i < k * 2; ++i)
                m_Out.push_back(b->ReadSingle());
            want -= k;
            if (want == 0)
                return;
            if (!m_H.IsCurrentPortFileDone() || !m_H.IsRollReady()) {
                ++m_nUnderruns;
                return;
            }
            if (!m_H.RTRoll()) {
                m_bHalted = true;
                return;
            }
            ++m_nPendingRolls;
        }
    }
    // Worker and callback in turn until the handler halts; returns the
    // completion records in order.
    std::vector<structFileCompletion> PlayToEnd(unsigned periodFrames)
    {
        std::vector<structFileCompletion> done;
        for (int guard = 0; guard < 100000 && !m_bHalted; ++guard) {
            Service();
            Period(periodFrames);
            for (; m_nPendingRolls > 0; --m_nPendingRolls) {
                structFileCompletion c = {};
                m_H.PopCompletionMessage(&c, true);
                done.push_back(c);
            }
        }
        structFileCompletion c = {};
        m_H.PopCompletionMessage(&c, false);
        done.push_back(c);
        m_bHalted = false;
        return done;
    }
    void ExpectStream(const std::vector<std::pair<unsigned, unsigned>>& files, size_t from = 0)
    {
        size_t at = from;
        for (auto& [id, frames] : files)
            for (unsigned f = 0; f < frames; ++f)
                for (unsigned c = 0; c < 2; ++c, ++at) {
                    ASSERT_LT(at, m_Out.size()) << "stream ends in file " << id << " frame " << f;
                    ASSERT_EQ(m_Out[at], Sample(id, f, c)) << "file " << id << " frame " << f;
                }
        EXPECT_EQ(at, m_Out.size()) << "nothing after the last file";
    }
    // After a final completion: no file, all indices 0, no playlist.
    void ExpectEmpty()
    {
        EXPECT_TRUE(m_H.IsEmpty() && !m_H.IsPlaylistActive());
        EXPECT_EQ(m_H.GetNextStageIndex() + m_H.GetReadingIndex() + m_H.GetPortPlayingIndex(), 0u);
    }

    std::string m_Dir;
    std::vector<std::string> m_Paths;
    CPlayFileHandler m_H{2};
    std::vector<float> m_Out;
    int m_nPendingRolls = 0;
    int m_nUnderruns = 0;
    bool m_bHalted = false;
};

} // namespace

TEST_F(Handler, ManualFilesRollGaplesslyAndReportEachCompletion)
{
    EXPECT_EQ(Manual(Audio(9, 10), true), eResultNeedPrimary);
    ASSERT_EQ(Manual(Audio(1, 48000 + 100), false), eResultSuccess);
    ASSERT_EQ(Manual(Audio(2, 77), true), eResultSuccess);
    ASSERT_EQ(Manual(Audio(3, 1000), true), eResultSuccess);
    ASSERT_EQ(Manual(Audio(4, 3 * 48000 + 5), true), eResultSuccess);
    testing::internal::CaptureStdout();
    EXPECT_EQ(Manual(Audio(5, 10), true), eResultPathMissing);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Secondary Stage of " + m_Paths.back() + " failed\r\n");
    EXPECT_STREQ(m_H.GetActiveFilename(), m_Paths[1].c_str());

    std::vector<structFileCompletion> done = PlayToEnd(1000);
    ExpectStream({{1, 48100}, {2, 77}, {3, 1000}, {4, 3 * 48000 + 5}});
    EXPECT_EQ(m_nUnderruns, 0);
    ASSERT_EQ(done.size(), 4u);
    const unsigned ids[] = {1, 2, 3, 4};
    const unsigned seconds[] = {1, 0, 0, 3};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_STREQ(done[i].szFilename, m_Paths[ids[i]].c_str());
        EXPECT_EQ(done[i].nLength, seconds[i]);
        EXPECT_EQ(done[i].bRolled, i < 3 ? 1 : 0);
        if (i < 3) {
            EXPECT_STREQ(done[i].szNewFilename, m_Paths[ids[i] + 1].c_str());
        }
    }
    ExpectEmpty();
}

TEST_F(Handler, UnopenableFilesAreDroppedAndTheNextPlayed)
{
    std::string junk = Text("junk.wav", "not a sound file\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(Manual(junk, false), eResultCantOpenFile);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Couldn't open file: " + junk), std::string::npos);
    ExpectEmpty();

    // Staged behind a playing file: the bad one is dropped when reached and
    // the one after it moves up into its slot.
    ASSERT_EQ(Manual(Audio(1, 300), false), eResultSuccess);
    ASSERT_EQ(Manual(junk, true), eResultSuccess);
    ASSERT_EQ(Manual(Audio(2, 200), true), eResultSuccess);
    testing::internal::CaptureStdout();
    std::vector<structFileCompletion> done = PlayToEnd(kPeriod);
    testing::internal::GetCapturedStdout();
    ExpectStream({{1, 300}, {2, 200}});
    ASSERT_EQ(done.size(), 2u);
    EXPECT_STREQ(done[0].szNewFilename, m_Paths[2].c_str());
    ExpectEmpty();
}

TEST_F(Handler, PlaylistStagesAheadSkipsMissingEntriesAndTopsUpOnEveryRoll)
{
    std::string text = "# takes\r\n" + m_Dir + "/missing1.wav\r\n\r\n   " + m_Dir + "/missing2.wav\r\n";
    for (unsigned id = 1; id <= 6; ++id)
        text += Audio(id, 100 + id * 37) + "\r\n";
    testing::internal::CaptureStdout();
    ASSERT_EQ(Playlist(Text("list.txt", text)), eResultSuccess);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("File node couldn't be created - " + m_Dir + "/missing1.wav: empty path, file nonexistent, "
                       "file empty?\r\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("File node couldn't be created - " + m_Dir + "/missing2.wav"), std::string::npos);
    EXPECT_EQ(m_H.GetNextStageIndex(), 4u);
    EXPECT_EQ(m_H.GetSlot(0)->GetListIndex(), 2u);
    EXPECT_EQ(Manual(Audio(9, 10), false), eResultNotIdle);

    std::vector<structFileCompletion> done = PlayToEnd(100);
    ExpectStream({{1, 137}, {2, 174}, {3, 211}, {4, 248}, {5, 285}, {6, 322}});
    ASSERT_EQ(done.size(), 6u);
    for (unsigned i = 0; i < 6; ++i) {
        EXPECT_EQ(done[i].nIndex, i + 2);
        if (i < 5) {
            EXPECT_EQ(done[i].nNewIndex, i + 3);
        }
    }
    ExpectEmpty();

    // No entry exists at all: 29 and nothing left open.
    testing::internal::CaptureStdout();
    EXPECT_EQ(Playlist(Text("none.txt", m_Dir + "/nope1.wav\n" + m_Dir + "/nope2.wav\n")), eResultCantOpenFile);
    testing::internal::GetCapturedStdout();
    for (unsigned i = 0; i < kPlaySlots; ++i)
        EXPECT_FALSE(m_H.GetSlot(i)->IsOpen());
}

TEST_F(Handler, SkipsAreRelativeToThePortEntry)
{
    std::string text;
    for (unsigned id = 1; id <= 6; ++id)
        text += Audio(id, 2000) + "\n";
    ASSERT_EQ(Playlist(Text("list.txt", text)), eResultSuccess);
    // Play into the third entry (index 2), with the worker reading ahead.
    while (m_H.GetPortPlayingIndex() != 2 || m_Out.size() < (4000 + 100) * 2) {
        Service();
        Period(100);
        for (; m_nPendingRolls > 0; --m_nPendingRolls) {
            structFileCompletion c = {};
            m_H.PopCompletionMessage(&c, true);
        }
    }
    EXPECT_EQ(m_H.GetActivePlaylistIndex(), 2u);
    EXPECT_FALSE(m_H.SkipIsValid(false, 6));
    EXPECT_FALSE(m_H.SkipIsValid(false, -1));
    EXPECT_FALSE(m_H.SkipIsValid(true, 4));
    ASSERT_TRUE(m_H.SkipIsValid(true, 1));

    // As the player does it with the callback kept away: the port slot is
    // stopped and the callback rolls onto the new entry.
    const size_t mark = m_Out.size();
    ASSERT_EQ(m_H.SkipInPlaylist(true, 1), eResultSuccess);
    std::vector<structFileCompletion> done = PlayToEnd(100);
    ASSERT_GE(done.size(), 2u);
    EXPECT_EQ(done[0].nIndex, 2u);
    EXPECT_EQ(done[0].nNewIndex, 3u);
    ExpectStream({{4, 2000}, {5, 2000}, {6, 2000}}, mark);
    ExpectEmpty();

    // A relative skip of 0 restarts the entry at the ports.
    ASSERT_EQ(Playlist(Text("list2.txt", text)), eResultSuccess);
    m_Out.clear();
    Service();
    Period(500);
    ASSERT_TRUE(m_H.SkipIsValid(true, 0));
    ASSERT_EQ(m_H.SkipInPlaylist(true, 0), eResultSuccess);
    m_Out.clear();
    done = PlayToEnd(100);
    EXPECT_EQ(done[0].nIndex, 0u);
    EXPECT_EQ(done[0].nNewIndex, 0u);
    ExpectStream({{1, 2000}, {2, 2000}, {3, 2000}, {4, 2000}, {5, 2000}, {6, 2000}});
}

TEST_F(Handler, SeekStopAndNewPlaylistFlushThePortFile)
{
    ASSERT_EQ(Manual(Audio(1, 5 * 48000), false), eResultSuccess);
    ASSERT_EQ(Manual(Audio(2, 300), true), eResultSuccess);
    Service();
    Period(1000);
    EXPECT_EQ(m_H.SeekToTime(10), eResultSkipImpossible);
    EXPECT_EQ(m_H.SeekToTime(-1), eResultSkipImpossible);
    ASSERT_EQ(m_H.SeekToTime(4), eResultSuccess);
    EXPECT_EQ(m_H.GetPortPosition(), 4u * 48000);
    m_Out.clear();
    std::vector<structFileCompletion> done = PlayToEnd(1000);
    // From second 4 to the end, then the staged file.
    ASSERT_EQ(m_Out.size(), (48000u + 300) * 2);
    EXPECT_EQ(m_Out[0], Sample(1, 4 * 48000, 0));
    EXPECT_EQ(m_Out[2 * 48000], Sample(2, 0, 0));
    ExpectEmpty();

    // Stop: nothing more plays after the port file, and the end follows.
    ASSERT_EQ(Manual(Audio(1, 5 * 48000), false), eResultSuccess);
    ASSERT_EQ(Manual(Audio(2, 300), true), eResultSuccess);
    Service();
    m_Out.clear();
    Period(1000);
    EXPECT_EQ(m_H.ManualStop(), 0);
    done = PlayToEnd(1000);
    EXPECT_EQ(m_Out.size(), 2000u);
    ASSERT_EQ(done.size(), 1u);
    EXPECT_EQ(done[0].bRolled, 0);
    ExpectEmpty();

    // A playlist arriving while files are staged replaces them.
    ASSERT_EQ(Manual(Audio(1, 1000), false), eResultSuccess);
    ASSERT_EQ(Manual(Audio(2, 1000), true), eResultSuccess);
    Service();
    ASSERT_EQ(Playlist(Text("list.txt", Audio(3, 500) + "\n")), eResultSuccess);
    m_Out.clear();
    done = PlayToEnd(100);
    ExpectStream({{3, 500}});
    ExpectEmpty();
}
