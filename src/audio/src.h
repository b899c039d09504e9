// One libsamplerate linear converter, working directly between two ring
// buffers' contiguous regions. Owned and called by one module worker thread
// only; it is the producer of its output buffer and the consumer of its input
// buffer, so a real-time thread may read the output buffer meanwhile.
#pragma once

#include <samplerate.h>

#include "audio/zp_buffer.h"

class CSRCWrapper {
public:
    // Creates the converter for channels interleaved channels. If creation
    // fails the wrapper still exists, and every PerformSRC fails.
    CSRCWrapper(int channels, double ratio);
    ~CSRCWrapper();
    CSRCWrapper(const CSRCWrapper&) = delete;
    CSRCWrapper& operator=(const CSRCWrapper&) = delete;

    // Output rate / input rate. The library's verdict on the value is not
    // checked here; a ratio it refuses makes PerformSRC fail.
    void SetRatio(double ratio);
    double GetRatio() const { return m_dRatio; }

    // Converts what it can from in into out, in at most four passes over the
    // first regions (a wrap of either buffer is taken by the next pass). Both
    // buffers must have the converter's channel count. False only when the
    // library reports an error; passes before the failing one stay applied.
    // The converter is never reset and never told the input has ended, so its
    // history carries over from call to call and from file to file.
    bool PerformSRC(CZPBuffer* in, CZPBuffer* out);

private:
    double m_dRatio;          // worker thread only
    SRC_STATE* m_pSrcState;   // worker thread only; null when creation failed
    // libsamplerate's linear converter, handed exactly one input frame, reads
    // the memory just before it where it should use the frame it kept from the
    // previous call; at the start of a ring buffer's array that memory is not
    // the buffer's. A lone frame is therefore copied into the second half of
    // this pair, behind a copy of the last frame the converter consumed. All
    // three are the worker thread's alone.
    const unsigned m_nChannels;
    float* const m_pLonePair;   // 2 frames, allocated once
    bool m_bConsumedAny;        // the pair's first frame holds a consumed frame
};
