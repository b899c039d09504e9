// A JACK client in the test process: inputs record every period into memory touched
// before activation, outputs play the test's signal; Frames() follows the samples.
#pragma once

#include <jack/jack.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

class TestJackClient {
public:
    // Sample of channel c at frame n of the played signal, given a word the test sets.
    using Signal = float (*)(uint32_t n, unsigned c, uint32_t param);

    ~TestJackClient();
    // Client "name" with in1..in<inputs> (room for capacity frames), out1..out<outputs>.
    bool Open(const std::string& server, const std::string& name, unsigned inputs, size_t capacity,
              unsigned outputs = 0);
    // Connects <source>1.. ("Player000:output") to our inputs, or our outputs to <target>1...
    bool ConnectFrom(const std::string& source) { return Connect(source, "in", Channels(), true); }
    bool ConnectTo(const std::string& target, unsigned channels) { return Connect(target, "out", channels, false); }
    // Plays signal from the next period on (switch between takes: a period may mix old and new).
    void Play(Signal signal, uint32_t param) { m_nParam = param, m_Signal = signal; }

    unsigned Channels() const { return static_cast<unsigned>(m_Data.size()); }
    size_t Frames() const { return m_nFrames.load(std::memory_order_acquire); }
    float Sample(unsigned c, size_t i) const { return m_Data[c][i]; } // i below Frames()
    bool IsSilent(size_t i) const
    {
        return std::all_of(m_Data.begin(), m_Data.end(), [i](const std::vector<float>& d) { return d[i] == 0.0f; });
    }

private:
    bool Connect(const std::string& other, const char* ours, unsigned channels, bool from);
    static int Process(jack_nframes_t nframes, void* arg);

    jack_client_t* m_pClient = nullptr;
    std::vector<jack_port_t*> m_Inputs, m_Outputs;
    std::vector<std::vector<float>> m_Data; // written by the callback only
    std::atomic<size_t> m_nFrames{0};       // written by the callback only
    uint32_t m_nPlayed = 0;                 // callback only
    std::atomic<Signal> m_Signal{nullptr};
    std::atomic<uint32_t> m_nParam{0};
};

// Full names of the ports matching a pattern, or connected to one port, asked
// through a client of their own (one kept open while modules churn can hang libjack).
std::vector<std::string> JackPorts(const std::string& server, const std::string& pattern, unsigned long flags = 0);
std::vector<std::string> JackConnections(const std::string& server, const std::string& port);
