// The record file handler driven directly: the test plays the JACK callback
// by writing into the handler's ring buffer, and reads the WAV files back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
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

// Sample value of a frame and channel: a ramp that differs per channel, at
// the word length's resolution (|v| <= 2^(bits-1) - 1).
int RampValue(unsigned frame, unsigned ch, unsigned channels, int bits)
{
    const int span = (1 << bits) - 1;
    return static_cast<int>((frame * channels + ch) % static_cast<unsigned>(span)) - span / 2;
}

class RecFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_nJackSampleRate = 48000;
        g_nBufferSizeFrames = 64;  // a real-time buffer of 12800 frames
        char dir[] = "/tmp/zp_rec_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_Dir = dir;
    }
    void TearDown() override { EXPECT_EQ(system(("rm -rf " + m_Dir).c_str()), 0); }
    std::string Path(const std::string& name) { return m_Dir + "/" + name; }

    static structSetupFile Setup(std::vector<std::string> names, int format = 0, unsigned rate = 0, int word = 0,
                                 unsigned seconds = 0, int roll = 0, int secondary = 0)
    {
        structSetupFile s;
        memset(&s, 0, sizeof(s));
        s.bSecondary = secondary;
        s.nFileSeconds = seconds;
        for (size_t i = 0; i < names.size(); ++i)
            strncpy(s.szFilenames[i], names[i].c_str(), kRecNameSize - 1);
        s.nFileFormat = format;
        s.nSampleRate = rate;
        s.nWordLength = word;
        s.bRoll = roll;
        return s;
    }
    enumZorPlayResult Add(H& h, structSetupFile s) { return h.AddSingleFile(&s); }

    // Records frames [first, first + n) of the ramp as the callback would.
    static void Feed(H& h, unsigned channels, int bits, unsigned first, unsigned n)
    {
        CZPBuffer* b = h.GetRTBufferP();
        ASSERT_GE(b->GetWritableFrames(), n);
        const float scale = static_cast<float>((1 << (bits - 1)) - 1);
        for (unsigned f = first; f < first + n; ++f)
            for (unsigned c = 0; c < channels; ++c)
                b->WriteSingle(RampValue(f, c, channels, bits) / scale);
    }

    // Whole file as integers at its word length; info receives its header.
    static std::vector<int> ReadBack(const std::string& path, SF_INFO& info, int bits)
    {
        memset(&info, 0, sizeof(info));
        SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
        EXPECT_NE(f, nullptr) << path;
        if (f == nullptr)
            return {};
        std::vector<int> data(static_cast<size_t>(info.frames * info.channels));
        EXPECT_EQ(sf_readf_int(f, data.data(), info.frames), info.frames);
        sf_close(f);
        for (int& v : data)
            v >>= 32 - bits;
        return data;
    }

    // True when the files hold the ramp frames [first, first + frames).
    static void ExpectRamp(const std::vector<std::string>& files, unsigned channels, int bits, unsigned first,
                           unsigned frames)
    {
        for (size_t i = 0; i < files.size(); ++i) {
            SF_INFO info;
            std::vector<int> got = ReadBack(files[i], info, bits);
            const unsigned fileCh = files.size() > 1 ? 1 : channels;
            ASSERT_EQ(info.frames, frames) << files[i];
            ASSERT_EQ(info.channels, static_cast<int>(fileCh));
            for (unsigned f = 0; f < frames; ++f)
                for (unsigned c = 0; c < fileCh; ++c) {
                    const unsigned ch = files.size() > 1 ? static_cast<unsigned>(i) : c;
                    ASSERT_EQ(got[f * fileCh + c], RampValue(first + f, ch, channels, bits))
                        << files[i] << " frame " << f << " channel " << ch;
                }
        }
    }

    static std::string Captured(const std::function<void()>& body)
    {
        fflush(stdout);
        ::testing::internal::CaptureStdout();
        body();
        return ::testing::internal::GetCapturedStdout();
    }

    std::string m_Dir;
};

}  // namespace

// Every format, both file layouts, across several wraps of the ring buffer;
// a stop after the last service finds the buffer dry at once.
TEST_F(RecFile, RecordsTheFedSignalExactly)
{
    struct Case { unsigned channels; int format, word, bits, sfFormat; } cases[] = {
        {2, 0, 0, 16, 0x10002}, {3, 1, 2, 24, 0x10003}, {8, 1, 0, 16, 0x10002}, {4, 0, 1, 8, 0x10005}, {1, 0, 2, 24, 0x10003},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.channels);
        H h(k.channels);
        std::vector<std::string> names;
        for (unsigned c = 0; c < (k.format ? k.channels : 1); ++c)
            names.push_back(Path("c" + std::to_string(k.channels) + "_" + std::to_string(c) + ".wav"));
        ASSERT_EQ(Add(h, Setup(names, k.format, 0, k.word)), eResultSuccess);
        EXPECT_EQ(h.GetRTBufLen(), 12800u);
        EXPECT_EQ(h.GetProgressMax(), (0xFFFFF7FFu / (k.format ? 1 : k.channels) / (k.bits / 8)) / 48000);
        unsigned fed = 0;
        for (unsigned chunk = 997; fed < 40000; fed += chunk) {  // never lines up with 12800
            Feed(h, k.channels, k.bits, fed, chunk);
            ASSERT_EQ(h.ServiceBuffer(true), H::eServiceNone);
        }
        EXPECT_EQ(h.GetProgressElapsed(), fed / 48000);
        EXPECT_EQ(h.ServiceBuffer(false), H::eServiceStopped);
        structFileCompletion done;
        memset(&done, 0, sizeof(done));
        h.PopCompletionMessage(&done);
        EXPECT_STREQ(done.szFilename, names[0].c_str());
        EXPECT_EQ(done.nLength, fed / 48000);
        EXPECT_EQ(h.GetProgressMax(), 0u);
        EXPECT_STREQ(h.GetActiveFilename(), names[0].c_str());
        SF_INFO info;
        ReadBack(names[0], info, k.bits);
        EXPECT_EQ(info.format, k.sfFormat);
        EXPECT_EQ(info.samplerate, 48000);
        ExpectRamp(names, k.channels, k.bits, 0, fed);
    }
}

// A stop with frames buffered writes them first; a stop with nothing
// recorded leaves a valid empty file and a completion of length 0.
TEST_F(RecFile, StopWritesWhatIsBufferedThenRunsDry)
{
    H h(2);
    ASSERT_EQ(Add(h, Setup({Path("a.wav")})), eResultSuccess);
    Feed(h, 2, 16, 0, 5000);
    g_nEnableBits = eLogRuntime;
    EXPECT_EQ(Captured([&] { EXPECT_EQ(h.ServiceBuffer(false), H::eServiceNone); }), "");
    std::string out = Captured([&] { EXPECT_EQ(h.ServiceBuffer(false), H::eServiceStopped); });
    g_nEnableBits = 0;
    EXPECT_EQ(out, "    RUNTIME: Recorder DRY!\r\n");
    ExpectRamp({Path("a.wav")}, 2, 16, 0, 5000);

    ASSERT_EQ(Add(h, Setup({Path("b.wav")})), eResultSuccess);
    EXPECT_EQ(h.ServiceBuffer(false), H::eServiceStopped);
    structFileCompletion done;
    h.PopCompletionMessage(&done);
    EXPECT_STREQ(done.szFilename, Path("b.wav").c_str());
    EXPECT_EQ(done.nLength, 0u);
    ExpectRamp({Path("b.wav")}, 2, 16, 0, 0);
}

// Roll-over at a 1 s limit with names supplied after each roll: every file
// but the last holds exactly 48000 frames and together they hold the signal.
// A secondary set-up's own options are ignored. Without a further set the
// next limit ends the recording, and frames left behind never reach the next.
TEST_F(RecFile, RollsOverWithoutLosingAFrame)
{
    H h(2);
    ASSERT_EQ(Add(h, Setup({Path("r0.wav")}, 0, 0, 2, 1, 1)), eResultSuccess);
    ASSERT_EQ(Add(h, Setup({Path("r1.wav")}, 1, 2, 0, 1, 0, 1)), eResultSuccess);
    std::vector<std::string> files = {Path("r0.wav")};
    unsigned fed = 0;
    int rolls = 0;
    for (unsigned chunk = 7001; fed < 3 * 48000 + 5000; fed += chunk) {
        Feed(h, 2, 24, fed, chunk);
        int r = h.ServiceBuffer(true);
        if (r == H::eServiceRolled) {
            structFileCompletion done;
            h.PopCompletionMessage(&done);
            EXPECT_STREQ(done.szFilename, files.back().c_str());
            EXPECT_EQ(done.nLength, 1u);
            files.push_back(Path("r" + std::to_string(++rolls) + ".wav"));
            EXPECT_STREQ(h.GetActiveFilename(), files.back().c_str());
            if (rolls < 3) {
                ASSERT_EQ(Add(h, Setup({Path("r" + std::to_string(rolls + 1) + ".wav")}, 0, 0, 0, 1, 0, 1)), 0);
            }
        } else {
            ASSERT_EQ(r, H::eServiceNone);
        }
    }
    ASSERT_EQ(rolls, 3);
    ASSERT_EQ(h.ServiceBuffer(false), H::eServiceStopped);
    for (size_t i = 0; i < files.size(); ++i)
        ExpectRamp({files[i]}, 2, 24, 48000 * static_cast<unsigned>(i), i < 3 ? 48000 : fed - 3 * 48000);

    // Exactly filling a file keeps it open; the next frame rolls into a new
    // one, and with no names left the following limit stops the recording.
    ASSERT_EQ(Add(h, Setup({Path("s0.wav")}, 0, 0, 0, 1, 1)), eResultSuccess);
    ASSERT_EQ(Add(h, Setup({Path("s1.wav")}, 0, 0, 0, 1, 0, 1)), eResultSuccess);
    for (fed = 0; fed < 48000; fed += 8000) {
        Feed(h, 2, 16, fed, 8000);
        ASSERT_EQ(h.ServiceBuffer(true), H::eServiceNone);
    }
    Feed(h, 2, 16, fed, 1);
    EXPECT_EQ(h.ServiceBuffer(true), H::eServiceRolled);
    Feed(h, 2, 16, fed + 1, 7999);
    EXPECT_EQ(h.ServiceBuffer(true), H::eServiceNone);
    for (fed += 8000; fed < 96000; fed += 8000) {
        Feed(h, 2, 16, fed, 8000);
        ASSERT_EQ(h.ServiceBuffer(true), H::eServiceNone);
    }
    Feed(h, 2, 16, fed, 3000);
    std::string out = Captured([&] { EXPECT_EQ(h.ServiceBuffer(true), H::eServiceStopped); });
    EXPECT_EQ(out, "Trying to roll, but no filenames!\r\n");
    EXPECT_EQ(h.GetRTBufferP()->GetReadableFrames(), 0u);
    ExpectRamp({Path("s1.wav")}, 2, 16, 48000, 48000);

    // The callback records on until it sees the recorder leave Running.
    Feed(h, 2, 16, 0, 700);
    ASSERT_EQ(Add(h, Setup({Path("t.wav")})), eResultSuccess);
    Feed(h, 2, 16, 100, 300);
    EXPECT_EQ(h.ServiceBuffer(false), H::eServiceNone);
    EXPECT_EQ(h.ServiceBuffer(false), H::eServiceStopped);
    ExpectRamp({Path("t.wav")}, 2, 16, 100, 300);

    // A roll flag other than 1 does not roll.
    ASSERT_EQ(Add(h, Setup({Path("u0.wav")}, 0, 0, 0, 1, 2)), eResultSuccess);
    ASSERT_EQ(Add(h, Setup({Path("u1.wav")}, 0, 0, 0, 1, 0, 1)), eResultSuccess);
    int last = H::eServiceNone;
    for (fed = 0; fed < 49000; fed += 7000) {
        Feed(h, 2, 16, fed, 7000);
        last = h.ServiceBuffer(true);
        ASSERT_NE(last, H::eServiceRolled);
    }
    EXPECT_EQ(last, H::eServiceStopped);
    EXPECT_NE(access(Path("u1.wav").c_str(), F_OK), 0);
}

// Converted recordings: the file carries the chosen rate, its length is the
// recorded time converted, and the tone keeps its frequency. A length limit
// counts frames at the file's rate.
TEST_F(RecFile, ConvertsToTheChosenRate)
{
    const unsigned rates[] = {0, 24000, 16000, 12000};
    for (unsigned opt = 1; opt <= 3; ++opt) {
        SCOPED_TRACE(opt);
        H h(1);
        ASSERT_EQ(Add(h, Setup({Path("t" + std::to_string(opt) + ".wav")}, 0, opt, 0)), eResultSuccess);
        const unsigned total = 48000;  // 1 s of a 1 kHz tone, in periods of 480 frames
        for (unsigned f = 0; f < total; f += 480) {
            for (unsigned i = f; i < f + 480; ++i)
                h.GetRTBufferP()->WriteSingle(0.5f * static_cast<float>(std::sin(2 * 3.14159265358979 * 1000.0 * i / 48000.0)));
            ASSERT_EQ(h.ServiceBuffer(true), H::eServiceNone);
        }
        while (h.ServiceBuffer(false) != H::eServiceStopped) {
        }
        SF_INFO info;
        std::vector<int> got = ReadBack(Path("t" + std::to_string(opt) + ".wav"), info, 16);
        EXPECT_EQ(info.samplerate, static_cast<int>(rates[opt]));
        EXPECT_NEAR(static_cast<double>(info.frames), rates[opt], 4.0);
        unsigned rising = 0;
        for (size_t i = 1; i < got.size(); ++i)
            rising += got[i - 1] < 0 && got[i] >= 0;
        EXPECT_NEAR(rising, 1000, 1);
    }

    H h(1);
    ASSERT_EQ(Add(h, Setup({Path("l0.wav")}, 0, 2, 0, 10, 1)), eResultSuccess);
    EXPECT_EQ(h.GetProgressMax(), 10u);
    ASSERT_EQ(Add(h, Setup({Path("l1.wav")}, 0, 0, 0, 10, 0, 1)), eResultSuccess);
    int rolled = 0;
    unsigned in = 0;
    for (; in < 10 * 48000 + 30000; in += 1024) {
        h.GetRTBufferP()->StuffSilence(1024);
        rolled += h.ServiceBuffer(true) == H::eServiceRolled;
    }
    while (h.ServiceBuffer(false) != H::eServiceStopped) {
    }
    EXPECT_EQ(rolled, 1);
    SF_INFO info;
    ReadBack(Path("l0.wav"), info, 16);
    EXPECT_EQ(info.frames, 160000);
    EXPECT_EQ(info.samplerate, 16000);
    ReadBack(Path("l1.wav"), info, 16);
    EXPECT_NEAR(static_cast<double>(info.frames), in / 3.0 - 160000, 4.0);
}

// Every refused set-up prints its lines and answers its code.
TEST_F(RecFile, RefusesBadSetups)
{
    struct Case { unsigned channels; structSetupFile setup; int result; std::string out; } cases[] = {
        {2, Setup({Path("a")}, 2), 25, "Invalid file format option: 2\r\n"},
        {2, Setup({Path("a")}, 0, 0xFFFFFFFF), 26, "Invalid Sample Rate Option: -1\r\n"},
        {2, Setup({Path("a")}, 0, 4), 26, "Invalid Sample Rate Option: 4\r\n"},
        {2, Setup({Path("a")}, 1, 0, 3), 27, "Invalid word length option: 3\r\n"},
        {1025, Setup({Path("a")}), 28, "Fileformat not supported by libsndfile. Try other options.\n"},
        {2, Setup({""}), 23, "can't open record file: filenames appear to be empty...\r\n"},
        {4, Setup({Path("m0"), Path("m1"), Path("m2")}, 1), 23,
         "can't open record file: filenames appear to be empty...\r\n"},
        {2, Setup({Path("a")}, 0, 0, 0, 0, 0, 1), 24, ""},
        {2, Setup({m_Dir + "/none/a.wav"}), 29, "Recorder couldn't open file " + m_Dir + "/none/a.wav: "},
        {3, Setup({Path("m0"), Path("m1"), m_Dir + "/none/m2"}, 1), 29, "Recorder couldn't open file "},
    };
    for (Case& k : cases) {
        SCOPED_TRACE(k.result);
        H h(k.channels);
        std::string out = Captured([&] { EXPECT_EQ(h.AddSingleFile(&k.setup), k.result); });
        if (k.channels == 4) {
            const std::string names = Path("m0") + ", " + Path("m1") + ", " + Path("m2") + ", , ";
            EXPECT_NE(Captured([&] { h.DoDisplayDebug(); }).find("Primary Filenames: " + names), std::string::npos);
        }
        EXPECT_EQ(out.rfind(k.out, 0), 0u) << out;
        if (k.result == 29) {
            EXPECT_EQ(out.substr(out.size() - 28), "\r\nRecord file open failed.\r\n") << out;
        }
    }

    H h(2);
    EXPECT_EQ(Add(h, Setup({Path("p.wav")})), eResultSuccess);
    EXPECT_EQ(Captured([&] { EXPECT_EQ(Add(h, Setup({""}, 0, 0, 0, 0, 0, 1)), 23); }),
              "can't open record file: filenames appear to be invalid...\r\n");
    CFileHandler& base = h;
    structSetupPlayFile play;
    structSetupPlaylist list;
    EXPECT_EQ(base.AddSingleFile(&play), eResultWrongModuleType);
    EXPECT_EQ(base.AddPlaylist(&list), eResultWrongModuleType);
    EXPECT_EQ(base.ManualStop(), 0);
    EXPECT_EQ(h.ServiceBuffer(false), H::eServiceStopped);
}

// A file that cannot grow (here: a file-size limit standing in for a full
// disk) prints one line, and only the frames libsndfile took are counted.
TEST_F(RecFile, ShortWritesAreReportedAndNotCounted)
{
    H h(1);
    ASSERT_EQ(Add(h, Setup({Path("full.wav")})), eResultSuccess);
    rlimit old;
    getrlimit(RLIMIT_FSIZE, &old);
    rlimit small = old;
    small.rlim_cur = 10000;
    signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    std::string out = Captured([&] {
        for (unsigned f = 0; f < 20000; f += 4000) {
            Feed(h, 1, 16, f, 4000);
            EXPECT_EQ(h.ServiceBuffer(true), H::eServiceNone);
        }
    });
    const std::string debug = Captured([&] { h.DoDisplayDebug(); });
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_EQ(out.rfind("Recorder write to " + Path("full.wav") + " fell short: ", 0), 0u) << out;
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
    EXPECT_EQ(h.ServiceBuffer(false), H::eServiceStopped);
    SF_INFO info;
    ReadBack(Path("full.wav"), info, 16);
    EXPECT_LT(info.frames, 20000);
    EXPECT_NE(debug.find("File Progress " + std::to_string(info.frames) + " of "), std::string::npos) << debug;
}
