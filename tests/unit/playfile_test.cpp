// One play file slot on real files written through libsndfile: channel
// mapping, conversion, seeks, fast-wind steps and open diagnostics.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

#include <sndfile.h>

#include "app/globals.h"
#include "files/playfile.h"

namespace {

constexpr unsigned kPeriod = 64;

// Exactly representable in 16-bit PCM and in float; differs for every frame
// and channel.
float Ramp(unsigned frame, unsigned ch)
{
    return static_cast<float>(static_cast<int>((frame * 8 + ch) % 30000) - 15000) / 32768.0f;
}

// Everything a one-channel play buffer holds.
std::vector<float> Drain(CZPBuffer* buf)
{
    std::vector<float> v;
    for (unsigned n = buf->GetReadableFrames(); n > 0; --n)
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

    // A file of ramp frames (or of gen's samples); returns its path.
    std::string Write(unsigned channels, unsigned rate, unsigned frames, int format = SF_FORMAT_WAV | SF_FORMAT_FLOAT,
                      const char* ext = "wav", float (*gen)(unsigned, unsigned) = Ramp)
    {
        const std::string path = m_Dir + "/f" + std::to_string(m_nFiles++) + "." + ext;
        SF_INFO info = {0, static_cast<int>(rate), static_cast<int>(channels), format, 0, 0};
        SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
        EXPECT_NE(f, nullptr) << sf_strerror(nullptr);
        std::vector<float> data(static_cast<size_t>(frames) * channels);
        for (size_t i = 0; i < data.size(); ++i)
            data[i] = gen(static_cast<unsigned>(i / channels), static_cast<unsigned>(i % channels));
        sf_writef_float(f, data.data(), frames);
        sf_close(f);
        return path;
    }

    // Worker and callback in turn until the file is done: every sample that
    // reached the play buffer, and the most one fill added.
    static std::vector<float> PlayAll(CPlayFile& file, unsigned channels, unsigned& maxStep)
    {
        std::vector<float> out;
        CZPBuffer* buf = file.GetBufferP();
        for (int r = 0; r != -1;) {
            r = file.FillPlayBuffer();
            maxStep = std::max(maxStep, buf->GetReadableFrames());
            for (unsigned n = buf->GetReadableFrames() * channels; n > 0; --n)
                out.push_back(buf->ReadSingle());
        }
        return out;
    }

    std::string m_Dir;
    unsigned m_nFiles = 0;
    CFastWindInfo m_Wind;
};

} // namespace

// Mono goes to every port, extra file channels are dropped, missing ones are
// silent; reads come in steps of at most four periods a region.
TEST_F(PlayFile, ChannelsAreMappedOntoThePorts)
{
    const unsigned cases[][2] = {{2, 2}, {1, 4}, {3, 2}, {2, 4}, {200, 3}};
    for (const auto& k : cases) {
        const unsigned fileCh = k[0], portCh = k[1], frames = 2500; // several slabs, not a whole number
        SCOPED_TRACE(std::to_string(fileCh) + " on " + std::to_string(portCh));
        CPlayFile file(portCh, &m_Wind);
        file.SetFilename(Write(fileCh, 48000, frames).c_str(), 0);
        ASSERT_TRUE(file.OpenFile());
        unsigned maxStep = 0;
        const std::vector<float> out = PlayAll(file, portCh, maxStep);
        EXPECT_LE(maxStep, 2 * kFillPeriods * kPeriod);
        EXPECT_TRUE(file.IsDone());
        EXPECT_EQ(file.GetPortPosition(), frames);
        ASSERT_EQ(out.size(), frames * portCh);
        for (unsigned i = 0; i < out.size(); ++i) {
            const unsigned f = i / portCh, c = i % portCh;
            ASSERT_EQ(out[i], c < fileCh ? Ramp(f, c) : fileCh == 1 ? Ramp(f, 0) : 0.0f) << "frame " << f << " ch " << c;
        }
    }
}

// A 44.1 kHz ramp on a 48 kHz player comes out stretched by the rate ratio.
TEST_F(PlayFile, ConvertsToThePortRate)
{
    CPlayFile file(1, &m_Wind);
    file.SetFilename(Write(1, 44100, 44100, SF_FORMAT_WAV | SF_FORMAT_FLOAT, "wav",
                           [](unsigned f, unsigned) { return static_cast<float>(f) / 65536.0f; })
                         .c_str(),
                     0);
    ASSERT_TRUE(file.OpenFile());
    EXPECT_TRUE(file.IsConverting());
    EXPECT_NEAR(file.GetPortMaxLen(), 48000.0, 1.0);
    unsigned maxStep = 0;
    const std::vector<float> out = PlayAll(file, 1, maxStep);
    EXPECT_NEAR(static_cast<double>(out.size()), 48000.0, 2.0);
    for (size_t k = 2; k < out.size(); ++k) // behind by the linear converter's one input frame
        ASSERT_NEAR(out[k] * 65536.0 + 1.0, k * 44100.0 / 48000.0, 0.01) << "frame " << k;
}

// Seeks are in the file's frames; a seek or a move back returns a file read
// to its end to reading; the port position follows the file.
TEST_F(PlayFile, SeeksMoveTheFileAndThePosition)
{
    CPlayFile file(1, &m_Wind);
    file.SetFilename(Write(1, 48000, 2 * 48000 + 10).c_str(), 0);
    ASSERT_TRUE(file.OpenFile());
    CZPBuffer* buf = file.GetBufferP();
    EXPECT_FALSE(file.SeekToAbsTime(3));
    EXPECT_TRUE(file.SeekToAbsTime(2));
    ASSERT_TRUE(file.SeekToAbsTime(1));
    file.FillPlayBuffer();
    EXPECT_EQ(file.GetPortPosition(), 48000u);
    for (unsigned f = 0; f < 10; ++f)
        ASSERT_EQ(buf->ReadSingle(), Ramp(48000 + f, 0));

    file.SeekToPortTime(); // back by what is buffered: reading resumes where the ports are
    file.ClearBuffers();
    EXPECT_EQ(file.GetPortPosition(), 48010u);
    file.FillPlayBuffer();
    EXPECT_EQ(buf->ReadSingle(), Ramp(48010, 0));

    unsigned maxStep = 0;
    PlayAll(file, 1, maxStep);
    ASSERT_TRUE(file.IsReadToEnd());
    ASSERT_TRUE(file.SeekToAbsTime(2)); // the very end is a valid target
    EXPECT_FALSE(file.IsReadToEnd());
    EXPECT_EQ(file.FillPlayBuffer(), static_cast<int>(10));
    file.ClearBuffers();
    EXPECT_EQ(file.FillPlayBuffer(), -1);
    file.SeekToPortTime();
    EXPECT_FALSE(file.IsReadToEnd());
}

// Each step moves 2 x speed periods, one of them heard; the speed rises by one
// every 5 s of winding up to 16. Silent steps give a period of silence; a
// rewind stops at the start, a fast forward off the end finishes the file.
TEST_F(PlayFile, FastWindStepsAtARisingSpeed)
{
    CPlayFile file(1, &m_Wind);
    file.SetFilename(Write(1, 48000, 200 * kPeriod).c_str(), 0);
    ASSERT_TRUE(file.OpenFile());
    CZPBuffer* buf = file.GetBufferP();
    m_Wind.m_bEngaged = m_Wind.m_bForward = true;
    const uint32_t speeds[][2] = {{0, 2}, {4, 2}, {5, 4}, {9, 4}, {75, 32}, {400, 32}}; // seconds ago, periods a step
    for (const auto& s : speeds) {
        SCOPED_TRACE(s[0]);
        ASSERT_TRUE(file.SeekToAbsTime(0));
        m_Wind.m_nStartSeconds = MonotonicSeconds() - s[0];
        ASSERT_EQ(file.FillPlayBuffer(), static_cast<int>(kPeriod));
        EXPECT_EQ(file.FillPlayBuffer(), 0) << "no step while a period waits at the ports";
        const std::vector<float> heard = Drain(buf);
        ASSERT_EQ(heard.size(), kPeriod);
        EXPECT_EQ(heard[0], Ramp((s[1] - 1) * kPeriod, 0));
        EXPECT_EQ(file.GetPortPosition(), s[1] * kPeriod);
    }

    ASSERT_TRUE(file.SeekToAbsTime(0));
    m_Wind.m_bSilent = true;
    m_Wind.m_nStartSeconds = MonotonicSeconds();
    EXPECT_EQ(file.FillPlayBuffer(), 0);
    EXPECT_EQ(Drain(buf), std::vector<float>(kPeriod, 0.0f));
    EXPECT_EQ(file.GetPortPosition(), 2 * kPeriod);

    m_Wind.m_bSilent = m_Wind.m_bForward = false;
    EXPECT_EQ(file.FillPlayBuffer(), static_cast<int>(kPeriod));
    EXPECT_EQ(Drain(buf)[0], Ramp(0, 0));
    EXPECT_FALSE(file.IsDone());

    m_Wind.m_bForward = true;
    int r = 0;
    for (int i = 0; i < 200 && r != -1; ++i, Drain(buf))
        r = file.FillPlayBuffer();
    EXPECT_EQ(r, -1);
    EXPECT_TRUE(file.IsDone());
}

TEST_F(PlayFile, OpenDiagnosticsAndOddFiles)
{
    CPlayFile file(2, &m_Wind);
    const std::string text = m_Dir + "/notsound.wav";
    FILE* f = fopen(text.c_str(), "w");
    fputs("this is not audio\n", f);
    fclose(f);
    const struct {
        std::string path, out;
    } cases[] = {
        {text, "Couldn't open file: " + text + ": Format not recognised.\r\n"},
        {Write(2, 48000, 10, SF_FORMAT_WAV | SF_FORMAT_DOUBLE), "Unknown file WAV subtype 0x0007.\r\n"},
        {Write(2, 48000, 10, SF_FORMAT_AIFF | SF_FORMAT_PCM_16, "aiff"), "Unknown file format: 0x20002.\r\n"},
        {Write(2, 48000, 10, SF_FORMAT_FLAC | SF_FORMAT_PCM_16, "flac"), ""},
        {Write(2, 48000, 10, SF_FORMAT_OGG | SF_FORMAT_VORBIS, "ogg"), ""},
    };
    for (const auto& k : cases) {
        file.SetFilename(k.path.c_str(), 0);
        testing::internal::CaptureStdout();
        EXPECT_EQ(file.OpenFile(), k.path != text);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), k.out);
        EXPECT_EQ(file.GetBufferP() != nullptr, k.path != text);
        file.Unstage();
    }

    // An empty file opens, finishes on its first fill and shows 0%.
    const std::string empty = Write(2, 48000, 0);
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
