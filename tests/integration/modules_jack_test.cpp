// Modules against JACK servers of their own: none yet, other shapes than the
// usual 8 + 8 ports, a capped port table. Port runs counted per direction,
// -nc, and what failed modules leave behind.
#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "harness/jack_probe.h"
#include "harness/server_fixture.h"

namespace {

constexpr enumZorPlayType kRec = eZorPlayRecorder;
constexpr enumZorPlayType kPlay = eZorPlayPlayer;

const char kPortCountLine[] =
    "Port number exceeds available JACK ports. Reduce num channels or first port number (offset).\n";

using Names = std::vector<std::string>;

Names Sorted(Names names)
{
    std::sort(names.begin(), names.end());
    return names;
}

// The system's limit on messages per queue: Depth() reads it, Depth(v)
// writes it and tells whether it took.
unsigned Depth()
{
    unsigned v = 0;
    std::ifstream("/proc/sys/fs/mqueue/msg_max") >> v;
    return v;
}
bool Depth(unsigned v)
{
    std::ofstream("/proc/sys/fs/mqueue/msg_max") << v;
    return Depth() == v;
}

// Each test brings up its own dummy server with the port counts it needs,
// and zor_play against it.
class ModulesOnTheirOwnServer : public ServerTest {
protected:
    static void SetUpTestSuite() {}
    static void TearDownTestSuite() {}
    void SetUp() override { ASSERT_TRUE(m_Client.Open()); }

    void StartJack(unsigned capturePorts, unsigned playbackPorts, unsigned portMax = 0)
    {
        ASSERT_TRUE(m_Jack.Start(capturePorts, playbackPorts, JackServer::UniqueName(), portMax))
            << "could not start a dummy jackd";
        ASSERT_TRUE(m_Probe.Open(m_Jack.Name()));
        StartServer({}, m_Jack.Name());
    }
    bool NoModuleClients() const
    {
        return WaitUntil([&] { return m_Probe.Ports("^(Player|Recorder)[0-9]").empty(); }, 5000);
    }

    JackServer m_Jack;
    JackProbe m_Probe;
};

TEST_F(ModulesOnTheirOwnServer, EachKindCountsTheSystemPortsOfItsDirection)
{
    StartJack(2, 4);
    const Names playback = m_Probe.Ports("system", JackPortIsInput);
    const Names capture = m_Probe.Ports("system", JackPortIsOutput);
    ASSERT_EQ(playback.size(), 4u);
    ASSERT_EQ(capture.size(), 2u);

    // Two channels from offset 1: the second and third playback ports.
    ASSERT_EQ(Create(kPlay, 0, 2, 1), eResultSuccess);
    EXPECT_EQ(m_Probe.Connections("Player000:output1"), Names{playback[1]});
    EXPECT_EQ(m_Probe.Connections("Player000:output2"), Names{playback[2]});
    // A run ending on the last port fits, and overlapping runs share a port.
    ASSERT_EQ(Create(kPlay, 1, 2, 2), eResultSuccess);
    EXPECT_EQ(Sorted(m_Probe.Connections(playback[2])), Sorted({"Player000:output2", "Player001:output1"}));
    EXPECT_EQ(m_Probe.Connections("Player001:output2"), Names{playback[3]});

    // Recorders go by the two capture ports, not by the four playback ones.
    ASSERT_EQ(Create(kRec, 0, 2, 0), eResultSuccess);
    EXPECT_EQ(m_Probe.Connections("Recorder000:input1"), Names{capture[0]});
    EXPECT_EQ(m_Probe.Connections("Recorder000:input2"), Names{capture[1]});
    EXPECT_TRUE(Prints([&] { return Create(kRec, 1, 1, 2); }, eResultNoConnect, kPortCountLine));
    EXPECT_TRUE(Prints([&] { return Create(kPlay, 2, 1, 4); }, eResultNoConnect, kPortCountLine));

    // A deleted module's client is gone by the answer: the slot takes a new
    // module under the same client name at once.
    ASSERT_EQ(Cmd(kPlay, eCmdDelete, 0), eResultSuccess);
    ASSERT_EQ(Create(kPlay, 0, 1, 3), eResultSuccess);
    EXPECT_EQ(m_Probe.Ports("^Player000"), Names{"Player000:output1"});
    EXPECT_EQ(m_Probe.Connections("Player000:output1"), Names{playback[3]});
    EXPECT_EQ(m_Probe.Connections(playback[1]), Names{});
}

TEST_F(ModulesOnTheirOwnServer, AServerWithoutSystemPortsTakesModulesOnlyUnconnected)
{
    StartJack(0, 0);
    for (enumZorPlayType type : {kPlay, kRec}) {
        EXPECT_TRUE(Prints([&] { return Create(type, 0, 1, 0); }, eResultNoSystemPorts,
                           "No system ports found at init.\r\n"));
        EXPECT_EQ(Cmd(type, eCmdStart, 0), eResultSlotEmpty);
    }
    EXPECT_TRUE(NoModuleClients());
    EXPECT_EQ(m_Server.Stop(), 0) << m_Server.Output();

    // With -nc no system port is looked up: both kinds reach Idle, their
    // ports exist and nothing is connected to them.
    StartServer({"-nc"}, m_Jack.Name());
    ASSERT_EQ(Create(kPlay, 0, 2, 8), eResultSuccess);
    ASSERT_EQ(Create(kRec, 7, 1, 0), eResultSuccess);
    EXPECT_EQ(m_Probe.Ports("^Player000:"), (Names{"Player000:output1", "Player000:output2"}));
    EXPECT_EQ(m_Probe.Ports("^Recorder007:"), Names{"Recorder007:input1"});
    for (const std::string& port : m_Probe.Ports("^(Player000|Recorder007):"))
        EXPECT_EQ(m_Probe.Connections(port), Names{}) << port;
    EXPECT_TRUE(Prints([&] { return Cmd(kRec, eCmdHello, 1); }, eResultSuccess,
                       "\t[7]:  Recorder007 is Idle, Channels: 1, Offset: 0, filename: , file progress: %0\r\n"
                       "Players:\r\n"
                       "\t[0]:    Player000 is Idle, Channels: 2, Offset: 8, filename: , file progress: %0\r\n"));
}

TEST_F(ModulesOnTheirOwnServer, WithoutAJackServerCreateAnswers14UntilOneIsUp)
{
    const std::string name = JackServer::UniqueName();
    StartServer({}, name);
    EXPECT_TRUE(Prints([&] { return Create(kPlay, 0, 1, 0); }, eResultNoJack,
                       "OpenJack: Couldn't open Jack client, status: 0x"));
    EXPECT_EQ(Cmd(kPlay, eCmdStart, 0), eResultSlotEmpty);

    ASSERT_TRUE(m_Jack.Start(8, 8, name));
    EXPECT_EQ(Create(kPlay, 0, 1, 0), eResultSuccess);
}

TEST_F(ModulesOnTheirOwnServer, PortsRegisteredBeforeARefusalGoWithTheClient)
{
    // A port table of 21 entries, of which the server hands out 20: the 16
    // system ports leave four for modules.
    StartJack(8, 8, 21);
    EXPECT_TRUE(Prints([&] { return Create(kPlay, 0, 8, 0); }, eResultNoClientPorts,
                       "Player000: Can't create client port #4, named output5\r\n"
                       "May need to increase the maximum number of ports the JACK server can manage.\n"));
    EXPECT_TRUE(NoModuleClients());
    // Closing the failed module's client freed its four ports for the next one.
    ASSERT_EQ(Create(kRec, 0, 4, 0), eResultSuccess);
    EXPECT_EQ(m_Probe.Ports("^Recorder000:").size(), 4u);
}

TEST_F(ModulesOnTheirOwnServer, FailedCreationsLeaveNoThreadDescriptorClientOrQueue)
{
    StartJack(8, 8);
    // A first module brings in what the JACK library keeps for the process.
    ASSERT_EQ(Create(kRec, 0, 1, 0), eResultSuccess);
    ASSERT_EQ(Cmd(kRec, eCmdDelete, 0), eResultSuccess);
    const pid_t pid = m_Server.Pid();
    const int threads = ThreadCount(pid), fds = DescriptorCount(pid);
    auto nothingLeft = [&] {
        return WaitUntil([&] { return ThreadCount(pid) == threads && DescriptorCount(pid) == fds; }, 5000) &&
               NoModuleClients();
    };

    // Offset 8 fails at the last step, with the worker running and the
    // client active.
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(Create(i % 2 ? kPlay : kRec, i % kMaxModuleSlots, 1, 8), eResultNoConnect) << "attempt " << i;
    EXPECT_TRUE(nothingLeft()) << ThreadCount(pid) << " threads, " << DescriptorCount(pid) << " descriptors";

    // A queue depth limit below 200 fails at the internal queue, with two
    // queues open already.
    const unsigned saved = Depth();
    if (saved == 0 || !Depth(10))
        GTEST_SKIP() << "/proc/sys/fs/mqueue/msg_max cannot be lowered here";
    const int answer = Create(kPlay, 4, 2, 0);
    ASSERT_TRUE(Depth(saved)) << "could not put back msg_max " << saved;
    EXPECT_EQ(answer, eResultNoMsgQueue);
    EXPECT_TRUE(m_Server.WaitForOutput("Couldn't create queue named /MQInternalPlayer-4: err: 22 Invalid argument\r\n"
                                       "Is /proc/sys/fs/mqueue/msg_max large enough?\r\n",
                                       5000))
        << m_Server.Output();
    EXPECT_TRUE(nothingLeft()) << ThreadCount(pid) << " threads, " << DescriptorCount(pid) << " descriptors";
    EXPECT_EQ(Cmd(kPlay, eCmdStart, 4), eResultSlotEmpty);

    Names queues;
    if (!ListMessageQueues(queues))
        GTEST_SKIP() << "the message-queue filesystem cannot be mounted here, so queue names cannot be listed";
    for (const std::string& name : queues)
        EXPECT_EQ(name.find("MQ"), std::string::npos) << "queue left in the system: " << name;
}

} // namespace
