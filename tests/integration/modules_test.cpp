// Modules driven over the socket: slots, argument checks, states, JACK clients,
// ports and connections, teardown and failed creations without leftovers.
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>

#include "harness/server_fixture.h"

namespace {

constexpr enumZorPlayType kRec = eZorPlayRecorder;
constexpr enumZorPlayType kPlay = eZorPlayPlayer;
using Names = std::vector<std::string>;
const char kModulePorts[] = "^(Player|Recorder)[0-9]"; // the ports of the modules' JACK clients

class Modules : public ServerTest {
protected:
    JackServer m_Jack; // for servers of other shapes
};

} // namespace

// Every slot of both kinds; argument checks in their order with their lines; deletes of one, of all of a kind and of
// an empty slot; commands a module refuses in its state or kind; the displays of a module and an empty slot.
TEST_F(Modules, SlotsArgumentsStatesAndCyclesWithoutLeftovers)
{
    const struct { int slot, channels, offset, result; const char* line; } cases[] = {
        {4, 0, -1, eResultBadChannels, "Channels param 0 < 1\r\n"},
        {4, 9, -1, eResultBadOffset, "Offset param -1 < 0\r\n"},
        {4, 9, 0, eResultBadChannels, "Channels param 9 > 8\r\n"},
        {4, 1, 9, eResultBadOffset, "Offset param 9 > 8\r\n"},
    };
    for (const auto& c : cases)
        for (enumZorPlayType type : {kRec, kPlay})
            EXPECT_TRUE(Prints([&] { return Create(type, c.slot, c.channels, c.offset); }, c.result, c.line));
    for (int slot = 0; slot < kMaxModuleSlots; ++slot)
        ASSERT_EQ(Create(kPlay, slot, 1, slot) + Create(kRec, slot, 1, slot), eResultSuccess) << slot;
    EXPECT_EQ(JackPorts(JackName(), kModulePorts).size(), 16u) << "one client with one port each";
    EXPECT_TRUE(Prints([&] { return Create(kPlay, 3, 0, -1); }, eResultSlotOccupied, "Slot 3 is occupied.\r\n"));
    EXPECT_EQ(Cmd(kPlay, eCmdDeleteAll, 0) + Cmd(kPlay, eCmdDeleteAll, 0), eResultSuccess) << "also with none left";
    EXPECT_EQ(Cmd(kRec, eCmdDelete, 5), eResultSuccess);
    EXPECT_TRUE(Prints([&] { return Cmd(kRec, eCmdDelete, 5); }, eResultSlotEmpty, "Slot 5 is empty.\r\n"));
    EXPECT_TRUE(Prints([&] { return Cmd(kPlay, eCmdStart, 2); }, eResultSlotEmpty, "Slot 2 is empty.\r\n"));
    EXPECT_EQ(JackPorts(JackName(), kModulePorts).size(), 7u);
    EXPECT_EQ(Cmd(kRec, eCmdDeleteAll, 0), eResultSuccess);

    ASSERT_EQ(Create(kRec, 0, 2, 0) + Create(kPlay, 0, 2, 0), eResultSuccess);
    for (enumZorPlayType type : {kRec, kPlay}) {
        EXPECT_TRUE(Prints([&] { return Cmd(type, eCmdStart, 0); }, eResultNoFile, "Module can't start - needs file!\r\n"));
        EXPECT_EQ(Cmd(type, eCmdStop, 0), eResultNotRunning);
        EXPECT_TRUE(Prints([&] { return Cmd(type, eCmdPause, 0); }, eResultNotRunning,
                           "Module not in state that can toggle pause\r\n"));
    }
    // Commands of the other kind, with zero payloads of each command's record size.
    static const char zeros[sizeof(structSetupFile)] = {};
    const struct { enumZorPlayType type; enumZorPlayCmd cmd; size_t len; } wrongKind[] = {
        {kRec, eCmdFastForward, 0}, {kRec, eCmdRewind, 0}, {kRec, eCmdSeek, sizeof(structSeekOperation)},
        {kRec, eCmdSetupPlaylist, sizeof(structSetupPlaylist)}, {kRec, eCmdSkipInPlaylist, sizeof(structSkipInPlaylist)},
        {kRec, eCmdSetupPlayFile, sizeof(structSetupPlayFile)}, {kPlay, eCmdSetupFile, sizeof(structSetupFile)}};
    for (const auto& w : wrongKind)
        EXPECT_EQ(m_Client.Call(w.type, w.cmd, 0, zeros, w.len), eResultWrongModuleType) << "command " << w.cmd;
    EXPECT_TRUE(Prints([&] { return Cmd(kRec, eCmdQueryStatus, 0); }, eResultSuccess,
                       "\r\n***** Slot 0 Debug Info *****\r\nType: Recorder, State: Idle\r\n"
                       "Jack Details: Rate 48000, buffer sz 1024\r\nPort Progress 0 of 0\r\n"));
    EXPECT_TRUE(Prints([&] { return Cmd(kPlay, eCmdQueryStatus, 4); }, eResultSuccess,
                       "\r\n***** Slot 4 Debug Info *****\r\nSlot 4 is empty.\r\n*****************************\r\n\r\n"));

    // Many create/delete cycles beside those two, and creations that fail at their last step (the connection) or at a
    // queue, leave no thread, descriptor, client or queue (libjack's own came with the two).
    const auto resources = [&] {
        const std::string proc = "/proc/" + std::to_string(m_Server.Pid());
        return std::vector<int>{CountEntries(proc + "/task"), CountEntries(proc + "/fd")};
    };
    const std::vector<int> before = resources();
    for (int i = 0; i < 200; ++i) {
        const enumZorPlayType type = i % 2 ? kPlay : kRec;
        ASSERT_EQ(Create(type, 1 + i % 7, 2, i % 7) + Cmd(type, eCmdDelete, 1 + i % 7), eResultSuccess) << "cycle " << i;
    }
    for (int i = 0; i < 10; ++i) // offset 8 passes the checks and fails at the connection
        ASSERT_EQ(Create(i % 2 ? kPlay : kRec, 1 + i % 7, 1, 8), eResultNoConnect) << "attempt " << i;
    // A queue depth limit below 200 fails at the internal queue, with two queues open already.
    const std::string saved = ReadFile("/proc/sys/fs/mqueue/msg_max");
    WriteFile("/proc/sys/fs/mqueue/msg_max", "10");
    EXPECT_TRUE(Prints([&] { return Create(kPlay, 4, 2, 0); }, eResultNoMsgQueue,
                       "Couldn't create queue named /MQInternalPlayer-4: err: 22 Invalid argument\r\n"
                       "Is /proc/sys/fs/mqueue/msg_max large enough?\r\n"));
    WriteFile("/proc/sys/fs/mqueue/msg_max", saved);
    EXPECT_TRUE(WaitUntil([&] { return resources() == before; }, 5000))
        << resources()[0] << " threads, " << resources()[1] << " descriptors";
    // Queues are unlinked once open: while Recorder000 lives and answers, none of its names is in the system either.
    EXPECT_EQ(Cmd(kRec, eCmdStop, 0), eResultNotRunning);
    if (CountEntries("/dev/mqueue") < 0 && mkdir("/dev/mqueue", 0755) == 0)
        mount("none", "/dev/mqueue", "mqueue", 0, nullptr);
    Names queues;
    ASSERT_GE(CountEntries("/dev/mqueue", &queues), 0);
    for (const std::string& q : queues)
        EXPECT_EQ(q.find("MQ"), std::string::npos) << "queue left in the system: " << q;
}

// Each kind counts the system ports of its own direction: runs from an offset, overlapping runs, runs past the end;
// a deleted module's client is gone by the answer. No JACK server: creation answers 14 until one is up. Without
// system ports modules are refused, unless -nc. A port table too small for a module: its registered ports go with
// its client.
TEST_F(Modules, JackServersOfEveryShape)
{
    const char portCount[] = "Port number exceeds available JACK ports. Reduce num channels or first port number (offset).\n";
    ASSERT_EQ(m_Server.Stop(), 0);
    ASSERT_TRUE(m_Jack.Start(2, 4, JackServer::UniqueName()));
    StartServer({}, m_Jack.Name());
    const Names playback = JackPorts(m_Jack.Name(), "system", JackPortIsInput);
    const Names capture = JackPorts(m_Jack.Name(), "system", JackPortIsOutput);
    ASSERT_TRUE(playback.size() == 4 && capture.size() == 2);
    const auto connections = [&](const std::string& port) { return JackConnections(m_Jack.Name(), port); };
    ASSERT_EQ(Create(kPlay, 0, 2, 1) + Create(kPlay, 1, 2, 2) + Create(kRec, 0, 2, 0), eResultSuccess);
    EXPECT_EQ(connections("Player000:output1"), Names{playback[1]});
    Names shared = connections(playback[2]); // where the two players' runs overlap
    std::sort(shared.begin(), shared.end());
    EXPECT_EQ(shared, (Names{"Player000:output2", "Player001:output1"}));
    EXPECT_EQ(connections("Player001:output2"), Names{playback[3]});
    EXPECT_EQ(connections("Recorder000:input1"), Names{capture[0]});
    EXPECT_EQ(connections("Recorder000:input2"), Names{capture[1]});
    EXPECT_TRUE(Prints([&] { return Create(kRec, 1, 1, 2); }, eResultNoConnect, portCount));
    EXPECT_TRUE(Prints([&] { return Create(kPlay, 2, 1, 4); }, eResultNoConnect, portCount));
    ASSERT_EQ(Cmd(kPlay, eCmdDelete, 0) + Create(kPlay, 0, 1, 3), eResultSuccess);
    EXPECT_EQ(JackPorts(m_Jack.Name(), "^Player000"), Names{"Player000:output1"});
    EXPECT_EQ(connections("Player000:output1"), Names{playback[3]});

    // No JACK server at first, then one without system ports.
    const std::string name = JackServer::UniqueName();
    ASSERT_EQ(m_Server.Stop(), 0);
    StartServer({}, name);
    EXPECT_TRUE(Prints([&] { return Create(kPlay, 0, 1, 0); }, eResultNoJack, "OpenJack: Couldn't open Jack client, status: 0x"));
    ASSERT_TRUE(m_Jack.Start(0, 0, name));
    for (enumZorPlayType type : {kPlay, kRec})
        EXPECT_TRUE(Prints([&] { return Create(type, 0, 1, 0); }, eResultNoSystemPorts, "No system ports found at init.\r\n"));
    EXPECT_TRUE(WaitUntil([&] { return JackPorts(m_Jack.Name(), kModulePorts).empty(); }, 5000));
    ASSERT_EQ(m_Server.Stop(), 0);
    StartServer({"-nc"}, m_Jack.Name());
    ASSERT_EQ(Create(kPlay, 0, 2, 8) + Create(kRec, 7, 1, 0), eResultSuccess);
    EXPECT_EQ(JackPorts(m_Jack.Name(), "^(Player000|Recorder007):"),
              (Names{"Player000:output1", "Player000:output2", "Recorder007:input1"}));
    for (const std::string& port : JackPorts(m_Jack.Name(), "^(Player000|Recorder007):"))
        EXPECT_EQ(connections(port), Names{}) << port;
    EXPECT_TRUE(Prints([&] { return Cmd(kRec, eCmdHello, 1); }, eResultSuccess,
                       "\t[7]:  Recorder007 is Idle, Channels: 1, Offset: 0, filename: , file progress: %0\r\n"
                       "Players:\r\n\t[0]:    Player000 is Idle, Channels: 2, Offset: 8, filename: , file progress: %0\r\n"));

    ASSERT_EQ(m_Server.Stop(), 0);
    ASSERT_TRUE(m_Jack.Start(8, 8, JackServer::UniqueName(), 21)); // 20 of 21 entries handed out: 16 system ports leave four
    StartServer({}, m_Jack.Name());
    EXPECT_TRUE(Prints([&] { return Create(kPlay, 0, 8, 0); }, eResultNoClientPorts,
                       "Player000: Can't create client port #4, named output5\r\n"
                       "May need to increase the maximum number of ports the JACK server can manage.\n"));
    EXPECT_TRUE(WaitUntil([&] { return JackPorts(m_Jack.Name(), kModulePorts).empty(); }, 5000));
    ASSERT_EQ(Create(kRec, 0, 4, 0), eResultSuccess); // the failed module's four ports were freed
}
