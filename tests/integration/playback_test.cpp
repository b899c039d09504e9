// Playback through the real server: players feed capturing JACK clients in the test. Ramp files make a captured
// stream decode into runs of consecutive frames: a gap, a repeat or a stray frame shows as a run of its own.
#include <cmath>
#include <map>

#include "harness/server_fixture.h"

namespace {

constexpr uint32_t kPeriod = 1024;
constexpr enumZorPlayType kPlay = eZorPlayPlayer;

// The 16-bit ramp as libsndfile reads it back: codes 1 .. 32767 over 32768.
float Ramp16(uint32_t n, unsigned c) { return static_cast<float>((8 * n + c) % 32767 + 1) / 32768.0f; }

// Consecutive ramp frames: the first, the count, and the capture indices of the first and last (silence inside allowed).
struct Stretch {
    long first;
    size_t len, at, lastAt;
    long End() const { return first + static_cast<long>(len); }
};

std::string Describe(const std::vector<Stretch>& runs)
{
    std::string s;
    for (const Stretch& r : runs)
        s += "[" + std::to_string(r.first) + " +" + std::to_string(r.len) + " @" + std::to_string(r.at) + "] ";
    return s;
}

::testing::AssertionResult Is(const structFileCompletion& done, const std::string& name, unsigned index,
                              const std::string& next = "", unsigned nextIndex = 0, unsigned seconds = 0)
{
    if (name == done.szFilename && index == done.nIndex && done.bRolled == !next.empty() &&
        next == done.szNewFilename && nextIndex == done.nNewIndex && seconds == done.nLength && done.nXRuns == 0)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "completion of " << done.szFilename << " [" << done.nIndex << "] rolled " << done.bRolled
                                         << " to " << done.szNewFilename << " [" << done.nNewIndex << "], " << done.nLength << " s";
}

class Playback : public ServerTest {
protected:
    // Runtime tracing on: every underrun the player counts prints a line.
    std::vector<std::string> ServerArgs() override { return {"-nc", "-s", "-lr"}; }
    void TearDown() override
    {
        ServerTest::TearDown();
        EXPECT_TRUE(m_bWinding || m_Server.Output().find("Actual underrun") == std::string::npos) << "an underrun";
    }
    // A player and a client capturing its ports (20 s of room).
    TestJackClient& Create(int slot, unsigned channels)
    {
        EXPECT_EQ(ServerTest::Create(kPlay, slot, static_cast<int>(channels), 0), eResultSuccess);
        auto& cap = m_Captures[slot] = std::make_unique<TestJackClient>();
        EXPECT_TRUE(cap->Open(JackName(), "zp_capture" + std::to_string(slot), channels, 20 * 48000));
        EXPECT_TRUE(cap->ConnectFrom("Player00" + std::to_string(slot) + ":output"));
        return *cap;
    }
    int Cmd(enumZorPlayCmd cmd) { return ServerTest::Cmd(kPlay, cmd, 0); }
    int Skip(int relative, int n) { return ServerTest::Cmd(kPlay, eCmdSkipInPlaylist, 0, structSkipInPlaylist{relative, n}); }
    int Seek(int seconds) { return ServerTest::Cmd(kPlay, eCmdSeek, 0, structSeekOperation{0, seconds}); }
    ::testing::AssertionResult Done(const std::string& name, unsigned index, const std::string& next = "",
                                    unsigned nextIndex = 0, unsigned seconds = 0)
    {
        return Is(Completion(kPlay, 0), name, index, next, nextIndex, seconds);
    }
    // A command to player 0 answered want; then heard frames reach its ports from the period after the answer on, or
    // silent frames pass in silence. Returns the capture length at the answer.
    size_t Step(int answer, size_t heard = 0, size_t silent = 0, int want = eResultSuccess)
    {
        const TestJackClient& cap = *m_Captures.at(0);
        const size_t at = cap.Frames();
        size_t from = at + kPeriod, got = 0;
        EXPECT_EQ(answer, want);
        const auto heardAll = [&] {
            for (const size_t end = cap.Frames(); from < end; ++from)
                got += !cap.IsSilent(from);
            return got >= heard;
        };
        EXPECT_TRUE(WaitUntil(heardAll, 20000)) << got << " of " << heard << " frames heard";
        EXPECT_TRUE(silent == 0 || SilentFor(silent)) << "heard after a command that leaves the ports silent";
        return at;
    }
    // Waits for frames more frames on player 0's ports; true when all were silent (the first period may carry old audio).
    bool SilentFor(size_t frames)
    {
        const TestJackClient& cap = *m_Captures.at(0);
        const size_t from = cap.Frames() + kPeriod;
        EXPECT_TRUE(WaitUntil([&] { return cap.Frames() >= from + frames; }, 20000));
        for (size_t i = from; i < from + frames; ++i)
            if (!cap.IsSilent(i))
                return false;
        return true;
    }
    std::vector<Stretch> Runs()
    {
        const TestJackClient& cap = *m_Captures.at(0);
        std::vector<Stretch> runs;
        for (size_t i = 0; i < cap.Frames(); ++i) {
            if (cap.IsSilent(i))
                continue;
            const long n = RampFrame(cap.Sample(0, i));
            for (unsigned c = 0; c < cap.Channels(); ++c)
                if (n < 0 || cap.Sample(c, i) != Ramp(static_cast<uint32_t>(n), c)) {
                    ADD_FAILURE() << "captured frame " << i << " is no ramp frame: " << cap.Sample(c, i);
                    return runs;
                }
            if (!runs.empty() && runs.back().End() == n)
                ++runs.back().len, runs.back().lastAt = i;
            else
                runs.push_back({n, 1, i, i});
        }
        return runs;
    }
    // Player 0's capture decodes into exactly these runs: the ramp frame each starts at, the capture length when the
    // command that cut it returned (the period under way then may still carry it), and its length unless 0.
    struct Cut { long first; size_t cut, len = 0; };
    std::vector<Stretch> ExpectRuns(const std::vector<Cut>& want)
    {
        const std::vector<Stretch> runs = Runs();
        EXPECT_EQ(runs.size(), want.size()) << Describe(runs);
        for (size_t i = 0; i < want.size() && i < runs.size(); ++i)
            EXPECT_TRUE(runs[i].first == want[i].first && runs[i].lastAt < want[i].cut + kPeriod &&
                        (want[i].len == 0 || runs[i].len == want[i].len))
                << "run " << i << " starts elsewhere, runs past its cut or has another length: " << Describe(runs);
        return runs;
    }

    std::map<int, std::unique_ptr<TestJackClient>> m_Captures;
    bool m_bWinding = false; // a wind outruns the reading on purpose
};

} // namespace

// A float file and a 16-bit file after it on six players at once, of 1, 2 and 8 channels and of port counts other
// than the files' (mono on 4 goes to all, 3 on 2 loses the third, 2 on 4 leaves two silent): both files back to back,
// bit for bit, a roll-over message between them and a completion after.
TEST_F(Playback, FilesPlayBitExactGaplessAndMappedOntoThePorts)
{
    struct Mapping { unsigned file, ports; };
    const Mapping maps[] = {{1, 1}, {2, 2}, {8, 8}, {1, 4}, {3, 2}, {2, 4}};
    const uint32_t lenFloat = 14411, len16 = 13007, len = lenFloat + len16;
    auto name = [&](char kind, int slot) { return Path(kind + std::to_string(slot) + ".wav"); };
    for (int slot = 0; slot < 6; ++slot) {
        Create(slot, maps[slot].ports);
        ASSERT_TRUE(WriteSound(name('f', slot), maps[slot].file, 48000, SF_FORMAT_FLOAT, lenFloat, Ramp));
        ASSERT_TRUE(WriteSound(name('p', slot), maps[slot].file, 48000, SF_FORMAT_PCM_16, len16, Ramp16));
        ASSERT_EQ(SetupPlay(slot, name('f', slot)) + SetupPlay(slot, name('p', slot), 1), eResultSuccess);
        ASSERT_EQ(ServerTest::Cmd(kPlay, eCmdStart, slot), eResultSuccess);
    }
    std::map<int, std::vector<structFileCompletion>> got;
    for (int i = 0; i < 12; ++i) {
        const structZorPlayMsg m = Next(eCmdFileCompletion);
        got[m.nIndex].push_back(m.payload.fileCompletion);
    }
    for (int slot = 0; slot < 6; ++slot) {
        const Mapping k = maps[slot];
        const TestJackClient& cap = *m_Captures[slot];
        SCOPED_TRACE(std::to_string(k.file) + " channels on " + std::to_string(k.ports));
        ASSERT_EQ(got[slot].size(), 2u);
        EXPECT_TRUE(Is(got[slot][0], name('f', slot), 0, name('p', slot), 0));
        EXPECT_TRUE(Is(got[slot][1], name('p', slot), 0));
        // The streams from the first frame heard on, then silence.
        size_t start = 0;
        const auto playedOut = [&] {
            while (start < cap.Frames() && cap.IsSilent(start))
                ++start;
            return start < cap.Frames() && cap.Frames() >= start + len + 4 * kPeriod;
        };
        ASSERT_TRUE(WaitUntil(playedOut, 20000));
        for (uint32_t n = 0; n < cap.Frames() - start; ++n)
            for (unsigned c = 0; c < k.ports; ++c) {
                const unsigned from = k.file == 1 ? 0 : c; // mono goes to every port
                const float want = from >= k.file || n >= len ? 0.0f : n < lenFloat ? Ramp(n, from) : Ramp16(n - lenFloat, from);
                ASSERT_EQ(cap.Sample(c, start + n), want) << "channel " << c << " frame " << n;
            }
    }
}

// A 44100 Hz file is converted: its length comes out in 48000 Hz frames with no gap (channel 1 marks it), and a 1 kHz
// tone (channel 0) keeps its pitch.
TEST_F(Playback, A44100HzFileIsConvertedToTheServerRate)
{
    TestJackClient& cap = Create(0, 2);
    const std::string f = Path("t.wav");
    ASSERT_TRUE(WriteSound(f, 2, 44100, SF_FORMAT_FLOAT, 22050, [](uint32_t n, unsigned c) {
        return c == 0 ? 0.5f * static_cast<float>(std::sin(2 * M_PI * 1000.0 * n / 44100.0)) : 0.25f;
    }));
    ASSERT_EQ(SetupPlay(0, f), eResultSuccess);
    ASSERT_EQ(Cmd(eCmdStart), eResultSuccess);
    EXPECT_TRUE(Done(f, 0));
    EXPECT_TRUE(SilentFor(kPeriod));
    size_t first = 0, last = 0, marked = 0;
    for (size_t i = 0, frames = cap.Frames(); i < frames; ++i)
        if (cap.Sample(1, i) > 0.125f)
            first = marked++ ? first : i, last = i;
    std::vector<double> rises; // rising zero crossings, interpolated, past the converter's start
    for (size_t i = first + 64; i + 64 < last; ++i) {
        const double a = cap.Sample(0, i), b = cap.Sample(0, i + 1);
        if (a < 0 && b >= 0)
            rises.push_back(static_cast<double>(i) + a / (a - b));
    }
    EXPECT_NEAR(static_cast<double>(marked), 22050 * 48000 / 44100, 16);
    EXPECT_EQ(last + 1 - first, marked) << "a gap in the converted stream";
    ASSERT_GT(rises.size(), 400u);
    EXPECT_NEAR((rises.back() - rises.front()) / static_cast<double>(rises.size() - 1), 48.0, 0.01);
}

// A playlist with comments, blank and indented lines, CRLF and LF endings, no last newline, a missing entry and an
// unreadable file plays its five files as one stream, a roll-over message per change; set-ups failing meanwhile leave
// it playing; empty lists are not kept; a list set up during play replaces it.
TEST_F(Playback, PlaylistsPlayGaplesslySkipAndAnswerEveryFailureWithItsLines)
{
    TestJackClient& cap = Create(0, 2);
    const uint32_t lens[] = {7001, 50011, 6007, 9001, 5003};
    std::vector<std::string> f;
    for (uint32_t i = 0, total = 0; i < 5; total += lens[i++]) {
        f.push_back(Path("e" + std::to_string(i) + ".wav"));
        ASSERT_TRUE(WriteRamp(f[i], 2, total, lens[i]));
    }
    const std::string missing = Path("missing.wav"), text = Path("text.wav");
    WriteFile(text, "RIFF, but not really\n");
    WriteFile(Path("list.txt"), "# takes\r\n\r\n   " + f[0] + "\r\n" + f[1] + "\r\n   # " + f[2] + "\r\n" + missing +
                                    "\r\n" + text + "\r\n" + f[2] + "\n\n" + f[3] + "\r\n" + f[4]);
    WriteFile(Path("blank.txt"), "# nothing\n\n   # still nothing\r\n");
    WriteFile(Path("bad.txt"), missing + "\n" + text + "\n");
    WriteFile(Path("huge.txt"), "");
    ASSERT_EQ(truncate(Path("huge.txt").c_str(), 65535LL * 1026 + 1), 0) << "more than a list can hold";
    const std::string noFile = "DoesFileExist: could not access() '" + missing + "': No such file or directory\r\n";
    // A set-up of a primary ('p') or secondary ('s') file or of a list ('l') answers result, printing lines.
    auto setup = [&](char kind, const std::string& path, int result, const std::vector<std::string>& lines = {}) {
        const size_t mark = m_Server.OutputSize();
        EXPECT_EQ(kind == 'l' ? SetupPlaylist(0, path) : SetupPlay(0, path, kind == 's'), result) << path;
        EXPECT_TRUE(Printed(mark, lines));
    };
    setup('l', Path("list.txt"), eResultSuccess,
          {noFile, "File node couldn't be created - " + missing + ": empty path, file nonexistent, file empty?\r\n"});
    ASSERT_EQ(Cmd(eCmdStart), eResultSuccess);
    setup('s', f[0], eResultNotIdle, {"Using playlist - can't add manual files\r\n"});
    setup('l', missing, eResultPathMissing, {noFile, "Playlist file " + missing + " doesn't exist\r\n"});
    setup('l', Path("huge.txt"), eResultPathMissing, {"Playlist file " + Path("huge.txt") + " is 67238911 bytes long"});
    EXPECT_TRUE(Prints([&] { return Cmd(eCmdQueryStatus); }, eResultSuccess, "Mode: Playlist \r\n"));
    EXPECT_TRUE(Printed(0, {"\tPlaylist Info\r\n", "\t\tChans: 2, rate: 48000, len(frames): 7001\r\n"}));
    const unsigned entry[] = {0, 1, 4, 5, 6}; // f[i]'s index in the list
    for (size_t i = 0; i < 5; ++i) // the second file lasts a second
        EXPECT_TRUE(Done(f[i], entry[i], i < 4 ? f[i + 1] : "", i < 4 ? entry[i + 1] : 0, i == 1));
    EXPECT_TRUE(SilentFor(kPeriod));
    const size_t played = cap.Frames();
    EXPECT_TRUE(Printed(0, {"Couldn't open file: " + text + ": "}));
    EXPECT_EQ(Cmd(eCmdStart), eResultNoFile);
    setup('s', f[0], eResultNeedPrimary, {"Need primary files before secondary\r\n"}); // no list kept
    setup('l', Path("blank.txt"), eResultEmptyFilenames);
    setup('l', Path("bad.txt"), eResultCantOpenFile);
    EXPECT_EQ(Cmd(eCmdStart), eResultNoFile);
    // Manual set-ups refused leave the player idle; a fourth secondary is refused; a stop in File Ready reports the primary.
    setup('p', missing, eResultPathMissing, {noFile, "Primary Stage of " + missing + " failed\r\n"});
    setup('p', text, eResultCantOpenFile, {"Couldn't open file: " + text + ": "});
    EXPECT_EQ(Cmd(eCmdStart), eResultNoFile);
    setup('p', f[0], eResultSuccess);
    setup('p', f[0], eResultNotIdle);
    for (int i = 0; i < 3; ++i)
        setup('s', f[1], eResultSuccess);
    setup('s', f[1], eResultPathMissing, {"Secondary Stage of " + f[1] + " failed\r\n"});
    EXPECT_EQ(Cmd(eCmdStop), eResultSuccess);
    EXPECT_TRUE(Done(f[0], 0));
    EXPECT_EQ(Cmd(eCmdStart), eResultNoFile);

    ASSERT_EQ(SetupPlay(0, f[0]), eResultSuccess);
    Step(Cmd(eCmdStart), 3000);
    WriteFile(Path("one.txt"), f[3] + "\n");
    const size_t replaced = Step(SetupPlaylist(0, Path("one.txt")), 0, 4 * kPeriod); // silent until Start
    Step(Cmd(eCmdStart));
    EXPECT_TRUE(Done(f[3], 0));
    EXPECT_TRUE(SilentFor(kPeriod));
    const size_t replayed = cap.Frames();

    // Skips relative to the entry playing and to the list's start, in File Ready, Running and Paused, report a roll-over
    // from the entry skipped; from the answer on nothing of it is heard, and the new entry plays from its start.
    const uint32_t len = 24001;
    f.clear();
    std::string list;
    for (uint32_t i = 0; i < 6; ++i) {
        f.push_back(Path("k" + std::to_string(i) + ".wav"));
        ASSERT_TRUE(WriteRamp(f[i], 2, i * len, len));
        list += f[i] + "\n";
    }
    WriteFile(Path("skips.txt"), list);
    ASSERT_EQ(SetupPlaylist(0, Path("skips.txt")), eResultSuccess);
    Step(Skip(1, 2)); // File Ready: reported at once
    EXPECT_TRUE(Done(f[0], 0, f[2], 2));
    Step(Cmd(eCmdStart), 5000);
    const size_t skip1 = Step(Skip(0, 0), 5000); // Running: back to the first entry
    EXPECT_TRUE(Done(f[2], 2, f[0], 0));
    const size_t skip2 = Step(Skip(1, 0), 5000); // restarts the entry playing
    EXPECT_TRUE(Done(f[0], 0, f[0], 0));
    const size_t pause = Step(Cmd(eCmdPause));
    Step(Skip(1, 3), 0, 4 * kPeriod); // Paused: reported at once, still silent
    EXPECT_TRUE(Done(f[0], 0, f[3], 3));
    Step(Cmd(eCmdStart));
    EXPECT_EQ(Skip(0, -1) + Skip(1, 3), 2 * eResultSkipImpossible); // before the first, past the last
    for (unsigned i = 3; i < 6; ++i)
        EXPECT_TRUE(Done(f[i], i, i < 5 ? f[i + 1] : "", i < 5 ? i + 1 : 0));
    EXPECT_TRUE(SilentFor(kPeriod));
    const size_t end = cap.Frames();
    const std::vector<Stretch> runs = ExpectRuns({{0, played, 7001 + 50011 + 6007 + 9001 + 5003}, {0, replaced},
                                                  {static_cast<long>(lens[0] + lens[1] + lens[2]), replayed, lens[3]}, {2 * len, skip1},
                                                  {0, skip2}, {0, pause}, {3 * len, end, 3u * len}});
    EXPECT_TRUE(!runs.empty() && runs[0].len == runs[0].lastAt + 1 - runs[0].at) << "silence inside the playlist";

    // A skip to where nothing opens any more ends play at once.
    WriteFile(Path("tail.txt"), f[0] + "\n" + text + "\n");
    ASSERT_EQ(SetupPlaylist(0, Path("tail.txt")), eResultSuccess);
    ASSERT_EQ(Skip(0, 1), eResultSuccess);
    EXPECT_TRUE(Done(f[0], 0));
    EXPECT_EQ(Cmd(eCmdStart), eResultNoFile);
}

// Seeks in File Ready, Running and Paused land on the second asked for; play resumes where a pause stopped it; after
// a seek or a stop (even with a wind right after it) nothing from before reaches the ports.
TEST_F(Playback, PauseSeekAndStopKeepTheStreamExact)
{
    Create(0, 2);
    const std::string f = Path("s.wav");
    ASSERT_TRUE(WriteRamp(f, 2, 0, 153600)); // 3.2 s
    ASSERT_EQ(SetupPlay(0, f), eResultSuccess);
    EXPECT_EQ(Seek(4) + Seek(-1), 2 * eResultSkipImpossible);
    Step(Seek(1));
    Step(Cmd(eCmdStart), 8000);
    Step(Cmd(eCmdPause), 0, 4 * kPeriod);
    Step(Cmd(eCmdPause), 8000); // a second pause resumes
    const size_t seek0 = Step(Seek(0), 8000);
    Step(Cmd(eCmdPause));
    const size_t seek2 = Step(Seek(2), 0, 4 * kPeriod); // paused, so still silent
    Step(Cmd(eCmdStart), 8000);
    const size_t stop = Step(Cmd(eCmdStop));
    const int wind = Cmd(eCmdRewind); // no wind brings a stopped file back
    EXPECT_TRUE(wind == eResultSuccess || wind == eResultNotRunning) << wind;
    EXPECT_TRUE(Done(f, 0, "", 0, 3));
    EXPECT_TRUE(SilentFor(kPeriod));
    const std::vector<Stretch> runs = ExpectRuns({{48000, seek0}, {0, seek2}, {96000, stop}});
    EXPECT_TRUE(!runs.empty() && runs[0].lastAt + 1 - runs[0].at - runs[0].len >= 4 * kPeriod) << "the pause left no silence";
}

// Audible fast forward plays one period in two, audible rewind a period and steps back two; a silent wind moves by
// whole periods, two a period at most. Start or Pause ends a wind; fast forward into the end completes the file.
TEST_F(Playback, FastForwardAndRewindAudiblyAndSilently)
{
    m_bWinding = true;
    Create(0, 2);
    const std::string f = Path("w.wav");
    const long len = 192000;
    ASSERT_TRUE(WriteRamp(f, 2, 0, len));
    ASSERT_EQ(SetupPlay(0, f), eResultSuccess);
    Step(Cmd(eCmdRewind), 0, 0, eResultNotRunning);
    Step(Cmd(eCmdFastForward), 8 * kPeriod); // audible, from File Ready
    Step(Cmd(eCmdStart), 24000);
    Step(Cmd(eCmdRewind), 6 * kPeriod); // audible, from Running
    Step(Cmd(eCmdPause));
    const size_t silentFrom = Step(Cmd(eCmdFastForward), 0, 20 * kPeriod); // silent, from Paused
    const size_t silentTo = Step(Cmd(eCmdStart), 8000);
    Step(Cmd(eCmdPause));
    Step(Cmd(eCmdRewind), 0, 4 * kPeriod); // silent, from Paused
    Step(Cmd(eCmdPause), 0, 2 * kPeriod);  // ends it, still paused
    Step(Cmd(eCmdStart), 4000);
    Step(Cmd(eCmdFastForward)); // audible, into the end
    EXPECT_TRUE(Done(f, 0, "", 0, 4));
    EXPECT_TRUE(SilentFor(kPeriod));

    const std::vector<Stretch> runs = Runs();
    SCOPED_TRACE(Describe(runs));
    size_t r = 0;
    // Forward: [1024, 2048), [3072, 4096), ...; the last runs on after Start.
    long expect = kPeriod;
    for (; r < runs.size() && runs[r].len == kPeriod; ++r, expect += 2 * kPeriod)
        ASSERT_EQ(runs[r].first, expect);
    ASSERT_TRUE(r >= 7 && r + 3 < runs.size());
    EXPECT_TRUE(runs[r].first == expect && runs[r].len > 24000u);
    // Rewind: each period heard starts two before the one before it.
    expect = runs[r++].End() - 3 * kPeriod;
    const size_t rewindFrom = r;
    for (; r < runs.size() && runs[r].first == expect && runs[r].len == kPeriod; ++r)
        expect -= 2 * kPeriod;
    EXPECT_GE(r - rewindFrom, 6u);
    // The silent forward wind moved on by whole periods, at most two a period.
    ASSERT_LT(r + 2, runs.size());
    const long moved = runs[r].first - (expect + 3 * kPeriod);
    EXPECT_TRUE(moved % kPeriod == 0 && moved >= static_cast<long>(20 * kPeriod) &&
                moved <= static_cast<long>(2 * (silentTo - silentFrom) + 4 * kPeriod)) << moved;
    // The silent rewind moved back by whole periods.
    const long rewound = runs[r].End() - runs[r + 1].first;
    EXPECT_TRUE(rewound > 0 && (rewound % kPeriod == 0 || runs[r + 1].first == 0)) << rewound;
    // Forward into the end, from the end of the last run.
    for (r += 2, expect = runs[r - 1].End() + kPeriod; r < runs.size(); ++r, expect += 2 * kPeriod)
        EXPECT_TRUE(runs[r].first == expect && (runs[r].len == kPeriod || r + 1 == runs.size()));
    EXPECT_GT(runs.back().End(), len - 3 * static_cast<long>(kPeriod));
}
