// One play file slot on real files written through libsndfile: the fast-wind
// step and its speed ramp, and the open diagnostics. Channel mapping is checked
// at the ports end to end; seeks, conversion and the wind's bookkeeping through
// the handler.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

#include <sndfile.h>

#include "app/globals.h"
#include "files/playfile.h"

namespace {

constexpr unsigned kPeriod = 64;

// Differs for every frame and channel; exact in float.
float Ramp(unsigned frame, unsigned ch) { return static_cast<float>(frame * 8 + ch) / 1048576.0f; }

// Everything a play buffer holds, interleaved.
std::vector<float> Drain(CZPBuffer* buf, unsigned channels)
{
    std::vector<float> v;
    for (unsigned n = buf->GetReadableFrames() * channels; n > 0; --n)
        v.push_back(buf->ReadSingle());
    return v;
}

class PlayFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_nJackSampleRate = 48000;
        g_nBufferSizeFrames = kPeriod;
        char dir[] = "/tmp/zp_play_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_Dir = dir;
    }
    void TearDown() override { EXPECT_EQ(system(("rm -rf " + m_Dir).c_str()), 0); }

    // A 48 kHz file of ramp frames.
    std::string Write(unsigned channels, unsigned frames, int format = SF_FORMAT_WAV | SF_FORMAT_FLOAT,
                      const char* ext = "wav")
    {
        const std::string path = m_Dir + "/f" + std::to_string(m_nFiles++) + "." + ext;
        SF_INFO info = {0, 48000, static_cast<int>(channels), format, 0, 0};
        SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
        std::vector<float> data(static_cast<size_t>(frames) * channels);
        for (size_t i = 0; i < data.size(); ++i)
            data[i] = Ramp(static_cast<unsigned>(i / channels), static_cast<unsigned>(i % channels));
        sf_writef_float(f, data.data(), frames);
        sf_close(f);
        return path;
    }

    std::string m_Dir;
    unsigned m_nFiles = 0;
    CFastWindInfo m_Wind;
};

} // namespace

// Each step moves 2 x speed periods, one of them heard; the speed rises by one
// every 5 s of winding up to 16. A rewind stops at the start. Silent winds and
// winds off the end are checked at the ports.
TEST_F(PlayFile, FastWindStepsAtARisingSpeed)
{
    CPlayFile file(1, &m_Wind);
    file.SetFilename(Write(1, 200 * kPeriod).c_str(), 0);
    ASSERT_TRUE(file.OpenFile());
    CZPBuffer* buf = file.GetBufferP();
    m_Wind.m_bEngaged = m_Wind.m_bForward = true;
    const uint32_t speeds[][2] = {{0, 2}, {4, 2}, {5, 4}, {9, 4}, {75, 32}, {400, 32}}; // s ago, periods a step
    for (const auto& s : speeds) {
        ASSERT_TRUE(file.SeekToAbsTime(0));
        m_Wind.m_nStartSeconds = MonotonicSeconds() - s[0];
        ASSERT_EQ(file.FillPlayBuffer(), static_cast<int>(kPeriod));
        EXPECT_EQ(file.FillPlayBuffer(), 0) << "no step while a period waits at the ports";
        const std::vector<float> heard = Drain(buf, 1);
        ASSERT_EQ(heard.size(), kPeriod);
        EXPECT_EQ(heard[0], Ramp((s[1] - 1) * kPeriod, 0)) << s[0] << " s into the wind";
    }

    ASSERT_TRUE(file.SeekToAbsTime(0));
    m_Wind.m_bForward = false;
    EXPECT_EQ(file.FillPlayBuffer(), static_cast<int>(kPeriod));
    EXPECT_EQ(Drain(buf, 1)[0], Ramp(0, 0)) << "a rewind into the start plays on from there";
}

TEST_F(PlayFile, OpenDiagnosticsAndOddFiles)
{
    const std::string text = m_Dir + "/notsound.wav";
    std::ofstream(text) << "this is not audio\n";
    const std::string cases[][2] = {
        {text, "Couldn't open file: " + text + ": Format not recognised.\r\n"},
        {Write(2, 10, SF_FORMAT_WAV | SF_FORMAT_DOUBLE), "Unknown file WAV subtype 0x0007.\r\n"},
        {Write(2, 10, SF_FORMAT_AIFF | SF_FORMAT_PCM_16, "aiff"), "Unknown file format: 0x20002.\r\n"},
        {Write(2, 10, SF_FORMAT_FLAC | SF_FORMAT_PCM_16, "flac"), ""},
        {Write(2, 10, SF_FORMAT_OGG | SF_FORMAT_VORBIS, "ogg"), ""},
    };
    CPlayFile file(2, &m_Wind);
    for (const auto& k : cases) {
        file.SetFilename(k[0].c_str(), 0);
        testing::internal::CaptureStdout();
        EXPECT_EQ(file.OpenFile(), k[0] != text);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), k[1]);
        EXPECT_EQ(file.GetBufferP() != nullptr, k[0] != text);
        file.Unstage();
    }

    // An empty file opens, finishes on its first fill and shows 0%.
    const std::string empty = Write(2, 0);
    file.SetFilename(empty.c_str(), 7);
    ASSERT_TRUE(file.OpenFile());
    EXPECT_EQ(file.FillPlayBuffer(), -1);
    EXPECT_TRUE(file.IsDone());
    testing::internal::CaptureStdout();
    file.DoDisplayDebug(true);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[07]:" + empty + " - DONE\r\n\t\tChans: 2, rate: 48000, len(frames): 0\r\n"
              "\t\tRT Buffer Used: 0 of 16000 Frames\r\n\t\tSRC Buffer Used: 0 of 640 Frames\r\n"
              "\t\tSRC Ratio: 1.000000\r\n\t\tFile Progress 0/0 (0%)");
}
