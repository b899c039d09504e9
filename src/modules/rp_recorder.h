// CRecorder: a module that records its JACK input ports into WAV files.
#pragma once

#include "files/recfile_handler.h"
#include "modules/rp_base.h"

class CRecorder : public CRPBase {
public:
    CRecorder(const char* pNameBase, int nSlot, int nChannels, int nOffset, CRPServer* pServer);
    ~CRecorder() override { Shutdown(); }

protected:
    enumZorPlayResult DoSetupFile(structSetupFile* pSetup) override;
    using CRPBase::DoSetupFile;
    enumZorPlayResult DoStart() override;
    void DoDisplayDebug(bool bFull) override;
    void ServiceBuffer() override;
    unsigned GetProgressElapsed() override;
    unsigned GetProgressMax() override;
    int ProcessMember(unsigned int nframes) override;
    void PrepareCompletionMsg(bool bRoll) override;
    void EndOnJackLoss() override;
    // The callback's work on one period of port samples (one pointer per
    // channel), apart from fetching the port buffers from JACK.
    void RecordPeriod(const float* const* ports, unsigned nframes);

    CRecFileHandler m_RecFileHandler;
};
