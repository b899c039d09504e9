// One staged play file: a slot of the play file handler's ring. It opens an
// audio file through libsndfile, reads it in bounded steps, maps its channels
// onto the player's port channels, converts it to the JACK rate when the rates
// differ, and keeps the result in its own play buffer for the real-time
// callback.
//
// Threads: the module worker calls everything, except that the real-time
// callback (through the handler) calls GetBufferP, IsOpen, IsDone,
// GetPortPosition, GetPortMaxLen and reads the play buffer as its consumer.
// The words the callback reads are atomic; everything else is worker only.
#pragma once

#include <atomic>
#include <cstdint>
#include <sndfile.h>

#include "audio/src.h"
#include "audio/zp_buffer.h"

constexpr unsigned kPlayFilenameSize = 1025;
constexpr unsigned kSlabSamples = 1024;
constexpr unsigned kPlayBufferPeriods = 250;
constexpr unsigned kFileBufferPeriods = 10;
constexpr unsigned kFillPeriods = 4;

// Fast-wind settings shared by the handler's five files. Worker thread only.
class CFastWindInfo {
public:
    CFastWindInfo() { ClearAll(); }
    ~CFastWindInfo() {}
    void ClearAll()
    {
        m_bEngaged = false;
        m_bForward = false;
        m_bSilent = false;
        m_nStartSeconds = 0;
    }

    bool m_bEngaged;
    bool m_bForward;          // true fast forward, false rewind
    bool m_bSilent;           // wind without sound
    uint32_t m_nStartSeconds; // CLOCK_MONOTONIC seconds at the last engage
};

// CLOCK_MONOTONIC whole seconds, as 32 bits.
uint32_t MonotonicSeconds();

class CPlayFile {
public:
    CPlayFile(unsigned channels, CFastWindInfo* fastWind);
    ~CPlayFile();
    CPlayFile(const CPlayFile&) = delete;
    CPlayFile& operator=(const CPlayFile&) = delete;

    // Worker thread.
    static SNDFILE* OpenPlayable(const char* name, SF_INFO& info);
    bool SetFilename(const char* name, unsigned listIndex);
    const char* GetFilename() const { return m_szFilename; }
    unsigned GetListIndex() const { return m_nListIndex; }
    bool OpenFile();
    void Unstage();
    void ManualStop();
    void ResetPosition();
    void ClearBuffers();
    void ClearDoneFlag() { m_bDone.store(false, std::memory_order_release); }
    bool SeekToAbsTime(unsigned seconds);
    void SeekToPortTime();
    unsigned SlabRead(float* dst, unsigned frames);
    int FillBufferFromFile(CZPBuffer* dst);
    int FillPlayBuffer();
    unsigned GetRTBufLen() const;
    void DoDisplayDebug(bool verbose) const;

    // Real-time thread and worker.
    // The play buffer once the file is open (and published), else null.
    CZPBuffer* GetBufferP() const { return IsOpen() ? m_pPlayBuffer : nullptr; }
    bool IsOpen() const { return m_bOpen.load(std::memory_order_acquire); }
    // Read to its end (or stopped); its play buffer may still hold audio.
    bool IsReadToEnd() const { return m_bDone.load(std::memory_order_acquire); }
    // Read to its end and played out. Only loads of buffer cursors, so the
    // callback may ask about the file buffer too.
    bool IsDone() const;
    unsigned GetPortPosition() const;
    unsigned GetPortMaxLen() const { return m_nPortMaxLen.load(std::memory_order_relaxed); }

private:
    char m_szFilename[kPlayFilenameSize]; // worker
    unsigned m_nListIndex;                // worker
    const unsigned m_nChannels;
    // Written by the worker (release) once the file is read to its end or
    // stopped; read by the callback (acquire), which acts on it only together
    // with an empty play buffer.
    std::atomic<bool> m_bDone;
    SNDFILE* m_pSndFile; // worker
    SF_INFO m_sfInfo;    // worker
    // Created once by the worker before the first publication through
    // m_bOpen; the pointers never change afterwards.
    CZPBuffer* m_pPlayBuffer;
    CZPBuffer* m_pFileBuffer; // worker both sides
    float* m_pSlab;           // worker
    bool m_bChannelMap;       // worker
    bool m_bSRC;              // worker
    CSRCWrapper* m_pSRC;      // worker
    // Written by the worker; read by the callback for the port position.
    std::atomic<uint32_t> m_nFramesRead;
    uint32_t m_nFileFrames; // worker
    std::atomic<uint32_t> m_nPortMaxLen;
    CFastWindInfo* m_pFastWind; // not owned; worker
    // Port rate / file rate. Written by the worker in OpenFile before the file
    // is published, read by the callback only while the file is published.
    double m_dRatio;
    // Set (release) by the worker once the file is open and its buffers are
    // empty; cleared by Unstage. The callback touches the play buffer only
    // while it sees this set (acquire).
    std::atomic<bool> m_bOpen;
};
