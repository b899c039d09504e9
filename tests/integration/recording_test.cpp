// Recording through the real server: a JACK client in the test feeds known
// signals into a recorder's input ports, and the WAV files it writes are read
// back and checked frame by frame.
#include <sys/stat.h>

#include <cmath>

#include "harness/server_fixture.h"

namespace {

constexpr enumZorPlayType kRec = eZorPlayRecorder;

// A ramp over the frame index that differs per channel, wrapping within the
// word length (span = 2^bits - 1 codes): code of channel c at frame n.
struct Signal {
    unsigned channels;
    int bits;
    uint32_t Period() const { return ((1u << bits) - 1) / channels; }
    int Code(uint32_t n, unsigned c) const
    {
        return static_cast<int>((n % Period()) * channels + c) - static_cast<int>(((1u << bits) - 1) / 2);
    }
    uint32_t Word() const { return channels << 8 | static_cast<uint32_t>(bits); }
};

// The signal fed to the ports, for the Signal packed in param.
float Fed(uint32_t n, unsigned c, uint32_t param)
{
    const Signal s{param >> 8, static_cast<int>(param & 0xff)};
    return c < s.channels ? static_cast<float>(s.Code(n, c)) / static_cast<float>((1 << (s.bits - 1)) - 1) : 0.0f;
}

// Channel 0 a slow ramp (one 24-bit step a frame), the others a 1 kHz sine.
float Tone(uint32_t n, unsigned c, uint32_t)
{
    return c == 0 ? static_cast<float>(n % 8388607u) / 8388607.0f - 0.5f
                  : 0.5f * static_cast<float>(std::sin(2 * M_PI * (n % 48000u) / 48.0));
}

off_t FileSize(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : 0;
}

class Recording : public ServerTest {
protected:
    std::vector<std::string> ServerArgs() override { return {"-nc", "-s"}; }
    void SetUp() override
    {
        ServerTest::SetUp();
        ASSERT_TRUE(m_Feeder.Open(JackName(), "zp_feeder", 0, 0, 8));
    }
    void Create(int slot, unsigned channels)
    {
        ASSERT_EQ(ServerTest::Create(kRec, slot, static_cast<int>(channels), 0), eResultSuccess);
        char target[32];
        snprintf(target, sizeof(target), "Recorder%03d:input", slot);
        ASSERT_TRUE(m_Feeder.ConnectTo(target, channels));
    }
    // The frames of the files, concatenated, are consecutive frames of the
    // ramp (interleaved, or one channel per file); returns their count.
    static size_t ExpectConsecutive(const std::vector<std::string>& files, Signal s, bool multiMono)
    {
        std::vector<std::vector<int>> channels(s.channels);
        for (size_t i = 0; i < files.size(); ++i) {
            SF_INFO info;
            const std::vector<int> data = ReadCodes(files[i], info, s.bits);
            const unsigned fileChannels = multiMono ? 1 : s.channels;
            EXPECT_EQ(info.channels, static_cast<int>(fileChannels)) << files[i];
            for (size_t k = 0; k < data.size(); ++k)
                channels[multiMono ? i : k % fileChannels].push_back(data[k]);
        }
        const uint32_t n0 = static_cast<uint32_t>(channels[0].at(0) - s.Code(0, 0)) / s.channels;
        for (unsigned c = 0; c < s.channels; ++c) {
            EXPECT_EQ(channels[c].size(), channels[0].size());
            for (size_t k = 0; k < channels[c].size(); ++k)
                if (channels[c][k] != s.Code(static_cast<uint32_t>(n0 + k), c)) {
                    ADD_FAILURE() << "channel " << c << " frame " << k << " of " << channels[c].size();
                    return 0;
                }
        }
        return channels[0].size();
    }

    TestJackClient m_Feeder;
};

} // namespace

// One interleaved file or one file per channel, for 1, 2 and 8 channels, at
// 16, 8 and 24 bits: the files hold the fed signal frame for frame.
TEST_F(Recording, FilesHoldTheFedSignal)
{
    const unsigned counts[] = {1, 2, 8};
    const int bits[] = {16, 8, 24}; // by word-length option
    for (int slot = 0; slot < 3; ++slot) {
        const unsigned channels = counts[slot];
        Create(slot, channels);
        for (int format = 0; format < 2; ++format)
            for (int word = 0; word < 3; ++word) {
                SCOPED_TRACE(std::to_string(channels) + " channels, format " + std::to_string(format) + ", word " +
                             std::to_string(word));
                const Signal s{channels, bits[word]};
                m_Feeder.Play(Fed, s.Word());
                std::vector<std::string> names;
                for (unsigned c = 0; c < (format ? channels : 1); ++c)
                    names.push_back(Path("f" + std::to_string(slot) + std::to_string(format) + std::to_string(word) +
                                         "_" + std::to_string(c) + ".wav"));
                ASSERT_EQ(SetupRecord(slot, names, format, 0, word), eResultSuccess);
                if (format == 1 && word == 0) { // the display names every file
                    EXPECT_TRUE(Prints([&] { return Cmd(kRec, eCmdQueryStatus, slot); }, eResultSuccess,
                                       "Primary Filenames: " + names[0] + ", "));
                }
                ASSERT_EQ(Cmd(kRec, eCmdStart, slot), eResultSuccess);
                const off_t bytes = 44 + 20000 * (format ? 1 : channels) * bits[word] / 8;
                EXPECT_TRUE(WaitUntil([&] { return FileSize(names.back()) >= bytes; }, 20000));
                ASSERT_EQ(Cmd(kRec, eCmdStop, slot), eResultSuccess);
                const structFileCompletion done = Completion(kRec, slot);
                EXPECT_STREQ(done.szFilename, names[0].c_str());
                EXPECT_EQ(done.bRolled, 0);
                EXPECT_STREQ(done.szNewFilename, "");
                EXPECT_GE(ExpectConsecutive(names, s, format == 1), 20000u);
            }
    }
}

// Roll-over at 1 s with the next names supplied after each roll report:
// every file holds exactly 48000 frames and together they hold the signal.
// With no names for a further roll, the next limit stops the recording.
TEST_F(Recording, RollsOverWithoutLosingAFrame)
{
    Create(0, 2);
    m_Feeder.Play(Fed, Signal{2, 24}.Word());
    const std::vector<std::string> files = {Path("r0.wav"), Path("r1.wav"), Path("r2.wav")};
    ASSERT_EQ(SetupRecord(0, {files[0]}, 0, 0, 2, 1, 1), eResultSuccess);
    ASSERT_EQ(SetupRecord(0, {files[1]}, 1, 3, 0, 1, 0, 1), eResultSuccess); // its format options are not used
    ASSERT_EQ(Cmd(kRec, eCmdStart, 0), eResultSuccess);
    for (size_t i = 0; i < 3; ++i) {
        const structFileCompletion done = Completion(kRec, 0);
        EXPECT_STREQ(done.szFilename, files[i].c_str());
        EXPECT_EQ(done.nLength, 1u);
        EXPECT_EQ(done.bRolled, i < 2 ? 1 : 0);
        EXPECT_STREQ(done.szNewFilename, i < 2 ? files[i + 1].c_str() : "");
        if (i == 0) { // while Running a primary set-up is refused, a secondary one taken
            EXPECT_EQ(SetupRecord(0, {files[2]}), eResultNotIdle);
            EXPECT_EQ(SetupRecord(0, {files[2]}, 0, 0, 0, 1, 0, 1), eResultSuccess);
        }
    }
    EXPECT_TRUE(m_Server.WaitForOutput("Trying to roll, but no filenames!\r\n"));
    EXPECT_EQ(Cmd(kRec, eCmdStart, 0), eResultNoFile); // Idle again
    for (const std::string& f : files) {
        SF_INFO info;
        ReadCodes(f, info, 24);
        EXPECT_EQ(info.frames, 48000) << f;
    }
    EXPECT_EQ(ExpectConsecutive(files, {2, 24}, false), 3u * 48000);
}

// Converted recordings carry the chosen rate; a 1 s limit stops them at
// exactly one second of file frames, which is the recorded time converted
// (the slow ramp on channel 0 measures it), and the 1 kHz tone keeps its pitch.
TEST_F(Recording, ConvertsToTheChosenRate)
{
    Create(0, 2);
    m_Feeder.Play(Tone, 0);
    const int rates[] = {0, 24000, 16000, 12000};
    for (unsigned opt = 1; opt <= 3; ++opt) {
        SCOPED_TRACE(rates[opt]);
        const std::string file = Path("t" + std::to_string(opt) + ".wav");
        ASSERT_EQ(SetupRecord(0, {file}, 0, opt, 2, 1), eResultSuccess);
        ASSERT_EQ(Cmd(kRec, eCmdStart, 0), eResultSuccess);
        EXPECT_EQ(Completion(kRec, 0).nLength, 1u);
        SF_INFO info;
        const std::vector<int> data = ReadCodes(file, info, 24);
        ASSERT_EQ(info.frames, rates[opt]);
        EXPECT_EQ(info.samplerate, rates[opt]);
        // Past the converter's start-up; ramp steps per file frame = 48000 / rate.
        const size_t a = 100, b = static_cast<size_t>(info.frames) - 1;
        EXPECT_NEAR((data[2 * b] - data[2 * a]) / static_cast<double>(b - a), 48000.0 / rates[opt], 0.01);
        unsigned rising = 0;
        for (size_t k = a + 1; k <= b; ++k)
            rising += data[2 * (k - 1) + 1] < 0 && data[2 * k + 1] >= 0;
        EXPECT_NEAR(rising, 1000.0 * (b - a) / rates[opt], 2.0);
    }
}

// Set-up refusals with their codes and lines, leaving the module idle; a
// primary set-up outside Idle; a stop in File Ready.
TEST_F(Recording, SetupsAreRefusedWithTheirLinesAndAStopInFileReadyCloses)
{
    Create(0, 4);
    struct Case { std::vector<std::string> names; int format; unsigned rate; int word, secondary, result; std::string line; };
    const Case cases[] = {
        {{Path("x")}, 2, 0, 0, 1, eResultNeedPrimary, ""},
        {{Path("x")}, 2, 0, 0, 0, eResultBadFileFormat, "Invalid file format option: 2\r\n"},
        {{Path("x")}, 0, 7, 0, 0, eResultBadSampleRate, "Invalid Sample Rate Option: 7\r\n"},
        {{Path("x")}, 0, 0, -1, 0, eResultBadWordLength, "Invalid word length option: -1\r\n"},
        {{Path("a"), Path("b"), Path("c")}, 1, 0, 0, 0, eResultEmptyFilenames,
         "can't open record file: filenames appear to be empty...\r\n"},
        {{Path("none/x")}, 0, 0, 0, 0, eResultCantOpenFile, "Record file open failed.\r\n"},
    };
    for (const Case& k : cases) {
        const size_t mark = m_Server.OutputSize();
        EXPECT_EQ(SetupRecord(0, k.names, k.format, k.rate, k.word, 0, 0, k.secondary), k.result);
        EXPECT_EQ(Cmd(kRec, eCmdStart, 0), eResultNoFile) << k.result;
        EXPECT_TRUE(Printed(mark, {k.line}));
    }
    EXPECT_TRUE(m_Server.WaitForOutput("Recorder couldn't open file " + Path("none/x") + ": "));

    ASSERT_EQ(SetupRecord(0, {Path("e.wav")}), eResultSuccess);
    EXPECT_EQ(SetupRecord(0, {Path("e2.wav")}), eResultNotIdle);
    EXPECT_EQ(Cmd(kRec, eCmdStop, 0), eResultSuccess);
    const structFileCompletion done = Completion(kRec, 0);
    EXPECT_STREQ(done.szFilename, Path("e.wav").c_str());
    EXPECT_EQ(done.nLength, 0u);
    SF_INFO info;
    ReadCodes(Path("e.wav"), info, 16);
    EXPECT_EQ(info.frames, 0);
    EXPECT_EQ(info.channels, 4);
}
