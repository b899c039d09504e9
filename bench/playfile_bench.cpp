// The worker's fill step for a player of 8 channels: one service reads four
// JACK periods of a file into the play buffer, directly (48 kHz file) or
// through the converter (44.1 kHz file). Each step is followed by its
// baseline, a plain libsndfile read of as many frames from a 48 kHz file, so
// both are timed in the same run, interleaved. Reported: "x_realtime", how
// many times faster than real time the step runs, and "x_plain_read", the
// step's time over the baseline's.
#include <benchmark/benchmark.h>

#include <chrono>
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

// Ten seconds of 8-channel float audio at the given rate.
std::string MakeFile(unsigned rate)
{
    std::string path = "/tmp/zp_play_bench_" + std::to_string(getpid()) + "_" + std::to_string(rate) + ".wav";
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
    typedef std::chrono::steady_clock Clock;
    g_nJackSampleRate = 48000;
    g_nBufferSizeFrames = kPeriod;
    const std::string path = MakeFile(rate), plainPath = MakeFile(48000);
    CFastWindInfo wind;
    CPlayFile file(kChannels, &wind);
    file.SetFilename(path.c_str(), 0);
    file.OpenFile();
    CZPBuffer* buf = file.GetBufferP();
    SF_INFO info = SF_INFO();
    SNDFILE* plain = sf_open(plainPath.c_str(), SFM_READ, &info);
    std::vector<float> scratch(static_cast<size_t>(buf->GetTotalFrames()) * kChannels);
    Clock::duration fill{}, read{};
    unsigned long long frames = 0;
    for (auto _ : state) {
        const unsigned before = buf->GetReadableFrames();
        const Clock::time_point t0 = Clock::now();
        const int r = file.FillPlayBuffer();
        const Clock::time_point t1 = Clock::now();
        const unsigned got = buf->GetReadableFrames() - before;
        if (sf_readf_float(plain, scratch.data(), got) < static_cast<sf_count_t>(got))
            sf_seek(plain, 0, SEEK_SET);
        benchmark::DoNotOptimize(scratch.data());
        read += Clock::now() - t1;
        fill += t1 - t0;
        frames += got;
        buf->ReadAdvance(got);
        if (r == -1)
            file.ResetPosition();
    }
    const double fillSeconds = std::chrono::duration<double>(fill).count();
    state.counters["x_realtime"] = static_cast<double>(frames) / 48000.0 / fillSeconds;
    state.counters["x_plain_read"] = fillSeconds / std::chrono::duration<double>(read).count();
    sf_close(plain);
    unlink(path.c_str());
    unlink(plainPath.c_str());
}

} // namespace

BENCHMARK_CAPTURE(FillStep, same_rate, 48000u);
BENCHMARK_CAPTURE(FillStep, converted_from_44100, 44100u);
BENCHMARK_MAIN();
