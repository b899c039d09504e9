// What a module's real-time callback reports to its worker: one word per
// event (a roll to the next file, the end of play), in the order they
// happened. A single-producer, single-consumer ring: the callback pushes, the
// worker pops. The internal queue only rings the worker's doorbell; whatever
// becomes of a doorbell, the events wait here until the worker takes them.
//
// Capacity: a player's callback reports at most one roll per file it holds
// (the play handler holds at most 4) and one end of play, after which it
// reports nothing until the worker has taken that end. Sixteen words are
// therefore never all in use; a push that finds the ring full (a broken
// bound) answers false and the caller reports it.
#pragma once

#include <atomic>
#include <cstdint>

class CRTEventRing {
public:
    static constexpr uint32_t kCapacity = 16; // a power of two

    // Real-time thread. The release store publishes the word before the
    // cursor that covers it.
    bool Push(uint32_t event)
    {
        const uint32_t w = m_nWrite.load(std::memory_order_relaxed);
        if (w - m_nRead.load(std::memory_order_acquire) == kCapacity)
            return false;
        m_Words[w % kCapacity] = event;
        m_nWrite.store(w + 1, std::memory_order_release);
        return true;
    }

    // Worker thread.
    bool Pop(uint32_t& event)
    {
        const uint32_t r = m_nRead.load(std::memory_order_relaxed);
        if (r == m_nWrite.load(std::memory_order_acquire))
            return false;
        event = m_Words[r % kCapacity];
        m_nRead.store(r + 1, std::memory_order_release);
        return true;
    }

private:
    uint32_t m_Words[kCapacity] = {};
    // Free-running counts; their difference is the number of words waiting.
    std::atomic<uint32_t> m_nWrite{0}; // written by the real-time thread
    std::atomic<uint32_t> m_nRead{0};  // written by the worker
};
