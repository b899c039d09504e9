// Progress reports, completion xrun sums and debug displays of modules that
// play and record through the real server.
#include <sys/ptrace.h>
#include <sys/wait.h>

#include <algorithm>
#include <regex>

#include "harness/server_fixture.h"
#include "modules/rp_common.h"

namespace {

constexpr enumZorPlayType kRec = eZorPlayRecorder;
constexpr enumZorPlayType kPlay = eZorPlayPlayer;

class Progress : public ServerTest {
protected:
    std::vector<std::string> ServerArgs() override { return {"-nc"}; }
    void SetUp() override
    {
        ServerTest::SetUp();
        for (int seconds : {1, 3, 9})
            ASSERT_TRUE(WriteRamp(Path(std::to_string(seconds) + "s.wav"), 1, 0, 48000 * seconds));
        WriteFile(Path("list.txt"), Path("1s.wav") + "\n" + Path("9s.wav") + "\n");
    }
    int Seek(int slot, int seconds) { return Cmd(kPlay, eCmdSeek, slot, structSeekOperation{0, seconds}); }
};

} // namespace

// A recording recorder and a player running through a two-entry playlist report once a
// second, every field filled from what they do; idle and set-up modules stay silent.
// Underruns forced by freezing the player's worker reach its next report, each completion
// sums the reports since the one before, and tokens lost to the full queue are made good.
TEST_F(Progress, RunningModulesReportAndCompletionsSumTheirUnderruns)
{
    ASSERT_EQ(Create(kRec, 0, 1, 0) + Create(kRec, 1, 1, 0) + Create(kPlay, 0, 1, 0) + Create(kPlay, 1, 1, 0) +
                  Create(kRec, 2, 1, 0) + SetupRecord(1, {Path("ready.wav")}, 0, 0, 0, 10) + SetupPlay(1, Path("1s.wav")),
              eResultSuccess);
    // The last player's worker: the one new thread that waits in select (the
    // JACK threads it brings wait elsewhere).
    const std::string task = "/proc/" + std::to_string(m_Server.Pid()) + "/task/";
    std::vector<std::string> before, now;
    CountEntries(task, &before);
    ASSERT_EQ(Create(kPlay, 2, 1, 0), eResultSuccess);
    std::string worker;
    ASSERT_TRUE(WaitUntil(
        [&] {
            CountEntries(task, &now);
            for (const std::string& tid : now)
                if (!std::count(before.begin(), before.end(), tid) &&
                    std::regex_search(ReadFile(task + tid + "/wchan"), std::regex("select|poll_schedule")))
                    worker = tid;
            return !worker.empty();
        },
        5000)) << "the player's worker thread was not found";
    ASSERT_EQ(SetupRecord(2, {Path("take.wav")}, 0, 0, 0, 30) + SetupPlaylist(2, Path("list.txt")) + Cmd(kRec, eCmdStart, 2) +
                  Cmd(kPlay, eCmdStart, 2),
              eResultSuccess);

    unsigned recReports = 0, recXruns = 0, recElapsed = 0, playXruns = 0, playReports[2] = {0, 0}, peakBuffer = 0;
    std::vector<structFileCompletion> done;
    while (done.size() < 2 && !HasFailure()) {
        const structZorPlayMsg m = Next();
        ASSERT_EQ(m.nIndex, 2) << "only the running modules report";
        const structFileProgress& p = m.payload.fileProgress;
        if (m.eCmd == eCmdFileCompletion) {
            ASSERT_EQ(m.eType, kPlay);
            EXPECT_EQ(m.payload.fileCompletion.nXRuns, playXruns) << "completion " << done.size();
            done.push_back(m.payload.fileCompletion);
            playXruns = 0;
            if (done.size() == 1) {
                // The second entry is longer than the play buffer. A seek leaves
                // four periods in it; with its worker frozen for longer (the
                // JACK threads run on), the player runs dry, and its internal
                // queue (200 tokens, one a period) fills up.
                ASSERT_EQ(Seek(2, 7), eResultSuccess);
                const pid_t tid = std::stoi(worker);
                const long seized = ptrace(PTRACE_SEIZE, tid, nullptr, nullptr);
                if (seized != 0 && errno == ENOSYS)
                    GTEST_SKIP() << "ptrace is not implemented here (qemu-user): the worker cannot be frozen";
                ASSERT_EQ(seized, 0) << strerror(errno);
                ASSERT_EQ(ptrace(PTRACE_INTERRUPT, tid, nullptr, nullptr), 0);
                ASSERT_EQ(waitpid(tid, nullptr, __WALL), tid);
                usleep(5500000);
                ptrace(PTRACE_DETACH, tid, nullptr, nullptr);
            }
            continue;
        }
        ASSERT_EQ(m.eCmd, eCmdFileProgress);
        EXPECT_EQ(p.nElapsed + p.nRemaining, p.nMax);
        EXPECT_LE(p.nBufferPercent, 100u);
        if (m.eType == kRec) {
            EXPECT_EQ(std::vector<long long>({p.nState, p.nMax, p.nPlaylistIndex}), std::vector<long long>({eStateRunning, 30, 0}));
            EXPECT_GE(p.nElapsed, recElapsed);
            recElapsed = p.nElapsed;
            ++recReports;
            recXruns += p.nXRuns;
            continue;
        }
        EXPECT_TRUE(p.nState == eStateRunning || p.nState == eStateDraining) << p.nState;
        EXPECT_GE(p.nPlaylistIndex, done.size()) << "the callback may roll before the worker reports it";
        EXPECT_EQ(p.nMax, p.nPlaylistIndex == 0 ? 1u : 9u);
        ++playReports[std::min(p.nPlaylistIndex, 1u)];
        playXruns += p.nXRuns;
        if (!done.empty())
            peakBuffer = std::max(peakBuffer, p.nBufferPercent);
    }
    ASSERT_EQ(done.size(), 2u);
    EXPECT_TRUE(done[0].bRolled == 1 && done[0].nIndex == 0 && done[0].nNewIndex == 1);
    EXPECT_TRUE(done[1].bRolled == 0 && done[1].nIndex == 1);
    EXPECT_GT(done[1].nXRuns, 0u) << "the frozen worker left the player without audio";
    EXPECT_GE(peakBuffer, 99u) << "a play buffer that ran dry is all free";
    EXPECT_GE(playReports[1], 2u) << "the seek's report and those of the last two seconds";
    EXPECT_GE(recReports, 3u);
    EXPECT_TRUE(Printed(0, {"MQ void * RT Send failed Resource temporarily unavailable\r\n"}));

    // The idle player stays silent; the recorder reports until it stops.
    ASSERT_EQ(Cmd(kRec, eCmdStop, 2), eResultSuccess);
    structZorPlayMsg m;
    for (m = Next(); m.eCmd == eCmdFileProgress; m = Next()) {
        EXPECT_EQ(m.eType, kRec);
        recXruns += m.payload.fileProgress.nXRuns;
    }
    EXPECT_TRUE(m.eType == kRec && m.eCmd == eCmdFileCompletion);
    EXPECT_EQ(m.payload.fileCompletion.nXRuns, recXruns);
}

// Without status reports only a seek while playing or paused makes a progress
// message, before its answer. The module table with a recording recorder and a
// playing player, line by line ('#' stands for a number that moves).
TEST_F(Progress, ReportsWithStatusOffAndTheModuleTable)
{
    ASSERT_EQ(m_Server.Stop(), 0);
    StartServer({"-nc", "-s"});
    ASSERT_EQ(Create(kRec, 0, 1, 0) + SetupRecord(0, {Path("quiet.wav")}, 0, 0, 0, 10) + Cmd(kRec, eCmdStart, 0) +
                  Create(kPlay, 3, 1, 0) + SetupPlay(3, Path("3s.wav")) + Seek(3, 1) + Cmd(kPlay, eCmdStart, 3),
              eResultSuccess);
    structZorPlayMsg m;
    EXPECT_FALSE(m_Client.WaitUnrequested(m, 0)) << "a seek in File Ready reports nothing";
    for (int state : {eStateRunning, eStatePaused}) {
        ASSERT_EQ((state == eStatePaused ? Cmd(kPlay, eCmdPause, 3) : int{eResultSuccess}) + Seek(3, 2), eResultSuccess);
        m = Next(-1, 0);
        EXPECT_TRUE(m.eType == kPlay && m.eCmd == eCmdFileProgress && m.nIndex == 3);
        const structFileProgress& p = m.payload.fileProgress;
        EXPECT_EQ(std::vector<long long>({p.nState, p.nElapsed, p.nRemaining, p.nMax}), std::vector<long long>({state, 2, 1, 3}));
    }
    EXPECT_FALSE(m_Client.WaitUnrequested(m, 2500)) << "a running recorder and a paused player stay silent";

    ASSERT_EQ(m_Server.Stop(), 0);
    StartServer(ServerArgs());
    ASSERT_EQ(Create(kRec, 1, 1, 0) + SetupRecord(1, {Path("take.wav")}, 0, 0, 0, 30) + Cmd(kRec, eCmdStart, 1) +
                  Create(kPlay, 2, 1, 0) + SetupPlay(2, Path("9s.wav")) + Cmd(kPlay, eCmdStart, 2),
              eResultSuccess);
    for (enumZorPlayType type : {kRec, kPlay})
        while (Next(eCmdFileProgress).eType != type && !HasFailure()) {
        }
    std::string table = "*****************************************\r\n";
    for (enumZorPlayType type : {kRec, kPlay}) {
        table += type == kRec ? "Recorders:\r\n" : "Players:\r\n";
        for (int slot = 0; slot < kMaxModuleSlots; ++slot)
            table += "\t[" + std::to_string(slot) + "]: " +
                     (slot != (type == kRec ? 1 : 2) ? std::string("is empty.\r\n")
                                                     : (type == kRec ? " Recorder001" : "   Player002") +
                                                           std::string(" is Running, Channels: 1, Offset: 0, filename: ") +
                                                           Path(type == kRec ? "take.wav" : "9s.wav") + ", file progress: %#\r\n");
    }
    std::string pattern; // the table as a regular expression
    for (char c : table)
        pattern += c == '#' ? std::string("[0-9]+") : strchr("\\^$.|?*+()[]{}", c) ? std::string("\\") + c : std::string(1, c);
    const size_t mark = m_Server.OutputSize();
    ASSERT_EQ(Cmd(kPlay, eCmdHello, 1), eResultSuccess);
    EXPECT_TRUE(WaitUntil([&] { return std::regex_search(m_Server.Output(mark), std::regex(pattern)); }, 5000))
        << "printed:\n" << m_Server.Output(mark) << "\nexpected:\n" << table;

}
