// Playback through the real server: files written here are played by players
// whose output ports feed capturing JACK clients in the test, and what reaches
// the ports is checked sample by sample.
//
// Most files are cut from one ramp in which every sample says which frame and
// channel it is (and is never zero), so a captured stream decodes into runs of
// consecutive frames: a gap, a repeat or a stray frame shows up as a run of
// its own.
#include <gtest/gtest.h>

#include <sndfile.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "harness/jack_capture.h"
#include "harness/server_fixture.h"

namespace {

constexpr uint32_t kPeriod = 1024;

// Channel c of ramp frame n (n below 2^21): exact in float, never zero.
float Ramp(uint32_t n, unsigned c) { return static_cast<float>(8 * n + c + 1) / 16777216.0f; }
// The 16-bit ramp as libsndfile reads it back: codes 1 .. 32767 over 32768.
float Ramp16(uint32_t n, unsigned c) { return static_cast<float>((8 * n + c) % 32767 + 1) / 32768.0f; }

using Generator = std::function<float(uint32_t n, unsigned c)>;

void WriteSound(const std::string& path, unsigned channels, int rate, int format, uint32_t frames,
                const Generator& gen)
{
    SF_INFO info = {};
    info.samplerate = rate;
    info.channels = static_cast<int>(channels);
    info.format = SF_FORMAT_WAV | format;
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(f, nullptr) << path << ": " << sf_strerror(nullptr);
    std::vector<float> data(static_cast<size_t>(frames) * channels);
    for (uint32_t n = 0; n < frames; ++n)
        for (unsigned c = 0; c < channels; ++c)
            data[static_cast<size_t>(n) * channels + c] = gen(n, c);
    if (format == SF_FORMAT_PCM_16) {
        // Written as codes so that nothing is rounded on the way.
        std::vector<short> codes(data.size());
        for (size_t i = 0; i < data.size(); ++i)
            codes[i] = static_cast<short>(std::lround(data[i] * 32768.0f));
        sf_writef_short(f, codes.data(), frames);
    } else {
        sf_writef_float(f, data.data(), frames);
    }
    sf_close(f);
}

// Frames [first, first + frames) of the ramp as a 48000 Hz float file.
void WriteRamp(const std::string& path, unsigned channels, uint32_t first, uint32_t frames)
{
    WriteSound(path, channels, 48000, SF_FORMAT_FLOAT, frames,
               [first](uint32_t n, unsigned c) { return Ramp(first + n, c); });
}

void WriteText(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

bool IsSilent(const JackCapture& cap, size_t i)
{
    for (unsigned c = 0; c < cap.Channels(); ++c)
        if (cap.Sample(c, i) != 0.0f)
            return false;
    return true;
}

// Consecutive ramp frames as captured: first ramp frame, count, and the
// capture indices of the first and last (silence inside a run is allowed).
struct Stretch {
    long first;
    size_t len;
    size_t at, lastAt;
    long End() const { return first + static_cast<long>(len); }
};

std::vector<Stretch> Runs(const JackCapture& cap)
{
    std::vector<Stretch> runs;
    const size_t frames = cap.Frames();
    for (size_t i = 0; i < frames; ++i) {
        if (IsSilent(cap, i))
            continue;
        const double k = static_cast<double>(cap.Sample(0, i)) * 16777216.0 - 1.0;
        const long n = static_cast<long>(k) / 8;
        bool ok = k >= 0 && k == std::floor(k) && static_cast<long>(k) % 8 == 0;
        for (unsigned c = 0; ok && c < cap.Channels(); ++c)
            ok = cap.Sample(c, i) == Ramp(static_cast<uint32_t>(n), c);
        if (!ok) {
            ADD_FAILURE() << "captured frame " << i << " is no ramp frame: " << cap.Sample(0, i);
            return runs;
        }
        if (!runs.empty() && runs.back().End() == n) {
            ++runs.back().len;
            runs.back().lastAt = i;
        } else {
            runs.push_back({n, 1, i, i});
        }
    }
    return runs;
}

std::string Describe(const std::vector<Stretch>& runs)
{
    std::string s;
    for (const Stretch& r : runs)
        s += "[" + std::to_string(r.first) + " +" + std::to_string(r.len) + " @" + std::to_string(r.at) + "] ";
    return s;
}

class Playback : public ServerTest {
protected:
    // Runtime tracing on: every underrun the player counts prints a line.
    std::vector<std::string> ServerArgs() override { return {"-nc", "-s", "-lr"}; }
    void SetUp() override
    {
        ServerTest::SetUp();
        char dir[] = "/tmp/zp_play_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_Dir = dir;
    }
    void TearDown() override
    {
        ServerTest::TearDown();
        m_Captures.clear();
        system(("rm -rf " + m_Dir).c_str());
    }
    std::string Path(const std::string& name) const { return m_Dir + "/" + name; }

    // A player and a client capturing its ports (20 s of room).
    JackCapture& Create(int slot, unsigned channels)
    {
        structAddModule add = {static_cast<int32_t>(channels), 0};
        EXPECT_EQ(m_Client.Call(eZorPlayPlayer, eCmdCreate, slot, &add, sizeof(add)), eResultSuccess);
        auto cap = std::make_unique<JackCapture>();
        char source[32];
        snprintf(source, sizeof(source), "Player%03d:output", slot);
        EXPECT_TRUE(cap->Open(s_pJack->Name(), "zp_capture" + std::to_string(slot), channels, 20 * 48000));
        EXPECT_TRUE(cap->ConnectFrom(source));
        m_Captures[slot] = std::move(cap);
        return *m_Captures[slot];
    }
    int Cmd(int slot, enumZorPlayCmd cmd) { return m_Client.Call(eZorPlayPlayer, cmd, slot); }
    template <class T> int Send(int slot, enumZorPlayCmd cmd, T rec)
    {
        return m_Client.Call(eZorPlayPlayer, cmd, slot, &rec, sizeof(rec));
    }
    int Setup(int slot, const std::string& path, int secondary = 0)
    {
        structSetupPlayFile s = {secondary, {}};
        strncpy(s.szFilename, path.c_str(), sizeof(s.szFilename) - 1);
        return Send(slot, eCmdSetupPlayFile, s);
    }
    int Playlist(int slot, const std::string& path)
    {
        structSetupPlaylist s = {};
        strncpy(s.szPlaylist, path.c_str(), sizeof(s.szPlaylist) - 1);
        return Send(slot, eCmdSetupPlaylist, s);
    }
    int Skip(int slot, int relative, int n) { return Send(slot, eCmdSkipInPlaylist, structSkipInPlaylist{relative, n}); }
    int Seek(int slot, int seconds) { return Send(slot, eCmdSeek, structSeekOperation{0, seconds}); }
    // The next 'count' completion or roll-over messages of any players, by slot.
    std::map<int, std::vector<structFileCompletion>> Completions(int count)
    {
        std::map<int, std::vector<structFileCompletion>> got;
        for (int i = 0; i < count; ++i) {
            structZorPlayMsg msg = {};
            EXPECT_TRUE(m_Client.WaitUnrequested(msg, 20000, eCmdFileCompletion)) << m_Server.Output();
            EXPECT_EQ(msg.eType, eZorPlayPlayer);
            got[msg.nIndex].push_back(msg.payload.fileCompletion);
        }
        return got;
    }
    // The next one, from player 0.
    structFileCompletion Completion()
    {
        std::vector<structFileCompletion> got = Completions(1)[0];
        EXPECT_EQ(got.size(), 1u) << "a completion from another player";
        return got.empty() ? structFileCompletion{} : got[0];
    }
    void ExpectCompletion(const structFileCompletion& done, const std::string& name, unsigned index,
                          const std::string& next, unsigned nextIndex, unsigned seconds = 0)
    {
        EXPECT_STREQ(done.szFilename, name.c_str());
        EXPECT_EQ(done.nIndex, index);
        EXPECT_EQ(done.bRolled, next.empty() ? 0 : 1);
        EXPECT_STREQ(done.szNewFilename, next.c_str());
        EXPECT_EQ(done.nNewIndex, next.empty() ? 0u : nextIndex);
        EXPECT_EQ(done.nLength, seconds);
        EXPECT_EQ(done.nXRuns, 0u);
    }
    // Waits until 'frames' non-silent frames have been captured from index
    // 'from' on; returns the capture's length then.
    size_t WaitHeard(const JackCapture& cap, size_t frames, size_t from)
    {
        size_t heard = 0, i = from;
        EXPECT_TRUE(WaitUntil(
            [&] {
                for (const size_t end = cap.Frames(); i < end; ++i)
                    heard += !IsSilent(cap, i);
                return heard >= frames;
            },
            20000))
            << heard << " of " << frames << " frames heard";
        return cap.Frames();
    }
    // Waits until 'frames' more frames have been captured; true when all of
    // them were silent. The first period may still carry audio from before.
    bool SilentFor(const JackCapture& cap, size_t frames)
    {
        const size_t from = cap.Frames() + kPeriod;
        EXPECT_TRUE(WaitUntil([&] { return cap.Frames() >= from + frames; }, 20000));
        for (size_t i = from; i < from + frames; ++i)
            if (!IsSilent(cap, i))
                return false;
        return true;
    }
    // The capture holds expected[c][k] on channel c from its first non-silent
    // frame on, and silence after it.
    void ExpectStream(const JackCapture& cap, const std::vector<std::vector<float>>& expected)
    {
        const size_t len = expected[0].size();
        size_t start = 0;
        ASSERT_TRUE(WaitUntil(
            [&] {
                for (const size_t end = cap.Frames(); start < end && IsSilent(cap, start); ++start) {
                }
                return start < cap.Frames() && cap.Frames() >= start + len + 4 * kPeriod;
            },
            20000));
        for (size_t k = 0; k < len; ++k)
            for (unsigned c = 0; c < cap.Channels(); ++c)
                if (cap.Sample(c, start + k) != expected[c][k]) {
                    FAIL() << "channel " << c << " frame " << k << " of " << len << ": " << cap.Sample(c, start + k)
                           << " instead of " << expected[c][k];
                }
        for (size_t i = start + len; i < cap.Frames(); ++i)
            ASSERT_TRUE(IsSilent(cap, i)) << "audio after the end, at frame " << i - start;
    }
    // The capture decodes into exactly these runs: the ramp frame each starts
    // at, and the capture length when the operation that cut it returned (the
    // period under way then may still carry it).
    std::vector<Stretch> ExpectRuns(const JackCapture& cap, const std::vector<std::pair<long, size_t>>& want)
    {
        const std::vector<Stretch> runs = Runs(cap);
        EXPECT_EQ(runs.size(), want.size()) << Describe(runs);
        for (size_t i = 0; i < want.size() && i < runs.size(); ++i) {
            EXPECT_EQ(runs[i].first, want[i].first) << "run " << i << ": " << Describe(runs);
            EXPECT_LT(runs[i].lastAt, want[i].second + kPeriod) << "audio after a cut: " << Describe(runs);
        }
        return runs;
    }
    void ExpectNoUnderrun() { EXPECT_EQ(m_Server.Output().find("Actual underrun"), std::string::npos); }
    void ExpectLines(size_t mark, const std::vector<std::string>& lines)
    {
        for (const std::string& line : lines)
            EXPECT_TRUE(WaitUntil([&] { return m_Server.OutputSince(mark).find(line) != std::string::npos; }, 5000))
                << "missing line: " << line << "\noutput:\n" << m_Server.OutputSince(mark);
    }

    std::string m_Dir;
    std::map<int, std::unique_ptr<JackCapture>> m_Captures;
};

} // namespace

// A float file and a 16-bit file after it on players of 1, 2 and 8 channels,
// and on players whose port count differs from the files' channel count (mono
// on 4 copied to all, 3 on 2 losing the third, 2 on 4 leaving two silent), all
// at once: each player's ports carry both files back to back, bit for bit,
// with one roll-over message between them and a final completion after. Then
// the refusals of manual set-ups, and a stop in File Ready.
TEST_F(Playback, FilesPlayBitExactGaplessAndMappedOntoThePorts)
{
    struct Mapping { unsigned file, ports; };
    const Mapping maps[] = {{1, 1}, {2, 2}, {8, 8}, {1, 4}, {3, 2}, {2, 4}};
    const uint32_t lenFloat = 14411, len16 = 13007;
    auto name = [&](char kind, int slot) { return Path(kind + std::to_string(slot) + ".wav"); };
    for (int slot = 0; slot < 6; ++slot) {
        Create(slot, maps[slot].ports);
        WriteSound(name('f', slot), maps[slot].file, 48000, SF_FORMAT_FLOAT, lenFloat, Ramp);
        WriteSound(name('p', slot), maps[slot].file, 48000, SF_FORMAT_PCM_16, len16, Ramp16);
        ASSERT_EQ(Setup(slot, name('f', slot)) + Setup(slot, name('p', slot), 1), eResultSuccess);
    }
    for (int slot = 0; slot < 6; ++slot)
        ASSERT_EQ(Cmd(slot, eCmdStart), eResultSuccess);
    std::map<int, std::vector<structFileCompletion>> got = Completions(12);
    for (int slot = 0; slot < 6; ++slot) {
        const Mapping k = maps[slot];
        SCOPED_TRACE(std::to_string(k.file) + " channels on " + std::to_string(k.ports));
        ASSERT_EQ(got[slot].size(), 2u);
        ExpectCompletion(got[slot][0], name('f', slot), 0, name('p', slot), 0);
        ExpectCompletion(got[slot][1], name('p', slot), 0, "", 0);
        std::vector<std::vector<float>> expected(k.ports);
        for (unsigned c = 0; c < k.ports; ++c) {
            const unsigned from = k.file == 1 ? 0 : c;
            for (uint32_t n = 0; n < lenFloat + len16; ++n)
                expected[c].push_back(from >= k.file ? 0.0f : n < lenFloat ? Ramp(n, from) : Ramp16(n - lenFloat, from));
        }
        ExpectStream(*m_Captures[slot], expected);
    }
    ExpectNoUnderrun();

    // Manual set-ups refused, each with its line; the module stays idle.
    const std::string f = Path("f0.wav"), missing = Path("missing.wav"), text = Path("text.wav");
    WriteText(text, "not a sound file\n");
    struct Case { std::string path; int secondary, result; std::vector<std::string> lines; };
    const Case cases[] = {
        {f, 1, eResultNeedPrimary, {"Need primary files before secondary\r\n"}},
        {missing, 0, eResultPathMissing,
         {"DoesFileExist: could not access() '" + missing + "': No such file or directory\r\n",
          "Primary Stage of " + missing + " failed\r\n"}},
        {text, 0, eResultCantOpenFile, {"Couldn't open file: " + text + ": "}},
    };
    for (const Case& k : cases) {
        const size_t mark = m_Server.OutputSize();
        EXPECT_EQ(Setup(0, k.path, k.secondary), k.result) << k.path;
        ExpectLines(mark, k.lines);
        EXPECT_EQ(Cmd(0, eCmdStart), eResultNoFile);
    }
    // A primary and three secondaries fill the ring; a fourth is refused. A
    // stop in File Ready reports the primary and leaves the player idle.
    ASSERT_EQ(Setup(0, f), eResultSuccess);
    EXPECT_EQ(Setup(0, f), eResultNotIdle);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(Setup(0, Path("p0.wav"), 1), eResultSuccess);
    const size_t mark = m_Server.OutputSize();
    EXPECT_EQ(Setup(0, Path("p0.wav"), 1), eResultPathMissing);
    ExpectLines(mark, {"Secondary Stage of " + Path("p0.wav") + " failed\r\n"});
    EXPECT_EQ(Cmd(0, eCmdStop), eResultSuccess);
    ExpectCompletion(Completion(), f, 0, "", 0);
    EXPECT_EQ(Cmd(0, eCmdStart), eResultNoFile);
}

// A 44100 Hz file on the 48000 Hz server plays for its length in server
// frames, within the converter's latency and without a gap (channel 1 holds a
// constant that marks it), and its 1 kHz tone (channel 0) keeps its pitch.
TEST_F(Playback, A44100HzFileIsConvertedToTheServerRate)
{
    JackCapture& cap = Create(0, 2);
    const std::string f = Path("t.wav");
    WriteSound(f, 2, 44100, SF_FORMAT_FLOAT, 22050, [](uint32_t n, unsigned c) {
        return c == 0 ? 0.5f * static_cast<float>(std::sin(2 * M_PI * 1000.0 * n / 44100.0)) : 0.25f;
    });
    ASSERT_EQ(Setup(0, f), eResultSuccess);
    ASSERT_EQ(Cmd(0, eCmdStart), eResultSuccess);
    ExpectCompletion(Completion(), f, 0, "", 0);
    EXPECT_TRUE(SilentFor(cap, kPeriod));
    size_t first = 0, last = 0, marked = 0;
    for (size_t i = 0; i < cap.Frames(); ++i)
        if (cap.Sample(1, i) > 0.125f) {
            first = marked++ ? first : i;
            last = i;
        }
    EXPECT_NEAR(static_cast<double>(marked), 22050 * 48000 / 44100, 16);
    EXPECT_EQ(last + 1 - first, marked) << "a gap in the converted stream";
    std::vector<double> rises; // rising zero crossings, interpolated
    for (size_t i = first + 64; i + 64 < last; ++i) {
        const double a = cap.Sample(0, i), b = cap.Sample(0, i + 1);
        if (a < 0 && b >= 0)
            rises.push_back(static_cast<double>(i) + a / (a - b));
    }
    ASSERT_GT(rises.size(), 400u);
    EXPECT_NEAR((rises.back() - rises.front()) / static_cast<double>(rises.size() - 1), 48.0, 0.01);
    ExpectNoUnderrun();
}

// A playlist with comments, blank and indented lines, CRLF and LF endings and
// a last line without one; a missing entry is skipped with its lines, and a
// file libsndfile cannot open is dropped and the next one played. The five
// files come out as one stream, with a roll-over message per change (names,
// entry numbers, lengths) and a final completion, after which nothing is
// staged. Set-ups that fail while it plays leave it playing; lists that give
// nothing to play are not kept open.
TEST_F(Playback, PlaylistsPlayGaplesslyAndAnswerEveryFailureWithItsLines)
{
    JackCapture& cap = Create(0, 2);
    const uint32_t lens[] = {7001, 50011, 6007, 9001, 5003};
    std::vector<std::string> f;
    uint32_t total = 0;
    for (int i = 0; i < 5; ++i) {
        f.push_back(Path("e" + std::to_string(i) + ".wav"));
        WriteRamp(f[i], 2, total, lens[i]);
        total += lens[i];
    }
    const std::string missing = Path("missing.wav"), text = Path("text.wav"), list = Path("list.txt");
    WriteText(text, "RIFF, but not really\n");
    WriteText(list, "# takes\r\n\r\n   " + f[0] + "\r\n" + f[1] + "\r\n   # " + f[2] + "\r\n" + missing + "\r\n" +
                        text + "\r\n" + f[2] + "\n\n" + f[3] + "\r\n" + f[4]);
    size_t mark = m_Server.OutputSize();
    ASSERT_EQ(Playlist(0, list), eResultSuccess);
    ExpectLines(mark, {"DoesFileExist: could not access() '" + missing + "': No such file or directory\r\n",
                       "File node couldn't be created - " + missing +
                           ": empty path, file nonexistent, file empty?\r\n"});
    ASSERT_EQ(Cmd(0, eCmdStart), eResultSuccess);

    const std::string sock = Path("sock"); // exists, but is no regular file
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, sock.c_str(), sizeof(addr.sun_path) - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    close(fd);
    struct Case { std::string path; bool playlist; int result; std::vector<std::string> lines; };
    const Case cases[] = {
        {f[0], false, eResultNotIdle, {"Using playlist - can't add manual files\r\n"}},
        {missing, true, eResultPathMissing,
         {"DoesFileExist: could not access() '" + missing + "': No such file or directory\r\n",
          "Playlist file " + missing + " doesn't exist\r\n"}},
        {sock, true, eResultPathMissing, {sock + " is a socket, not a regular file\r\n"}},
    };
    for (const Case& k : cases) {
        mark = m_Server.OutputSize();
        EXPECT_EQ(k.playlist ? Playlist(0, k.path) : Setup(0, k.path, 1), k.result) << k.path;
        ExpectLines(mark, k.lines);
    }

    ExpectCompletion(Completion(), f[0], 0, f[1], 1);
    ExpectCompletion(Completion(), f[1], 1, f[2], 4, 1);
    ExpectCompletion(Completion(), f[2], 4, f[3], 5);
    ExpectCompletion(Completion(), f[3], 5, f[4], 6);
    ExpectCompletion(Completion(), f[4], 6, "", 0);
    EXPECT_TRUE(SilentFor(cap, kPeriod));
    std::vector<Stretch> runs = ExpectRuns(cap, {{0, cap.Frames()}});
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0].len, total);
    EXPECT_EQ(runs[0].lastAt + 1 - runs[0].at, total) << "silence inside the stream";
    ExpectLines(0, {"Couldn't open file: " + text + ": "});
    ExpectNoUnderrun();
    EXPECT_EQ(Cmd(0, eCmdStart), eResultNoFile);
    EXPECT_EQ(Setup(0, f[0], 1), eResultNeedPrimary); // no playlist, nothing staged

    WriteText(Path("blank.txt"), "# nothing\n\n   # still nothing\r\n");
    WriteText(Path("bad.txt"), missing + "\n" + text + "\n");
    const Case empty[] = {{Path("blank.txt"), true, eResultEmptyFilenames, {}},
                          {Path("bad.txt"), true, eResultCantOpenFile, {"Couldn't open file: " + text + ": "}}};
    for (const Case& k : empty) {
        mark = m_Server.OutputSize();
        EXPECT_EQ(Playlist(0, k.path), k.result);
        ExpectLines(mark, k.lines);
        EXPECT_EQ(Cmd(0, eCmdStart), eResultNoFile);
        ASSERT_EQ(Setup(0, f[0]), eResultSuccess);
        if (&k == empty) {
            EXPECT_EQ(Cmd(0, eCmdStop), eResultSuccess);
            ExpectCompletion(Completion(), f[0], 0, "", 0);
        }
    }

    // A list set up while a file plays replaces it: silence until Start,
    // then the list's first entry from its start.
    ASSERT_EQ(Cmd(0, eCmdStart), eResultSuccess);
    WaitHeard(cap, 3000, cap.Frames());
    WriteText(Path("one.txt"), f[3] + "\n");
    ASSERT_EQ(Playlist(0, Path("one.txt")), eResultSuccess);
    const size_t replaced = cap.Frames();
    EXPECT_TRUE(SilentFor(cap, 4 * kPeriod)) << "a new list played before Start";
    ASSERT_EQ(Cmd(0, eCmdStart), eResultSuccess);
    ExpectCompletion(Completion(), f[3], 0, "", 0);
    EXPECT_TRUE(SilentFor(cap, kPeriod));
    runs = ExpectRuns(cap, {{0, cap.Frames()}, {0, replaced}, {lens[0] + lens[1] + lens[2], cap.Frames()}});
    ASSERT_EQ(runs.size(), 3u);
    EXPECT_EQ(runs[2].len, lens[3]);
}

// Seeks in File Ready, Running and Paused land on the second asked for; a
// pause is silence and play resumes at the frame where it stopped; after a
// seek or a stop (even with a wind right after it) nothing from before it
// reaches the ports.
TEST_F(Playback, PauseSeekAndStopKeepTheStreamExact)
{
    JackCapture& cap = Create(0, 2);
    const std::string f = Path("s.wav");
    WriteRamp(f, 2, 0, 153600); // 3.2 s
    ASSERT_EQ(Setup(0, f), eResultSuccess);
    EXPECT_EQ(Seek(0, 4), eResultSkipImpossible);
    EXPECT_EQ(Seek(0, -1), eResultSkipImpossible);
    ASSERT_EQ(Seek(0, 1), eResultSuccess);
    ASSERT_EQ(Cmd(0, eCmdStart), eResultSuccess);
    WaitHeard(cap, 8000, 0);
    ASSERT_EQ(Cmd(0, eCmdPause), eResultSuccess);
    EXPECT_TRUE(SilentFor(cap, 4 * kPeriod)) << "audio while paused";
    ASSERT_EQ(Cmd(0, eCmdPause), eResultSuccess); // a second pause resumes
    WaitHeard(cap, 8000, cap.Frames());
    ASSERT_EQ(Seek(0, 0), eResultSuccess);
    const size_t seek0 = cap.Frames();
    WaitHeard(cap, 8000, seek0 + kPeriod);
    ASSERT_EQ(Cmd(0, eCmdPause), eResultSuccess);
    ASSERT_EQ(Seek(0, 2), eResultSuccess);
    const size_t seek2 = cap.Frames();
    EXPECT_TRUE(SilentFor(cap, 4 * kPeriod)) << "a seek while paused played";
    ASSERT_EQ(Cmd(0, eCmdStart), eResultSuccess);
    WaitHeard(cap, 8000, cap.Frames());
    ASSERT_EQ(Cmd(0, eCmdStop), eResultSuccess);
    const size_t stop = cap.Frames();
    const int wind = Cmd(0, eCmdRewind); // no wind brings a stopped file back
    EXPECT_TRUE(wind == eResultSuccess || wind == eResultNotRunning) << wind;
    ExpectCompletion(Completion(), f, 0, "", 0, 3);
    EXPECT_TRUE(SilentFor(cap, kPeriod));

    const std::vector<Stretch> runs = ExpectRuns(cap, {{48000, seek0}, {0, seek2}, {96000, stop}});
    ASSERT_EQ(runs.size(), 3u);
    EXPECT_GE(runs[0].lastAt + 1 - runs[0].at - runs[0].len, 4 * kPeriod) << "the pause left no silence";
    ExpectNoUnderrun();
}

// Audible fast forward plays one period in two, audible rewind plays a period
// and steps back two (speed 1 for the first seconds); silent winds play
// nothing and move the file by whole periods, two a period at most. Start or
// Pause ends a wind, and play goes on where the ports were. Fast forward into
// the end of the file ends play with the final completion.
TEST_F(Playback, FastForwardAndRewindAudiblyAndSilently)
{
    JackCapture& cap = Create(0, 2);
    const std::string f = Path("w.wav");
    const long len = 192000;
    WriteRamp(f, 2, 0, len);
    ASSERT_EQ(Setup(0, f), eResultSuccess);
    EXPECT_EQ(Cmd(0, eCmdRewind), eResultNotRunning);
    ASSERT_EQ(Cmd(0, eCmdFastForward), eResultSuccess); // audible, from File Ready
    WaitHeard(cap, 8 * kPeriod, 0);
    ASSERT_EQ(Cmd(0, eCmdStart), eResultSuccess);
    WaitHeard(cap, 24000, cap.Frames());
    ASSERT_EQ(Cmd(0, eCmdRewind), eResultSuccess); // audible, from Running
    WaitHeard(cap, 6 * kPeriod, cap.Frames() + kPeriod);
    ASSERT_EQ(Cmd(0, eCmdPause), eResultSuccess);
    ASSERT_EQ(Cmd(0, eCmdFastForward), eResultSuccess); // silent, from Paused
    const size_t silentFrom = cap.Frames();
    EXPECT_TRUE(SilentFor(cap, 20 * kPeriod)) << "a silent wind was heard";
    ASSERT_EQ(Cmd(0, eCmdStart), eResultSuccess);
    const size_t silentTo = cap.Frames();
    WaitHeard(cap, 8000, cap.Frames());
    ASSERT_EQ(Cmd(0, eCmdPause), eResultSuccess);
    ASSERT_EQ(Cmd(0, eCmdRewind), eResultSuccess); // silent, from Paused
    EXPECT_TRUE(SilentFor(cap, 4 * kPeriod)) << "a silent wind was heard";
    ASSERT_EQ(Cmd(0, eCmdPause), eResultSuccess); // ends it, still paused
    EXPECT_TRUE(SilentFor(cap, 2 * kPeriod));
    ASSERT_EQ(Cmd(0, eCmdStart), eResultSuccess);
    WaitHeard(cap, 4000, cap.Frames());
    ASSERT_EQ(Cmd(0, eCmdFastForward), eResultSuccess); // audible, into the end
    ExpectCompletion(Completion(), f, 0, "", 0, 4);
    EXPECT_TRUE(SilentFor(cap, kPeriod));

    const std::vector<Stretch> runs = Runs(cap);
    SCOPED_TRACE(Describe(runs));
    size_t r = 0;
    // Forward: [1024, 2048), [3072, 4096), ...; the last runs on after Start.
    long expect = kPeriod;
    for (; r < runs.size() && runs[r].len == kPeriod; ++r, expect += 2 * kPeriod)
        ASSERT_EQ(runs[r].first, expect);
    ASSERT_GE(r, 7u);
    ASSERT_LT(r + 3, runs.size());
    EXPECT_EQ(runs[r].first, expect);
    EXPECT_GT(runs[r].len, 24000u);
    // Rewind: each period heard starts two before the one before it.
    expect = runs[r++].End() - 3 * kPeriod;
    size_t back = 0;
    for (; r < runs.size() && runs[r].first == expect && runs[r].len == kPeriod; ++r, ++back)
        expect -= 2 * kPeriod;
    EXPECT_GE(back, 6u);
    // The silent forward wind moved on by whole periods, at most two a period.
    ASSERT_LT(r + 2, runs.size());
    const long paused = expect + 3 * kPeriod, moved = runs[r].first - paused;
    EXPECT_EQ(moved % kPeriod, 0);
    EXPECT_GE(moved, static_cast<long>(20 * kPeriod)) << "slower than two periods a period";
    EXPECT_LE(moved, static_cast<long>(2 * (silentTo - silentFrom) + 4 * kPeriod));
    // The silent rewind moved back by whole periods.
    const long before = runs[r++].End(), rewound = before - runs[r].first;
    EXPECT_TRUE(rewound > 0 && (rewound % kPeriod == 0 || runs[r].first == 0)) << rewound;
    // Forward into the end, from the end of the last run.
    expect = runs[r++].End() + kPeriod;
    for (; r < runs.size(); ++r, expect += 2 * kPeriod) {
        EXPECT_EQ(runs[r].first, expect);
        EXPECT_TRUE(runs[r].len == kPeriod || r + 1 == runs.size());
    }
    EXPECT_GT(runs.back().End(), len - 3 * static_cast<long>(kPeriod));
}

// Skips relative to the entry playing and to the list's start, valid and
// not, in File Ready, Running and Paused. Each valid skip is reported as a
// roll-over from the entry skipped; from its answer on nothing of that entry
// reaches the ports, and the new entry plays from its start.
TEST_F(Playback, PlaylistSkipsInFileReadyRunningAndPaused)
{
    JackCapture& cap = Create(0, 2);
    const uint32_t len = 24001;
    std::vector<std::string> f;
    std::string text;
    for (uint32_t i = 0; i < 6; ++i) {
        f.push_back(Path("k" + std::to_string(i) + ".wav"));
        WriteRamp(f[i], 2, i * len, len);
        text += f[i] + "\n";
    }
    WriteText(Path("list.txt"), text);
    ASSERT_EQ(Playlist(0, Path("list.txt")), eResultSuccess);
    EXPECT_EQ(Skip(0, 0, 6), eResultSkipImpossible);
    EXPECT_EQ(Skip(0, 1, -1), eResultSkipImpossible);
    ASSERT_EQ(Skip(0, 1, 2), eResultSuccess); // File Ready: reported at once
    ExpectCompletion(Completion(), f[0], 0, f[2], 2);
    ASSERT_EQ(Cmd(0, eCmdStart), eResultSuccess);
    WaitHeard(cap, 5000, 0);
    ASSERT_EQ(Skip(0, 0, 0), eResultSuccess); // Running: back to the first entry
    const size_t skip1 = cap.Frames();
    ExpectCompletion(Completion(), f[2], 2, f[0], 0);
    WaitHeard(cap, 5000, skip1 + kPeriod);
    ASSERT_EQ(Skip(0, 1, 0), eResultSuccess); // restarts the entry playing
    const size_t skip2 = cap.Frames();
    ExpectCompletion(Completion(), f[0], 0, f[0], 0);
    WaitHeard(cap, 5000, skip2 + kPeriod);
    ASSERT_EQ(Cmd(0, eCmdPause), eResultSuccess);
    const size_t pause = cap.Frames();
    EXPECT_EQ(Skip(0, 0, 6), eResultSkipImpossible);
    EXPECT_EQ(Skip(0, 1, -1), eResultSkipImpossible);
    ASSERT_EQ(Skip(0, 1, 3), eResultSuccess); // Paused: reported at once, still silent
    ExpectCompletion(Completion(), f[0], 0, f[3], 3);
    EXPECT_TRUE(SilentFor(cap, 4 * kPeriod));
    ASSERT_EQ(Cmd(0, eCmdStart), eResultSuccess);
    EXPECT_EQ(Skip(0, 0, -1), eResultSkipImpossible);
    EXPECT_EQ(Skip(0, 1, 3), eResultSkipImpossible); // past the last entry
    ExpectCompletion(Completion(), f[3], 3, f[4], 4);
    ExpectCompletion(Completion(), f[4], 4, f[5], 5);
    ExpectCompletion(Completion(), f[5], 5, "", 0);
    EXPECT_TRUE(SilentFor(cap, kPeriod));

    const std::vector<Stretch> runs = ExpectRuns(cap, {{2 * len, skip1}, {0, skip2}, {0, pause}, {3 * len, cap.Frames()}});
    ASSERT_EQ(runs.size(), 4u);
    EXPECT_EQ(runs[3].len, 3u * len);
    ExpectNoUnderrun();

    // A skip to an entry from which on nothing opens ends play at once.
    WriteText(Path("text.wav"), "not a sound file\n");
    WriteText(Path("tail.txt"), f[0] + "\n" + Path("text.wav") + "\n");
    ASSERT_EQ(Playlist(0, Path("tail.txt")), eResultSuccess);
    ASSERT_EQ(Skip(0, 0, 1), eResultSuccess);
    ExpectCompletion(Completion(), f[0], 0, "", 0);
    EXPECT_EQ(Cmd(0, eCmdStart), eResultNoFile);
}
