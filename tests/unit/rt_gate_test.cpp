// The handshake that keeps the real-time side off a buffer while the worker
// flushes it. The worker parks the reader, moves to a new generation inside a
// nested park and rewrites a plain block with it after the nested park ends
// (so an inner release that freed the reader would show), over and over,
// while the reader reads the block in cycles of odd sizes. The reader must never see a sample of an older
// generation, and (under ThreadSanitizer) no access to the block may race.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "modules/rt_gate.h"

TEST(RTGate, NoSampleFromBeforeAFlushIsEverRead)
{
    constexpr unsigned kSamples = 291;
    float block[kSamples] = {};
    unsigned filled = 0, generation = 0;
    CRTGate gate;
    {
        CRTGatePark park(gate); // with no cycle running, returns at once
    }
    std::atomic<bool> stop{false};
    std::atomic<unsigned> parkedCycles{0}, samplesRead{0}, wrong{0};

    std::thread reader([&] {
        for (unsigned chunk = 1; !stop.load(std::memory_order_relaxed); chunk = chunk % 13 + 1) {
            if (!gate.Enter()) {
                parkedCycles.fetch_add(1, std::memory_order_relaxed);
                continue;
            }
            const unsigned n = std::min(filled, chunk);
            for (unsigned i = 0; i < n; ++i)
                if (block[i] != static_cast<float>(generation))
                    wrong.fetch_add(1, std::memory_order_relaxed);
            samplesRead.fetch_add(n, std::memory_order_relaxed);
            gate.Leave();
        }
    });

    // At least 20000 flushes, and on until the reader has taken a fair share.
    unsigned size = 5;
    for (int flush = 0; flush < 20000 || (samplesRead.load() < 100000 && flush < 5000000); ++flush) {
        CRTGatePark park(gate);
        {
            CRTGatePark inner(gate);
            ++generation;
        }
        for (unsigned i = 0; i < kSamples; ++i)
            block[i] = static_cast<float>(generation);
        filled = size;
        size = size % kSamples + 1;
    }
    // Hold a park until the reader has met it, then stop the reader.
    {
        CRTGatePark park(gate);
        while (parkedCycles.load() == 0)
            std::this_thread::yield();
    }
    stop = true;
    reader.join();

    EXPECT_EQ(wrong.load(), 0u) << "samples from before a flush reached the reader";
    EXPECT_GT(samplesRead.load(), 0u) << "the reader never read: the test proved nothing";
}
