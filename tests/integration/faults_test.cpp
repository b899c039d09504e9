// Takes and modules under real faults: a disk that fills up, the server killed mid-take, and the JACK server killed
// mid-take and mid-playback.
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <cstring>

#include "harness/server_fixture.h"

namespace {

using Clock = std::chrono::steady_clock;

// Bytes of sample data a WAV header claims (-1 with no data chunk) and those on disk.
struct WavSize { long long claimed = -1, onDisk = 0; };

WavSize ReadWavSize(const std::string& path)
{
    const std::string file = ReadFile(path);
    const size_t at = file.substr(0, 512).find("data", 12);
    uint32_t size = 0;
    if (at == std::string::npos || at + 8 > file.size())
        return {};
    memcpy(&size, file.data() + at + 4, 4);
    return {size, static_cast<long long>(file.size() - at - 8)};
}

class Faults : public ServerTest {
protected:
    Faults() { m_bStartServer = false; }
    // The set-up's answer, or when it succeeded the Start's.
    int Start(enumZorPlayType type, int slot, int setup) { return setup ? setup : Cmd(type, eCmdStart, slot); }
};

} // namespace

// The JACK server dies under a take and a playback: both end with their final completion, the take is whole, the
// modules go quiet and can be deleted, and once a JACK server is back a new player plays.
TEST_F(Faults, ModulesOutliveTheirJackServer)
{
    JackServer jack;
    ASSERT_TRUE(jack.Start(2, 2));
    StartServer({}, jack.Name());
    ASSERT_EQ(Create(eZorPlayRecorder, 0, 2, 0) + Create(eZorPlayPlayer, 0, 2, 0), eResultSuccess);
    ASSERT_TRUE(WriteRamp(Path("long.wav"), 2, 0, 48000 * 20) && WriteRamp(Path("short.wav"), 2, 0, 24000));
    ASSERT_EQ(Start(eZorPlayRecorder, 0, SetupRecord(0, {Path("take.wav")})), eResultSuccess);
    ASSERT_EQ(Start(eZorPlayPlayer, 0, SetupPlay(0, Path("long.wav"))), eResultSuccess);
    sleep(2);
    jack.Kill();
    // Each module's final completion within 3 s, and from then on (past a status tick) no report of it running.
    bool done[2] = {false, false};
    structZorPlayMsg m;
    for (auto end = Clock::now() + std::chrono::seconds(3); Clock::now() < end;) {
        if (!m_Client.WaitUnrequested(m, 100))
            continue;
        if (m.eCmd == eCmdFileCompletion && !done[m.eType]) {
            EXPECT_EQ(m.payload.fileCompletion.bRolled, 0);
            done[m.eType] = true;
            if (done[0] && done[1])
                end = Clock::now() + std::chrono::milliseconds(1500);
        } else if (m.eCmd == eCmdFileProgress && done[m.eType]) {
            EXPECT_NE(m.payload.fileProgress.nState, 4) << "type " << m.eType << " reports Running";
        }
    }
    EXPECT_TRUE(done[0] && done[1]) << "recorder, player completed: " << done[0] << ", " << done[1];
    EXPECT_TRUE(Printed(0, {"Recorder000: JACK server lost\r\n", "Player000: JACK server lost\r\n"}));
    const WavSize w = ReadWavSize(Path("take.wav")); // whole, and over 1 s of 2 channels of 16 bits
    EXPECT_TRUE(w.claimed > 48000 * 4 && w.claimed == w.onDisk) << w.claimed << " " << w.onDisk;
    EXPECT_EQ(Cmd(eZorPlayRecorder, eCmdStart, 0), eResultNoJack);
    EXPECT_TRUE(Prints([&] { return Cmd(eZorPlayPlayer, eCmdQueryStatus, 0); }, 0, "State: Bad Initialization"));

    // A new player works on a new JACK server beside the lost modules, which are then deleted at once.
    JackServer jack2;
    ASSERT_TRUE(jack2.Start(8, 8, jack.Name()));
    ASSERT_EQ(Create(eZorPlayPlayer, 1, 2, 0), eResultSuccess);
    ASSERT_EQ(Start(eZorPlayPlayer, 1, SetupPlay(1, Path("short.wav"))), eResultSuccess);
    EXPECT_EQ(Completion(eZorPlayPlayer, 1).bRolled, 0);
    EXPECT_EQ(m_Client.Call(eZorPlayRecorder, eCmdDelete, 0, nullptr, 0, 5000), eResultSuccess);
    EXPECT_EQ(m_Client.Call(eZorPlayPlayer, eCmdDelete, 0, nullptr, 0, 5000), eResultSuccess);
}

// A 3 MB disk fills under an 8-channel 24-bit take: the take ends with its completion and the file holds what fitted.
// Then the next takes, one in the same slot, run 5 s before the server dies without warning: every header, interleaved
// 24-bit and multi-mono 16-bit alike, covers at least 4 s and never more than the data on disk.
TEST_F(Faults, AFullDiskEndsTheTakeAndHeadersCoverATakeKilledMidway)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "mounting a small tmpfs needs root";
    // A mount namespace of this process's own, inherited by the server, keeps the small disk out of everyone's view.
    ASSERT_EQ(unshare(CLONE_NEWNS), 0) << strerror(errno);
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << strerror(errno);
    const std::string small = Path("small");
    mkdir(small.c_str(), 0755);
    ASSERT_EQ(mount("none", small.c_str(), "tmpfs", 0, "size=3m"), 0) << strerror(errno);
    StartServer({"-s"});
    ASSERT_EQ(Create(eZorPlayRecorder, 0, 8, 0) + Create(eZorPlayRecorder, 1, 8, 0), eResultSuccess);
    ASSERT_EQ(Start(eZorPlayRecorder, 0, SetupRecord(0, {small + "/full.wav"}, 0, 0, 2)), eResultSuccess);
    EXPECT_EQ(Completion(eZorPlayRecorder, 0).bRolled, 0);
    EXPECT_TRUE(Printed(0, {"Recorder write to " + small + "/full.wav fell short: "}));
    const WavSize w = ReadWavSize(small + "/full.wav");
    EXPECT_TRUE(w.claimed > 2000000 && w.claimed <= w.onDisk && w.onDisk - w.claimed < 24) << w.claimed << "/" << w.onDisk;

    std::vector<std::string> files = {Path("inter.wav")};
    for (int c = 0; c < 8; ++c)
        files.push_back(Path("mono" + std::to_string(c) + ".wav"));
    ASSERT_EQ(Start(eZorPlayRecorder, 0, SetupRecord(0, {files[0]}, 0, 0, 2)), eResultSuccess);
    ASSERT_EQ(Start(eZorPlayRecorder, 1, SetupRecord(1, {files.begin() + 1, files.end()}, 1)), eResultSuccess);
    sleep(5);
    m_Server.Signal(SIGKILL);
    m_Server.WaitExit(5000);
    for (const std::string& file : files) {
        const long frameBytes = file == files[0] ? 24 : 2; // 8 x 24 bits interleaved, or 16 bits
        const WavSize take = ReadWavSize(file);
        EXPECT_TRUE(take.claimed >= 4 * 48000 * frameBytes && take.claimed <= take.onDisk && take.claimed % frameBytes == 0)
            << file << ": " << take.claimed << " bytes claimed, " << take.onDisk << " on disk";
    }
    EXPECT_EQ(umount(small.c_str()), 0) << strerror(errno);
}
