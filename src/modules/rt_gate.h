// Keeps a real-time callback off shared buffers while the worker flushes
// them. Every operation that empties audio the callback may be reading (seek,
// fast wind, stop, playlist skip, a new playlist) runs between Park and
// Unpark on the worker.
//
// Real-time side, once per cycle: Enter at the top; when it answers false the
// cycle touches no buffer (it outputs silence) and does not call Leave. After
// a true Enter, Leave is the cycle's last touch of shared state.
//
// Worker side: Park may nest (an operation that parks may call others that
// park); only the outermost Park waits and only the outermost Unpark releases.
// Park raises the request and waits until no cycle that could
// have missed the request is still running: either no cycle is inside, or the
// cycle counter has moved on since the request was raised (the cycle that was
// inside has left). The wait lasts at most the rest of one callback, and ends
// at once when the client runs no callbacks. Unpark publishes the worker's
// writes to the next cycle.
//
// All three words use sequentially consistent order: the request store and
// the inside load on the worker, and the inside store and the request load on
// the real-time side, form a store-load pair in which at least one side must
// see the other.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

class CRTGate {
public:
    // Real-time thread.
    bool Enter()
    {
        m_nInside.store(1);
        if (m_nParked.load() != 0) {
            m_nInside.store(0);
            m_nCycles.fetch_add(1);
            return false;
        }
        return true;
    }
    void Leave()
    {
        m_nCycles.fetch_add(1);
        m_nInside.store(0);
    }

    // Worker thread. Park and Unpark are paired.
    void Park()
    {
        if (m_nDepth++ > 0)
            return;
        m_nParked.store(1);
        const uint32_t cycles = m_nCycles.load();
        while (m_nInside.load() != 0 && m_nCycles.load() == cycles) {
            timespec ts = {0, 100000};
            nanosleep(&ts, nullptr);
        }
    }
    void Unpark()
    {
        if (--m_nDepth == 0)
            m_nParked.store(0);
    }

private:
    std::atomic<uint32_t> m_nParked{0}; // written by the worker
    std::atomic<uint32_t> m_nInside{0}; // written by the real-time thread
    std::atomic<uint32_t> m_nCycles{0}; // written by the real-time thread
    unsigned m_nDepth = 0;              // worker only
};

// Parks the callback for the lifetime of the object.
class CRTGatePark {
public:
    explicit CRTGatePark(CRTGate& gate) : m_Gate(gate) { m_Gate.Park(); }
    ~CRTGatePark() { m_Gate.Unpark(); }
    CRTGatePark(const CRTGatePark&) = delete;
    CRTGatePark& operator=(const CRTGatePark&) = delete;

private:
    CRTGate& m_Gate;
};
