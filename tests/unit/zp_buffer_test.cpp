// Ring buffer: full and empty, regions, raw memory and the callbacks' copies at
// every cursor, silence and reset, and a producer and a consumer thread.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <tuple>

#include "audio/zp_buffer.h"

namespace {

// The regions one side offers: the first one's start and frames, the second one's.
using Regions = std::tuple<float*, unsigned, float*, unsigned>;
Regions RegionsOf(const CZPBuffer& buf, bool write)
{
    CBufInfo info;
    write ? buf.GetWriteInfo(info) : buf.GetReadInfo(info);
    return {info.m_pFirst, info.m_nFirstFrames, info.m_pSecond, info.m_nSecondFrames};
}

// One producer (write) or consumer step of up to frames frames over a counting
// sequence (sample k holds k), through the regions or sample by sample; the
// consumer counts out-of-sequence samples in errors. Returns the frames moved.
unsigned Move(CZPBuffer& buf, bool write, unsigned channels, uint32_t& seq, unsigned frames, bool single,
              unsigned& errors)
{
    auto sample = [&](float* p) {
        const float k = static_cast<float>(seq++);
        write ? void(*p = k) : void(errors += *p != k);
    };
    if (single) {
        const unsigned k = std::min(frames, write ? buf.GetWritableFrames() : buf.GetReadableFrames());
        for (unsigned i = 0; i < k * channels; ++i) {
            float v = write ? 0.0f : buf.ReadSingle();
            sample(&v);
            if (write)
                buf.WriteSingle(v);
        }
        return k;
    }
    const auto [first, n1, second, n2] = RegionsOf(buf, write);
    const unsigned k1 = std::min(frames, n1), k2 = std::min(frames - k1, n2);
    for (unsigned i = 0; i < (k1 + k2) * channels; ++i)
        sample(i < k1 * channels ? first + i : second + i - k1 * channels);
    write ? buf.WriteAdvance(k1 + k2) : buf.ReadAdvance(k1 + k2);
    return k1 + k2;
}

} // namespace

TEST(ZPBuffer, FullAndEmptyAreNeverConfusedAtAnyCursor)
{
    for (unsigned frames : {2u, 3u, 8u}) {
        CZPBuffer buf(2, frames);
        uint32_t next = 0, expected = 0;
        unsigned errors = 0;
        for (unsigned start = 0; start < 2 * frames; ++start) {
            // A full buffer holds frames - 1 frames and offers no region to write into.
            EXPECT_EQ(Move(buf, true, 2, next, 100, start % 2 == 0, errors), frames - 1);
            const Regions write = RegionsOf(buf, true);
            EXPECT_EQ(buf.GetWritableFrames() + std::get<1>(write) + std::get<3>(write), 0u);
            EXPECT_EQ(Move(buf, false, 2, expected, 100, start % 3 == 0, errors), frames - 1);
            EXPECT_EQ(buf.GetReadableFrames(), 0u);
            EXPECT_EQ(RegionsOf(buf, false), Regions(nullptr, 0, nullptr, 0));
            Move(buf, true, 2, next, 1, true, errors); // the cursors one frame on
            Move(buf, false, 2, expected, 1, true, errors);
        }
        EXPECT_EQ(errors, 0u);
    }
    // A one-frame buffer never accepts data; degenerate sizes behave like it.
    CZPBuffer one(4, 1), none(0, 0);
    one.StuffSilence(3);
    EXPECT_EQ(one.GetReadableFrames() + one.GetWritableFrames() + none.GetWritableFrames(), 0u);
    EXPECT_EQ(none.GetTotalFrames(), 1u);
}

// Two channels, ten frames: regions split at the array end, the raw memory on
// both sides of the wrap (the free frame untouched), silence across it, reset.
TEST(ZPBuffer, RegionsRawMemoryAndSilenceAcrossTheWrap)
{
    CZPBuffer buf(2, 10);
    float* const base = std::get<2>(RegionsOf(buf, true)); // the second write region starts the array
    uint32_t next = 0, expected = 0;
    unsigned errors = 0;
    Move(buf, true, 2, next, 7, false, errors);
    Move(buf, false, 2, expected, 5, false, errors); // read cursor at frame 5, write at 7
    EXPECT_EQ(RegionsOf(buf, true), Regions(base + 14, 3, base, 4));
    EXPECT_EQ(Move(buf, true, 2, next, 100, false, errors), 7u);
    EXPECT_EQ(std::vector<float>({base[14], base[19], base[0], base[7], base[8]}), std::vector<float>({14, 19, 20, 27, 8}));
    EXPECT_EQ(RegionsOf(buf, false), Regions(base + 10, 5, base, 4));
    EXPECT_EQ(Move(buf, false, 2, expected, 100, false, errors), 9u);
    buf.StuffSilence(100); // frames 4 to 9, then 0 to 2
    EXPECT_EQ(buf.GetReadableFrames(), 9u);
    EXPECT_EQ(std::vector<float>({base[8], base[19], base[0], base[5], base[6]}), std::vector<float>({0, 0, 0, 0, 26}));
    EXPECT_EQ(errors, 0u);
    buf.Reset();
    EXPECT_EQ(RegionsOf(buf, true), Regions(base, 9, base, 0));
}

// The callbacks' whole-period copies (interleaved in, de-interleaved out behind
// a lead-in): every chunk size at every cursor, against single-sample calls.
TEST(ZPBuffer, ChunksAtEveryCursorPositionKeepEverySampleInPlace)
{
    constexpr unsigned kCh = 3, kFrames = 7, kLead = 2; // at most 6 frames buffered
    CZPBuffer buf(kCh, kFrames);
    for (unsigned start = 0; start < kFrames; ++start)
        for (unsigned n = 1; n < kFrames; ++n)
            for (const bool regionsWrite : {true, false}) {
                SCOPED_TRACE(std::to_string(n) + " frames from " + std::to_string(start) + (regionsWrite ? " in" : " out"));
                buf.Reset();
                buf.StuffSilence(start);
                buf.ReadAdvance(start);
                // Sample k (from 1: none is silence) is frame k / kCh of channel k % kCh.
                uint32_t next = 1, expected = 1;
                unsigned errors = 0;
                float in[kCh][kFrames], out[kCh][kLead + kFrames] = {};
                for (unsigned k = 0; k < n * kCh; ++k)
                    in[k % kCh][k / kCh] = static_cast<float>(k + 1);
                const float* src[kCh] = {in[0], in[1], in[2]};
                float* dst[kCh] = {out[0], out[1], out[2]};
                if (regionsWrite) {
                    buf.WriteInterleaved(src, n);
                    EXPECT_EQ(Move(buf, false, kCh, expected, n, true, errors), n);
                } else {
                    EXPECT_EQ(Move(buf, true, kCh, next, n, true, errors), n);
                    buf.ReadDeinterleaved(dst, kLead, n);
                }
                EXPECT_EQ(buf.GetReadableFrames(), 0u);
                EXPECT_EQ(errors, 0u);
                for (unsigned c = 0; c < kCh && !regionsWrite; ++c) {
                    EXPECT_EQ(out[c][kLead - 1], 0.0f) << "the lead-in is left alone";
                    EXPECT_EQ(out[c][kLead + n], 0.0f) << "nothing past the frames asked for";
                    for (unsigned f = 0; f < n; ++f)
                        ASSERT_EQ(out[c][kLead + f], in[c][f]) << "frame " << f << ", channel " << c;
                }
            }
}

// Producer and consumer threads, released together, move a long sequence through
// a small three-channel buffer in random steps that never line up with its size:
// every sample arrives once, in order. A side gives up once the other is done.
TEST(ZPBuffer, ProducerAndConsumerThreadsKeepTheSequence)
{
    const unsigned channels = 3;
    const uint32_t endSample = channels * 200000; // exact in a float (< 2^24)
    CZPBuffer buf(channels, 13);
    std::atomic<int> ready{0};
    std::atomic<bool> producerDone{false}, consumerDone{false};
    auto waitForBoth = [&ready] {
        for (ready.fetch_add(1); ready.load() < 2;)
            std::this_thread::yield();
    };
    std::thread producer([&] {
        std::mt19937 rng(1);
        uint32_t next = 0;
        unsigned unused = 0;
        waitForBoth();
        while (next < endSample && !consumerDone.load()) {
            const unsigned frames = std::min<unsigned>(1 + rng() % 17, (endSample - next) / channels);
            if (Move(buf, true, channels, next, frames, rng() % 2 == 0, unused) == 0)
                std::this_thread::yield();
        }
        producerDone.store(true);
    });
    std::mt19937 rng(2);
    uint32_t expected = 0;
    unsigned errors = 0;
    waitForBoth();
    while (expected < endSample && !(producerDone.load() && buf.GetReadableFrames() == 0))
        if (Move(buf, false, channels, expected, 1 + rng() % 19, rng() % 2 == 0, errors) == 0)
            std::this_thread::yield();
    consumerDone.store(true);
    producer.join();
    EXPECT_EQ(errors, 0u);
    EXPECT_EQ(expected, endSample);
}
