// Modules on a shared 8 + 8 port JACK server, driven over the socket: slots,
// argument checks, JACK client names, the base state machine, displays, and
// teardown without leftovers. Creation without a server, port runs, -nc and
// failed creations are in modules_jack_test.cpp.
#include <cstdio>
#include <cstring>
#include <string>

#include "harness/jack_probe.h"
#include "harness/server_fixture.h"

namespace {

constexpr enumZorPlayType kRec = eZorPlayRecorder;
constexpr enumZorPlayType kPlay = eZorPlayPlayer;

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
    int Create(enumZorPlayType type, int slot, int channels, int offset)
    {
        return m_Client.Create(type, slot, channels, offset);
    }
    int Cmd(enumZorPlayType type, enumZorPlayCmd cmd, int slot, const void* payload = nullptr, size_t len = 0)
    {
        return m_Client.Call(type, cmd, slot, payload, len);
    }
    ::testing::AssertionResult Prints(int answer, int expected, const std::string& text, size_t mark)
    {
        return AnswersAndPrints(m_Server, answer, expected, text, mark);
    }

    JackProbe m_Probe;
};

TEST_F(ModuleEngine, EverySlotOfBothKindsIsCreatedAndDeleted)
{
    for (int slot = 0; slot < kMaxModuleSlots; ++slot) {
        ASSERT_EQ(Create(kPlay, slot, 1, slot), eResultSuccess) << slot;
        ASSERT_EQ(Create(kRec, slot, 1, slot), eResultSuccess) << slot;
    }
    for (int slot = 0; slot < kMaxModuleSlots; ++slot) {
        EXPECT_TRUE(m_Probe.HasClient(ClientName(kPlay, slot))) << slot;
        EXPECT_TRUE(m_Probe.HasClient(ClientName(kRec, slot))) << slot;
    }

    size_t mark = m_Server.OutputSize();
    EXPECT_TRUE(Prints(Create(kPlay, 3, 0, -1), eResultSlotOccupied, "Slot 3 is occupied.\r\n", mark))
        << "the slot is checked before the channels";

    // Deleting all players leaves the recorders; deleting one recorder
    // empties just its slot.
    EXPECT_EQ(Cmd(kPlay, eCmdDeleteAll, 0), eResultSuccess);
    EXPECT_EQ(Cmd(kPlay, eCmdDeleteAll, 0), eResultSuccess) << "also with no players left";
    EXPECT_EQ(Cmd(kRec, eCmdDelete, 5), eResultSuccess);
    mark = m_Server.OutputSize();
    EXPECT_TRUE(Prints(Cmd(kRec, eCmdDelete, 5), eResultSlotEmpty, "Slot 5 is empty.\r\n", mark));
    mark = m_Server.OutputSize();
    EXPECT_TRUE(Prints(Cmd(kPlay, eCmdStart, 2), eResultSlotEmpty, "Slot 2 is empty.\r\n", mark));
    for (int slot = 0; slot < kMaxModuleSlots; ++slot) {
        EXPECT_FALSE(m_Probe.HasClient(ClientName(kPlay, slot))) << slot;
        EXPECT_EQ(m_Probe.HasClient(ClientName(kRec, slot)), slot != 5) << slot;
    }
    EXPECT_EQ(Cmd(kRec, eCmdDeleteAll, 0), eResultSuccess);
    EXPECT_TRUE(WaitUntil([&] { return !m_Probe.HasClient(ClientName(kRec, 0)); }, 5000));
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
    for (const Case& c : cases) {
        for (enumZorPlayType type : {kRec, kPlay}) {
            const size_t mark = m_Server.OutputSize();
            EXPECT_TRUE(Prints(Create(type, 4, c.channels, c.offset), c.result, c.line, mark));
        }
    }
    // The header check stands before the manager's: a slot of 8 or a type of
    // 2 never reaches it.
    size_t mark = m_Server.OutputSize();
    EXPECT_TRUE(Prints(Create(kRec, 8, 1, 0), eResultBadIndex,
                       "Message fails validation: Module index out of bounds\r\n", mark));
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
        size_t mark = m_Server.OutputSize();
        EXPECT_TRUE(Prints(Cmd(type, eCmdStart, 0), eResultNoFile, "Module can't start - needs file!\r\n", mark));
        EXPECT_EQ(Cmd(type, eCmdStop, 0), eResultNotRunning);
        mark = m_Server.OutputSize();
        EXPECT_TRUE(Prints(Cmd(type, eCmdPause, 0), eResultNotRunning,
                           "Module not in state that can toggle pause\r\n", mark));
    }

    // Player commands sent to a recorder, and the record set-up sent to a
    // player, are answered by the module as the wrong kind.
    structSetupPlayFile play{};
    structSetupPlaylist list{};
    structSkipInPlaylist skip{};
    structSeekOperation seek{};
    EXPECT_EQ(Cmd(kRec, eCmdFastForward, 0), eResultWrongModuleType);
    EXPECT_EQ(Cmd(kRec, eCmdRewind, 0), eResultWrongModuleType);
    EXPECT_EQ(Cmd(kRec, eCmdSeek, 0, &seek, sizeof(seek)), eResultWrongModuleType);
    EXPECT_EQ(Cmd(kRec, eCmdSetupPlaylist, 0, &list, sizeof(list)), eResultWrongModuleType);
    EXPECT_EQ(Cmd(kRec, eCmdSkipInPlaylist, 0, &skip, sizeof(skip)), eResultWrongModuleType);
    EXPECT_EQ(Cmd(kRec, eCmdSetupPlayFile, 0, &play, sizeof(play)), eResultWrongModuleType);
    structSetupFile record{};
    EXPECT_EQ(Cmd(kPlay, eCmdSetupFile, 0, &record, sizeof(record)), eResultWrongModuleType);
    EXPECT_EQ(Cmd(kPlay, eCmdRewind, 0), eResultNotRunning) << "a player rewinds only while playing";

    // Query status: the long display between its header and footer, and for
    // an empty slot the slot line.
    size_t mark = m_Server.OutputSize();
    EXPECT_TRUE(Prints(Cmd(kRec, eCmdQueryStatus, 0), eResultSuccess,
                       "\r\n***** Slot 0 Debug Info *****\r\nType: Recorder, State: Idle\r\n"
                       "Jack Details: Rate 48000, buffer sz 1024\r\nPort Progress 0 of 0\r\n",
                       mark));
    EXPECT_TRUE(Prints(0, 0, "*****************************\r\n\r\n", mark));
    mark = m_Server.OutputSize();
    EXPECT_TRUE(Prints(Cmd(kPlay, eCmdQueryStatus, 4), eResultSuccess,
                       "\r\n***** Slot 4 Debug Info *****\r\nSlot 4 is empty.\r\n*****************************\r\n\r\n",
                       mark));
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
        ASSERT_EQ(Create(type, i % 7, 2, i % 7), eResultSuccess) << "cycle " << i;
        ASSERT_EQ(Cmd(type, eCmdDelete, i % 7), eResultSuccess) << "cycle " << i;
    }
    EXPECT_TRUE(WaitUntil([&] { return ThreadCount(pid) == threads; }, 5000))
        << ThreadCount(pid) << " threads, " << threads << " before";
    EXPECT_EQ(DescriptorCount(pid), fds);

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
