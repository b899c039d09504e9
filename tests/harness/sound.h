// Sound files for the tests, written and read through libsndfile.
#pragma once

#include <sndfile.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// Channel c of ramp frame n (n < 2^21): exact in float, never zero, telling frame and channel.
inline float Ramp(uint32_t n, unsigned c) { return static_cast<float>(8 * n + c + 1) / 16777216.0f; }

// The ramp frame a sample of channel 0 holds, or -1 when it is none.
inline long RampFrame(float sample)
{
    const double k = static_cast<double>(sample) * 16777216.0 - 1.0;
    return k >= 0 && k == std::floor(k) && static_cast<long>(k) % 8 == 0 ? static_cast<long>(k) / 8 : -1;
}

using Generator = std::function<float(uint32_t n, unsigned c)>;

// A WAV file of frames from gen, SF_FORMAT_FLOAT or SF_FORMAT_PCM_16 (gen's
// values then exact 16-bit codes over 32768, written as codes: nothing rounds).
inline bool WriteSound(const std::string& path, unsigned channels, int rate, int format, uint32_t frames,
                       const Generator& gen)
{
    SF_INFO info{0, rate, static_cast<int>(channels), SF_FORMAT_WAV | format, 0, 0};
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!f)
        return false;
    std::vector<float> data(static_cast<size_t>(frames) * channels);
    std::vector<short> codes(data.size());
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = gen(static_cast<uint32_t>(i / channels), static_cast<unsigned>(i % channels));
        codes[i] = static_cast<short>(std::lround(data[i] * 32768.0f));
    }
    const sf_count_t wrote = format == SF_FORMAT_PCM_16 ? sf_writef_short(f, codes.data(), frames)
                                                        : sf_writef_float(f, data.data(), frames);
    return sf_close(f) == 0 && wrote == frames;
}

// Frames [first, first + frames) of the ramp as a 48000 Hz float file.
inline bool WriteRamp(const std::string& path, unsigned channels, uint32_t first, uint32_t frames)
{
    return WriteSound(path, channels, 48000, SF_FORMAT_FLOAT, frames,
                      [first](uint32_t n, unsigned c) { return Ramp(first + n, c); });
}

// A whole file as integer codes of the given word length, interleaved.
inline std::vector<int> ReadCodes(const std::string& path, SF_INFO& info, int bits)
{
    info = SF_INFO{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f)
        return {};
    std::vector<int> data(static_cast<size_t>(info.frames * info.channels));
    sf_readf_int(f, data.data(), info.frames);
    sf_close(f);
    for (int& v : data)
        v >>= 32 - bits;
    return data;
}
