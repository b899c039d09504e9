// CRPBase: statistics, progress reports, completion messages and debug
// displays.
#include <cstdio>

#include "app/globals.h"
#include "app/logging.h"
#include "modules/rp_base.h"
#include "protocol/rp_server.h"

void CRPBase::ClearStatistics()
{
    m_nPeakBufferFrames.store(0, std::memory_order_relaxed);
    m_nXrunCount.store(0, std::memory_order_relaxed);
    m_nXrunTotal = 0;
    m_nMaxProcessDeltaMs.store(0, std::memory_order_relaxed);
    m_nMaxFileOpMs.store(0, std::memory_order_relaxed);
}

void CRPBase::MeasureProcessDelta(std::atomic<uint32_t>& prev, const char* pLogFormat)
{
    const uint32_t now = MonotonicMs();
    const uint32_t delta = now - prev.exchange(now, std::memory_order_relaxed);
    if (delta - 20u > 3u)
        SerialLog(eLogPerformance, pLogFormat, static_cast<int>(delta));
    RaiseTo(m_nMaxProcessDeltaMs, delta);
}

void CRPBase::RaiseTo(std::atomic<uint32_t>& word, uint32_t v)
{
    if (v > word.load(std::memory_order_relaxed))
        word.store(v, std::memory_order_relaxed);
}

void CRPBase::PrepareMessage(structZorPlayMsg* pMsg, enumZorPlayCmd eCmd)
{
    InitUnrequested(*pMsg, m_bRecorder ? eZorPlayRecorder : eZorPlayPlayer, eCmd, m_nSlot);
}

void CRPBase::SendMsg() { m_pServer->SendAsync(m_CompletionMsg); }

enumZorPlayResult CRPBase::DoReportProgress()
{
    if (!InState(GetState(), {eStateRunning, eStatePaused, eStateDraining, eStateFastForward, eStateRewind}))
        return eResultNotRunning;
    PrepareMessage(&m_ProgressMsg, eCmdFileProgress);
    structFileProgress& p = m_ProgressMsg.payload.fileProgress;
    p.nState = GetState();
    p.nElapsed = GetProgressElapsed();
    p.nMax = GetProgressMax();
    // A position a little past the length (rounding of a converted file)
    // reports nothing remaining rather than a wrapped count.
    p.nRemaining = p.nMax > p.nElapsed ? p.nMax - p.nElapsed : 0;
    const unsigned len = m_pFileHandler->GetRTBufLen();
    p.nBufferPercent = len == 0 ? 0 : static_cast<uint32_t>(100ULL * m_nPeakBufferFrames.load() / len);
    p.nXRuns = m_nXrunCount.load(std::memory_order_relaxed);
    p.nMaxFileOpMs = m_nMaxFileOpMs.load(std::memory_order_relaxed);
    p.nMaxProcessDeltaMs = m_nMaxProcessDeltaMs.load(std::memory_order_relaxed);
    p.nPlaylistIndex = GetPlaylistIndex();

    m_nMaxFileOpMs.store(0, std::memory_order_relaxed);
    m_nMaxProcessDeltaMs.store(0, std::memory_order_relaxed);
    m_nPeakBufferFrames.store(0, std::memory_order_relaxed);
    m_nXrunTotal += p.nXRuns;
    m_nXrunCount.store(0, std::memory_order_relaxed);
    m_pServer->SendAsync(m_ProgressMsg);
    return eResultSuccess;
}

void CRPBase::DoDisplayDebug(bool bFull)
{
    if (bFull) {
        printf("Type: %s, State: %s\r\n", m_bRecorder ? "Recorder" : "Player", GetStateString());
        printf("Jack Details: Rate %u, buffer sz %u\r\n", g_nJackSampleRate.load(), g_nBufferSizeFrames.load());
        return;
    }
    const unsigned max = GetProgressMax();
    const unsigned percent = max == 0 ? 0 : static_cast<unsigned>(100ULL * GetProgressElapsed() / max);
    printf("%12s is %s, Channels: %u, Offset: %u, filename: %s, file progress: %%%u\r\n", m_pNameFull,
           GetStateString(), m_nChannels, m_nOffset, m_pFileHandler->GetActiveFilename(), percent);
}
