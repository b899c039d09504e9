// Hostile requests, files and local users: no crash, no hang, no file of root's overwritten, no control or replies
// for users outside the server's user and group. The other user is uid 65534 through setpriv; those tests need root
// and run in a private /tmp, which this process enters at start.
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "harness/server_fixture.h"
#include "protocol/rp_server.h"

namespace {

// A request from an unbound socket; 0 or the errno of the send.
int SendRequest(enumZorPlayType type, enumZorPlayCmd cmd, int index)
{
    structZorPlayMsg msg = {};
    msg.nLength = sizeof(msg), msg.eType = type, msg.eCmd = cmd, msg.nIndex = index;
    msg.payload.addModule.nChannels = 2;
    const sockaddr_un to = UnixAddress(kServerSocketPath);
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    const int result = sendto(fd, &msg, sizeof(msg), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) < 0 ? errno : 0;
    close(fd);
    return result;
}

// This binary run again as the other user sends a Hello, then listens on the client path for 3 s. Exit status 0 when
// the Hello was refused with EACCES and nothing came, 1 when anything came, 2 when it could not bind, 3 when the Hello
// was not refused.
const int kOtherUserRole = [] {
    if (!getenv("ZP_OTHER_USER"))
        return 0;
    if (SendRequest(eZorPlayRecorder, eCmdHello, 0) != EACCES)
        _exit(3);
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    const sockaddr_un me = UnixAddress(kClientSocketPath);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&me), sizeof(me)) != 0)
        _exit(2);
    timeval wait = {3, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait));
    _exit(recv(fd, nullptr, 0, 0) < 0 ? 0 : 1);
}();

class Hostile : public ServerTest {
protected:
    // As root, the suite gets a /tmp, /dev/shm and message-queue space of its own.
    static void SetUpTestSuite()
    {
        s_bPrivate = geteuid() == 0 && unshare(CLONE_NEWNS | CLONE_NEWIPC) == 0 &&
                     mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                     mount("none", "/tmp", "tmpfs", 0, nullptr) == 0 && mount("none", "/dev/shm", "tmpfs", 0, nullptr) == 0;
        if (s_bPrivate)
            std::ofstream("/proc/sys/fs/mqueue/msg_max") << 256;
        ServerTest::SetUpTestSuite();
    }
    // Starts argv as uid 65534 (argv empty: this binary, in its other-user role).
    static ChildProcess& AsOtherUser(ChildProcess& other, std::vector<std::string> argv)
    {
        if (argv.empty()) { // a copy the other user can reach, wherever the build lives
            const std::string copy = "/tmp/zp_other_user";
            // The file /proc/self/exe names: an emulator cannot copy through the link itself.
            std::filesystem::copy_file(std::filesystem::read_symlink("/proc/self/exe"), copy,
                                       std::filesystem::copy_options::overwrite_existing);
            chmod(copy.c_str(), 0755);
            argv.push_back(copy);
        }
        argv.insert(argv.begin(), {"/usr/bin/setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups"});
        EXPECT_TRUE(other.Start(argv, {"ZP_OTHER_USER=1"}));
        return other;
    }
    static bool s_bPrivate;
};
bool Hostile::s_bPrivate = false;

} // namespace

TEST_F(Hostile, FailedSetupsBadFilesAndOtherUsers)
{
    ASSERT_EQ(Create(eZorPlayRecorder, 3, 2, 0) + Create(eZorPlayPlayer, 0, 2, 0), eResultSuccess);
    EXPECT_EQ(SetupRecord(3, {m_Dir + "/none/x.wav"}), eResultCantOpenFile);
    EXPECT_EQ(SetupRecord(3, {m_Dir + "/x.wav"}, 0, 0, 0, 0, 0, 1), eResultNeedPrimary); // secondary
    EXPECT_EQ(Cmd(eZorPlayRecorder, eCmdStart, 3), eResultNoFile);

    // A FIFO, a device and a WAV file at 1 Hz: each refused at once with a line (a hang fails the next request).
    const std::string fifo = m_Dir + "/fifo", slow = m_Dir + "/slow.wav";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    ASSERT_TRUE(WriteSound(slow, 2, 1, SF_FORMAT_PCM_16, 4, [](uint32_t, unsigned) { return 0.0f; }));
    const std::string isFifo = fifo + " is a FIFO, not a regular file\r\n";
    const std::tuple<std::function<int()>, int, std::string> cases[] = {
        {[&] { return SetupPlay(0, fifo); }, 29, isFifo},
        {[&] { return SetupPlaylist(0, fifo); }, 30, isFifo},
        {[&] { return SetupPlaylist(0, "/dev/zero"); }, 30, "/dev/zero is a character device, not a regular file\r\n"},
        {[&] { return SetupRecord(3, {fifo}); }, 29, isFifo},
        {[&] { return SetupPlay(0, slow); }, 29, slow + ": a rate of 1 Hz cannot be converted to 48000 Hz\r\n"},
    };
    for (const auto& [setup, result, line] : cases)
        EXPECT_TRUE(Prints(setup, result, line));

    if (!s_bPrivate)
        GTEST_SKIP() << "needs root for a second user and a private /tmp";
    // A /tmp/info planted with a link to a file of root's.
    ASSERT_EQ(m_Server.Stop(), 0);
    std::filesystem::remove_all("/tmp/info");
    WriteFile("/tmp/secret", "secret");
    ChildProcess planter, other;
    const char* plant = "mkdir /tmp/info && ln -s /tmp/secret /tmp/info/zor_play_pid";
    ASSERT_EQ(AsOtherUser(planter, {"/bin/sh", "-c", plant}).WaitExit(20000), 0);
    const mode_t mask = umask(0);
    StartServer({});
    umask(mask);
    EXPECT_TRUE(m_Server.WaitForOutput("Info directory /tmp/info not used (owned by another user)", 5000));
    EXPECT_EQ(ReadFile("/tmp/secret"), "secret");

    // Under umask 000 the socket admits the server's user and group only.
    EXPECT_EQ(std::filesystem::status(kServerSocketPath).permissions(), std::filesystem::perms(0660));

    // The other user's Hello is refused by the kernel; a client path it binds hears nothing, and requests are still
    // carried out.
    m_Client.Close();
    AsOtherUser(other, {});
    ASSERT_TRUE(WaitUntil([] { return FileExists(kClientSocketPath); }, 10000));
    EXPECT_EQ(SendRequest(eZorPlayPlayer, eCmdCreate, 0), 0);
    EXPECT_TRUE(m_Server.WaitForOutput("belongs to uid 65534, who may not control this server", 10000));
    EXPECT_EQ(other.WaitExit(20000), 0) << "1: the other user received a datagram, 3: its Hello was not refused";
    ASSERT_TRUE(m_Client.Open());
    EXPECT_EQ(Create(eZorPlayPlayer, 0, 2, 0), eResultSlotOccupied);
}
