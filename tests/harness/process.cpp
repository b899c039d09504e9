#include "harness/process.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

extern char** environ;
namespace fs = std::filesystem;

std::string ReadFile(const std::string& path)
{
    std::stringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

void WriteFile(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

int CountEntries(const std::string& dir, std::vector<std::string>* names)
{
    std::error_code ec;
    int n = 0;
    for (auto it = fs::directory_iterator(dir, ec); !ec && it != fs::directory_iterator(); it.increment(ec), ++n)
        if (names)
            names->push_back(it->path().filename());
    return ec ? -1 : n;
}

ChildProcess::~ChildProcess()
{
    Terminate(2000);
    for (int fd : m_nOutputFD)
        close(fd);
}

bool ChildProcess::Start(const std::vector<std::string>& argv, const std::vector<std::string>& env, bool pipeInput)
{
    Terminate(2000);
    m_nStatus = -1;
    for (int& fd : m_nOutputFD) {
        close(fd);
        fd = memfd_create("zp_output", MFD_CLOEXEC);
    }
    // Everything the child needs is built before fork.
    std::vector<char*> args, envp;
    for (char** e = environ; *e; ++e)
        envp.push_back(*e);
    for (auto [list, strings] : {std::pair{&args, &argv}, std::pair{&envp, &env}}) {
        for (const std::string& text : *strings)
            list->push_back(const_cast<char*>(text.c_str()));
        list->push_back(nullptr);
    }
    int in[2] = {-1, -1};
    if (m_nOutputFD[0] < 0 || m_nOutputFD[1] < 0 || (pipeInput && pipe2(in, O_CLOEXEC) != 0))
        return false;
    m_Pid = fork();
    if (m_Pid == 0) {
        dup2(pipeInput ? in[0] : open("/dev/null", O_RDONLY), 0);
        dup2(m_nOutputFD[0], 1);
        dup2(m_nOutputFD[1], 2);
        setpgid(0, 0);                   // a SIGINT typed at the test's terminal does not reach it
        prctl(PR_SET_PDEATHSIG, SIGKILL); // nor does the child outlive a test that dies
        execve(args[0], args.data(), envp.data());
        _exit(127);
    }
    close(in[0]);
    m_nInputFD = in[1];
    return m_Pid > 0;
}

int ChildProcess::WaitExit(int timeoutMs)
{
    int status = 0;
    if (m_Pid <= 0 || !WaitUntil([&] { return waitpid(m_Pid, &status, WNOHANG) != 0; }, timeoutMs))
        return m_Pid <= 0 ? m_nStatus : -1;
    m_nStatus = WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
    m_Pid = -1;
    CloseInput();
    return m_nStatus;
}

int ChildProcess::Terminate(int timeoutMs)
{
    Signal(SIGTERM);
    if (WaitExit(timeoutMs) < 0 && m_Pid > 0)
        Signal(SIGKILL), WaitExit(10000);
    return m_nStatus;
}

std::string ChildProcess::Output(size_t from, bool error) const
{
    std::string text;
    char buf[8192];
    for (ssize_t got; (got = pread(m_nOutputFD[error], buf, sizeof(buf), static_cast<off_t>(from + text.size()))) > 0;)
        text.append(buf, static_cast<size_t>(got));
    return text;
}

std::string JackServer::UniqueName()
{
    static std::atomic<int> counter{0};
    return "zptest_" + std::to_string(getpid()) + "_" + std::to_string(counter++);
}

bool JackServer::Start(unsigned capture, unsigned playback, const std::string& name, unsigned portMax)
{
    m_Name = name;
    std::vector<std::string> argv{"/usr/bin/jackd", "-n", m_Name, "-d", "dummy", "-r", "48000", "-p", "1024",
                                  "-C", std::to_string(capture), "-P", std::to_string(playback)};
    if (portMax != 0)
        argv.insert(argv.begin() + 3, {"-p", std::to_string(portMax)});
    ChildProcess wait;
    return m_Process.Start(argv) && wait.Start({"/usr/bin/jack_wait", "-s", m_Name, "-w", "-t", "20"}) &&
           wait.WaitExit(30000) == 0;
}

std::string ZorPlayProcess::BinaryPath()
{
    if (const char* path = getenv("ZOR_PLAY_BIN"))
        return path;
    // Run by hand from the build tree: the binary sits one folder above the tests.
    std::error_code ec;
    return fs::read_symlink("/proc/self/exe", ec).parent_path().parent_path() / "zor_play";
}

bool ZorPlayProcess::Start(std::vector<std::string> args, const std::string& jackName, bool pipeInput)
{
    args.insert(args.begin(), BinaryPath());
    // JACK_NO_START_SERVER: libjack must not start a server of its own.
    return ChildProcess::Start(args, {"JACK_DEFAULT_SERVER=" + jackName, "JACK_NO_START_SERVER=1"}, pipeInput);
}

bool ZorPlayProcess::WaitUntilIdle(int timeoutMs) const
{
    static const std::regex waits("poll|select");
    const std::string wchan = "/proc/" + std::to_string(Pid()) + "/wchan";
    return WaitUntil([&] { return std::regex_search(ReadFile(wchan), waits); }, timeoutMs);
}

int ZorPlayProcess::Stop(int timeoutMs)
{
    // An interrupt ends the main loop only at its wait (else it is logged): retry there.
    int status = WaitExit(0);
    for (int waited = 0; waited < timeoutMs && status < 0; waited += 1000) {
        WaitUntilIdle(1000);
        Signal(SIGINT);
        status = WaitExit(1000);
    }
    if (status < 0)
        Terminate(0);
    return status;
}
