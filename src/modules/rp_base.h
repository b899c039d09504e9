// The module base: CRPBase with its state machine, worker thread, message
// queues and JACK client, on which the two kinds of module, CPlayer and
// CRecorder, are built.
//
// Threads and who touches what:
//   main thread   construction, Initialize(), the public operations, the
//                 destructor. Public operations block until the worker answers.
//   worker        every Do operation, ServiceBuffer (file I/O), completion,
//                 roll-over and progress messages, debug displays. The only
//                 writer of the module state.
//   JACK thread   ProcessMember, once a period. It reads the state and acts
//                 on it, and reports what happened (a roll, the end of play)
//                 through the event ring; it shares with the worker only the
//                 atomic state and statistics words, the file handler's ring
//                 buffers, the event ring and the internal queue.
#pragma once

#include <jack/jack.h>
#include <mqueue.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <initializer_list>

#include "files/file_handler.h"
#include "modules/rt_events.h"
#include "modules/rt_gate.h"
#include "protocol/zor_play_msg.h"

class CRPServer;

// Channels of a module, and so ports of its client, at most.
constexpr unsigned kMaxModuleChannels = 8;

// Tokens on a module's command queue.
enum eRPCommandToken : uint32_t {
    eTokenExit = 0,
    eTokenStart = 1,
    eTokenPause = 2,
    eTokenFastForward = 3,
    eTokenRewind = 4,
    eTokenStop = 5,
    eTokenSetupRecordFile = 6,
    eTokenSetupPlayFile = 7,
    eTokenSetupPlaylist = 8,
    eTokenPlaylistSkip = 9,
    eTokenSeekToTime = 10,
    eTokenDisplayDebug = 11,
    eTokenDisplayDebugFull = 12,
    eTokenReportProgress = 13,
    eTokenCount = 14,
};

// Tokens on a module's internal queue.
enum eRPInternalToken : uint32_t {
    eInternalService = 0,
    eInternalFileDone = 1,
    eInternalFileRolled = 2,
};

// Milliseconds of the monotonic clock, wrapping in 32 bits.
uint32_t MonotonicMs();

inline bool InState(int state, std::initializer_list<int> states)
{
    for (int s : states)
        if (s == state)
            return true;
    return false;
}

class CRPBase {
public:
    // pFileHandler is the derived kind's handler member; only its address is
    // taken here.
    CRPBase(const char* pNameBase, int nSlot, int nChannels, int nOffset, bool bRecorder, CRPServer* pServer,
            CFileHandler* pFileHandler);
    virtual ~CRPBase();
    CRPBase(const CRPBase&) = delete;
    CRPBase& operator=(const CRPBase&) = delete;

    // Main thread: once, right after construction.
    enumZorPlayResult Initialize();
    // Main thread: stops the worker and deactivates the JACK client. Both
    // make virtual calls into the derived kind and use its file handler, so
    // the derived destructor calls this first.
    void Shutdown();

    // Main thread: each hands a token (and a payload) to the worker and
    // waits for its one-word answer.
    enumZorPlayResult Start();
    enumZorPlayResult Pause();
    enumZorPlayResult FastForward();
    enumZorPlayResult Rewind();
    enumZorPlayResult Stop();
    enumZorPlayResult SetupFile(structSetupFile* pSetup);
    enumZorPlayResult SetupFile(structSetupPlayFile* pSetup);
    enumZorPlayResult SetupPlaylist(structSetupPlaylist* pSetup);
    enumZorPlayResult PlaylistSkip(structSkipInPlaylist* pSkip);
    enumZorPlayResult SeekToTime(structSeekOperation* pSeek);
    void DisplayDebug(bool bFull);
    enumZorPlayResult ReportProgress();

    // Any thread (the state word is atomic).
    int GetState() const { return m_nState.load(std::memory_order_acquire); }
    const char* GetStateString() const;
    int GetSlot() const { return m_nSlot; }

protected:
    // Worker thread: the commands. The base answers 32 for those its kind of
    // module does not support.
    virtual enumZorPlayResult DoSetupFile(structSetupFile* pSetup);
    virtual enumZorPlayResult DoSetupFile(structSetupPlayFile* pSetup);
    virtual enumZorPlayResult DoSetupPlaylist(structSetupPlaylist* pSetup);
    virtual enumZorPlayResult DoPlaylistSkip(structSkipInPlaylist* pSkip);
    virtual enumZorPlayResult DoSeekToTime(structSeekOperation* pSeek);
    virtual enumZorPlayResult DoStart();
    virtual enumZorPlayResult DoPause();
    virtual enumZorPlayResult DoFastForward();
    virtual enumZorPlayResult DoRewind();
    virtual void DoDisplayDebug(bool bFull);
    virtual void ServiceBuffer() = 0;
    virtual unsigned GetProgressElapsed() = 0;
    virtual unsigned GetProgressMax() = 0;
    virtual unsigned GetPlaylistIndex() { return 0; }
    // JACK thread.
    virtual int ProcessMember(unsigned int nframes) = 0;
    static int ProcessStatic(jack_nframes_t nframes, void* arg);
    // Worker thread: fills m_CompletionMsg.
    virtual void PrepareCompletionMsg(bool bRoll) = 0;
    // Worker thread, once the JACK server is gone (no callback runs any
    // more): ends what the module was doing with its final completion
    // message, keeping every frame already buffered.
    virtual void EndOnJackLoss() {}
    // Main thread, during Initialize(): registers ProcessStatic and the
    // shutdown callback.
    bool InstallCallbacks();
    // A JACK thread, after the client has died: raises m_bJackLost and wakes
    // the worker, never waiting.
    static void JackShutdownStatic(jack_status_t code, const char* reason, void* arg);
    // Worker: the module's end after its client has died (see rp_jack.cpp).
    void HandleJackLoss();

    // Worker thread. The stop step; a kind whose callback reports events
    // applies them first (see DrainRTEvents).
    virtual enumZorPlayResult DoStop();
    enumZorPlayResult DoReportProgress();
    void PrepareMessage(structZorPlayMsg* pMsg, enumZorPlayCmd eCmd);
    void SendMsg();
    // JACK thread: the spacing since the previous callback of any module of
    // this kind (prev is shared by the kind), logged when outside 20 to 23 ms
    // and kept as the interval's largest.
    void MeasureProcessDelta(std::atomic<uint32_t>& prev, const char* pLogFormat);
    // Raises an atomic statistic to v when v is larger (either thread).
    static void RaiseTo(std::atomic<uint32_t>& word, uint32_t v);
    // The statistics of a new file: peak, xruns and timing maxima cleared.
    void ClearStatistics();
    // Worker: applies, in order, every event the callback has reported.
    void DrainRTEvents();
    // Worker: one reported event (eInternalFileRolled or eInternalFileDone);
    // only a kind whose callback reports events overrides it.
    virtual void ApplyRTEvent(uint32_t event);
    // Worker: prints a line for each token the callback could not post.
    void ReportLostPosts();

    // Main thread (destructors): tells the worker to leave and joins it.
    void StopWorker();
    bool DeactivateJack();

    // Queue operations.
    mqd_t CreateMessageQueue(const char* pName, unsigned int nMsgSize, unsigned int nMaxMsgs);
    bool SendInternal(eRPCommandToken token);
    bool SendInternal(void* pData, unsigned int nLen);
    // JACK thread and worker: never waits. A token that cannot be posted (a
    // full queue) is counted for the worker to report. Tokens only wake the
    // worker: a lost service token is made good by the next one.
    void SendRTRequest(eRPInternalToken token);
    // JACK thread: reports a roll or the end of play and rings the doorbell.
    // The event waits in the ring whatever becomes of the doorbell; the
    // worker takes it at its next wake (every period's service token, every
    // command).
    void ReportRTEvent(eRPInternalToken event);
    enumZorPlayResult GetResponse();
    bool SendResponse(enumZorPlayResult result);

    // JACK operations (main thread).
    bool OpenJack();
    void GetJackParams();
    unsigned FindSystemPorts();
    bool CreateClientPorts();
    bool ActivateJack();
    bool ConnectPorts();
    unsigned CountConnectedPorts() const; // own ports JACK shows as connected
    bool CloseJack();

    // Initialize() in pieces, so that the queues and the worker can also be
    // brought up without a JACK client.
    enumZorPlayResult CreateQueues();
    enumZorPlayResult StartWorker();

    static void* WorkerThreadStatic(void* arg);
    void WorkerThreadMember();

    void SetState(int state) { m_nState.store(state, std::memory_order_release); }

    const bool m_bRecorder;
    // Written by the worker only; read everywhere.
    std::atomic<int32_t> m_nState;
    CRPServer* m_pServer;
    structZorPlayMsg m_CompletionMsg; // worker
    structZorPlayMsg m_ProgressMsg;   // worker
    jack_client_t* m_pJackClient;     // main thread
    jack_port_t** m_pPorts;           // main thread; read by the JACK thread
    // Statistics: raised by the JACK thread (file-op time by the worker),
    // read and cleared by the worker. A raise lost to a clear is accepted.
    std::atomic<uint32_t> m_nPeakBufferFrames;
    std::atomic<uint32_t> m_nXrunCount;
    uint32_t m_nXrunTotal; // worker
    std::atomic<uint32_t> m_nMaxProcessDeltaMs;
    std::atomic<uint32_t> m_nMaxFileOpMs;
    const unsigned m_nChannels;
    const unsigned m_nOffset;
    // Player: written by the callback (by the worker while the callback
    // cannot be playing), read by the worker.
    std::atomic<uint32_t> m_nPortPosition;
    std::atomic<uint32_t> m_nPortMaxLen;
    pthread_t m_hWorker;
    mqd_t m_mqCommand;
    mqd_t m_mqResponse;
    mqd_t m_mqInternal;
    CFileHandler* m_pFileHandler;
    // The module's real-time gate: the callback brackets each cycle with
    // Enter and Leave. The worker parks it around anything the callback must
    // not see half done: a flush or restaging of the play buffers, and a
    // player command's decision on the state together with the events
    // applied before it. Waiting at it once (park, unpark) after leaving a
    // state guarantees that no cycle that saw the old state is still running.
    CRTGate m_Gate;
    // Callback to worker events (see ReportRTEvent).
    CRTEventRing m_RTEvents;
    const char** m_ppSystemPorts;
    char* m_pNameBase;
    char* m_pNameFull;
    const int m_nSlot;
    unsigned m_nNumSystemPorts;
    // Raised once by the shutdown callback when the client has died; read
    // by the worker at every pass and by the main thread at destruction.
    std::atomic<bool> m_bJackLost;
    // Worker: the loss has been handled; every command but the displays is
    // then answered 14.
    bool m_bClientLost;

    // Worker: handling of one token from each queue (tests drive these on
    // their own thread, without a worker).
    void HandleInternalToken(uint32_t token);
    // false when the worker is to leave its loop.
    bool HandleCommandToken(uint32_t token, char* buffer);

private:
    // Tokens 6 to 10: receives the payload that follows the token and runs
    // its command; false when the token takes no payload.
    bool HandlePayloadCommand(uint32_t token, char* buffer, enumZorPlayResult& result);
    struct PayloadCommand;
    static constexpr unsigned kPayloadCommandCount = 5;
    static const PayloadCommand s_PayloadCommands[kPayloadCommandCount];
    enumZorPlayResult Exchange(eRPCommandToken token, void* pPayload, unsigned nLen);

    // Set by the worker as it leaves its loop; the main thread then stops
    // waiting for answers that cannot come.
    std::atomic<bool> m_bWorkerEnded;
    std::atomic<uint32_t> m_nLostPosts; // raised by the JACK thread (and the worker)
    std::atomic<int> m_nLostPostErrno;
};

