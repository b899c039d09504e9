// The ring buffer's paths as the JACK callbacks use them (the region calls)
// and the sample-at-a-time calls, each beside a plain loop doing the same
// copy over contiguous memory in the same run. One period: 1024 frames x 8
// channels, spread over 8 port buffers. The figures that matter are the
// ratios printed at the end.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "audio/zp_buffer.h"

namespace {

constexpr unsigned kChannels = 8;
constexpr unsigned kPeriod = 1024;
// A few periods, and not a multiple of the period, so that the cursors wrap
// in the middle of a period.
constexpr unsigned kRingFrames = 4 * kPeriod + 3;

struct Ports {
    Ports() : m_Data(kChannels, std::vector<float>(kPeriod, 0.5f))
    {
        for (unsigned ch = 0; ch < kChannels; ++ch)
            m_pPort[ch] = m_Data[ch].data();
    }
    std::vector<std::vector<float>> m_Data;
    float* m_pPort[kChannels];
};

void DeinterleavePlain(benchmark::State& state)
{
    Ports ports;
    std::vector<float> src(kPeriod * kChannels, 0.25f);
    for (auto _ : state) {
        const float* in = src.data();
        for (unsigned f = 0; f < kPeriod; ++f)
            for (unsigned ch = 0; ch < kChannels; ++ch)
                ports.m_pPort[ch][f] = *in++;
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kPeriod * kChannels);
}

// Sample at a time: readable frames, then ReadSingle frame by frame,
// channel by channel. The producer's WriteAdvance keeps one period readable.
void DeinterleaveReadSingle(benchmark::State& state)
{
    Ports ports;
    CZPBuffer buf(kChannels, kRingFrames);
    buf.WriteAdvance(kPeriod);
    for (auto _ : state) {
        const unsigned frames = std::min(buf.GetReadableFrames(), kPeriod);
        for (unsigned f = 0; f < frames; ++f)
            for (unsigned ch = 0; ch < kChannels; ++ch)
                ports.m_pPort[ch][f] = buf.ReadSingle();
        benchmark::ClobberMemory();
        buf.WriteAdvance(kPeriod);
    }
    state.SetItemsProcessed(state.iterations() * kPeriod * kChannels);
}

void InterleavePlain(benchmark::State& state)
{
    Ports ports;
    std::vector<float> dst(kPeriod * kChannels, 0.0f);
    for (auto _ : state) {
        float* out = dst.data();
        for (unsigned f = 0; f < kPeriod; ++f)
            for (unsigned ch = 0; ch < kChannels; ++ch)
                *out++ = ports.m_pPort[ch][f];
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kPeriod * kChannels);
}

// Sample at a time: writable frames, then WriteSingle frame by frame.
// The consumer's ReadAdvance frees the period again.
void InterleaveWriteSingle(benchmark::State& state)
{
    Ports ports;
    CZPBuffer buf(kChannels, kRingFrames);
    for (auto _ : state) {
        const unsigned frames = std::min(buf.GetWritableFrames(), kPeriod);
        for (unsigned f = 0; f < frames; ++f)
            for (unsigned ch = 0; ch < kChannels; ++ch)
                buf.WriteSingle(ports.m_pPort[ch][f]);
        benchmark::ClobberMemory();
        buf.ReadAdvance(kPeriod);
    }
    state.SetItemsProcessed(state.iterations() * kPeriod * kChannels);
}

// The callbacks as they are: readable (writable) frames, then one call that
// copies through the regions and publishes the cursor once.
void DeinterleaveRegions(benchmark::State& state)
{
    Ports ports;
    CZPBuffer buf(kChannels, kRingFrames);
    buf.WriteAdvance(kPeriod);
    for (auto _ : state) {
        buf.ReadDeinterleaved(ports.m_pPort, 0, std::min(buf.GetReadableFrames(), kPeriod));
        benchmark::ClobberMemory();
        buf.WriteAdvance(kPeriod);
    }
    state.SetItemsProcessed(state.iterations() * kPeriod * kChannels);
}

void InterleaveRegions(benchmark::State& state)
{
    Ports ports;
    CZPBuffer buf(kChannels, kRingFrames);
    for (auto _ : state) {
        buf.WriteInterleaved(ports.m_pPort, std::min(buf.GetWritableFrames(), kPeriod));
        benchmark::ClobberMemory();
        buf.ReadAdvance(kPeriod);
    }
    state.SetItemsProcessed(state.iterations() * kPeriod * kChannels);
}

BENCHMARK(DeinterleavePlain);
BENCHMARK(DeinterleaveReadSingle);
BENCHMARK(InterleavePlain);
BENCHMARK(InterleaveWriteSingle);
BENCHMARK(DeinterleaveRegions);
BENCHMARK(InterleaveRegions);

// Prints the usual table and remembers each benchmark's time (the median when
// repetitions are asked for) to print the ratios at the end.
class CRatioReporter : public benchmark::ConsoleReporter {
public:
    CRatioReporter() : ConsoleReporter(OO_Tabular) {}
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            const bool aggregate = run.run_type == Run::RT_Aggregate;
            if (aggregate && run.aggregate_name != "median")
                continue;
            if (!aggregate && m_Times.count(run.run_name.function_name) && m_bMedians)
                continue;
            m_bMedians |= aggregate;
            m_Times[run.run_name.function_name] = run.GetAdjustedCPUTime();
        }
    }
    void PrintRatio(const char* path, const char* baseline) const
    {
        auto p = m_Times.find(path);
        auto b = m_Times.find(baseline);
        if (p != m_Times.end() && b != m_Times.end() && b->second > 0)
            printf("%-24s %.2fx %s\n", path, p->second / b->second, baseline);
    }

private:
    std::map<std::string, double> m_Times;
    bool m_bMedians = false;
};

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    CRatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printf("\nRing-buffer path against the plain loop (CPU time):\n");
    reporter.PrintRatio("DeinterleaveReadSingle", "DeinterleavePlain");
    reporter.PrintRatio("InterleaveWriteSingle", "InterleavePlain");
    reporter.PrintRatio("DeinterleaveRegions", "DeinterleavePlain");
    reporter.PrintRatio("InterleaveRegions", "InterleavePlain");
    benchmark::Shutdown();
    return 0;
}
