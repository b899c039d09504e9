// CRecorder: the real-time callback that interleaves the input ports into the
// ring buffer, and the worker side that drains it into files.
#include <cstdio>

#include "app/globals.h"
#include "app/info_files.h"
#include "app/logging.h"
#include "audio/zp_buffer.h"
#include "modules/rp_recorder.h"
#include "protocol/rp_server.h"

namespace {

// Time of the previous callback of any recorder, in ms (statistics only).
std::atomic<uint32_t> s_nRecorderPrevMs{0};

constexpr uint32_t kFileOpLogMs = 7;

} // namespace

CRecorder::CRecorder(const char* pNameBase, int nSlot, int nChannels, int nOffset, CRPServer* pServer)
    : CRPBase(pNameBase, nSlot, nChannels, nOffset, true, pServer, &m_RecFileHandler), m_RecFileHandler(nChannels)
{
}

int CRecorder::ProcessMember(unsigned int nframes)
{
    MeasureProcessDelta(s_nRecorderPrevMs, "Recorder process delta %d mSec\r\n");
    // Nothing is recorded and nothing posted outside Running.
    if (GetState() != eStateRunning)
        return 0;
    const float* ports[kMaxModuleChannels];
    for (unsigned c = 0; c < m_nChannels; ++c)
        ports[c] = static_cast<const float*>(jack_port_get_buffer(m_pPorts[c], nframes));
    RecordPeriod(ports, nframes);
    return 0;
}

void CRecorder::RecordPeriod(const float* const* ports, unsigned nframes)
{
    // The stop step waits at this gate, so a period that saw Running has
    // been written and its token posted before the stop's own token.
    if (!m_Gate.Enter())
        return;
    if (GetState() != eStateRunning) {
        m_Gate.Leave();
        return;
    }
    CZPBuffer* buffer = m_RecFileHandler.GetRTBufferP();
    const unsigned writable = buffer->GetWritableFrames();
    RaiseTo(m_nPeakBufferFrames, buffer->GetReadableFrames());
    unsigned frames = nframes;
    if (nframes > writable) {
        SerialLog(eLogRuntime, "Recorder buffer overrun: nf: %d  buf avail: %d \r\n", static_cast<int>(nframes),
                  static_cast<int>(writable));
        m_nXrunCount.fetch_add(1, std::memory_order_relaxed);
        frames = writable;
    }
    buffer->WriteInterleaved(ports, frames);
    SendRTRequest(eInternalService);
    m_Gate.Leave();
}

void CRecorder::ServiceBuffer()
{
    const int state = GetState();
    if (state != eStateRunning && state != eStateDraining)
        return;
    const uint32_t start = MonotonicMs();
    const int result = m_RecFileHandler.ServiceBuffer(state == eStateRunning);
    const uint32_t took = MonotonicMs() - start;
    if (took > kFileOpLogMs)
        SerialLog(eLogPerformance, "Recorder file op:%d mSec\r\n", static_cast<int>(took));
    RaiseTo(m_nMaxFileOpMs, took);
    if (result == CRecFileHandler::eServiceStopped) {
        SerialLog(eLogInteractive, "Record File: STOP!\r\n");
        SetState(eStateIdle);
        {
            // A period that still saw Running finishes before the next
            // set-up drops what it wrote.
            CRTGatePark waitForCycle(m_Gate);
        }
        PrepareCompletionMsg(false);
        SendMsg();
    } else if (result == CRecFileHandler::eServiceRolled) {
        SerialLog(eLogInteractive, "Recorder file ROLLED\r\n");
        PrepareCompletionMsg(true);
        SendMsg();
    }
}

enumZorPlayResult CRecorder::DoSetupFile(structSetupFile* pSetup)
{
    if (GetState() != eStateIdle && pSetup->bSecondary == 0) {
        puts("Module must be idle to setup file\r");
        return eResultNotIdle;
    }
    const enumZorPlayResult r = m_pFileHandler->AddSingleFile(pSetup);
    if (r != eResultSuccess)
        return r;
    if (GetState() == eStateIdle)
        SetState(eStateFileReady);
    return eResultSuccess;
}

// Frames found buffered at a Start from File Ready were captured before this
// recording was asked for; they are dropped, by the reading side only.
enumZorPlayResult CRecorder::DoStart()
{
    if (GetState() == eStateFileReady)
        m_RecFileHandler.DiscardBuffered();
    return CRPBase::DoStart();
}

// Before any set-up the handler has no rate and answers 0.
unsigned CRecorder::GetProgressElapsed() { return m_RecFileHandler.GetProgressElapsed(); }
unsigned CRecorder::GetProgressMax() { return m_RecFileHandler.GetProgressMax(); }

void CRecorder::PrepareCompletionMsg(bool bRoll)
{
    PrepareMessage(&m_CompletionMsg, eCmdFileCompletion);
    structFileCompletion& c = m_CompletionMsg.payload.fileCompletion;
    m_RecFileHandler.PopCompletionMessage(&c);
    c.nXRuns = m_nXrunTotal;
    m_nXrunTotal = 0;
    if (bRoll) {
        c.bRolled = 1;
        strscpy(c.szNewFilename, m_pFileHandler->GetActiveFilename(), kRecordFilenameSize);
    }
}

void CRecorder::DoDisplayDebug(bool bFull)
{
    CRPBase::DoDisplayDebug(bFull);
    if (!bFull)
        return;
    printf("Port Progress %u of %u\r\n", m_nPortPosition.load(), m_nPortMaxLen.load());
    m_pFileHandler->DoDisplayDebug();
}

// An open set ends as a stop does: what the ring buffer holds is written, the
// files are closed with final headers, and the completion message goes out.
// Each service writes everything buffered (through the converter as far as
// its buffer allows), so a few passes always find the buffer dry.
void CRecorder::EndOnJackLoss()
{
    if (DoStop() != eResultSuccess)
        return;
    for (int pass = 0; pass < 1000 && GetState() == eStateDraining; ++pass)
        ServiceBuffer();
}
