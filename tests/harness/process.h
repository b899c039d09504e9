// Child processes (a private dummy jackd, zor_play), their output kept in memory files.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <utility>
#include <vector>

// Polls cond every 10 ms until it holds or the deadline passes.
template <typename Cond>
bool WaitUntil(Cond cond, int timeoutMs)
{
    for (int waited = 0; !cond(); waited += 10, usleep(10000))
        if (waited >= timeoutMs)
            return false;
    return true;
}

inline bool FileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& text);
// Entries of a folder (e.g. /proc/<pid>/fd); -1 when it cannot be read.
int CountEntries(const std::string& dir, std::vector<std::string>* names = nullptr);

class ChildProcess {
public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // argv[0] is the program path, env ("NAME=value") adds to ours; standard input is /dev/null unless pipeInput.
    bool Start(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
               bool pipeInput = false);
    bool WriteInput(const std::string& text) // a child that has gone shows as a failed write
    {
        signal(SIGPIPE, SIG_IGN);
        return write(m_nInputFD, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }
    void CloseInput() { close(std::exchange(m_nInputFD, -1)); }
    bool Running() const { return m_Pid > 0; }
    pid_t Pid() const { return m_Pid; }
    void Signal(int sig) { if (m_Pid > 0) kill(m_Pid, sig); }
    // Exit status (0-255), 128+signal when killed, -1 on timeout.
    int WaitExit(int timeoutMs);
    // SIGTERM, then SIGKILL; the exit status.
    int Terminate(int timeoutMs = 5000);

    // Standard output (from byte from on), or standard error.
    std::string Output(size_t from = 0, bool error = false) const;
    size_t OutputSize() const { return Output().size(); }
    bool WaitForOutput(const std::string& text, int timeoutMs = 5000, size_t from = 0) const
    {
        return WaitUntil([&] { return Output(from).find(text) != std::string::npos; }, timeoutMs);
    }

private:
    pid_t m_Pid = -1;
    int m_nStatus = -1;
    int m_nInputFD = -1;
    int m_nOutputFD[2] = {-1, -1}; // memory files the child writes
};

// jackd -n <name> -d dummy -r 48000 -p 1024 -C <capture> -P <playback>
class JackServer {
public:
    // A name of its own for this test process.
    static std::string UniqueName();
    // portMax, when not 0, caps the ports the server manages (jackd -p).
    bool Start(unsigned capture = 8, unsigned playback = 8, const std::string& name = UniqueName(),
               unsigned portMax = 0);
    const std::string& Name() const { return m_Name; }
    void Kill() { m_Process.Signal(9), m_Process.WaitExit(5000); } // without warning

private:
    ChildProcess m_Process;
    std::string m_Name;
};

// The binary named by ZOR_PLAY_BIN, talking to one JACK server.
class ZorPlayProcess : public ChildProcess {
public:
    static std::string BinaryPath();
    bool Start(std::vector<std::string> args, const std::string& jackName, bool pipeInput = false);
    // True once the main thread sleeps in its wait (read from /proc).
    bool WaitUntilIdle(int timeoutMs = 5000) const;
    // SIGINT at the main loop's wait; the exit status (-1, and killed, when it stays).
    int Stop(int timeoutMs = 10000);
};
