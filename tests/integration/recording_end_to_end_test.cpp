// Recording through the real server: a JACK client in the test feeds known
// signals into a recorder's input ports, and the WAV files it writes are read
// back and checked frame by frame.
#include <gtest/gtest.h>

#include <jack/jack.h>
#include <sndfile.h>
#include <sys/stat.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "harness/server_fixture.h"

namespace {

// Channel c of frame n: a ramp over the frame index that differs per channel,
// wrapping within the word length (span = 2^bits - 1 codes). In tone mode,
// channel 0 is a slow ramp (one 24-bit step a frame) and the others a 1 kHz sine.
struct Signal {
    unsigned channels;
    int bits;
    int Code(uint32_t n, unsigned c) const
    {
        const uint32_t span = (1u << bits) - 1, period = span / channels;
        return static_cast<int>((n % period) * channels + c) - static_cast<int>(span / 2);
    }
};

class Feeder {
public:
    ~Feeder()
    {
        if (m_pClient != nullptr) {
            jack_deactivate(m_pClient);
            jack_client_close(m_pClient);
        }
    }
    bool Open(const std::string& server)
    {
        m_pClient = jack_client_open("zp_feeder", static_cast<jack_options_t>(JackNoStartServer | JackServerName),
                                     nullptr, server.c_str());
        for (unsigned c = 0; m_pClient && c < 8; ++c)
            m_pPorts[c] = jack_port_register(m_pClient, ("out" + std::to_string(c + 1)).c_str(),
                                             JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput, 0);
        return m_pClient && jack_set_process_callback(m_pClient, Process, this) == 0 && jack_activate(m_pClient) == 0;
    }
    bool Connect(int slot, unsigned channels)
    {
        char rec[32];
        for (unsigned c = 1; c <= channels; ++c) {
            snprintf(rec, sizeof(rec), "Recorder%03d:input%u", slot, c);
            if (jack_connect(m_pClient, ("zp_feeder:out" + std::to_string(c)).c_str(), rec) != 0)
                return false;
        }
        return true;
    }
    void Set(Signal s, bool tone) { m_nChannels = s.channels, m_nBits = s.bits, m_bTone = tone; }

private:
    static int Process(jack_nframes_t nframes, void* arg)
    {
        Feeder* f = static_cast<Feeder*>(arg);
        const Signal s{f->m_nChannels.load(), f->m_nBits.load()};
        const bool tone = f->m_bTone.load();
        const float scale = static_cast<float>((1 << (s.bits - 1)) - 1);
        const uint32_t first = f->m_nFrame.load(std::memory_order_relaxed);
        for (unsigned c = 0; c < 8; ++c) {
            float* out = static_cast<float*>(jack_port_get_buffer(f->m_pPorts[c], nframes));
            for (uint32_t i = 0; i < nframes; ++i) {
                const uint32_t n = first + i;
                if (!tone)
                    out[i] = c < s.channels ? s.Code(n, c) / scale : 0.0f;
                else if (c == 0)
                    out[i] = static_cast<float>(n % 8388607u) / 8388607.0f - 0.5f;
                else
                    out[i] = 0.5f * static_cast<float>(std::sin(2 * 3.14159265358979 * (n % 48000u) / 48.0));
            }
        }
        f->m_nFrame.store(first + nframes, std::memory_order_relaxed);
        return 0;
    }

    jack_client_t* m_pClient = nullptr;
    jack_port_t* m_pPorts[8] = {};
    std::atomic<uint32_t> m_nFrame{0};
    std::atomic<unsigned> m_nChannels{1};
    std::atomic<int> m_nBits{16};
    std::atomic<bool> m_bTone{false};
};

// A whole WAV file as integers at the given word length.
std::vector<int> ReadWav(const std::string& path, SF_INFO& info, int bits)
{
    info = SF_INFO{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    if (f == nullptr)
        return {};
    std::vector<int> data(static_cast<size_t>(info.frames * info.channels));
    sf_readf_int(f, data.data(), info.frames);
    sf_close(f);
    for (int& v : data)
        v >>= 32 - bits;
    return data;
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
        ASSERT_TRUE(m_Feeder.Open(s_pJack->Name()));
        char dir[] = "/tmp/zp_rec_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_Dir = dir;
    }
    void TearDown() override
    {
        ServerTest::TearDown();
        system(("rm -rf " + m_Dir).c_str());
    }
    std::string Path(const std::string& name) const { return m_Dir + "/" + name; }

    void Create(int slot, unsigned channels)
    {
        structAddModule add = {static_cast<int32_t>(channels), 0};
        ASSERT_EQ(m_Client.Call(eZorPlayRecorder, eCmdCreate, slot, &add, sizeof(add)), eResultSuccess);
        ASSERT_TRUE(m_Feeder.Connect(slot, channels));
    }
    int Setup(int slot, const std::vector<std::string>& names, int format = 0, unsigned rate = 0, int word = 0,
              unsigned seconds = 0, int roll = 0, int secondary = 0)
    {
        structSetupFile s{};
        for (size_t i = 0; i < names.size(); ++i)
            strncpy(s.szFilenames[i], names[i].c_str(), sizeof(s.szFilenames[i]) - 1);
        s.bSecondary = secondary, s.nFileSeconds = seconds, s.bRoll = roll;
        s.nFileFormat = format, s.nSampleRate = rate, s.nWordLength = word;
        return m_Client.Call(eZorPlayRecorder, eCmdSetupFile, slot, &s, sizeof(s));
    }
    structFileCompletion Completion(int slot)
    {
        structZorPlayMsg msg{};
        EXPECT_TRUE(m_Client.WaitUnrequested(msg, 20000, eCmdFileCompletion)) << m_Server.Output();
        EXPECT_EQ(msg.eType, eZorPlayRecorder);
        EXPECT_EQ(msg.nIndex, slot);
        return msg.payload.fileCompletion;
    }
    // Records until the file holds at least bytes, then stops; the completion.
    structFileCompletion RecordFor(int slot, const std::string& file, off_t bytes)
    {
        EXPECT_EQ(m_Client.Call(eZorPlayRecorder, eCmdStart, slot), eResultSuccess);
        EXPECT_TRUE(WaitUntil([&] { return FileSize(file) >= bytes; }, 20000)) << file;
        EXPECT_EQ(m_Client.Call(eZorPlayRecorder, eCmdStop, slot), eResultSuccess);
        return Completion(slot);
    }

    // The frames of the files, concatenated, must be consecutive frames of
    // the ramp (channel by channel, or one channel per file); returns the count.
    static size_t ExpectConsecutive(const std::vector<std::string>& files, Signal s, bool multiMono)
    {
        std::vector<std::vector<int>> channels(s.channels);
        for (size_t i = 0; i < files.size(); ++i) {
            SF_INFO info;
            std::vector<int> data = ReadWav(files[i], info, s.bits);
            const unsigned fileCh = multiMono ? 1 : s.channels;
            EXPECT_EQ(info.channels, static_cast<int>(fileCh)) << files[i];
            for (size_t k = 0; k < data.size(); ++k)
                channels[multiMono ? i : k % fileCh].push_back(data[k]);
        }
        const uint32_t span = (1u << s.bits) - 1, period = span / s.channels;
        const uint32_t n0 = static_cast<uint32_t>(channels[0].at(0) + static_cast<int>(span / 2)) / s.channels;
        for (unsigned c = 0; c < s.channels; ++c) {
            EXPECT_EQ(channels[c].size(), channels[0].size());
            for (size_t k = 0; k < channels[c].size(); ++k)
                if (channels[c][k] != s.Code(static_cast<uint32_t>((n0 + k) % period), c)) {
                    ADD_FAILURE() << "channel " << c << " frame " << k << " of " << channels[c].size();
                    return 0;
                }
        }
        return channels[0].size();
    }

    Feeder m_Feeder;
    std::string m_Dir;
};

}  // namespace

// One interleaved file or one file per channel, for 1, 2 and 8 channels, at
// 16, 24 and 8 bits: the files hold the fed signal frame for frame.
TEST_F(Recording, FilesHoldTheFedSignal)
{
    const unsigned counts[] = {1, 2, 8};
    const int bits[] = {16, 8, 24};  // by word-length option
    for (int slot = 0; slot < 3; ++slot) {
        const unsigned channels = counts[slot];
        Create(slot, channels);
        for (int format = 0; format < 2; ++format)
            for (int word = 0; word < 3; ++word) {
                SCOPED_TRACE(std::to_string(channels) + " channels, format " + std::to_string(format) +
                             ", word " + std::to_string(word));
                m_Feeder.Set({channels, bits[word]}, false);
                std::vector<std::string> names;
                for (unsigned c = 0; c < (format ? channels : 1); ++c)
                    names.push_back(Path("f" + std::to_string(slot * 100 + format * 10 + word) + "_" +
                                         std::to_string(c) + ".wav"));
                ASSERT_EQ(Setup(slot, names, format, 0, word), eResultSuccess);
                const off_t fileChannels = format ? 1 : channels;
                structFileCompletion done =
                    RecordFor(slot, names.back(), 44 + 20000 * fileChannels * bits[word] / 8);
                EXPECT_STREQ(done.szFilename, names[0].c_str());
                EXPECT_EQ(done.bRolled, 0);
                EXPECT_STREQ(done.szNewFilename, "");
                EXPECT_GE(ExpectConsecutive(names, {channels, bits[word]}, format == 1), 20000u);
            }
    }
}

// Roll-over at 1 s with the next names supplied after each roll report:
// every file holds exactly 48000 frames and together they hold the signal.
// With no names for a second roll, the next limit stops the recording.
TEST_F(Recording, RollsOverWithoutLosingAFrame)
{
    Create(0, 2);
    m_Feeder.Set({2, 24}, false);
    const std::vector<std::string> files = {Path("r0.wav"), Path("r1.wav"), Path("r2.wav")};
    ASSERT_EQ(Setup(0, {files[0]}, 0, 0, 2, 1, 1), eResultSuccess);
    ASSERT_EQ(Setup(0, {files[1]}, 1, 3, 0, 1, 0, 1), eResultSuccess);  // its format options are not used
    ASSERT_EQ(m_Client.Call(eZorPlayRecorder, eCmdStart, 0), eResultSuccess);
    for (size_t i = 0; i < 3; ++i) {
        structFileCompletion done = Completion(0);
        EXPECT_STREQ(done.szFilename, files[i].c_str());
        EXPECT_EQ(done.nLength, 1u);
        EXPECT_EQ(done.bRolled, i < 2 ? 1 : 0);
        EXPECT_STREQ(done.szNewFilename, i < 2 ? files[i + 1].c_str() : "");
        if (i == 0) { // while Running a primary set-up is refused, a secondary one taken
            EXPECT_EQ(Setup(0, {files[2]}), eResultNotIdle);
            EXPECT_EQ(Setup(0, {files[2]}, 0, 0, 0, 1, 0, 1), eResultSuccess);
        }
    }
    EXPECT_TRUE(m_Server.WaitForOutput("Trying to roll, but no filenames!\r\n", 5000));
    EXPECT_EQ(m_Client.Call(eZorPlayRecorder, eCmdStart, 0), eResultNoFile);  // Idle again
    for (const std::string& f : files) {
        SF_INFO info;
        ReadWav(f, info, 24);
        EXPECT_EQ(info.frames, 48000) << f;
        EXPECT_EQ(info.channels, 2);
    }
    EXPECT_EQ(ExpectConsecutive(files, {2, 24}, false), 3u * 48000);
}

// Converted recordings carry the chosen rate; a 1 s limit stops them at
// exactly one second of file frames, which is the recorded time converted
// (the slow ramp on channel 0 measures it), and the 1 kHz tone keeps its
// frequency.
TEST_F(Recording, ConvertsToTheChosenRate)
{
    Create(0, 2);
    m_Feeder.Set({2, 24}, true);
    const int rates[] = {0, 24000, 16000, 12000};
    for (unsigned opt = 1; opt <= 3; ++opt) {
        SCOPED_TRACE(rates[opt]);
        const std::string file = Path("t" + std::to_string(opt) + ".wav");
        ASSERT_EQ(Setup(0, {file}, 0, opt, 2, 1), eResultSuccess);
        ASSERT_EQ(m_Client.Call(eZorPlayRecorder, eCmdStart, 0), eResultSuccess);
        EXPECT_EQ(Completion(0).nLength, 1u);
        SF_INFO info;
        std::vector<int> data = ReadWav(file, info, 24);
        ASSERT_EQ(info.frames, rates[opt]);
        EXPECT_EQ(info.samplerate, rates[opt]);
        // Skip the converter's start-up; ramp steps per file frame = 48000 / rate.
        const size_t a = 100, b = static_cast<size_t>(info.frames) - 1;
        const double steps = (data[2 * b] - data[2 * a]) / static_cast<double>(b - a);
        EXPECT_NEAR(steps, 48000.0 / rates[opt], 0.01);
        unsigned rising = 0;
        for (size_t k = a + 1; k <= b; ++k)
            rising += data[2 * (k - 1) + 1] < 0 && data[2 * k + 1] >= 0;
        EXPECT_NEAR(rising, 1000.0 * (b - a) / rates[opt], 2.0);
    }
}

// Set-up refusals with their codes and lines (leaving the module as it was),
// a primary set-up outside Idle, and a stop in File Ready. A secondary set-up
// while Running is taken in the roll-over test.
TEST_F(Recording, SetupsStatesAndCompletions)
{
    Create(0, 4);
    m_Feeder.Set({4, 16}, false);
    struct Case { std::vector<std::string> names; int format; unsigned rate; int word, secondary, result; std::string line; };
    const Case cases[] = {
        {{Path("x")}, 2, 0, 0, 1, 24, ""},
        {{Path("x")}, 2, 0, 0, 0, 25, "Invalid file format option: 2\r\n"},
        {{Path("x")}, 0, 7, 0, 0, 26, "Invalid Sample Rate Option: 7\r\n"},
        {{Path("x")}, 0, 0, -1, 0, 27, "Invalid word length option: -1\r\n"},
        {{Path("a"), Path("b"), Path("c")}, 1, 0, 0, 0, 23, "can't open record file: filenames appear to be empty...\r\n"},
        {{Path("none/x")}, 0, 0, 0, 0, 29, "Record file open failed.\r\n"},
    };
    for (const Case& k : cases) {
        const size_t mark = m_Server.OutputSize();
        EXPECT_EQ(Setup(0, k.names, k.format, k.rate, k.word, 0, 0, k.secondary), k.result);
        EXPECT_EQ(m_Client.Call(eZorPlayRecorder, eCmdStart, 0), eResultNoFile) << k.result;
        EXPECT_TRUE(WaitUntil([&] { return m_Server.OutputSince(mark).find(k.line) != std::string::npos; }, 5000))
            << m_Server.OutputSince(mark);
    }
    EXPECT_TRUE(m_Server.WaitForOutput("Recorder couldn't open file " + Path("none/x") + ": ", 5000));

    // Stop in File Ready: the empty file is closed and reported with length 0.
    ASSERT_EQ(Setup(0, {Path("e.wav")}), eResultSuccess);
    EXPECT_EQ(Setup(0, {Path("e2.wav")}), eResultNotIdle);
    EXPECT_EQ(m_Client.Call(eZorPlayRecorder, eCmdStop, 0), eResultSuccess);
    structFileCompletion done = Completion(0);
    EXPECT_STREQ(done.szFilename, Path("e.wav").c_str());
    EXPECT_EQ(done.nLength, 0u);
    SF_INFO info;
    ReadWav(Path("e.wav"), info, 16);
    EXPECT_EQ(info.frames, 0);
    EXPECT_EQ(info.channels, 4);
}
