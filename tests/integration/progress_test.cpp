// Progress reports, completion xrun sums and debug displays of modules that
// play and record through the real server.
#include <gtest/gtest.h>

#include <sndfile.h>
#include <sys/ptrace.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "app/info_files.h"
#include "harness/server_fixture.h"
#include "modules/rp_common.h"

namespace {

constexpr enumZorPlayType kRec = eZorPlayRecorder;
constexpr enumZorPlayType kPlay = eZorPlayPlayer;

// Stops one thread of the server with ptrace while the others, the JACK
// callbacks among them, run on.
class ThreadFreeze {
public:
    ~ThreadFreeze() { Thaw(); }
    bool Freeze(pid_t tid)
    {
        int status = 0;
        if (ptrace(PTRACE_SEIZE, tid, nullptr, nullptr) != 0)
            return false;
        m_Tid = tid;
        return ptrace(PTRACE_INTERRUPT, tid, nullptr, nullptr) == 0 && waitpid(tid, &status, __WALL) == tid;
    }
    void Thaw()
    {
        if (m_Tid > 0)
            ptrace(PTRACE_DETACH, m_Tid, nullptr, nullptr);
        m_Tid = -1;
    }

private:
    pid_t m_Tid = -1;
};

std::set<pid_t> Threads(pid_t pid)
{
    std::set<pid_t> tids;
    if (DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/task").c_str())) {
        while (dirent* e = readdir(dir))
            if (e->d_name[0] != '.')
                tids.insert(atoi(e->d_name));
        closedir(dir);
    }
    return tids;
}

class Progress : public ServerTest {
protected:
    std::vector<std::string> ServerArgs() override { return {"-nc"}; }
    void SetUp() override
    {
        ServerTest::SetUp();
        char dir[] = "/tmp/zp_progress_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_Dir = dir;
        for (int seconds : {1, 3, 9})
            WriteWav(Path(std::to_string(seconds) + "s.wav"), seconds);
        std::ofstream(Path("list.txt")) << Path("1s.wav") << "\n" << Path("9s.wav") << "\n";
    }
    void TearDown() override
    {
        ServerTest::TearDown();
        system(("rm -rf " + m_Dir).c_str());
    }
    std::string Path(const std::string& name) const { return m_Dir + "/" + name; }

    static void WriteWav(const std::string& path, int seconds)
    {
        SF_INFO info{0, 48000, 1, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
        SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
        ASSERT_NE(f, nullptr) << path;
        std::vector<float> frames(48000u * seconds, 0.25f);
        sf_writef_float(f, frames.data(), static_cast<sf_count_t>(frames.size()));
        sf_close(f);
    }

    // Creates a module and answers the id of its worker: the one new thread
    // that waits in select (the JACK threads it brings wait elsewhere).
    pid_t Create(enumZorPlayType type, int slot)
    {
        const std::string task = "/proc/" + std::to_string(m_Server.Pid()) + "/task/";
        const std::set<pid_t> before = Threads(m_Server.Pid());
        EXPECT_EQ(m_Client.Create(type, slot, 1, 0), eResultSuccess);
        pid_t worker = -1;
        WaitUntil(
            [&] {
                for (pid_t tid : Threads(m_Server.Pid())) {
                    std::string wchan;
                    std::ifstream(task + std::to_string(tid) + "/wchan") >> wchan;
                    if (!before.count(tid) && (wchan.find("select") != std::string::npos ||
                                               wchan.find("poll_schedule") != std::string::npos))
                        worker = tid;
                }
                return worker > 0;
            },
            5000);
        return worker;
    }
    int Record(int slot, const std::string& name, unsigned seconds)
    {
        structSetupFile s{};
        s.nFileSeconds = seconds;
        strscpy(s.szFilenames[0], Path(name).c_str(), sizeof(s.szFilenames[0]));
        return m_Client.Call(kRec, eCmdSetupFile, slot, &s, sizeof(s));
    }
    int Play(int slot, const std::string& name)
    {
        structSetupPlayFile s{};
        strscpy(s.szFilename, Path(name).c_str(), sizeof(s.szFilename));
        return m_Client.Call(kPlay, eCmdSetupPlayFile, slot, &s, sizeof(s));
    }
    int Seek(int slot, int seconds)
    {
        structSeekOperation s{0, seconds};
        return m_Client.Call(kPlay, eCmdSeek, slot, &s, sizeof(s));
    }
    // The next unrequested message, with the header every one carries.
    structZorPlayMsg Next(int timeoutMs = 20000)
    {
        structZorPlayMsg m{};
        EXPECT_TRUE(m_Client.WaitUnrequested(m, timeoutMs)) << "no message came; output:\n" << m_Server.Output();
        EXPECT_EQ(m.nVersion, 0u);
        EXPECT_EQ(m.nLength, kZorPlayMsgSize);
        EXPECT_EQ(m.nID, 0);
        EXPECT_EQ(m.nReq, eReqUnrequested);
        return m;
    }
    // What the server printed for a request, from its first line on, once
    // there are as many lines as expected.
    std::string Printed(enumZorPlayType type, enumZorPlayCmd cmd, int index, const std::string& first,
                        const std::string& expected)
    {
        const size_t mark = m_Server.OutputSize();
        EXPECT_EQ(m_Client.Call(type, cmd, index), eResultSuccess);
        std::string out;
        WaitUntil(
            [&] {
                out = m_Server.OutputSince(mark);
                out.erase(0, std::min(out.find(first), out.size()));
                return std::count(out.begin(), out.end(), '\n') >= std::count(expected.begin(), expected.end(), '\n');
            },
            5000);
        return out;
    }

    std::string m_Dir;
};

// True when text is the expected block, '#' in it standing for a number.
::testing::AssertionResult Shaped(const std::string& text, const std::string& expected)
{
    std::string pattern;
    for (char c : expected)
        pattern += c == '#' ? std::string("[0-9]+")
                            : strchr("\\^$.|?*+()[]{}", c) ? std::string("\\") + c : std::string(1, c);
    if (std::regex_match(text, std::regex(pattern)))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "printed:\n" << text << "\nexpected:\n" << expected;
}

class ProgressWithStatusOff : public Progress {
protected:
    std::vector<std::string> ServerArgs() override { return {"-nc", "-s"}; }
};

} // namespace

// A recording recorder and a player running through a two-entry playlist
// report once a second, with every field filled from what they do; idle and
// set-up modules stay silent. Underruns forced by freezing the player's
// worker reach its next report, and each completion carries the sum of the
// reports since the one before.
TEST_F(Progress, RunningModulesReportAndCompletionsSumTheirUnderruns)
{
    Create(kRec, 0);
    Create(kRec, 1);
    ASSERT_EQ(Record(1, "ready.wav", 10), eResultSuccess);
    Create(kPlay, 0);
    Create(kPlay, 1);
    ASSERT_EQ(Play(1, "1s.wav"), eResultSuccess);
    Create(kRec, 2);
    const pid_t worker = Create(kPlay, 2);
    ASSERT_GT(worker, 0) << "the player's worker thread was not found";
    ASSERT_EQ(Record(2, "take.wav", 30), eResultSuccess);
    structSetupPlaylist list{};
    strscpy(list.szPlaylist, Path("list.txt").c_str(), sizeof(list.szPlaylist));
    ASSERT_EQ(m_Client.Call(kPlay, eCmdSetupPlaylist, 2, &list, sizeof(list)), eResultSuccess);
    ASSERT_EQ(m_Client.Call(kRec, eCmdStart, 2), eResultSuccess);
    ASSERT_EQ(m_Client.Call(kPlay, eCmdStart, 2), eResultSuccess);

    unsigned recReports = 0, recXruns = 0, recLastElapsed = 0;
    unsigned playXruns = 0, playReports[2] = {0, 0}, peakBuffer = 0;
    std::vector<structFileCompletion> done;
    bool frozen = false;
    while (done.size() < 2 && !HasFailure()) {
        const structZorPlayMsg m = Next();
        ASSERT_EQ(m.nIndex, 2) << "only the running modules report";
        if (m.eCmd == eCmdFileCompletion) {
            ASSERT_EQ(m.eType, kPlay);
            EXPECT_EQ(m.payload.fileCompletion.nXRuns, playXruns) << "completion " << done.size();
            done.push_back(m.payload.fileCompletion);
            playXruns = 0;
            if (done.size() == 1 && !frozen) {
                // The second entry is still being read (it is longer than the
                // play buffer). A seek leaves four periods in the buffer;
                // with its worker frozen for longer, the player runs dry.
                ASSERT_EQ(Seek(2, 7), eResultSuccess);
                ThreadFreeze freeze;
                ASSERT_TRUE(freeze.Freeze(worker)) << strerror(errno);
                usleep(1500000);
                frozen = true;
            }
            continue;
        }
        ASSERT_EQ(m.eCmd, eCmdFileProgress);
        const structFileProgress& p = m.payload.fileProgress;
        EXPECT_EQ(p.nElapsed + p.nRemaining, p.nMax);
        EXPECT_LE(p.nBufferPercent, 100u);
        if (m.eType == kRec) {
            EXPECT_EQ(p.nState, eStateRunning);
            EXPECT_EQ(p.nMax, 30u);
            EXPECT_EQ(p.nPlaylistIndex, 0u);
            EXPECT_GE(p.nElapsed, recLastElapsed);
            recLastElapsed = p.nElapsed;
            ++recReports;
            recXruns += p.nXRuns;
            continue;
        }
        EXPECT_TRUE(p.nState == eStateRunning || p.nState == eStateDraining) << p.nState;
        // The callback may roll before the worker reports the roll.
        EXPECT_GE(p.nPlaylistIndex, done.size()) << "the entry playing";
        EXPECT_EQ(p.nMax, p.nPlaylistIndex == 0 ? 1u : 9u);
        ++playReports[std::min(p.nPlaylistIndex, 1u)];
        playXruns += p.nXRuns;
        if (frozen)
            peakBuffer = std::max(peakBuffer, p.nBufferPercent);
    }
    ASSERT_EQ(done.size(), 2u);
    EXPECT_EQ(done[0].bRolled, 1);
    EXPECT_EQ(done[0].nIndex, 0u);
    EXPECT_EQ(done[0].nNewIndex, 1u);
    EXPECT_EQ(done[1].bRolled, 0);
    EXPECT_EQ(done[1].nIndex, 1u);
    EXPECT_GT(done[1].nXRuns, 0u) << "the frozen worker left the player without audio";
    EXPECT_GE(peakBuffer, 99u) << "a play buffer that ran dry is all free";
    EXPECT_GE(playReports[1], 2u) << "the seek's report and those of the last two seconds";
    EXPECT_GE(recReports, 3u);

    // The idle player stays silent; the recorder reports until it stops.
    ASSERT_EQ(m_Client.Call(kRec, eCmdStop, 2), eResultSuccess);
    structZorPlayMsg m;
    for (m = Next(); m.eCmd == eCmdFileProgress; m = Next()) {
        EXPECT_EQ(m.eType, kRec);
        recXruns += m.payload.fileProgress.nXRuns;
    }
    EXPECT_EQ(m.eType, kRec);
    EXPECT_EQ(m.eCmd, eCmdFileCompletion);
    EXPECT_EQ(m.payload.fileCompletion.nXRuns, recXruns);
}

// Without status reports only a seek makes a progress message, at once:
// it is there before the seek's answer.
TEST_F(ProgressWithStatusOff, OnlyASeekReports)
{
    Create(kRec, 0);
    ASSERT_EQ(Record(0, "take.wav", 10), eResultSuccess);
    ASSERT_EQ(m_Client.Call(kRec, eCmdStart, 0), eResultSuccess);
    Create(kPlay, 3);
    ASSERT_EQ(Play(3, "3s.wav"), eResultSuccess);
    EXPECT_EQ(Seek(3, 1), eResultSuccess);
    ASSERT_EQ(m_Client.Call(kPlay, eCmdStart, 3), eResultSuccess);
    structZorPlayMsg m;
    EXPECT_FALSE(m_Client.WaitUnrequested(m, 0)) << "a seek in File Ready reports nothing";

    for (int state : {eStateRunning, eStatePaused}) {
        if (state == eStatePaused) {
            ASSERT_EQ(m_Client.Call(kPlay, eCmdPause, 3), eResultSuccess);
        }
        ASSERT_EQ(Seek(3, 2), eResultSuccess);
        m = Next(0);
        EXPECT_EQ(m.eType, kPlay);
        EXPECT_EQ(m.eCmd, eCmdFileProgress);
        EXPECT_EQ(m.nIndex, 3);
        EXPECT_EQ(m.payload.fileProgress.nState, state);
        EXPECT_EQ(m.payload.fileProgress.nElapsed, 2u);
        EXPECT_EQ(m.payload.fileProgress.nRemaining, 1u);
        EXPECT_EQ(m.payload.fileProgress.nMax, 3u);
    }
    EXPECT_FALSE(m_Client.WaitUnrequested(m, 2500)) << "a running recorder and a paused player stay silent";
}

// The module table and the full displays of a recording recorder and a
// playing player, line by line; '#' stands for a number that moves.
TEST_F(Progress, DisplaysOfAPlayingPlayerAndARecordingRecorder)
{
    Create(kRec, 1);
    ASSERT_EQ(Record(1, "take.wav", 30), eResultSuccess);
    ASSERT_EQ(m_Client.Call(kRec, eCmdStart, 1), eResultSuccess);
    Create(kPlay, 2);
    ASSERT_EQ(Play(2, "9s.wav"), eResultSuccess);
    ASSERT_EQ(m_Client.Call(kPlay, eCmdStart, 2), eResultSuccess);
    structZorPlayMsg m;
    for (enumZorPlayType type : {kRec, kPlay})
        do
            m = Next();
        while (m.eType != type);

    const std::string rec = m_Dir + "/take.wav", play = m_Dir + "/9s.wav";
    std::string table = "*****************************************\r\n";
    for (enumZorPlayType type : {kRec, kPlay}) {
        table += type == kRec ? "Recorders:\r\n" : "Players:\r\n";
        for (int slot = 0; slot < kMaxModuleSlots; ++slot) {
            const bool live = slot == (type == kRec ? 1 : 2);
            table += "\t[" + std::to_string(slot) + "]: " +
                     (!live ? std::string("is empty.\r\n")
                            : (type == kRec ? " Recorder001" : "   Player002") +
                                  std::string(" is Running, Channels: 1, Offset: 0, filename: ") +
                                  (type == kRec ? rec : play) + ", file progress: %#\r\n");
        }
    }
    EXPECT_TRUE(Shaped(Printed(kPlay, eCmdHello, 1, "*", table), table));

    const std::string header = "\r\n***** Slot # Debug Info *****\r\nType: ";
    const std::string jack = "Jack Details: Rate 48000, buffer sz 1024\r\n";
    const std::string footer = "*****************************\r\n\r\n";
    const std::string recDisplay =
                       header + "Recorder, State: Running\r\n" + jack +
                           "Port Progress 0 of 0\r\nRT Buffer Used: # of # Frames\r\n"
                           "SRC Buffer Used: # of # Frames\r\nSRC Ratio: 1.000000\r\n"
                           "File rolling: false, max len frames: 1440000 (0x15f900)\r\nFiletype: Interleaved\r\n"
                           "File Progress # of 1440000\r\n"
                           "File info: \n\tchannels: 1 \n\ttot frames: # \n\trate: 48000 \n\tseekable: #\r\n"
                           "Primary Filename: " +
                           rec + " \r\nSecondary Filename: \r\n" + footer;
    EXPECT_TRUE(Shaped(Printed(kRec, eCmdQueryStatus, 1, "\r\n***", recDisplay), recDisplay));
    const std::string playDisplay =
                       header + "Player, State: Running\r\n" + jack +
                           "Port Progress # of 432000\r\nFile Handler Internals\r\n" + std::string(35, '~') +
                           "\r\nNum Channels: 1\r\nMode: Manual Files\r\n  Next Stage Index: 1\r\n"
                           "     Reading Index: 0\r\nPort Playing Index: 0\r\nNext Completion Ix: 0\r\n"
                           "\t[0]:[00]:" +
                           play +
                           " \r\n\t\tChans: 1, rate: 48000, len(frames): 432000\r\n"
                           "\t\tRT Buffer Used: # of # Frames\r\n\t\tSRC Buffer Used: # of # Frames\r\n"
                           "\t\tSRC Ratio: 1.000000\r\n\t\tFile Progress #/432000 (#%)\r\n"
                           "\t[1]:[00]: \r\n\t[2]:[00]: \r\n\t[3]:[00]: \r\n\t[4]:[00]: \r\n" +
                           footer;
    EXPECT_TRUE(Shaped(Printed(kPlay, eCmdQueryStatus, 2, "\r\n***", playDisplay), playDisplay));
}
