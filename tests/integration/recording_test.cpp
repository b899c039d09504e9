// Recording through the real server: a JACK client in the test feeds known
// signals into a recorder's ports; the files it writes are checked frame by frame.
#include <sys/stat.h>

#include "harness/server_fixture.h"

namespace {

constexpr enumZorPlayType kRec = eZorPlayRecorder;

// A ramp over the frame index, different per channel, wrapping within the word length (2^bits - 1 codes): the
// code of channel c at frame n.
struct Signal {
    unsigned channels;
    int bits;
    int Code(uint32_t n, unsigned c) const
    {
        const uint32_t span = (1u << bits) - 1;
        return static_cast<int>((n % (span / channels)) * channels + c) - static_cast<int>(span / 2);
    }
    uint32_t Word() const { return channels << 8 | static_cast<uint32_t>(bits); }
};

// The signal fed to the ports, for the Signal packed in param.
float Fed(uint32_t n, unsigned c, uint32_t param)
{
    const Signal s{param >> 8, static_cast<int>(param & 0xff)};
    return c < s.channels ? static_cast<float>(s.Code(n, c)) / static_cast<float>((1 << (s.bits - 1)) - 1) : 0.0f;
}

// The files' frames, concatenated (interleaved, or one channel per file), are
// consecutive ramp frames, each file fileFrames long unless that is 0; returns their count.
size_t ExpectConsecutive(const std::vector<std::string>& files, Signal s, bool multiMono, sf_count_t fileFrames = 0)
{
    std::vector<uint32_t> frames(s.channels); // per channel, so far
    uint32_t n0 = 0; // the ramp frame the first file starts at
    for (size_t i = 0; i < files.size(); ++i) {
        SF_INFO info;
        const std::vector<int> data = ReadCodes(files[i], info, s.bits);
        EXPECT_EQ(info.channels, multiMono ? 1 : static_cast<int>(s.channels)) << files[i];
        EXPECT_TRUE(fileFrames == 0 || info.frames == fileFrames) << files[i] << ": " << info.frames << " frames";
        if (i == 0)
            n0 = static_cast<uint32_t>(data.at(0) - s.Code(0, 0)) / s.channels;
        for (size_t k = 0; k < data.size(); ++k) {
            const unsigned c = multiMono ? static_cast<unsigned>(i) : k % s.channels;
            if (data[k] != s.Code(n0 + frames[c]++, c)) {
                ADD_FAILURE() << files[i] << ": channel " << c << " frame " << frames[c] - 1;
                return 0;
            }
        }
    }
    for (unsigned c = 1; c < s.channels; ++c)
        EXPECT_EQ(frames[c], frames[0]) << "channel " << c;
    return frames[0];
}

class Recording : public ServerTest {
protected:
    std::vector<std::string> ServerArgs() override { return {"-nc", "-s"}; }
};

} // namespace

// One interleaved file or one file per channel, for 1, 2 and 8 channels, at 16, 8 and 24 bits: the files hold
// the fed signal frame for frame. Then set-up refusals, a stop in File Ready, roll-over and rate conversion.
TEST_F(Recording, TakesHoldTheFedSignalAndBadSetupsAreRefused)
{
    TestJackClient feeder;
    ASSERT_TRUE(feeder.Open(JackName(), "zp_feeder", 0, 0, 8));
    const unsigned counts[] = {1, 2, 8};
    const int bits[] = {16, 8, 24}; // by word-length option
    for (int slot = 0; slot < 3; ++slot) {
        const unsigned channels = counts[slot];
        ASSERT_EQ(Create(kRec, slot, static_cast<int>(channels), 0), eResultSuccess);
        ASSERT_TRUE(feeder.ConnectTo("Recorder00" + std::to_string(slot) + ":input", channels));
        for (int format = 0; format < 2; ++format)
            for (int word = 0; word < 3; ++word) {
                const std::string take = "f" + std::to_string(slot) + std::to_string(format) + std::to_string(word);
                SCOPED_TRACE(take);
                const Signal s{channels, bits[word]};
                feeder.Play(Fed, s.Word());
                std::vector<std::string> names;
                for (unsigned c = 0; c < (format ? channels : 1); ++c)
                    names.push_back(Path(take + "_" + std::to_string(c) + ".wav"));
                ASSERT_EQ(SetupRecord(slot, names, format, 0, word), eResultSuccess);
                if (format == 1 && word == 0) { // the display names every file
                    EXPECT_TRUE(Prints([&] { return Cmd(kRec, eCmdQueryStatus, slot); }, eResultSuccess,
                                       "Primary Filenames: " + names[0] + ", "));
                }
                ASSERT_EQ(Cmd(kRec, eCmdStart, slot), eResultSuccess);
                const off_t bytes = 44 + 20000 * (format ? 1 : channels) * bits[word] / 8;
                struct stat st;
                EXPECT_TRUE(WaitUntil([&] { return stat(names.back().c_str(), &st) == 0 && st.st_size >= bytes; }, 20000));
                ASSERT_EQ(Cmd(kRec, eCmdStop, slot), eResultSuccess);
                const structFileCompletion done = Completion(kRec, slot);
                EXPECT_TRUE(names[0] == done.szFilename && !done.bRolled && !*done.szNewFilename) << done.szFilename;
                EXPECT_GE(ExpectConsecutive(names, s, format == 1), 20000u);
            }
    }

    const struct { std::vector<std::string> names; int format; unsigned rate; int word, secondary, result; std::string line; } cases[] = {
        {{Path("x")}, 2, 0, 0, 0, eResultBadFileFormat, "Invalid file format option: 2\r\n"},
        {{Path("x")}, 0, 7, 0, 0, eResultBadSampleRate, "Invalid Sample Rate Option: 7\r\n"},
        {{Path("x")}, 0, 0, -1, 0, eResultBadWordLength, "Invalid word length option: -1\r\n"},
        {{Path("a"), Path("b"), Path("c")}, 1, 0, 0, 0, eResultEmptyFilenames,
         "can't open record file: filenames appear to be empty...\r\n"},
        {{Path("none/x")}, 0, 0, 0, 0, eResultCantOpenFile, "Record file open failed.\r\n"},
    };
    for (const auto& k : cases) {
        const size_t mark = m_Server.OutputSize();
        EXPECT_EQ(SetupRecord(2, k.names, k.format, k.rate, k.word, 0, 0, k.secondary), k.result);
        EXPECT_EQ(Cmd(kRec, eCmdStart, 2), eResultNoFile) << k.result;
        EXPECT_TRUE(Printed(mark, {k.line}));
    }
    EXPECT_TRUE(m_Server.WaitForOutput("Recorder couldn't open file " + Path("none/x") + ": "));
    ASSERT_EQ(SetupRecord(2, {Path("e.wav")}), eResultSuccess);
    EXPECT_EQ(SetupRecord(2, {Path("e2.wav")}), eResultNotIdle);
    EXPECT_EQ(Cmd(kRec, eCmdStop, 2), eResultSuccess);
    const structFileCompletion done = Completion(kRec, 2);
    EXPECT_TRUE(Path("e.wav") == done.szFilename && done.nLength == 0) << done.szFilename;
    SF_INFO info;
    ReadCodes(Path("e.wav"), info, 16);
    EXPECT_TRUE(info.frames == 0 && info.channels == 8) << info.frames << " frames, " << info.channels << " channels";

    // On the 2-channel recorder: roll-over at 1 s with the next names supplied after each roll report; every file
    // holds exactly 48000 frames and together they hold the signal. With no names for a further roll, the next limit stops.
    feeder.Play(Fed, Signal{2, 24}.Word());
    const std::vector<std::string> files = {Path("r0.wav"), Path("r1.wav"), Path("r2.wav")};
    ASSERT_EQ(SetupRecord(1, {files[0]}, 0, 0, 2, 1, 1), eResultSuccess);
    ASSERT_EQ(SetupRecord(1, {files[1]}, 1, 3, 0, 1, 0, 1), eResultSuccess); // its format options are not used
    ASSERT_EQ(Cmd(kRec, eCmdStart, 1), eResultSuccess);
    for (size_t i = 0; i < 3; ++i) {
        const structFileCompletion done = Completion(kRec, 1);
        EXPECT_TRUE(files[i] == done.szFilename && done.nLength == 1 && done.bRolled == (i < 2) &&
                    (i < 2 ? files[i + 1] : "") == done.szNewFilename)
            << done.szFilename << " rolled " << done.bRolled << " to " << done.szNewFilename << ", " << done.nLength;
        if (i == 0) { // while Running a secondary set-up is taken
            EXPECT_EQ(SetupRecord(1, {files[2]}, 0, 0, 0, 1, 0, 1), eResultSuccess);
        }
    }
    EXPECT_TRUE(m_Server.WaitForOutput("Trying to roll, but no filenames!\r\n"));
    EXPECT_EQ(Cmd(kRec, eCmdStart, 1), eResultNoFile); // Idle again
    EXPECT_EQ(ExpectConsecutive(files, {2, 24}, false, 48000), 3u * 48000);

    // Converted takes carry the chosen rate; a 1 s limit stops them at exactly one second of file frames, which
    // is the recorded time converted (a slow ramp, one 24-bit step a frame, measures it).
    feeder.Play([](uint32_t n, unsigned, uint32_t) { return static_cast<float>(n % 8388607u) / 8388607.0f - 0.5f; }, 0);
    const int rates[] = {0, 24000, 16000, 12000};
    for (unsigned opt = 1; opt <= 3; ++opt) {
        SCOPED_TRACE(rates[opt]);
        const std::string file = Path("t" + std::to_string(opt) + ".wav");
        ASSERT_EQ(SetupRecord(1, {file}, 0, opt, 2, 1), eResultSuccess);
        ASSERT_EQ(Cmd(kRec, eCmdStart, 1), eResultSuccess);
        EXPECT_EQ(Completion(kRec, 1).nLength, 1u);
        const std::vector<int> data = ReadCodes(file, info, 24);
        ASSERT_EQ(info.frames, rates[opt]);
        EXPECT_EQ(info.samplerate, rates[opt]);
        // Past the converter's start-up; ramp steps per file frame = 48000 / rate.
        const size_t a = 100, b = static_cast<size_t>(info.frames) - 1;
        EXPECT_NEAR((data[2 * b] - data[2 * a]) / static_cast<double>(b - a), 48000.0 / rates[opt], 0.01);
    }
}
