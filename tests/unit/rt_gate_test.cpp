// The handshake that keeps the real-time side off a buffer while the worker
// flushes it. The worker parks the reader, rewrites a block with a new
// generation of samples and releases it, over and over, while the reader reads
// the block in cycles of odd sizes. The reader must never see a sample of an
// older generation, and (under ThreadSanitizer) no access to the block may
// race.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "files/rt_gate.h"

TEST(RTGate, ParksNestAndReturnAtOnceWithoutCallbacks)
{
    CRTGate gate;
    for (int i = 0; i < 1000; ++i) {
        CRTGatePark park(gate);
        {
            CRTGatePark inner(gate);
        }
        EXPECT_TRUE(gate.IsParked()) << "an inner park leaves the outer one in force";
    }
    EXPECT_FALSE(gate.IsParked());
    EXPECT_TRUE(gate.Enter());
    gate.Leave();
}

TEST(RTGate, NoSampleFromBeforeAFlushIsEverRead)
{
    // A plain block the worker rewrites only while the reader is parked, and
    // the reader reads only inside a cycle: the gate alone orders the two.
    constexpr unsigned kSamples = 291;
    float block[kSamples] = {};
    unsigned filled = 0;
    unsigned generation = 0;
    CRTGate gate;
    std::atomic<bool> stop{false};
    std::atomic<unsigned> parkedCycles{0}, samplesRead{0}, wrong{0};

    std::thread reader([&] {
        unsigned chunk = 1;
        while (!stop.load(std::memory_order_relaxed)) {
            if (!gate.Enter()) {
                parkedCycles.fetch_add(1, std::memory_order_relaxed);
                continue;
            }
            // Every sample present belongs to the generation of the last flush.
            const float expected = static_cast<float>(generation);
            const unsigned n = std::min(filled, chunk);
            for (unsigned i = 0; i < n; ++i)
                if (block[i] != expected)
                    wrong.fetch_add(1, std::memory_order_relaxed);
            samplesRead.fetch_add(n, std::memory_order_relaxed);
            gate.Leave();
            chunk = chunk % 13 + 1;
        }
    });

    // At least 20000 flushes, and on until the reader has taken a fair share.
    unsigned size = 5;
    for (int flush = 0; flush < 20000 || (samplesRead.load() < 100000 && flush < 5000000); ++flush) {
        CRTGatePark park(gate);
        ++generation;
        // The new generation is written in two passes, so a reader that got in
        // would see a block of mixed generations.
        filled = 0;
        for (unsigned i = 0; i < size; ++i)
            block[i] = static_cast<float>(generation);
        for (unsigned i = 0; i < size; ++i)
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
