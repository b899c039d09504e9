// The record file handler driven directly: the test writes the ring buffer as
// the JACK callback would and reads the WAV files back through libsndfile.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include "app/globals.h"
#include "app/logging.h"
#include "audio/zp_buffer.h"
#include "files/recfile_handler.h"

namespace {

typedef CRecFileHandler H;
typedef std::vector<std::string> Names;

// A ramp that differs per frame and channel, at a word length's resolution.
int Ramp(unsigned frame, unsigned ch, int bits)
{
    const int span = (1 << bits) - 1;
    return static_cast<int>((frame * 8 + ch) % static_cast<unsigned>(span)) - span / 2;
}

std::string Out(const std::function<void()>& body)
{
    testing::internal::CaptureStdout();
    body();
    return testing::internal::GetCapturedStdout();
}

int Add(H& h, const Names& names, int format = 0, unsigned rate = 0, int word = 0, unsigned seconds = 0, int roll = 0,
        int secondary = 0)
{
    structSetupFile s = {};
    for (size_t i = 0; i < names.size(); ++i)
        strncpy(s.szFilenames[i], names[i].c_str(), kRecNameSize - 1);
    s.nFileFormat = format, s.nSampleRate = rate, s.nWordLength = word;
    s.nFileSeconds = seconds, s.bRoll = roll, s.bSecondary = secondary;
    return h.AddSingleFile(&s);
}

// The callback's part: frames [from, to) of the ramp.
void Feed(H& h, unsigned channels, unsigned from, unsigned to, int bits = 16)
{
    for (unsigned i = from; i < to; ++i)
        for (unsigned c = 0; c < channels; ++c)
            h.GetRTBufferP()->WriteSingle(static_cast<float>(Ramp(i, c, bits)) / float((1 << (bits - 1)) - 1));
}

// Frames [from, to) in chunks that never line up with the ring, with a
// service after each; the results or'ed.
int Record(H& h, unsigned channels, unsigned from, unsigned to, int bits = 16)
{
    int seen = 0;
    for (unsigned f = from; f < to; f += 997) {
        Feed(h, channels, f, std::min(f + 997, to), bits);
        seen |= h.ServiceBuffer(true);
    }
    return seen;
}

// One interleaved file, or one mono file per channel, holds exactly frames
// [first, first + frames) of the ramp.
void ExpectRamp(const Names& files, unsigned channels, int bits, unsigned first, unsigned frames, int format = 0)
{
    for (size_t i = 0; i < files.size(); ++i) {
        SF_INFO info = {};
        SNDFILE* f = sf_open(files[i].c_str(), SFM_READ, &info);
        ASSERT_NE(f, nullptr) << files[i];
        const unsigned fileCh = files.size() > 1 ? 1 : channels;
        std::vector<int> got(static_cast<size_t>(info.frames) * fileCh);
        sf_readf_int(f, got.data(), info.frames);
        sf_close(f);
        ASSERT_EQ(info.frames, frames) << files[i];
        EXPECT_TRUE(format == 0 || info.format == format) << std::hex << info.format;
        for (unsigned k = 0; k < frames * fileCh; ++k)
            ASSERT_EQ(got[k] >> (32 - bits), Ramp(first + k / fileCh, fileCh == 1 ? unsigned(i) : k % fileCh, bits))
                << files[i] << " frame " << k / fileCh;
    }
}

class RecFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_nJackSampleRate = 48000;
        g_nBufferSizeFrames = 64; // a real-time buffer of 12800 frames
        char dir[] = "/tmp/zp_rec_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_Dir = dir;
    }
    void TearDown() override { EXPECT_EQ(system(("rm -rf " + m_Dir).c_str()), 0); }
    std::string P(const std::string& name) { return m_Dir + "/" + name; }
    std::string m_Dir;
};

} // namespace

// Multi-mono roll-over at a 1 s limit with names supplied after each roll:
// every file set but the last holds exactly 48000 frames and together they
// hold the signal. A secondary set-up's own options are ignored.
TEST_F(RecFile, RollsOverWithoutLosingAFrame)
{
    {
        H h(2);
        auto names = [&](int n) { return Names{P(std::to_string(n) + "_0.wav"), P(std::to_string(n) + "_1.wav")}; };
        ASSERT_EQ(Add(h, names(0), 1, 0, 2, 1, 1), eResultSuccess);
        ASSERT_EQ(Add(h, names(1), 0, 2, 0, 1, 0, 1), eResultSuccess);
        int rolls = 0;
        for (unsigned fed = 0; fed < 3 * 48000 + 5000; fed += 7001) {
            const int r = Record(h, 2, fed, fed + 7001, 24);
            ASSERT_NE(r, H::eServiceStopped);
            if (r == H::eServiceRolled) {
                structFileCompletion done = {};
                h.PopCompletionMessage(&done);
                EXPECT_STREQ(done.szFilename, names(rolls)[0].c_str());
                EXPECT_EQ(done.nLength, 1u);
                EXPECT_STREQ(h.GetActiveFilename(), names(++rolls)[0].c_str());
                if (rolls < 3) {
                    ASSERT_EQ(Add(h, names(rolls + 1), 0, 0, 0, 1, 0, 1), eResultSuccess);
                }
            }
        }
        ASSERT_EQ(rolls, 3);
        ASSERT_EQ(h.ServiceBuffer(false), H::eServiceStopped);
        for (int i = 0; i <= 3; ++i)
            ExpectRamp(names(i), 2, 24, 48000u * unsigned(i), i < 3 ? 48000 : 7001 * 22 - 3 * 48000, 0x10003);
    }

    // Exactly filling a file keeps it open and the next frame rolls; with no
    // names left the next limit stops, dropping what is buffered.
    H h(2);
    ASSERT_EQ(Add(h, {P("s0.wav")}, 0, 0, 0, 1, 1), eResultSuccess);
    ASSERT_EQ(Add(h, {P("s1.wav")}, 0, 0, 0, 1, 0, 1), eResultSuccess);
    EXPECT_EQ(Record(h, 2, 0, 48000), H::eServiceNone);
    EXPECT_EQ(Record(h, 2, 48000, 48001), H::eServiceRolled);
    EXPECT_EQ(Record(h, 2, 48001, 96000), H::eServiceNone);
    EXPECT_EQ(Out([&] { EXPECT_EQ(Record(h, 2, 96000, 96900), H::eServiceStopped); }),
              "Trying to roll, but no filenames!\r\n");
    EXPECT_EQ(h.GetRTBufferP()->GetReadableFrames(), 0u);
    ExpectRamp({P("s1.wav")}, 2, 16, 48000, 48000);

    // The callback records on until it sees the recorder leave Running; a
    // primary set-up drops what it left. A stop writes what is buffered, and
    // the next service runs dry.
    h.GetRTBufferP()->StuffSilence(700);
    ASSERT_EQ(Add(h, {P("t.wav")}, 0, 0, 1), eResultSuccess);
    EXPECT_EQ(Record(h, 2, 100, 400, 8), H::eServiceNone);
    Feed(h, 2, 400, 500, 8);
    g_nEnableBits = eLogRuntime;
    EXPECT_EQ(Out([&] { EXPECT_EQ(h.ServiceBuffer(false), H::eServiceNone); }), "");
    EXPECT_EQ(Out([&] { EXPECT_EQ(h.ServiceBuffer(false), H::eServiceStopped); }), "    RUNTIME: Recorder DRY!\r\n");
    g_nEnableBits = 0;
    ExpectRamp({P("t.wav")}, 2, 8, 100, 400, 0x10005);
    // A stop with nothing recorded leaves a valid empty file.
    ASSERT_EQ(Add(h, {P("e.wav")}), eResultSuccess);
    EXPECT_EQ(h.ServiceBuffer(false), H::eServiceStopped);
    structFileCompletion done = {};
    h.PopCompletionMessage(&done);
    EXPECT_EQ(done.nLength, 0u);
    ExpectRamp({P("e.wav")}, 2, 16, 0, 0);

    // A roll flag other than 1 does not roll.
    ASSERT_EQ(Add(h, {P("u0.wav")}, 0, 0, 0, 1, 2), eResultSuccess);
    ASSERT_EQ(Add(h, {P("u1.wav")}, 0, 0, 0, 1, 0, 1), eResultSuccess);
    EXPECT_EQ(Record(h, 2, 0, 48010), H::eServiceStopped);
    EXPECT_NE(access(P("u1.wav").c_str(), F_OK), 0);
}

// Every refused set-up prints its lines and answers its code.
TEST_F(RecFile, RefusesBadSetups)
{
    struct Case {
        unsigned channels;
        Names names;
        int format;
        unsigned rate;
        int word, secondary, result;
        std::string out;
    } cases[] = {
        {2, {P("a")}, 2, 0, 0, 0, 25, "Invalid file format option: 2\r\n"},
        {2, {P("a")}, 0, 0xFFFFFFFF, 0, 0, 26, "Invalid Sample Rate Option: -1\r\n"},
        {2, {P("a")}, 0, 4, 0, 0, 26, "Invalid Sample Rate Option: 4\r\n"},
        {2, {P("a")}, 1, 0, 3, 0, 27, "Invalid word length option: 3\r\n"},
        {1025, {P("a")}, 0, 0, 0, 0, 28, "Fileformat not supported by libsndfile. Try other options.\n"},
        {2, {""}, 0, 0, 0, 0, 23, "can't open record file: filenames appear to be empty...\r\n"},
        {4, {P("m0"), P("m1"), P("m2")}, 1, 0, 0, 0, 23, "can't open record file: filenames appear to be empty...\r\n"},
        {2, {P("a")}, 0, 0, 0, 1, 24, ""},
        {2, {m_Dir + "/none/a.wav"}, 0, 0, 0, 0, 29,
         "Recorder couldn't open file " + m_Dir +
             "/none/a.wav: System error : No such file or directory.\r\nRecord file open failed.\r\n"},
    };
    for (Case& k : cases) {
        SCOPED_TRACE(k.result);
        H h(k.channels);
        EXPECT_EQ(Out([&] { EXPECT_EQ(Add(h, k.names, k.format, k.rate, k.word, 0, 0, k.secondary), k.result); }),
                  k.out);
        if (k.channels == 4) { // the names before the missing one are taken
            const std::string names = P("m0") + ", " + P("m1") + ", " + P("m2") + ", , \r\nSecondary";
            EXPECT_NE(Out([&] { h.DoDisplayDebug(); }).find("Primary Filenames: " + names), std::string::npos);
        }
    }

    // A short secondary list is refused, yet the names it held stand: the
    // roll-over cannot create the set and stops.
    H h(2);
    ASSERT_EQ(Add(h, {P("v0"), P("v1")}, 1, 0, 0, 1, 1), eResultSuccess);
    EXPECT_EQ(Out([&] { EXPECT_EQ(Add(h, {P("w0")}, 0, 0, 0, 0, 0, 1), 23); }),
              "can't open record file: filenames appear to be invalid...\r\n");
    const std::string out = Out([&] { EXPECT_EQ(Record(h, 2, 0, 48001), H::eServiceStopped); });
    EXPECT_EQ(out.rfind("Recorder couldn't open file : ", 0), 0u) << out;
    EXPECT_EQ(out.substr(out.find("\r\n")), "\r\nTrying to roll, couldn't open: " + P("w0") + "\r\n");

    CFileHandler& base = h;
    structSetupPlayFile play = {};
    structSetupPlaylist list = {};
    EXPECT_EQ(base.AddSingleFile(&play), eResultWrongModuleType);
    EXPECT_EQ(base.AddPlaylist(&list), eResultWrongModuleType);
    EXPECT_EQ(base.ManualStop(), 0);
}

// A file that cannot grow (a file-size limit standing in for a full disk)
// prints one line and ends the recording with a header for what fitted.
TEST_F(RecFile, AShortWriteEndsTheRecordingWithAHeaderForWhatFitted)
{
    H h(2);
    ASSERT_EQ(Add(h, {P("full.wav")}), eResultSuccess);
    EXPECT_EQ(h.GetRTBufLen(), 12800u);
    EXPECT_EQ(h.GetProgressMax(), 0xFFFFF7FFu / 4 / 48000); // no length: the largest WAV file
    rlimit old;
    getrlimit(RLIMIT_FSIZE, &old);
    rlimit small = old;
    small.rlim_cur = 10000;
    signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const std::string out = Out([&] { EXPECT_EQ(Record(h, 2, 0, 10000), H::eServiceStopped); });
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_EQ(out.rfind("Recorder write to " + P("full.wav") + " fell short: ", 0), 0u) << out;
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
    SF_INFO info = {};
    sf_close(sf_open(P("full.wav").c_str(), SFM_READ, &info));
    EXPECT_EQ(info.frames, (10000 - 44) / 4);
}
