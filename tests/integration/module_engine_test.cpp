// Modules on a shared 8 + 8 port JACK server, driven over the socket: slots,
// argument checks, JACK client names, the base state machine, displays, and
// teardown without leftovers. Creation without a server, port runs, -nc and
// failed creations are in modules_jack_test.cpp.
#include <cstdio>
#include <set>
#include <string>

#include "harness/jack_probe.h"
#include "harness/server_fixture.h"

namespace {

constexpr enumZorPlayType kRec = eZorPlayRecorder;
constexpr enumZorPlayType kPlay = eZorPlayPlayer;

using Names = std::set<std::string>;

std::string ClientName(enumZorPlayType type, int slot)
{
    char name[32];
    snprintf(name, sizeof(name), "%s%03d", type == kPlay ? "Player" : "Recorder", slot);
    return name;
}

class ModuleEngine : public ServerTest {
protected:
    void SetUp() override
    {
        ServerTest::SetUp();
        ASSERT_TRUE(m_Probe.Open(s_pJack->Name()));
    }
    // The modules' JACK clients, by the names their ports carry.
    Names Clients() const
    {
        Names clients;
        for (const std::string& port : m_Probe.Ports("^(Player|Recorder)[0-9]"))
            clients.insert(port.substr(0, port.find(':')));
        return clients;
    }

    JackProbe m_Probe;
};

TEST_F(ModuleEngine, EverySlotOfBothKindsIsCreatedAndDeleted)
{
    Names all, recorders;
    for (int slot = 0; slot < kMaxModuleSlots; ++slot) {
        ASSERT_EQ(Create(kPlay, slot, 1, slot), eResultSuccess) << slot;
        ASSERT_EQ(Create(kRec, slot, 1, slot), eResultSuccess) << slot;
        all.insert({ClientName(kPlay, slot), ClientName(kRec, slot)});
        if (slot != 5)
            recorders.insert(ClientName(kRec, slot));
    }
    EXPECT_EQ(Clients(), all);
    EXPECT_TRUE(Prints([&] { return Create(kPlay, 3, 0, -1); }, eResultSlotOccupied, "Slot 3 is occupied.\r\n"))
        << "the slot is checked before the channels";

    // Deleting all players leaves the recorders; deleting one recorder
    // empties just its slot.
    EXPECT_EQ(Cmd(kPlay, eCmdDeleteAll, 0), eResultSuccess);
    EXPECT_EQ(Cmd(kPlay, eCmdDeleteAll, 0), eResultSuccess) << "also with no players left";
    EXPECT_EQ(Cmd(kRec, eCmdDelete, 5), eResultSuccess);
    EXPECT_TRUE(Prints([&] { return Cmd(kRec, eCmdDelete, 5); }, eResultSlotEmpty, "Slot 5 is empty.\r\n"));
    EXPECT_TRUE(Prints([&] { return Cmd(kPlay, eCmdStart, 2); }, eResultSlotEmpty, "Slot 2 is empty.\r\n"));
    EXPECT_EQ(Clients(), recorders);
    EXPECT_EQ(Cmd(kRec, eCmdDeleteAll, 0), eResultSuccess);
    EXPECT_EQ(Clients(), Names{});
}

TEST_F(ModuleEngine, CreateChecksItsArgumentsInOrder)
{
    struct Case {
        int channels, offset, result;
        const char* line;
    } cases[] = {
        {0, -1, eResultBadChannels, "Channels param 0 < 1\r\n"},
        {9, -1, eResultBadOffset, "Offset param -1 < 0\r\n"},
        {9, 0, eResultBadChannels, "Channels param 9 > 8\r\n"},
        {1, 9, eResultBadOffset, "Offset param 9 > 8\r\n"},
    };
    for (const Case& c : cases)
        for (enumZorPlayType type : {kRec, kPlay})
            EXPECT_TRUE(Prints([&] { return Create(type, 4, c.channels, c.offset); }, c.result, c.line));
    // The header check stands before the manager's: a slot of 8 never reaches it.
    EXPECT_TRUE(Prints([&] { return Create(kRec, 8, 1, 0); }, eResultBadIndex,
                       "Message fails validation: Module index out of bounds\r\n"));
    // Recorder 0 and player 0 live side by side; offset 8 passes the
    // manager's check and fails only at the connection.
    EXPECT_EQ(Create(kRec, 0, 8, 0), eResultSuccess);
    EXPECT_EQ(Create(kPlay, 0, 8, 0), eResultSuccess);
    EXPECT_EQ(Create(kPlay, 1, 1, 8), eResultNoConnect);
}

TEST_F(ModuleEngine, TheBaseStateMachineAnswersOverTheSocket)
{
    ASSERT_EQ(Create(kRec, 0, 2, 0), eResultSuccess);
    ASSERT_EQ(Create(kPlay, 0, 2, 0), eResultSuccess);
    for (enumZorPlayType type : {kRec, kPlay}) {
        EXPECT_TRUE(Prints([&] { return Cmd(type, eCmdStart, 0); }, eResultNoFile,
                           "Module can't start - needs file!\r\n"));
        EXPECT_EQ(Cmd(type, eCmdStop, 0), eResultNotRunning);
        EXPECT_TRUE(Prints([&] { return Cmd(type, eCmdPause, 0); }, eResultNotRunning,
                           "Module not in state that can toggle pause\r\n"));
    }

    // Player commands sent to a recorder, and the record set-up sent to a
    // player, are answered by the module as the wrong kind (zero payloads
    // of each command's record size).
    static const char zeros[sizeof(structSetupFile)] = {};
    const struct {
        enumZorPlayType type;
        enumZorPlayCmd cmd;
        size_t len;
    } wrongKind[] = {
        {kRec, eCmdFastForward, 0},
        {kRec, eCmdRewind, 0},
        {kRec, eCmdSeek, sizeof(structSeekOperation)},
        {kRec, eCmdSetupPlaylist, sizeof(structSetupPlaylist)},
        {kRec, eCmdSkipInPlaylist, sizeof(structSkipInPlaylist)},
        {kRec, eCmdSetupPlayFile, sizeof(structSetupPlayFile)},
        {kPlay, eCmdSetupFile, sizeof(structSetupFile)},
    };
    for (const auto& w : wrongKind)
        EXPECT_EQ(Cmd(w.type, w.cmd, 0, zeros, w.len), eResultWrongModuleType) << "command " << w.cmd;
    EXPECT_EQ(Cmd(kPlay, eCmdRewind, 0), eResultNotRunning) << "a player rewinds only while playing";

    // Query status: the long display between its header and footer, and for
    // an empty slot the slot line.
    EXPECT_TRUE(Prints([&] { return Cmd(kRec, eCmdQueryStatus, 0); }, eResultSuccess,
                       "\r\n***** Slot 0 Debug Info *****\r\nType: Recorder, State: Idle\r\n"
                       "Jack Details: Rate 48000, buffer sz 1024\r\nPort Progress 0 of 0\r\n"));
    EXPECT_TRUE(m_Server.WaitForOutput("*****************************\r\n\r\n", 5000));
    EXPECT_TRUE(Prints([&] { return Cmd(kPlay, eCmdQueryStatus, 4); }, eResultSuccess,
                       "\r\n***** Slot 4 Debug Info *****\r\nSlot 4 is empty.\r\n*****************************\r\n\r\n"));
}

TEST_F(ModuleEngine, ManyCreateDeleteCyclesLeaveNothingBehind)
{
    const pid_t pid = m_Server.Pid();
    // One module first, so that libjack's own threads and descriptors of a
    // first client are in the baseline.
    ASSERT_EQ(Create(kRec, 7, 1, 0), eResultSuccess);
    const int threads = ThreadCount(pid);
    const int fds = DescriptorCount(pid);
    for (int i = 0; i < 200; ++i) {
        const enumZorPlayType type = i % 2 ? kPlay : kRec;
        const size_t mark = m_Server.OutputSize();
        ASSERT_EQ(Create(type, i % 7, 2, i % 7), eResultSuccess) << "cycle " << i << ":\n"
                                                                 << m_Server.OutputSince(mark);
        ASSERT_EQ(Cmd(type, eCmdDelete, i % 7), eResultSuccess) << "cycle " << i;
    }
    EXPECT_TRUE(WaitUntil([&] { return ThreadCount(pid) == threads; }, 5000))
        << ThreadCount(pid) << " threads, " << threads << " before";
    EXPECT_EQ(DescriptorCount(pid), fds);

    // The queues are unlinked as soon as they are open: while Recorder007
    // lives and answers, none of its names is in the system either.
    EXPECT_EQ(Cmd(kRec, eCmdStop, 7), eResultNotRunning);
    std::vector<std::string> queues;
    if (!ListMessageQueues(queues))
        GTEST_SKIP() << "the message-queue filesystem cannot be mounted here";
    for (const std::string& q : queues)
        EXPECT_EQ(q.find("MQ"), std::string::npos) << "queue left in the system: " << q;
}

TEST_F(ModuleEngine, ExitAndInterruptWithModulesOfBothKindsTearDownCleanly)
{
    for (bool byExit : {true, false}) {
        if (!byExit)
            StartServer(ServerArgs());
        for (int slot : {1, 6}) {
            ASSERT_EQ(Create(kRec, slot, 8, 0), eResultSuccess);
            ASSERT_EQ(Create(kPlay, slot, 2, slot), eResultSuccess);
        }
        if (byExit) {
            EXPECT_EQ(Cmd(kRec, eCmdExit, 0), eResultSuccess);
            EXPECT_EQ(m_Server.WaitExit(20000), 0) << m_Server.Output();
        } else {
            EXPECT_EQ(m_Server.Stop(20000), 0) << m_Server.Output();
        }
    }
}

} // namespace
