// One play file slot on real files written by libsndfile: channel mapping,
// seeks, fast-wind steps and open diagnostics. Exact play and rate conversion
// are checked end to end through the server.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

#include <sndfile.h>

#include "app/globals.h"
#include "files/playfile.h"

namespace {

constexpr unsigned kPeriod = 64;

// A value exactly representable in 16-bit PCM and in float, different for
// every frame and channel.
float Ramp(unsigned frame, unsigned ch)
{
    return static_cast<float>(static_cast<int>((frame * 8 + ch) % 30000) - 15000) / 32768.0f;
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
    void TearDown() override
    {
        for (const std::string& f : m_Files)
            unlink(f.c_str());
        rmdir(m_Dir.c_str());
    }

    std::string Write(unsigned channels, unsigned rate, unsigned frames, int format = SF_FORMAT_WAV | SF_FORMAT_FLOAT,
                      std::function<float(unsigned, unsigned)> gen = Ramp, const char* ext = "wav")
    {
        std::string path = m_Dir + "/f" + std::to_string(m_Files.size()) + "." + ext;
        SF_INFO info = SF_INFO();
        info.channels = static_cast<int>(channels);
        info.samplerate = static_cast<int>(rate);
        info.format = format;
        SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
        EXPECT_NE(f, nullptr) << sf_strerror(nullptr);
        std::vector<float> data(static_cast<size_t>(frames) * channels);
        for (unsigned i = 0; i < frames; ++i)
            for (unsigned c = 0; c < channels; ++c)
                data[static_cast<size_t>(i) * channels + c] = gen(i, c);
        if (f) {
            sf_writef_float(f, data.data(), frames);
            sf_close(f);
        }
        m_Files.push_back(path);
        return path;
    }

    // Fills and drains like worker and callback until the file is done;
    // returns every frame that reached the play buffer, interleaved.
    static std::vector<float> PlayAll(CPlayFile& file, unsigned channels, unsigned* maxStep = nullptr)
    {
        std::vector<float> out;
        for (int guard = 0; guard < 100000; ++guard) {
            CZPBuffer* buf = file.GetBufferP();
            if (!buf)
                break;
            const unsigned before = buf->GetReadableFrames();
            const int r = file.FillPlayBuffer();
            if (maxStep && buf->GetReadableFrames() - before > *maxStep)
                *maxStep = buf->GetReadableFrames() - before;
            for (unsigned n = buf->GetReadableFrames() * channels; n > 0; --n)
                out.push_back(buf->ReadSingle());
            if (r == -1)
                break;
        }
        return out;
    }

    std::string m_Dir;
    std::vector<std::string> m_Files;
    CFastWindInfo m_Wind;
};

} // namespace

TEST_F(PlayFile, ChannelsAreMappedOntoThePorts)
{
    struct Case {
        unsigned fileCh, portCh;
    } cases[] = {{2, 2}, {1, 4}, {3, 2}, {2, 4}, {8, 3}};
    for (const Case& k : cases) {
        SCOPED_TRACE(std::to_string(k.fileCh) + " on " + std::to_string(k.portCh));
        const unsigned frames = 2500; // several slabs, not a whole number of them
        CPlayFile file(k.portCh, &m_Wind);
        file.SetFilename(Write(k.fileCh, 48000, frames).c_str(), 0);
        ASSERT_TRUE(file.OpenFile());
        EXPECT_EQ(file.IsChannelMapped(), k.fileCh != k.portCh);
        unsigned maxStep = 0;
        std::vector<float> out = PlayAll(file, k.portCh, &maxStep);
        EXPECT_LE(maxStep, 2 * kFillPeriods * kPeriod) << "one step reads at most four periods a region";
        EXPECT_TRUE(file.IsDone());
        EXPECT_EQ(file.GetPortPosition(), frames);
        ASSERT_EQ(out.size(), frames * k.portCh);
        for (unsigned f = 0; f < frames; ++f)
            for (unsigned c = 0; c < k.portCh; ++c) {
                float want = c < k.fileCh ? Ramp(f, c) : (k.fileCh == 1 ? Ramp(f, 0) : 0.0f);
                ASSERT_EQ(out[f * k.portCh + c], want) << "frame " << f << " channel " << c;
            }
    }
}

TEST_F(PlayFile, SeeksInFileFramesAndResumeThere)
{
    const unsigned frames = 48000 * 2 + 10;
    CPlayFile file(1, &m_Wind);
    file.SetFilename(Write(1, 48000, frames).c_str(), 0);
    ASSERT_TRUE(file.OpenFile());
    EXPECT_FALSE(file.SeekToAbsTime(3));
    EXPECT_TRUE(file.SeekToAbsTime(2));
    EXPECT_TRUE(file.SeekToAbsTime(1));
    file.ClearBuffers();
    file.FillPlayBuffer();
    CZPBuffer* buf = file.GetBufferP();
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(file.GetPortPosition(), 48000u);
    for (unsigned f = 0; f < 10; ++f)
        ASSERT_EQ(buf->ReadSingle(), Ramp(48000 + f, 0));

    // Back by what is buffered: reading resumes where the ports are, and the
    // position follows.
    file.SeekToPortTime();
    file.ClearBuffers();
    EXPECT_EQ(file.GetFramesRead(), 48010u);
    EXPECT_EQ(file.GetPortPosition(), 48010u);
    file.FillPlayBuffer();
    EXPECT_EQ(buf->ReadSingle(), Ramp(48010, 0));

    // A file exactly one second long accepts a seek to its end.
    CPlayFile shortFile(1, &m_Wind);
    shortFile.SetFilename(Write(1, 48000, 48000).c_str(), 0);
    ASSERT_TRUE(shortFile.OpenFile());
    EXPECT_TRUE(shortFile.SeekToAbsTime(1));
    EXPECT_EQ(shortFile.FillPlayBuffer(), -1);
    EXPECT_TRUE(shortFile.IsDone());
    EXPECT_TRUE(shortFile.SeekToAbsTime(0));
}

TEST_F(PlayFile, FastWindStepsSpeedUpAndStopAtTheEnds)
{
    const unsigned frames = 200 * kPeriod;
    CPlayFile file(1, &m_Wind);
    file.SetFilename(Write(1, 48000, frames).c_str(), 0);
    ASSERT_TRUE(file.OpenFile());
    CZPBuffer* buf = file.GetBufferP();
    ASSERT_NE(buf, nullptr);
    auto drain = [&] {
        std::vector<float> v;
        while (buf->GetReadableFrames())
            v.push_back(buf->ReadSingle());
        return v;
    };

    // Audible forward: each step moves 2 x speed periods, one of them heard.
    struct Speed {
        uint32_t secondsAgo;
        unsigned periodsPerStep;
    } speeds[] = {{0, 2}, {4, 2}, {5, 4}, {9, 4}, {75, 32}, {400, 32}};
    for (const Speed& s : speeds) {
        ASSERT_TRUE(file.SeekToAbsTime(0));
        m_Wind.m_bEngaged = true;
        m_Wind.m_bForward = true;
        m_Wind.m_bSilent = false;
        m_Wind.m_nStartSeconds = MonotonicSeconds() - s.secondsAgo;
        ASSERT_EQ(file.FillPlayBuffer(), static_cast<int>(kPeriod));
        const unsigned heardFrom = (s.periodsPerStep - 1) * kPeriod;
        std::vector<float> heard = drain();
        ASSERT_EQ(heard.size(), kPeriod);
        EXPECT_EQ(heard[0], Ramp(heardFrom, 0)) << s.secondsAgo << " s into the wind";
        EXPECT_EQ(file.GetFramesRead(), s.periodsPerStep * kPeriod);
        // While a period is still waiting at the ports, no step is taken.
        file.FillPlayBuffer();
        EXPECT_EQ(file.FillPlayBuffer(), 0);
        drain();
    }

    // Silent: one period of silence per step, the file moves 2 x speed.
    ASSERT_TRUE(file.SeekToAbsTime(0));
    m_Wind.m_bSilent = true;
    m_Wind.m_nStartSeconds = MonotonicSeconds();
    EXPECT_EQ(file.FillPlayBuffer(), 0);
    std::vector<float> quiet = drain();
    ASSERT_EQ(quiet.size(), kPeriod);
    for (float v : quiet)
        ASSERT_EQ(v, 0.0f);
    EXPECT_EQ(file.GetFramesRead(), 2 * kPeriod);

    // Rewind past the start winds on from frame 0.
    m_Wind.m_bSilent = false;
    m_Wind.m_bForward = false;
    EXPECT_EQ(file.FillPlayBuffer(), static_cast<int>(kPeriod));
    std::vector<float> fromStart = drain();
    EXPECT_EQ(fromStart[0], Ramp(0, 0));
    EXPECT_FALSE(file.IsDone());

    // Forward off the end: the file is done.
    m_Wind.m_bForward = true;
    ASSERT_TRUE(file.SeekToAbsTime(0));
    int r = 0;
    for (int i = 0; i < 1000 && r != -1; ++i) {
        r = file.FillPlayBuffer();
        drain();
    }
    EXPECT_EQ(r, -1);
    EXPECT_TRUE(file.IsDone());
    m_Wind.ClearAll();
}

TEST_F(PlayFile, OpenDiagnosticsAndOddFiles)
{
    CPlayFile file(2, &m_Wind);

    std::string text = m_Dir + "/notsound.wav";
    FILE* f = fopen(text.c_str(), "w");
    fputs("this is not audio\n", f);
    fclose(f);
    m_Files.push_back(text);
    file.SetFilename(text.c_str(), 0);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(file.OpenFile());
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Couldn't open file: " + text + ": "), std::string::npos) << out;
    EXPECT_EQ(file.GetBufferP(), nullptr);

    file.SetFilename(Write(2, 48000, 100, SF_FORMAT_WAV | SF_FORMAT_DOUBLE).c_str(), 0);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(file.OpenFile());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Unknown file WAV subtype 0x0007.\r\n");
    file.Unstage();

    file.SetFilename(Write(2, 48000, 100, SF_FORMAT_FLAC | SF_FORMAT_PCM_16, Ramp, "flac").c_str(), 0);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(file.OpenFile());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    file.Unstage();

    // An empty file opens, ends on its first fill and shows 0%.
    file.SetFilename(Write(2, 48000, 0).c_str(), 0);
    ASSERT_TRUE(file.OpenFile());
    EXPECT_EQ(file.FillPlayBuffer(), -1);
    EXPECT_TRUE(file.IsDone());
    testing::internal::CaptureStdout();
    file.DoDisplayDebug(true);
    out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("- DONE"), std::string::npos);
    EXPECT_NE(out.find("File Progress 0/0 (0%)"), std::string::npos) << out;
}
