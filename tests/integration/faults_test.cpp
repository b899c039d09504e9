// Takes and modules under real faults: the server killed mid-take, the JACK
// server killed mid-take and mid-playback, and a disk that fills up.
#include <gtest/gtest.h>

#include <sched.h>
#include <sndfile.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "app/info_files.h"
#include "harness/server_fixture.h"

namespace {

typedef std::chrono::steady_clock Clock;

// What a WAV file's header claims against what is on disk, both in bytes of
// sample data; claimed is -1 when the file has no data chunk.
struct WavSize {
    long claimed = -1;
    long onDisk = 0;
};

WavSize ReadWavSize(const std::string& path)
{
    WavSize w;
    std::ifstream in(path, std::ios::binary);
    char head[512] = {};
    in.read(head, sizeof(head));
    const long got = in.gcount();
    for (long i = 12; i + 8 <= got; ++i) {
        if (memcmp(head + i, "data", 4) != 0)
            continue;
        uint32_t size;
        memcpy(&size, head + i + 4, 4);
        struct stat st;
        stat(path.c_str(), &st);
        w.claimed = size;
        w.onDisk = static_cast<long>(st.st_size) - (i + 8);
        break;
    }
    return w;
}

class Faults : public ServerTest {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_Client.Open());
        char dir[] = "/tmp/zp_faults_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_Dir = dir;
    }
    void TearDown() override
    {
        ServerTest::TearDown();
        if (!m_Mount.empty())
            umount(m_Mount.c_str());
        system(("rm -rf " + m_Dir).c_str());
    }
    std::string Path(const std::string& name) const { return m_Dir + "/" + name; }

    // Records 8 channels in slot, interleaved (format 0) or multi-mono (1).
    int Record(int slot, const std::vector<std::string>& names, int format, int word, uint32_t seconds = 0)
    {
        structSetupFile s = {};
        for (size_t i = 0; i < names.size(); ++i)
            strscpy(s.szFilenames[i], names[i].c_str(), kRecordFilenameSize);
        s.nFileFormat = format, s.nWordLength = word, s.nFileSeconds = seconds;
        const int r = Cmd(eZorPlayRecorder, eCmdSetupFile, slot, &s, sizeof(s));
        return r != eResultSuccess ? r : Cmd(eZorPlayRecorder, eCmdStart, slot);
    }
    int Play(int slot, const std::string& name)
    {
        structSetupPlayFile s = {};
        strscpy(s.szFilename, name.c_str(), sizeof(s.szFilename));
        const int r = Cmd(eZorPlayPlayer, eCmdSetupPlayFile, slot, &s, sizeof(s));
        return r != eResultSuccess ? r : Cmd(eZorPlayPlayer, eCmdStart, slot);
    }
    // Waits for the completion message of one module; its bRolled, or -1.
    int Completion(enumZorPlayType type, int slot, int timeoutMs)
    {
        structZorPlayMsg m;
        const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
        while (Clock::now() < end) {
            const int left = static_cast<int>(
                std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count());
            if (!m_Client.WaitUnrequested(m, left, eCmdFileCompletion))
                break;
            if (m.eType == type && m.nIndex == slot)
                return m.payload.fileCompletion.bRolled;
        }
        return -1;
    }
    std::string WriteTone(const std::string& name, int frames)
    {
        SF_INFO info = {0, 48000, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
        SNDFILE* f = sf_open(Path(name).c_str(), SFM_WRITE, &info);
        std::vector<float> data(static_cast<size_t>(frames) * 2, 0.25f);
        sf_writef_float(f, data.data(), frames);
        sf_close(f);
        return Path(name);
    }

    std::string m_Dir;
    std::string m_Mount;
};

// 5 s into a take the server dies without warning: every header, interleaved
// 24-bit and multi-mono 16-bit alike, covers at least 4 s and never more than
// the data on disk.
TEST_F(Faults, HeadersCoverATakeKilledMidway)
{
    StartServer({"-s"});
    std::vector<std::string> mono;
    for (int c = 0; c < 8; ++c)
        mono.push_back(Path("mono" + std::to_string(c) + ".wav"));
    ASSERT_EQ(Create(eZorPlayRecorder, 0, 8, 0), eResultSuccess);
    ASSERT_EQ(Create(eZorPlayRecorder, 1, 8, 0), eResultSuccess);
    ASSERT_EQ(Record(0, {Path("inter.wav")}, 0, 2), eResultSuccess);
    ASSERT_EQ(Record(1, mono, 1, 0), eResultSuccess);
    sleep(5);
    m_Server.Signal(SIGKILL);
    m_Server.WaitExit(5000);
    mono.push_back(Path("inter.wav"));
    double covered = 1e9;
    for (const std::string& file : mono) {
        const long frameBytes = file == Path("inter.wav") ? 24 : 2;
        const WavSize w = ReadWavSize(file);
        covered = std::min(covered, static_cast<double>(w.claimed) / frameBytes / 48000);
        EXPECT_GE(w.claimed, 4 * 48000 * frameBytes) << file;
        EXPECT_LE(w.claimed, w.onDisk) << file;
        EXPECT_EQ(w.claimed % frameBytes, 0) << file;
    }
    printf("headers cover at least %.2f s of the 5 s take\n", covered);
}

// The JACK server dies under a take and a playback: both end with their final
// completion, the take is whole, the modules go quiet and can be deleted, and
// once a JACK server is back a new player plays.
TEST_F(Faults, ModulesOutliveTheirJackServer)
{
    // A JACK server of the test's own, to kill without warning.
    const std::string jackName = JackServer::UniqueName();
    ChildProcess jack, wait;
    ASSERT_TRUE(jack.Start({"/usr/bin/jackd", "-n", jackName, "-d", "dummy", "-r", "48000", "-p", "1024"}));
    ASSERT_TRUE(wait.Start({"/usr/bin/jack_wait", "-s", jackName, "-w", "-t", "20"}) && wait.WaitExit(30000) == 0);
    StartServer({}, jackName);
    ASSERT_EQ(Create(eZorPlayRecorder, 0, 2, 0), eResultSuccess);
    ASSERT_EQ(Create(eZorPlayPlayer, 0, 2, 0), eResultSuccess);
    ASSERT_EQ(Record(0, {Path("take.wav")}, 0, 0), eResultSuccess);
    ASSERT_EQ(Play(0, WriteTone("long.wav", 48000 * 20)), eResultSuccess);
    sleep(2);

    const auto killed = Clock::now();
    jack.Signal(SIGKILL);
    jack.WaitExit(5000);
    // Each module's final completion within 3 s, and from then on (past a
    // status tick) no report of it running.
    long long doneMs[2] = {-1, -1};
    structZorPlayMsg m;
    for (auto end = killed + std::chrono::seconds(3); Clock::now() < end;) {
        if (!m_Client.WaitUnrequested(m, 100))
            continue;
        const long long done = doneMs[m.eType];
        if (m.eCmd == eCmdFileCompletion && done < 0) {
            EXPECT_EQ(m.payload.fileCompletion.bRolled, 0);
            doneMs[m.eType] =
                std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - killed).count();
            if (doneMs[0] >= 0 && doneMs[1] >= 0)
                end = Clock::now() + std::chrono::milliseconds(1500);
        } else if (m.eCmd == eCmdFileProgress && done >= 0) {
            EXPECT_NE(m.payload.fileProgress.nState, 4) << "type " << m.eType << " reports Running";
        }
    }
    printf("completions %lld and %lld ms after the JACK server's death\n", doneMs[0], doneMs[1]);
    for (long long ms : doneMs)
        EXPECT_TRUE(ms >= 0 && ms <= 3000) << ms;
    EXPECT_NE(m_Server.Output().find("Recorder000: JACK server lost\r\n"), std::string::npos);
    EXPECT_NE(m_Server.Output().find("Player000: JACK server lost\r\n"), std::string::npos);
    const WavSize w = ReadWavSize(Path("take.wav"));
    EXPECT_GT(w.claimed, 48000 * 4); // 1 s of 2 channels of 16 bits
    EXPECT_EQ(w.claimed, w.onDisk);

    EXPECT_EQ(Cmd(eZorPlayRecorder, eCmdStart, 0), eResultNoJack);
    EXPECT_TRUE(Prints([&] { return Cmd(eZorPlayPlayer, eCmdQueryStatus, 0); }, 0, "State: Bad Initialization"));

    // A new module works on a new server while the lost ones are still in
    // their slots; they are deleted afterwards, at once.
    JackServer jack2;
    ASSERT_TRUE(jack2.Start(8, 8, jackName));
    ASSERT_EQ(Create(eZorPlayPlayer, 1, 2, 0), eResultSuccess);
    ASSERT_EQ(Play(1, WriteTone("short.wav", 24000)), eResultSuccess);
    EXPECT_EQ(Completion(eZorPlayPlayer, 1, 10000), 0);
    EXPECT_EQ(m_Client.Call(eZorPlayRecorder, eCmdDelete, 0, nullptr, 0, 5000), eResultSuccess);
    EXPECT_EQ(m_Client.Call(eZorPlayPlayer, eCmdDelete, 0, nullptr, 0, 5000), eResultSuccess);
    EXPECT_EQ(Cmd(eZorPlayPlayer, eCmdDelete, 1), eResultSuccess);
}

// A 3 MB disk fills under an 8-channel 24-bit take: the take ends with its
// completion, the file holds what fitted, and the next take elsewhere works.
TEST_F(Faults, AFullDiskEndsTheTake)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "mounting a small tmpfs needs root";
    // A mount namespace of this process's own, which the server started
    // below inherits, keeps the small disk out of everyone else's view.
    ASSERT_EQ(unshare(CLONE_NEWNS), 0) << strerror(errno);
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << strerror(errno);
    m_Mount = Path("small");
    mkdir(m_Mount.c_str(), 0755);
    ASSERT_EQ(mount("none", m_Mount.c_str(), "tmpfs", 0, "size=3m"), 0) << strerror(errno);
    StartServer({"-s"});
    ASSERT_EQ(Create(eZorPlayRecorder, 0, 8, 0), eResultSuccess);
    ASSERT_EQ(Record(0, {m_Mount + "/full.wav"}, 0, 2), eResultSuccess);
    EXPECT_EQ(Completion(eZorPlayRecorder, 0, 8000), 0);
    EXPECT_TRUE(m_Server.WaitForOutput("Recorder write to " + m_Mount + "/full.wav fell short: ", 3000));
    EXPECT_TRUE(Prints([&] { return Cmd(eZorPlayRecorder, eCmdQueryStatus, 0); }, 0, "Type: Recorder, State: Idle"));
    const WavSize w = ReadWavSize(m_Mount + "/full.wav");
    EXPECT_GT(w.claimed, 2000000);
    EXPECT_LE(w.claimed, w.onDisk);
    EXPECT_LT(w.onDisk - w.claimed, 24);

    ASSERT_EQ(Record(0, {Path("next.wav")}, 0, 2, 1), eResultSuccess);
    EXPECT_EQ(Completion(eZorPlayRecorder, 0, 8000), 0);
    EXPECT_EQ(ReadWavSize(Path("next.wav")).claimed, 48000 * 24);
}

} // namespace
