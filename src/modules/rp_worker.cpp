// CRPBase: the worker thread, its loop over the command and internal queues,
// and the handling of each token.
#include <sys/select.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "app/logging.h"
#include "modules/queue_sizes.h"
#include "modules/rp_base.h"

void* CRPBase::WorkerThreadStatic(void* arg)
{
    static_cast<CRPBase*>(arg)->WorkerThreadMember();
    return nullptr;
}

void CRPBase::WorkerThreadMember()
{
    char buffer[kCommandQueueMsgSize];
    bool running = true;
    while (running) {
        fd_set readSet;
        FD_ZERO(&readSet);
        FD_SET(m_mqCommand, &readSet);
        FD_SET(m_mqInternal, &readSet);
        const int maxFD = m_mqCommand > m_mqInternal ? m_mqCommand : m_mqInternal;
        const int ready = select(maxFD + 1, &readSet, nullptr, nullptr, nullptr);
        if (ready == 0) {
            SerialLog(eLogRuntime, "Select returned with 0 pending\r\n");
            continue;
        }
        if (ready < 0) {
            const int err = errno;
            printf("Select returned -1: %s\r\n", strerror(err));
            if (err == EINTR) {
                puts("Errno indicates interrupt -\r\nEXITING!\r");
                break;
            }
            continue;
        }
        if (!m_bClientLost && m_bJackLost.load(std::memory_order_acquire)) {
            // The loss may drain the internal queue: wait for readiness anew.
            HandleJackLoss();
            continue;
        }
        if (FD_ISSET(m_mqInternal, &readSet)) {
            uint32_t token = 0;
            if (mq_receive(m_mqInternal, reinterpret_cast<char*>(&token), sizeof(token), nullptr) < 0)
                printf("Module internal MQ receive failed: %s\r\n", strerror(errno));
            else
                HandleInternalToken(token);
        }
        if (FD_ISSET(m_mqCommand, &readSet)) {
            const ssize_t n = mq_receive(m_mqCommand, buffer, sizeof(buffer), nullptr);
            if (n < 0) {
                printf("Module Command MQ receive failed: %s\r\n", strerror(errno));
            } else if (n == static_cast<ssize_t>(sizeof(uint32_t))) {
                uint32_t token;
                memcpy(&token, buffer, sizeof(token));
                running = HandleCommandToken(token, buffer);
            }
            // Any other length is not a token: dropped without an answer.
        }
        ReportLostPosts();
    }
    m_bWorkerEnded.store(true, std::memory_order_release);
}

void CRPBase::HandleInternalToken(uint32_t token)
{
    // Every token, whatever its kind, first takes what the callback has
    // reported: a roll or an end of play whose own token was lost to a full
    // queue is applied here, in its place in the order of events.
    DrainRTEvents();
    switch (token) {
    case eInternalService:
        ServiceBuffer();
        break;
    case eInternalFileDone:
    case eInternalFileRolled:
        break; // applied from the ring above
    default:
        printf("Module internal MQ received unknown token: %d\r\n", static_cast<int>(token));
        break;
    }
}

void CRPBase::DrainRTEvents()
{
    uint32_t event = 0;
    while (m_RTEvents.Pop(event))
        ApplyRTEvent(event);
}

void CRPBase::ApplyRTEvent(uint32_t event)
{
    printf("Module internal MQ received unknown token: %d\r\n", static_cast<int>(event));
}

void CRPBase::ReportLostPosts()
{
    if (m_nLostPosts.load(std::memory_order_relaxed) == 0)
        return;
    const uint32_t lost = m_nLostPosts.exchange(0, std::memory_order_relaxed);
    const char* reason = strerror(m_nLostPostErrno.load(std::memory_order_relaxed));
    for (uint32_t i = 0; i < lost; ++i)
        printf("MQ void * RT Send failed %s\r\n", reason);
}

// The commands whose token is followed by a payload record.
struct CRPBase::PayloadCommand {
    uint32_t token;
    const char* pLogLine; // logged on the token; null for none
    long nSize;           // the record's exact length
    const char* pBadSizeLine;
    enumZorPlayResult (*run)(CRPBase& module, char* payload);
};

const CRPBase::PayloadCommand CRPBase::s_PayloadCommands[kPayloadCommandCount] = {
    {eTokenSetupRecordFile, "Setup record file\r\n", sizeof(structSetupFile), "Invalid size of file setup\r",
     [](CRPBase& module, char* payload) {
         structSetupFile* setup = reinterpret_cast<structSetupFile*>(payload);
         setup->szFilenames[0][kRecordFilenameSize - 1] = '\0';
         SerialLog(eLogInteractive, "Enqueuing files: %s\r\n", setup->szFilenames[0]);
         return module.DoSetupFile(setup);
     }},
    {eTokenSetupPlayFile, "Setup play file\r\n", sizeof(structSetupPlayFile), "Invalid size of file setup\r",
     [](CRPBase& module, char* payload) {
         structSetupPlayFile* setup = reinterpret_cast<structSetupPlayFile*>(payload);
         setup->szFilename[kPlayFilenameFieldSize - 1] = '\0';
         SerialLog(eLogInteractive, "Enqueuing file: %s\r\n", setup->szFilename);
         return module.DoSetupFile(setup);
     }},
    {eTokenSetupPlaylist, nullptr, sizeof(structSetupPlaylist), "Invalid size of playlist\r",
     [](CRPBase& module, char* payload) {
         return module.DoSetupPlaylist(reinterpret_cast<structSetupPlaylist*>(payload));
     }},
    {eTokenPlaylistSkip, "Playlist Skip\r\n", sizeof(structSkipInPlaylist), "Invalid size of skip command\r",
     [](CRPBase& module, char* payload) {
         return module.DoPlaylistSkip(reinterpret_cast<structSkipInPlaylist*>(payload));
     }},
    {eTokenSeekToTime, "Seek To Time\r\n", sizeof(structSeekOperation), "Invalid size of seek command\r",
     [](CRPBase& module, char* payload) {
         return module.DoSeekToTime(reinterpret_cast<structSeekOperation*>(payload));
     }},
};

bool CRPBase::HandlePayloadCommand(uint32_t token, char* buffer, enumZorPlayResult& result)
{
    for (const PayloadCommand& cmd : s_PayloadCommands) {
        if (cmd.token != token)
            continue;
        if (cmd.pLogLine)
            SerialLog(eLogInteractive, "%s", cmd.pLogLine);
        const ssize_t n = mq_receive(m_mqCommand, buffer, kCommandQueueMsgSize, nullptr);
        if (n == cmd.nSize) {
            result = m_bClientLost ? eResultNoJack : cmd.run(*this, buffer);
        } else {
            if (n < 0)
                printf("Module Command MQ receive failed: %s\r\n", strerror(errno));
            puts(cmd.pBadSizeLine);
            result = eResultBadLength;
        }
        return true;
    }
    return false;
}

bool CRPBase::HandleCommandToken(uint32_t token, char* buffer)
{
    enumZorPlayResult result = eResultSuccess;
    if (token == eTokenExit) {
        SerialLog(eLogInteractive, "Module Exiting\r\n");
        return false;
    }
    // Without its JACK client a module can only be looked at and deleted.
    if (m_bClientLost && token >= eTokenStart && token <= eTokenStop) {
        SendResponse(eResultNoJack);
        return true;
    }
    // A command, a progress report included, comes after everything the
    // callback has reported so far.
    DrainRTEvents();
    if (!HandlePayloadCommand(token, buffer, result)) {
        switch (token) {
        case eTokenStart:
            SerialLog(eLogInteractive, "Start\r\n");
            result = DoStart();
            break;
        case eTokenPause:
            SerialLog(eLogInteractive, "Pause\r\n");
            result = DoPause();
            break;
        case eTokenFastForward:
            SerialLog(eLogInteractive, "Fast forward\r\n");
            result = DoFastForward();
            break;
        case eTokenRewind:
            SerialLog(eLogInteractive, "Rewind\r\n");
            result = DoRewind();
            break;
        case eTokenStop:
            SerialLog(eLogInteractive, "Stop\r\n");
            result = DoStop();
            break;
        case eTokenDisplayDebug:
            DoDisplayDebug(false);
            break;
        case eTokenDisplayDebugFull:
            DoDisplayDebug(true);
            break;
        case eTokenReportProgress:
            result = DoReportProgress();
            break;
        default:
            printf("Unknown token %d in external MQ\r\n", static_cast<int>(token));
            result = eResultUnknownCommand;
            break;
        }
    }
    // Displays go out before the caller prints anything of its own.
    fflush(stdout);
    SendResponse(result);
    return true;
}

void CRPBase::StopWorker()
{
    if (m_hWorker == 0)
        return;
    if (!m_bWorkerEnded.load(std::memory_order_acquire))
        SendInternal(eTokenExit);
    pthread_join(m_hWorker, nullptr);
    m_hWorker = 0;
}
