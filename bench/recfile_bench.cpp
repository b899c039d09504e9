// The recorder's file service for 8 channels of 24-bit audio: one JACK period
// of 1024 frames is put in the ring buffer the way the callback does it, and
// only the service that writes it to disk is timed. Beside it, in the same
// run, a plain libsndfile write of the same interleaved frames. Each
// benchmark also reports its slowest period (worst_us): the service has one
// period (21.3 ms at 48 kHz) before the callback has written the next.
#include <benchmark/benchmark.h>

#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "app/globals.h"
#include "audio/zp_buffer.h"
#include "files/recfile_handler.h"

namespace {

constexpr unsigned kChannels = 8;
constexpr unsigned kPeriod = 1024;
// About 43 s of audio per run (49 MB a file set), so that the page cache and
// the disk both take part.
constexpr int kPeriods = 2000;

typedef std::chrono::steady_clock Clock;

// A directory of the run's own, removed at exit (each benchmark removes its files).
std::string s_Dir;
void RemoveDir() { rmdir(s_Dir.c_str()); }
std::string Dir()
{
    if (s_Dir.empty()) {
        char tmpl[] = "/tmp/zp_recbench_XXXXXX";
        if (mkdtemp(tmpl) == nullptr)
            return "/tmp";
        s_Dir = tmpl;
        atexit(RemoveDir);
    }
    return s_Dir;
}

void Finish(benchmark::State& state, double worst)
{
    state.counters["worst_us"] = worst * 1e6;
    state.SetItemsProcessed(state.iterations() * kPeriod);
}

void PlainWrite(benchmark::State& state)
{
    std::vector<float> period(kPeriod * kChannels, 0.25f);
    SF_INFO info = {};
    info.samplerate = 48000;
    info.channels = kChannels;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_24;
    const std::string name = Dir() + "/plain.wav";
    SNDFILE* f = sf_open(name.c_str(), SFM_WRITE, &info);
    double worst = 0;
    for (auto _ : state) {
        const Clock::time_point t0 = Clock::now();
        benchmark::DoNotOptimize(sf_writef_float(f, period.data(), kPeriod));
        const double took = std::chrono::duration<double>(Clock::now() - t0).count();
        worst = std::max(worst, took);
        state.SetIterationTime(took);
    }
    sf_write_sync(f);
    sf_close(f);
    unlink(name.c_str());
    Finish(state, worst);
}

// The handler's service of one period, for format option 0 (one interleaved
// file) or 1 (one mono file per channel), 24-bit, at 48 kHz or converted.
void Service(benchmark::State& state)
{
    const int format = static_cast<int>(state.range(0));
    const unsigned rate = static_cast<unsigned>(state.range(1));
    g_nJackSampleRate = 48000;
    g_nBufferSizeFrames = kPeriod;
    CRecFileHandler handler(kChannels);
    structSetupFile setup = {};
    for (unsigned c = 0; c < kChannels; ++c)
        snprintf(setup.szFilenames[c], sizeof(setup.szFilenames[c]), "%s/rec%d%u_%u.wav", Dir().c_str(), format,
                 rate, c);
    setup.nFileFormat = format;
    setup.nSampleRate = rate;
    setup.nWordLength = 2;
    if (handler.AddSingleFile(&setup) != eResultSuccess) {
        state.SkipWithError("set-up failed");
        return;
    }
    CZPBuffer* buf = handler.GetRTBufferP();
    float sample = 0.0f;
    double worst = 0;
    for (auto _ : state) {
        for (unsigned i = 0; i < kPeriod * kChannels; ++i) {
            buf->WriteSingle(sample);
            sample = sample < 0.9f ? sample + 1e-4f : -0.9f;
        }
        const Clock::time_point t0 = Clock::now();
        benchmark::DoNotOptimize(handler.ServiceBuffer(true));
        const double took = std::chrono::duration<double>(Clock::now() - t0).count();
        worst = std::max(worst, took);
        state.SetIterationTime(took);
    }
    handler.ServiceBuffer(false); // dry: closes the set
    for (unsigned c = 0; c < (format == 0 ? 1 : kChannels); ++c)
        unlink(setup.szFilenames[c]);
    Finish(state, worst);
}

// The slowest period over all repetitions.
double Max(const std::vector<double>& v) { return *std::max_element(v.begin(), v.end()); }

BENCHMARK(PlainWrite)
    ->UseManualTime()
    ->Iterations(kPeriods)
    ->Unit(benchmark::kMicrosecond)
    ->ComputeStatistics("max", Max);
BENCHMARK(Service)
    ->ArgNames({"format", "rate"})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({0, 3})
    ->UseManualTime()
    ->Iterations(kPeriods)
    ->Unit(benchmark::kMicrosecond)
    ->ComputeStatistics("max", Max);

} // namespace

BENCHMARK_MAIN();
