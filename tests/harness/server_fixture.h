// Processes the integration tests run against: a private jackd with the
// dummy backend, and the zor_play binary with its output captured.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "harness/protocol_client.h"

// A child process with its standard output and standard error captured.
class ChildProcess {
public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // argv[0] is the program path; env entries ("NAME=value") are added to ours.
    // Standard input is /dev/null unless pipeInput, when WriteInput feeds it.
    bool Start(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
               bool pipeInput = false);
    bool WriteInput(const std::string& text);
    void CloseInput();
    bool Running() const { return m_Pid > 0; }
    pid_t Pid() const { return m_Pid; }
    void Signal(int sig);
    // Exit status (0-255), 128+signal when killed, -1 on timeout (still running).
    int WaitExit(int timeoutMs);
    // SIGTERM, then SIGKILL if it does not go within timeoutMs; the exit status.
    int Terminate(int timeoutMs = 5000);

    std::string Output() const { return Locked([&] { return m_Out; }); }
    std::string ErrorOutput() const { return Locked([&] { return m_Err; }); }
    bool WaitForOutput(const std::string& text, int timeoutMs) const;
    // Output written after a mark taken with OutputSize().
    size_t OutputSize() const { return Locked([&] { return m_Out.size(); }); }
    std::string OutputSince(size_t mark) const;

protected:
    pid_t m_Pid = -1;
    int m_nInputFD = -1;

private:
    void ReadLoop(int outFD, int errFD);
    template <typename Fn>
    auto Locked(Fn fn) const -> decltype(fn())
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        return fn();
    }

    int m_nExitStatus = -1;
    std::thread m_Reader;
    mutable std::mutex m_Lock;
    std::string m_Out;
    std::string m_Err;
};

// jackd -n <name> -d dummy -r 48000 -p 1024 -C <capture> -P <playback>
class JackServer {
public:
    ~JackServer() { Stop(); }
    // A name of its own for this test process; a server started later under
    // it is the one clients given the name find.
    static std::string UniqueName();
    // portMax, when not 0, caps the ports the server manages (jackd -p).
    bool Start(unsigned capturePorts = 8, unsigned playbackPorts = 8, const std::string& name = UniqueName(),
               unsigned portMax = 0);
    void Stop();
    bool Running() const { return m_Process.Running(); }
    const std::string& Name() const { return m_Name; }

private:
    ChildProcess m_Process;
    std::string m_Name;
};

// The zor_play binary named by ZOR_PLAY_BIN, talking to one JACK server.
class ZorPlayProcess : public ChildProcess {
public:
    static std::string BinaryPath();
    bool Start(const std::vector<std::string>& args, const std::string& jackServerName, bool pipeInput = false);
    // SIGINT at the main loop's wait, then the exit status (SIGKILL and -1
    // when it does not exit).
    int Stop(int timeoutMs = 10000);
    // True once the process sleeps in its main loop's wait (read from /proc).
    bool WaitUntilIdle(int timeoutMs) const;
};

// Polls cond every 10 ms until it holds or the deadline passes.
template <typename Cond>
bool WaitUntil(Cond cond, int timeoutMs)
{
    for (int waited = 0;; waited += 10) {
        if (cond())
            return true;
        if (waited >= timeoutMs)
            return false;
        usleep(10000);
    }
}

bool FileExists(const std::string& path);

// Threads and open descriptors of a process (entries of /proc/<pid>/task
// and /proc/<pid>/fd); -1 when the process is gone.
int ThreadCount(pid_t pid);
int DescriptorCount(pid_t pid);
// Names in the message-queue filesystem, mounting it on /dev/mqueue first
// when it does not show this process's queues; false when they cannot be
// looked at.
bool ListMessageQueues(std::vector<std::string>& names);

// One JACK server for the whole suite; one zor_play and one bound client per
// test. Suites override ServerArgs() to pass options.
class ServerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    void SetUp() override;
    void TearDown() override;
    virtual std::vector<std::string> ServerArgs() { return {}; }

    // Starts the server against the suite's JACK server (or the one named)
    // and waits until it answers a Hello.
    void StartServer(const std::vector<std::string>& args, const std::string& jackName = "");

    int Create(enumZorPlayType type, int slot, int channels, int offset)
    {
        return m_Client.Create(type, slot, channels, offset);
    }
    int Cmd(enumZorPlayType type, enumZorPlayCmd cmd, int slot, const void* payload = nullptr, size_t len = 0)
    {
        return m_Client.Call(type, cmd, slot, payload, len);
    }
    // Runs request() (which returns its answer): the answer is the expected
    // one and the server printed text while serving it.
    template <typename Request>
    ::testing::AssertionResult Prints(Request request, int expected, const std::string& text)
    {
        const size_t mark = m_Server.OutputSize();
        const int answer = request();
        if (answer != expected)
            return ::testing::AssertionFailure() << "answer " << answer << ", expected " << expected;
        if (!WaitUntil([&] { return m_Server.OutputSince(mark).find(text) != std::string::npos; }, 5000))
            return ::testing::AssertionFailure() << "no \"" << text << "\" in:\n" << m_Server.OutputSince(mark);
        return ::testing::AssertionSuccess();
    }

    static std::unique_ptr<JackServer> s_pJack;
    ZorPlayProcess m_Server;
    ProtocolClient m_Client;
};
