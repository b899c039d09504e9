// Sample-rate conversion between two ring buffers with libsamplerate.
#include "audio/src.h"

#include <algorithm>
#include <cstdio>

#include "app/logging.h"

namespace {
// Enough for a wrap of the input, a wrap of the output, and the output
// filling before the input is used up.
constexpr int kMaxPasses = 4;
}

CSRCWrapper::CSRCWrapper(int channels, double ratio)
    : m_dRatio(ratio),
      m_pSrcState(nullptr),
      m_nChannels(static_cast<unsigned>(std::max(channels, 1))),
      m_pLonePair(new float[2 * m_nChannels]()),
      m_bConsumedAny(false)
{
    int error = 0;
    m_pSrcState = src_new(SRC_LINEAR, channels, &error);
    if (m_pSrcState == nullptr)
        printf("####### SRC init error: %d\r\n", error);
    // Harmless on a null converter: the library refuses it.
    src_set_ratio(m_pSrcState, m_dRatio);
}

CSRCWrapper::~CSRCWrapper()
{
    if (m_pSrcState != nullptr)
        src_delete(m_pSrcState);
    m_pSrcState = nullptr;
    delete[] m_pLonePair;
}

void CSRCWrapper::SetRatio(double ratio)
{
    m_dRatio = ratio;
    src_set_ratio(m_pSrcState, m_dRatio);
}

bool CSRCWrapper::PerformSRC(CZPBuffer* in, CZPBuffer* out)
{
    CBufInfo readInfo;
    CBufInfo writeInfo;
    in->GetReadInfo(readInfo);
    out->GetWriteInfo(writeInfo);

    for (int pass = 0; pass < kMaxPasses; ++pass) {
        if (writeInfo.m_nFirstFrames == 0 || readInfo.m_nFirstFrames == 0)
            return true;
        SRC_DATA data;
        data.data_in = readInfo.m_pFirst;
        data.data_out = writeInfo.m_pFirst;
        data.input_frames = static_cast<long>(readInfo.m_nFirstFrames);
        data.output_frames = static_cast<long>(writeInfo.m_nFirstFrames);
        data.input_frames_used = 0;
        data.output_frames_gen = 0;
        data.end_of_input = 0;
        data.src_ratio = m_dRatio;
        if (readInfo.m_nFirstFrames == 1) {
            float* lone = m_pLonePair + m_nChannels;
            std::copy_n(readInfo.m_pFirst, m_nChannels, lone);
            // Before anything was consumed the converter starts on this frame.
            if (!m_bConsumedAny)
                std::copy_n(lone, m_nChannels, m_pLonePair);
            data.data_in = lone;
        }

        SerialLog(eLogRuntime, "SRC Ratio %f\r\n", m_dRatio);
        const int error = src_process(m_pSrcState, &data);
        if (error != 0) {
            printf("Src err: %s\r\n", src_strerror(error));
            return false;
        }
        SerialLog(eLogRuntime, "SRC: input frames consumed:%ld, output frames resulting:%ld \r\n",
                  data.input_frames_used, data.output_frames_gen);

        if (data.input_frames_used > 0) {
            std::copy_n(data.data_in + (data.input_frames_used - 1) * m_nChannels, m_nChannels,
                        m_pLonePair);
            m_bConsumedAny = true;
        }
        in->ReadAdvance(static_cast<unsigned>(data.input_frames_used));
        out->WriteAdvance(static_cast<unsigned>(data.output_frames_gen));
        in->GetReadInfo(readInfo);
        out->GetWriteInfo(writeInfo);
    }
    return true;
}
