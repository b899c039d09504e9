// A JACK client in the test process that records what reaches its input
// ports, every period from activation on, into memory allocated and touched
// before activation. The callback publishes the frame count after the
// samples (release), so the test thread may read any frame below Frames().
#pragma once

#include <jack/jack.h>

#include <atomic>
#include <string>
#include <vector>

class JackCapture {
public:
    JackCapture() = default;
    ~JackCapture();
    JackCapture(const JackCapture&) = delete;
    JackCapture& operator=(const JackCapture&) = delete;

    // Client "name" with input ports in1..in<channels>, room for capacity
    // frames; recording stops when they are used up.
    bool Open(const std::string& server, const std::string& name, unsigned channels, size_t capacity);
    // Connects <source>1 .. <source><channels> (e.g. "Player000:output") to
    // the inputs in order.
    bool ConnectFrom(const std::string& source);

    unsigned Channels() const { return static_cast<unsigned>(m_Data.size()); }
    size_t Frames() const { return m_nFrames.load(std::memory_order_acquire); }
    // Channel c of frame i; i below Frames().
    float Sample(unsigned c, size_t i) const { return m_Data[c][i]; }

private:
    static int Process(jack_nframes_t nframes, void* arg);

    jack_client_t* m_pClient = nullptr;
    std::string m_Name;
    std::vector<jack_port_t*> m_Ports;
    std::vector<std::vector<float>> m_Data; // written by the callback only
    std::atomic<size_t> m_nFrames{0};       // written by the callback only
};
