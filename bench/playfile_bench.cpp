// The worker's fill step for a player of 8 channels: one service reads four
// JACK periods of a file into the play buffer, directly (48 kHz file) or
// through the converter (44.1 kHz file). Each run reports how many times
// faster than real time the step is ("x_realtime") and, as the baseline of
// the same run, a plain libsndfile read of the same frames.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

#include <sndfile.h>

#include "app/globals.h"
#include "files/playfile.h"

namespace {

constexpr unsigned kChannels = 8;
constexpr unsigned kPeriod = 1024;

std::string MakeFile(unsigned rate)
{
    static char dir[] = "/tmp/zp_play_bench_XXXXXX";
    static bool made = mkdtemp(dir) != nullptr;
    (void)made;
    std::string path = std::string(dir) + "/f" + std::to_string(rate) + ".wav";
    SF_INFO info = SF_INFO();
    info.channels = kChannels;
    info.samplerate = static_cast<int>(rate);
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    std::vector<float> data(static_cast<size_t>(rate) * 10 * kChannels);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<float>(i % 1000) / 1000.0f;
    sf_writef_float(f, data.data(), static_cast<sf_count_t>(rate) * 10);
    sf_close(f);
    return path;
}

void FillStep(benchmark::State& state, unsigned rate)
{
    g_nJackSampleRate = 48000;
    g_nBufferSizeFrames = kPeriod;
    const std::string path = MakeFile(rate);
    CFastWindInfo wind;
    CPlayFile file(kChannels, &wind);
    file.SetFilename(path.c_str(), 0);
    file.OpenFile();
    CZPBuffer* buf = file.GetBufferP();
    unsigned long long frames = 0;
    for (auto _ : state) {
        const unsigned before = buf->GetReadableFrames();
        if (file.FillPlayBuffer() == -1) {
            state.PauseTiming();
            file.ResetPosition();
            state.ResumeTiming();
            continue;
        }
        const unsigned got = buf->GetReadableFrames() - before;
        frames += got;
        buf->ReadAdvance(got);
    }
    const double seconds = static_cast<double>(frames) / 48000.0;
    state.counters["x_realtime"] = benchmark::Counter(seconds, benchmark::Counter::kIsRate);
    unlink(path.c_str());
}

void RawRead(benchmark::State& state)
{
    const std::string path = MakeFile(48000);
    SF_INFO info = SF_INFO();
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    std::vector<float> data(static_cast<size_t>(kFillPeriods) * kPeriod * kChannels);
    unsigned long long frames = 0;
    for (auto _ : state) {
        sf_count_t got = sf_readf_float(f, data.data(), kFillPeriods * kPeriod);
        if (got <= 0) {
            sf_seek(f, 0, SEEK_SET);
            continue;
        }
        frames += static_cast<unsigned long long>(got);
        benchmark::DoNotOptimize(data.data());
    }
    sf_close(f);
    state.counters["x_realtime"] =
        benchmark::Counter(static_cast<double>(frames) / 48000.0, benchmark::Counter::kIsRate);
    unlink(path.c_str());
}

} // namespace

BENCHMARK_CAPTURE(FillStep, same_rate, 48000u);
BENCHMARK_CAPTURE(FillStep, converted_from_44100, 44100u);
BENCHMARK(RawRead);
BENCHMARK_MAIN();
