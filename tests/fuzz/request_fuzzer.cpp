// Sequence fuzzer: seeded random request sequences, built from extremes, sent to the real server over the real
// socket. Every request must get exactly one well-formed answer and the server must live through every sequence and
// stop cleanly (a sanitizer build fails on any report). ZP_FUZZ_SECONDS sets how long the random run lasts (30 s
// unless set), ZP_FUZZ_SEED its seed.
#include <climits>
#include <cstring>
#include <map>
#include <random>
#include <sstream>
#include <sys/stat.h>

#include "harness/server_fixture.h"

namespace {

constexpr enumZorPlayType R = eZorPlayRecorder, P = eZorPlayPlayer;
constexpr int kSleep = -1; // a pause of v[0] ms, letting audio run between requests

// One request. v by command: Create {channels, offset}; SetupFile {secondary, seconds, format, rate, word, roll};
// SetupPlayFile {secondary}; Skip {relative, skip}; Seek {seconds}. Names are keys of the file pool. mangle: 1 bad
// version, 2 bad length, 3 not a request, 4 a 100-byte and 5 a 4000-byte datagram.
struct Step { int type, cmd, index, mangle; std::vector<int64_t> v; std::vector<std::string> names; };
using Sequence = std::vector<Step>;

// Sequences that once crashed or hung the server, minimised.
const Sequence kRegressions[] = {
    // A secondary record set-up after a failed primary one was taken, and Start recorded without a buffer.
    {{R, eCmdCreate, 3, 0, {2, 0}, {}}, {R, eCmdSetupFile, 3, 0, {0}, {"nodir"}},
     {R, eCmdSetupFile, 3, 0, {1}, {"rec"}}, {R, eCmdStart, 3, 0, {}, {}}, {R, kSleep, 0, 0, {300}, {}}},
    // A playlist naming /dev/zero was read for ever; a FIFO blocked its set-up until someone wrote to it.
    {{P, eCmdCreate, 0, 0, {2, 0}, {}}, {P, eCmdSetupPlaylist, 0, 0, {}, {"zero"}},
     {P, eCmdSetupPlayFile, 0, 0, {0}, {"fifo"}}},
};

std::string Show(const Sequence& seq)
{
    std::ostringstream out;
    for (const Step& s : seq) {
        out << "{" << s.type << ", " << s.cmd << ", " << s.index << ", " << s.mangle << ", {";
        for (int64_t x : s.v)
            out << x << ", ";
        out << "}, {";
        for (const std::string& n : s.names)
            out << '"' << n << "\", ";
        out << "}}, ";
    }
    return out.str();
}

class Fuzz : public ServerTest {
protected:
    void SetUp() override
    {
        ServerTest::SetUp();
        const std::string d = m_Dir + "/";
        m_Pool = {{"wav", d + "a.wav"}, {"wav44", d + "b.wav"}, {"1hz", d + "slow.wav"}, {"fast", d + "fast.wav"},
                  {"text", d + "t.txt"}, {"fifo", d + "fifo"}, {"dir", m_Dir}, {"zero", "/dev/zero"}, {"empty", ""},
                  {"missing", d + "none"}, {"nodir", d + "none/x.wav"}, {"list", d + "l.m3u"}, {"rec", d + "r.wav"},
                  {"rec2", d + "r2.wav"}, {"null", "/dev/null"}, {"long", std::string(4096, 'a')}};
        const auto flat = [](uint32_t, unsigned) { return 0.25f; };
        for (const auto& [key, channels, rate, frames] : {std::tuple{"wav", 2, 48000, 12000}, {"wav44", 1, 44100, 9000},
                                                          {"1hz", 2, 1, 4}, {"fast", 2, INT_MAX, 4}})
            WriteSound(m_Pool[key], channels, rate, SF_FORMAT_PCM_16, frames, flat);
        WriteFile(m_Pool["text"], "not a sound file\n");
        ASSERT_EQ(mkfifo(m_Pool["fifo"].c_str(), 0600), 0);
        std::string list;
        for (const char* key : {"1hz", "wav", "fifo", "zero", "missing", "text", "wav44", "dir", "fast", "wav"})
            list += m_Pool[key] + "\n# remark\n\n";
        WriteFile(m_Pool["list"], list);
    }

    // The pool's file for key in a zeroed field; "long" fills the field, with no terminator.
    void Name(char* field, size_t size, const std::string& key)
    {
        memcpy(field, m_Pool[key].data(), std::min(m_Pool[key].size(), size));
    }

    // Sends one step; true when it got exactly one well-formed answer.
    bool Send(const Step& s)
    {
        if (s.cmd == kSleep)
            return usleep(static_cast<useconds_t>(s.v[0]) * 1000), true;
        structZorPlayMsg m = m_Client.MakeRequest(static_cast<enumZorPlayType>(s.type),
                                                  static_cast<enumZorPlayCmd>(s.cmd), s.index);
        auto v = [&](size_t i) { return static_cast<int32_t>(i < s.v.size() ? s.v[i] : 0); };
        unionZorPlayPayload& p = m.payload;
        switch (s.cmd) {
        case eCmdCreate: p.addModule = {v(0), v(1)}; break;
        case eCmdSetupFile:
            p.setupFile.bSecondary = v(0), p.setupFile.nFileSeconds = static_cast<uint32_t>(v(1));
            p.setupFile.nFileFormat = v(2), p.setupFile.nSampleRate = static_cast<uint32_t>(v(3));
            p.setupFile.nWordLength = v(4), p.setupFile.bRoll = v(5);
            for (size_t i = 0; i < s.names.size() && i < kMaxRecordFiles; ++i)
                Name(p.setupFile.szFilenames[i], kRecordFilenameSize, s.names[i]);
            break;
        case eCmdSetupPlayFile:
            p.setupPlayFile.bSecondary = v(0);
            Name(p.setupPlayFile.szFilename, kPlayFilenameFieldSize, s.names.empty() ? "" : s.names[0]);
            break;
        case eCmdSetupPlaylist: Name(p.setupPlaylist.szPlaylist, kPlaylistFieldSize, s.names[0]); break;
        case eCmdSkipInPlaylist: p.skipInPlaylist = {v(0), v(1)}; break;
        case eCmdSeek: p.seekOperation.nSeconds = v(0); break;
        }
        m.nVersion += s.mangle == 1;
        m.nLength -= s.mangle == 2;
        m.nReq += s.mangle == 3 ? 2 : 0;
        std::vector<char> bytes(s.mangle == 4 ? 100 : s.mangle == 5 ? 4000 : sizeof(m));
        memcpy(bytes.data(), &m, std::min(bytes.size(), sizeof(m)));
        ++m_nRequests;
        if (!m_Client.SendRaw(bytes.data(), bytes.size()))
            return ADD_FAILURE() << "send failed", false;
        for (;;) {
            structZorPlayMsg in;
            size_t len = 0;
            if (!m_Client.ReceiveAny(in, 20000, &len))
                return ADD_FAILURE() << "no answer to command " << s.cmd, false;
            const bool unrequested = in.nReq == eReqUnrequested &&
                                     (in.eCmd == eCmdFileProgress || in.eCmd == eCmdFileCompletion);
            const bool answer = in.nReq == eReqResponse && in.nID == m.nID && in.eCmd == m.eCmd &&
                                in.payload.eResult < eResultCount;
            if (len != sizeof(in) || (!unrequested && !answer))
                return ADD_FAILURE() << "stray or malformed datagram: " << len << " bytes, nReq " << in.nReq
                                     << ", ID " << in.nID << " (sent " << m.nID << ")", false;
            if (answer)
                return true;
        }
    }

    // Runs a sequence from a clean server; false (with the sequence shown) on a fault.
    bool Run(const Sequence& seq)
    {
        ++m_nSequences;
        bool ok = true;
        for (const Step& s : seq)
            ok = ok && Send(s) && m_Server.Running();
        ok = ok && Send({R, eCmdDeleteAll, 0, 0, {}, {}}) && Send({P, eCmdDeleteAll, 0, 0, {}, {}});
        EXPECT_TRUE(ok) << "failing sequence: " << Show(seq) << "\n" << m_Server.Output();
        return ok;
    }

    std::map<std::string, std::string> m_Pool;
    long m_nRequests = 0, m_nSequences = 0;
};

// Mostly aimed at the sequence's own module (type, slot), with mostly sensible values and the extremes mixed in, so
// that set-ups succeed often enough for play, recording, roll-overs and completions to meet the rest.
Step RandomStep(std::mt19937& rng, int type, int slot)
{
    static const int kCmds[] = {0, 1, 2, 3, 3, 3, 3, 4, 4, 4, 5, 5, 6, 7, 9, 11, 11, 12, 12, 13, 13, 14, 14, 14,
                                15, 15, 16, 16, 16, 16, 17, 18, -2, kSleep, kSleep, kSleep};
    static const int64_t kInts[] = {INT_MIN, -1, 0, 0, 1, 1, 2, 3, 7, 8, 9, 65535, INT_MAX};
    static const char* const kNames[] = {"wav", "wav", "wav", "wav44", "1hz", "fast", "text", "fifo", "dir", "zero",
                                         "missing", "nodir", "list", "list", "empty", "rec", "rec", "rec2", "rec2",
                                         "null", "long"};
    const auto Pick = [](std::mt19937& rng, const auto& from) { return from[rng() % std::size(from)]; };
    const int cmd = Pick(rng, kCmds);
    Step s{rng() % 16 == 0 ? static_cast<int>(Pick(rng, kInts)) : rng() % 10 == 0 ? 1 - type : type, cmd,
           rng() % 16 == 0 ? static_cast<int>(Pick(rng, kInts)) : rng() % 10 == 0 ? static_cast<int>(rng() % 3) : slot,
           rng() % 32 == 0 ? static_cast<int>(rng() % 6) : 0, {}, {}};
    for (int i = 0; i < 6; ++i)
        s.v.push_back(rng() % 5 == 0 ? Pick(rng, kInts) : static_cast<int64_t>(rng() % (i == 2 ? 2 : 3)));
    s.v[0] = rng() % 3 == 0 ? s.v[0] : 0; // set-ups: mostly primary
    if (cmd == eCmdCreate)
        s.v[0] = rng() % 4 == 0 ? Pick(rng, kInts) : 1 + rng() % 8;
    if (cmd == kSleep)
        s.v[0] = rng() % 700;
    for (unsigned i = 0; i < 8; ++i) { // mostly the names the command takes
        const char* usual = cmd == eCmdSetupFile ? i % 2 ? "rec2" : "rec" : cmd == eCmdSetupPlaylist ? "list" : "wav";
        s.names.push_back(rng() % 3 == 0 ? Pick(rng, kNames) : usual);
    }
    s.names.resize(1 + rng() % 8);
    return s;
}

} // namespace

TEST_F(Fuzz, Regressions)
{
    for (const Sequence& seq : kRegressions)
        Run(seq);
}

TEST_F(Fuzz, RandomSequences)
{
    const char* seedText = getenv("ZP_FUZZ_SEED");
    const unsigned seed = seedText ? static_cast<unsigned>(atol(seedText)) : std::random_device()();
    const time_t end = time(nullptr) + (getenv("ZP_FUZZ_SECONDS") ? atol(getenv("ZP_FUZZ_SECONDS")) : 30);
    std::mt19937 rng(seed);
    while (time(nullptr) < end) {
        const int type = static_cast<int>(rng() % 2), slot = static_cast<int>(rng() % 3);
        Sequence seq = {{type, eCmdCreate, slot, 0, {static_cast<int64_t>(1 + rng() % 8), 0}, {}}};
        for (unsigned n = 2 + rng() % 14; n > 0; --n)
            seq.push_back(RandomStep(rng, type, slot));
        if (!Run(seq))
            break;
    }
    printf("fuzz: seed %u, %ld sequences, %ld requests\n", seed, m_nSequences, m_nRequests);
}
