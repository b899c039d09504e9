// A JACK client in the test process. Its input ports record what reaches
// them, every period from activation on, into memory allocated and touched
// before activation; its output ports play a signal the test chooses. The
// callback publishes the frame count after the samples (release), so the
// test thread may read any frame below Frames().
#pragma once

#include <jack/jack.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

class TestJackClient {
public:
    // Sample of channel c at frame n of the played signal, given a word the
    // test sets.
    using Signal = float (*)(uint32_t n, unsigned c, uint32_t param);

    ~TestJackClient();
    // Client "name" with inputs in1..in<inputs> (room for capacity frames;
    // recording stops when it is used up) and outputs out1..out<outputs>.
    bool Open(const std::string& server, const std::string& name, unsigned inputs, size_t capacity,
              unsigned outputs = 0);
    // Connects <source>1.. (e.g. "Player000:output") to our inputs in order.
    bool ConnectFrom(const std::string& source);
    // Connects our first outputs to <target>1.. (e.g. "Recorder000:input").
    bool ConnectTo(const std::string& target, unsigned channels);
    // Plays signal from now on; its frame count runs on from the first period.
    void Play(Signal signal, uint32_t param);

    unsigned Channels() const { return static_cast<unsigned>(m_Data.size()); }
    size_t Frames() const { return m_nFrames.load(std::memory_order_acquire); }
    // Channel c of captured frame i; i below Frames().
    float Sample(unsigned c, size_t i) const { return m_Data[c][i]; }
    bool IsSilent(size_t i) const;

private:
    static int Process(jack_nframes_t nframes, void* arg);

    jack_client_t* m_pClient = nullptr;
    std::string m_Name;
    std::vector<jack_port_t*> m_Inputs, m_Outputs;
    std::vector<std::vector<float>> m_Data; // written by the callback only
    std::atomic<size_t> m_nFrames{0};       // written by the callback only
    uint32_t m_nPlayed = 0;                 // callback only
    std::atomic<Signal> m_Signal{nullptr};
    std::atomic<uint32_t> m_nParam{0};
};

// Asked of the server through a client of its own, opened for each query
// (an idle client kept open while modules come and go by the hundred can
// hang libjack's close). Full port names, in server order.
std::vector<std::string> JackPorts(const std::string& server, const std::string& pattern, unsigned long flags = 0);
std::vector<std::string> JackConnections(const std::string& server, const std::string& port);
