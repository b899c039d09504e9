#include "harness/sound.h"

#include <cmath>

long RampFrame(float sample)
{
    const double k = static_cast<double>(sample) * 16777216.0 - 1.0;
    return k >= 0 && k == std::floor(k) && static_cast<long>(k) % 8 == 0 ? static_cast<long>(k) / 8 : -1;
}

bool WriteSound(const std::string& path, unsigned channels, int rate, int format, uint32_t frames, const Generator& gen)
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
    // 16-bit files are written as codes so that nothing is rounded on the way.
    const sf_count_t wrote = format == SF_FORMAT_PCM_16 ? sf_writef_short(f, codes.data(), frames)
                                                        : sf_writef_float(f, data.data(), frames);
    return sf_close(f) == 0 && wrote == frames;
}

bool WriteRamp(const std::string& path, unsigned channels, uint32_t first, uint32_t frames)
{
    return WriteSound(path, channels, 48000, SF_FORMAT_FLOAT, frames,
                      [first](uint32_t n, unsigned c) { return Ramp(first + n, c); });
}

std::vector<int> ReadCodes(const std::string& path, SF_INFO& info, int bits)
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
