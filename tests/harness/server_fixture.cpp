#include "harness/server_fixture.h"

#include "protocol/rp_server.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fcntl.h>
#include <fstream>
#include <mqueue.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

extern char** environ;

bool FileExists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

namespace {

// Names in a folder, or false when it cannot be read.
bool FolderEntries(const std::string& dir, std::vector<std::string>& names)
{
    std::error_code ec;
    names.clear();
    for (auto it = std::filesystem::directory_iterator(dir, ec); !ec && it != std::filesystem::directory_iterator();
         it.increment(ec))
        names.push_back(it->path().filename());
    return !ec;
}

int ProcEntryCount(pid_t pid, const char* what)
{
    std::vector<std::string> names;
    return FolderEntries("/proc/" + std::to_string(pid) + "/" + what, names) ? static_cast<int>(names.size()) : -1;
}

} // namespace

int ThreadCount(pid_t pid) { return ProcEntryCount(pid, "task"); }

int DescriptorCount(pid_t pid) { return ProcEntryCount(pid, "fd"); }

bool ListMessageQueues(std::vector<std::string>& names)
{
    // A queue of our own shows whether /dev/mqueue holds this process's queue
    // namespace; it may be unmounted, or mounted for another IPC namespace.
    const std::string probe = "zp_listing_probe_" + std::to_string(getpid());
    const mqd_t q = mq_open(("/" + probe).c_str(), O_RDONLY | O_CREAT, 0600, nullptr);
    if (q == static_cast<mqd_t>(-1))
        return false;
    auto shown = [&] {
        return FolderEntries("/dev/mqueue", names) && std::find(names.begin(), names.end(), probe) != names.end();
    };
    bool ok = shown();
    if (!ok) {
        mkdir("/dev/mqueue", 0755);
        ok = mount("none", "/dev/mqueue", "mqueue", 0, nullptr) == 0 && shown();
    }
    mq_close(q);
    mq_unlink(("/" + probe).c_str());
    names.erase(std::remove(names.begin(), names.end(), probe), names.end());
    return ok;
}

ChildProcess::~ChildProcess()
{
    CloseInput();
    if (m_Pid > 0)
        Terminate(2000);
    if (m_Reader.joinable())
        m_Reader.join();
}

bool ChildProcess::Start(const std::vector<std::string>& argv, const std::vector<std::string>& env, bool pipeInput)
{
    CloseInput();
    if (m_Reader.joinable())
        m_Reader.join();
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        m_Out.clear();
        m_Err.clear();
    }
    m_nExitStatus = -1;

    // Everything the child needs is built before fork.
    std::vector<char*> args;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::vector<char*> envp;
    for (char** e = environ; *e; ++e)
        envp.push_back(*e);
    for (const std::string& e : env)
        envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);

    int outPipe[2] = {-1, -1}, errPipe[2] = {-1, -1}, inPipe[2] = {-1, -1};
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0 ||
        (pipeInput && pipe2(inPipe, O_CLOEXEC) != 0)) {
        for (int fd : {outPipe[0], outPipe[1], errPipe[0], errPipe[1], inPipe[0], inPipe[1]})
            if (fd >= 0)
                close(fd);
        return false;
    }
    pid_t pid = fork();
    if (pid < 0)
        return false;
    if (pid == 0) {
        int input = pipeInput ? inPipe[0] : open("/dev/null", O_RDONLY);
        dup2(input, 0);
        dup2(outPipe[1], 1);
        dup2(errPipe[1], 2);
        // A fresh process group: a SIGINT typed at the test's terminal does not reach it.
        setpgid(0, 0);
        execve(args[0], args.data(), envp.data());
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    if (pipeInput) {
        close(inPipe[0]);
        m_nInputFD = inPipe[1];
    }
    m_Pid = pid;
    m_Reader = std::thread(&ChildProcess::ReadLoop, this, outPipe[0], errPipe[0]);
    return true;
}

void ChildProcess::ReadLoop(int outFD, int errFD)
{
    pollfd fds[2] = {{outFD, POLLIN, 0}, {errFD, POLLIN, 0}};
    int open = 2;
    char buf[4096];
    while (open > 0) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR)))
                continue;
            ssize_t got = read(fds[i].fd, buf, sizeof(buf));
            if (got <= 0) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
                continue;
            }
            std::lock_guard<std::mutex> lock(m_Lock);
            (i == 0 ? m_Out : m_Err).append(buf, static_cast<size_t>(got));
        }
    }
    for (pollfd& p : fds)
        if (p.fd >= 0)
            close(p.fd);
}

bool ChildProcess::WriteInput(const std::string& text)
{
    signal(SIGPIPE, SIG_IGN); // a child that has gone shows as a failed write
    size_t done = 0;
    while (m_nInputFD >= 0 && done < text.size()) {
        ssize_t n = write(m_nInputFD, text.data() + done, text.size() - done);
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return done == text.size();
}

void ChildProcess::CloseInput()
{
    if (m_nInputFD >= 0) {
        close(m_nInputFD);
        m_nInputFD = -1;
    }
}

void ChildProcess::Signal(int sig)
{
    if (m_Pid > 0)
        kill(m_Pid, sig);
}

int ChildProcess::WaitExit(int timeoutMs)
{
    if (m_Pid <= 0)
        return m_nExitStatus;
    int status = 0;
    bool done = WaitUntil(
        [&] {
            pid_t r = waitpid(m_Pid, &status, WNOHANG);
            return r == m_Pid || r < 0;
        },
        timeoutMs);
    if (!done)
        return -1;
    m_nExitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
    m_Pid = -1;
    if (m_Reader.joinable())
        m_Reader.join();
    return m_nExitStatus;
}

int ChildProcess::Terminate(int timeoutMs)
{
    if (m_Pid <= 0)
        return m_nExitStatus;
    Signal(SIGTERM);
    int status = WaitExit(timeoutMs);
    if (status < 0) {
        Signal(SIGKILL);
        status = WaitExit(10000);
    }
    return status;
}

std::string ChildProcess::OutputSince(size_t mark) const
{
    std::lock_guard<std::mutex> lock(m_Lock);
    return mark < m_Out.size() ? m_Out.substr(mark) : std::string();
}

bool ChildProcess::WaitForOutput(const std::string& text, int timeoutMs) const
{
    return WaitUntil([&] { return Output().find(text) != std::string::npos; }, timeoutMs);
}

std::string JackServer::UniqueName()
{
    static std::atomic<int> counter{0};
    return "zptest_" + std::to_string(getpid()) + "_" + std::to_string(counter++);
}

bool JackServer::Start(unsigned capturePorts, unsigned playbackPorts, const std::string& name, unsigned portMax)
{
    m_Name = name;
    std::vector<std::string> argv{"/usr/bin/jackd", "-n", m_Name};
    if (portMax != 0)
        argv.insert(argv.end(), {"-p", std::to_string(portMax)});
    argv.insert(argv.end(), {"-d", "dummy", "-r", "48000", "-p", "1024", "-C", std::to_string(capturePorts), "-P",
                             std::to_string(playbackPorts)});
    if (!m_Process.Start(argv))
        return false;
    ChildProcess waiter;
    if (!waiter.Start({"/usr/bin/jack_wait", "-s", m_Name, "-w", "-t", "20"}) || waiter.WaitExit(30000) != 0) {
        Stop();
        return false;
    }
    return true;
}

void JackServer::Stop()
{
    if (m_Process.Running())
        m_Process.Terminate(5000);
}

std::string ZorPlayProcess::BinaryPath()
{
    if (const char* path = getenv("ZOR_PLAY_BIN"))
        return path;
    // Run by hand from the build tree: the binary sits one folder above the tests.
    std::error_code ec;
    return std::filesystem::read_symlink("/proc/self/exe", ec).parent_path().parent_path() / "zor_play";
}

bool ZorPlayProcess::Start(const std::vector<std::string>& args, const std::string& jackServerName, bool pipeInput)
{
    std::vector<std::string> argv{BinaryPath()};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<std::string> env;
    if (!jackServerName.empty())
        env.push_back("JACK_DEFAULT_SERVER=" + jackServerName);
    // Keep libjack from starting a server of its own when ours is down.
    env.push_back("JACK_NO_START_SERVER=1");
    return ChildProcess::Start(argv, env, pipeInput);
}

bool ZorPlayProcess::WaitUntilIdle(int timeoutMs) const
{
    if (m_Pid <= 0)
        return false;
    const std::string wchan = "/proc/" + std::to_string(m_Pid) + "/wchan";
    return WaitUntil(
        [&] {
            std::ifstream in(wchan);
            std::string where;
            in >> where;
            return where.find("poll") != std::string::npos || where.find("select") != std::string::npos;
        },
        timeoutMs);
}

int ZorPlayProcess::Stop(int timeoutMs)
{
    if (!Running())
        return WaitExit(0);
    // An interrupt only ends the main loop while it waits; one that lands
    // while a request is being served is logged and the loop goes on. So
    // interrupt at the wait, and again should it have been busy after all.
    int status = -1;
    for (int waited = 0; waited < timeoutMs && status < 0; waited += 1000) {
        WaitUntilIdle(1000);
        Signal(SIGINT);
        status = WaitExit(1000);
    }
    if (status < 0) {
        Signal(SIGKILL);
        WaitExit(10000);
    }
    return status;
}

std::unique_ptr<JackServer> ServerTest::s_pJack;

void ServerTest::SetUpTestSuite()
{
    s_pJack = std::make_unique<JackServer>();
    ASSERT_TRUE(s_pJack->Start()) << "could not start a dummy jackd";
}

void ServerTest::TearDownTestSuite() { s_pJack.reset(); }

void ServerTest::SetUp()
{
    ASSERT_TRUE(m_Client.Open()) << "could not bind the client socket path";
    StartServer(ServerArgs());
}

void ServerTest::StartServer(const std::vector<std::string>& args, const std::string& jackName)
{
    ASSERT_TRUE(m_Server.Start(args, !jackName.empty() ? jackName : s_pJack ? s_pJack->Name() : std::string()));
    // The socket file may be a leftover until the server rebinds it: wait for an answer.
    bool up = WaitUntil(
        [&] {
            if (!m_Server.Running() || !FileExists(kServerSocketPath))
                return false;
            return m_Client.Call(eZorPlayRecorder, eCmdHello, 0, nullptr, 0, 200) == eResultSuccess;
        },
        15000);
    ASSERT_TRUE(up) << "zor_play did not answer; output:\n" << m_Server.Output() << m_Server.ErrorOutput();
}

void ServerTest::TearDown()
{
    if (m_Server.Running()) {
        int status = m_Server.Stop();
        EXPECT_EQ(status, 0) << "zor_play did not stop cleanly; output:\n" << m_Server.Output();
    }
    m_Client.Close();
}
