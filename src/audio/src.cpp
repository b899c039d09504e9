// Sample-rate conversion between two ring buffers with libsamplerate.
#include "audio/src.h"

#include <cstdio>

#include "app/logging.h"

namespace {
// Enough for a wrap of the input, a wrap of the output, and the output
// filling before the input is used up.
constexpr int kMaxPasses = 4;
}

CSRCWrapper::CSRCWrapper(int channels, double ratio) : m_dRatio(ratio), m_pSrcState(nullptr)
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
        // The linear converter, handed exactly one input frame, interpolates
        // from the memory just before data_in instead of from the frame it
        // kept from the previous call. Inside the ring that memory is the
        // frame just before the read cursor: the frame consumed last, which
        // the producer never overwrites (one frame is always kept free). At
        // the array start it lies outside the array, so a lone frame with
        // nothing after it waits for more input. A lone frame at the array
        // end with more data at the start is safe and is converted.
        if (readInfo.m_nFirstFrames == 1 && readInfo.m_nSecondFrames == 0)
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

        SerialLog(eLogRuntime, "SRC Ratio %f\r\n", m_dRatio);
        const int error = src_process(m_pSrcState, &data);
        if (error != 0) {
            printf("Src err: %s\r\n", src_strerror(error));
            return false;
        }
        SerialLog(eLogRuntime, "SRC: input frames consumed:%ld, output frames resulting:%ld \r\n",
                  data.input_frames_used, data.output_frames_gen);

        in->ReadAdvance(static_cast<unsigned>(data.input_frames_used));
        out->WriteAdvance(static_cast<unsigned>(data.output_frames_gen));
        in->GetReadInfo(readInfo);
        out->GetWriteInfo(writeInfo);
    }
    return true;
}
