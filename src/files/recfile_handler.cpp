// Recording files: set-up, opening and closing of WAV file sets, draining of
// the recorder's ring buffer into them, and roll-over to prepared names.
#include "files/recfile_handler.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

#include "app/info_files.h"
#include "app/logging.h"
#include "audio/src.h"
#include "audio/zp_buffer.h"
#include "files/regular_file.h"
#include "app/globals.h"

namespace {

// File sample rate of each rate option; option 0 writes the JACK samples as
// they are and labels them 48000 Hz.
constexpr int kRecRates[] = {48000, 24000, 16000, 12000};

struct WordFormat {
    int nFormat;
    uint32_t nBytes;
};
// By word-length option: 16-bit signed, 8-bit unsigned, 24-bit signed.
constexpr WordFormat kRecWordFormats[] = {
    {SF_FORMAT_WAV | SF_FORMAT_PCM_16, 2},
    {SF_FORMAT_WAV | SF_FORMAT_PCM_U8, 1},
    {SF_FORMAT_WAV | SF_FORMAT_PCM_24, 3},
};

}  // namespace

CRecFileHandler::CRecFileHandler(unsigned nChannels) : m_nChannels(nChannels)
{
    m_pSRC = new CSRCWrapper(static_cast<int>(nChannels), 1.0);
    m_szCompletedName[0] = '\0';
    ClearFilenames(m_szPrimaryNames);
    ClearFilenames(m_szSecondaryNames);
    for (SNDFILE*& pFile : m_pSndFiles)
        pFile = nullptr;
    memset(&m_sfInfo, 0, sizeof(m_sfInfo));
}

CRecFileHandler::~CRecFileHandler()
{
    // The worker has stopped and JACK is deactivated: nobody touches the
    // buffers any more.
    delete m_pRTBuffer;
    m_pRTBuffer = nullptr;
    delete m_pSRCBuffer;
    m_pSRCBuffer = nullptr;
    delete m_pSRC;
    m_pSRC = nullptr;
    CloseFile();
}

enumZorPlayResult CRecFileHandler::AddSingleFile(structSetupFile* pSetup)
{
    if (pSetup->bSecondary != 0)
        return SetupSecondary(pSetup);
    return SetupPrimary(pSetup);
}

enumZorPlayResult CRecFileHandler::SetupPrimary(structSetupFile* pSetup)
{
    // Each step keeps its settings even when a later one refuses; the next
    // successful primary set-up sets them all again.
    if (pSetup->nFileFormat == 0) {
        m_bInterleaved = true;
        m_sfInfo.channels = static_cast<int>(m_nChannels);
    } else if (pSetup->nFileFormat == 1) {
        m_bInterleaved = false;
        m_sfInfo.channels = 1;
    } else {
        printf("Invalid file format option: %d\r\n", pSetup->nFileFormat);
        return eResultBadFileFormat;
    }

    if (pSetup->nSampleRate > 3) {
        printf("Invalid Sample Rate Option: %d\r\n", static_cast<int>(pSetup->nSampleRate));
        return eResultBadSampleRate;
    }
    m_sfInfo.samplerate = kRecRates[pSetup->nSampleRate];
    m_bSRC = pSetup->nSampleRate != 0;
    m_pSRC->SetRatio(m_bSRC ? m_sfInfo.samplerate / static_cast<double>(g_nJackSampleRate.load()) : 1.0);

    if (pSetup->nWordLength < 0 || pSetup->nWordLength > 2) {
        printf("Invalid word length option: %d\r\n", pSetup->nWordLength);
        return eResultBadWordLength;
    }
    const WordFormat& word = kRecWordFormats[pSetup->nWordLength];
    m_sfInfo.format = word.nFormat;
    m_nBytesPerFrame = static_cast<uint32_t>(m_sfInfo.channels) * word.nBytes;

    m_bRolling = pSetup->bRoll == 1;
    m_nMaxLenFrames = MaxLenFrames(pSetup->nFileSeconds);

    m_sfInfo.frames = 0;
    m_sfInfo.sections = 0;
    m_sfInfo.seekable = 0;
    if (sf_format_check(&m_sfInfo) == 0) {
        puts("Fileformat not supported by libsndfile. Try other options.");
        return eResultFormatCheck;
    }

    if (!CopyFilenames(m_szPrimaryNames, pSetup->szFilenames)) {
        puts("can't open record file: filenames appear to be empty...\r");
        return eResultEmptyFilenames;
    }

    if (!OpenFile()) {
        puts("Record file open failed.\r");
        return eResultCantOpenFile;
    }
    // Frames the callback wrote after the last recording ended (it records
    // until it sees the state leave Running) must not open this one.
    DiscardBuffered();
    return eResultSuccess;
}

enumZorPlayResult CRecFileHandler::SetupSecondary(structSetupFile* pSetup)
{
    SerialLog(eLogFile, "Setting secondary names\r\n");
    // Names of a primary set-up that failed, or of a recording that has
    // ended, are no primary: only an open set can roll over.
    if (m_pSndFiles[0] == nullptr)
        return eResultNeedPrimary;
    // Only the names and the length are taken: the next files get the format
    // of the primary set. A refused list leaves the names prepared before it.
    RecNameList names;
    ClearFilenames(names);
    if (!CopyFilenames(names, pSetup->szFilenames)) {
        puts("can't open record file: filenames appear to be invalid...\r");
        return eResultEmptyFilenames;
    }
    memcpy(m_szSecondaryNames, names, sizeof(names));
    m_nSecondaryMaxLenFrames = MaxLenFrames(pSetup->nFileSeconds);
    return eResultSuccess;
}

uint32_t CRecFileHandler::MaxLenFrames(uint32_t nSeconds) const
{
    if (nSeconds != 0)
        return nSeconds * static_cast<uint32_t>(m_sfInfo.samplerate);
    return m_nBytesPerFrame != 0 ? kRecMaxWavBytes / m_nBytesPerFrame : kRecMaxWavBytes;
}

enumZorPlayResult CRecFileHandler::AddPlaylist(structSetupPlaylist* /*pSetup*/)
{
    return eResultWrongModuleType;
}

int CRecFileHandler::ManualStop()
{
    // Draining ends by itself when the ring buffer runs dry.
    return 0;
}

unsigned CRecFileHandler::GetRTBufLen()
{
    return m_pRTBuffer != nullptr ? m_pRTBuffer->GetTotalFrames() : 0;
}

const char* CRecFileHandler::GetActiveFilename()
{
    return m_szPrimaryNames[0];
}

bool CRecFileHandler::CopyFilenames(RecNameList dst, const RecNameList src)
{
    const unsigned nCount = m_bInterleaved ? 1 : std::min(m_nChannels, kRecMaxChannels);
    for (unsigned i = 0; i < nCount; ++i) {
        if (src[i][0] == '\0') {
            dst[i][0] = '\0';
            return false;
        }
        strscpy(dst[i], src[i], kRecNameSize);
    }
    return true;
}

void CRecFileHandler::ClearFilenames(RecNameList names)
{
    for (unsigned i = 0; i < kRecMaxChannels; ++i)
        names[i][0] = '\0';
}

bool CRecFileHandler::OpenFile()
{
    if (m_bInterleaved) {
        if (m_pSndFiles[0] != nullptr) {
            sf_close(m_pSndFiles[0]);
            m_pSndFiles[0] = nullptr;
        }
        SerialLog(eLogFile, "Recorder attempting to open %s\r\n", m_szPrimaryNames[0]);
        m_pSndFiles[0] = OpenTarget(m_szPrimaryNames[0]);
        if (m_pSndFiles[0] == nullptr)
            return false;
    } else {
        const unsigned nFiles = std::min(m_nChannels, kRecMaxChannels);
        for (unsigned i = 0; i < nFiles; ++i) {
            if (m_pSndFiles[i] != nullptr) {
                sf_close(m_pSndFiles[i]);
                m_pSndFiles[i] = nullptr;
            }
            m_pSndFiles[i] = OpenTarget(m_szPrimaryNames[i]);
            if (m_pSndFiles[i] == nullptr) {
                // No part of a set stays open: an open set is what lets a
                // secondary set-up and a start go ahead.
                CloseOpenFiles();
                return false;
            }
        }
    }
    SerialLog(eLogFile, "Opened file %s at %d rate, %d channels, %lld frames long\r\n", m_szPrimaryNames[0],
              m_sfInfo.samplerate, m_sfInfo.channels, static_cast<long long>(m_sfInfo.frames));

    m_nMaxFrames = m_nMaxLenFrames;
    m_nFramesWritten = 0;
    m_nRefreshedFrames = 0;
    m_bWriteFailed = false;
    SerialLog(eLogFile, "Open max len: %d (0x%x)\r\n", static_cast<int>(m_nMaxFrames), m_nMaxFrames);

    // Made once, at the first open, and kept for every later file.
    if (m_pRTBuffer == nullptr)
        m_pRTBuffer = new CZPBuffer(m_nChannels, kRecRTBufferPeriods * g_nBufferSizeFrames.load());
    if (m_pSRCBuffer == nullptr)
        m_pSRCBuffer = new CZPBuffer(m_nChannels, kRecSRCBufferPeriods * g_nBufferSizeFrames.load());
    return true;
}

// Record targets are regular files, created when missing; anything else
// named (a FIFO, a device, a directory) is refused without blocking.
SNDFILE* CRecFileHandler::OpenTarget(const char* name)
{
    const int fd = OpenRegularFile(name, O_WRONLY | O_CREAT | O_TRUNC);
    if (fd == eOpenFailed) // in the words libsndfile uses for a failed system call
        printf("Recorder couldn't open file %s: System error : %s.\r\n", name, strerror(errno));
    if (fd < 0)
        return nullptr;
    SNDFILE* file = sf_open_fd(fd, SFM_WRITE, &m_sfInfo, SF_TRUE);
    if (file == nullptr)
        printf("Recorder couldn't open file %s: %s\r\n", name, sf_strerror(nullptr));
    return file;
}

void CRecFileHandler::CloseFile()
{
    strscpy(m_szCompletedName, m_szPrimaryNames[0], kRecNameSize);
    m_nCompletedFrames = m_nFramesWritten;
    m_nCompletedRate = static_cast<uint32_t>(m_sfInfo.samplerate);
    CloseOpenFiles();
    m_nFramesWritten = 0;
    m_nMaxFrames = 0;
}

void CRecFileHandler::CloseOpenFiles()
{
    for (unsigned i = 0; i < kRecMaxChannels; ++i) {
        if (m_pSndFiles[i] == nullptr)
            continue;
        SerialLog(eLogFile, "Closing idx: [%d]: %s\r\n", static_cast<int>(i), m_szPrimaryNames[i]);
        sf_write_sync(m_pSndFiles[i]);
        sf_close(m_pSndFiles[i]);
        m_pSndFiles[i] = nullptr;
    }
}

void CRecFileHandler::DiscardBuffered()
{
    // Only the reader's own cursor moves, so the writer may be mid-period.
    if (m_pRTBuffer != nullptr)
        m_pRTBuffer->ReadAdvance(m_pRTBuffer->GetReadableFrames());
    if (m_pSRCBuffer != nullptr)
        m_pSRCBuffer->ReadAdvance(m_pSRCBuffer->GetReadableFrames());
}

int CRecFileHandler::ServiceBuffer(bool bRunning)
{
    if (m_pRTBuffer == nullptr)
        return bRunning ? eServiceNone : eServiceStopped;
    if (m_bSRC) {
        // A converter error is printed by the converter; what it did convert
        // is written all the same.
        m_pSRC->PerformSRC(m_pRTBuffer, m_pSRCBuffer);
        return DrainBufferToFile(m_pSRCBuffer, bRunning);
    }
    return DrainBufferToFile(m_pRTBuffer, bRunning);
}

int CRecFileHandler::DrainBufferToFile(CZPBuffer* pBuffer, bool bRunning)
{
    int nResult = eServiceNone;
    for (;;) {
        CBufInfo info;
        pBuffer->GetReadInfo(info);
        if (!bRunning && info.m_nFirstFrames == 0) {
            SerialLog(eLogRuntime, "Recorder DRY!\r\n");
            CloseFile();
            return eServiceStopped;
        }

        // Frames that exactly fill the file leave it open: it is found full
        // by the next service that has frames for it.
        const uint32_t nRoom = m_nMaxFrames - m_nFramesWritten;
        uint32_t nFirst = info.m_nFirstFrames;
        uint32_t nSecond = info.m_nSecondFrames;
        bool bFull = false;
        if (nRoom < nFirst) {
            nFirst = nRoom;
            nSecond = 0;
            bFull = true;
        } else if (nSecond > nRoom - nFirst) {
            nSecond = nRoom - nFirst;
            bFull = true;
        }

        // The headers are refreshed at every whole second of audio written,
        // so a backlog is written a second at a time with a refresh after
        // each. Stopping short of the room defers the full-file step to the
        // next pass, which finds the smaller room; the frames written, and so
        // the roll-over frame, stay the same.
        const uint32_t nToRefresh = RefreshSpacing() - (m_nFramesWritten - m_nRefreshedFrames);
        bool bMore = false;
        if (nFirst + nSecond > nToRefresh) {
            if (nFirst >= nToRefresh) {
                nFirst = nToRefresh;
                nSecond = 0;
            } else {
                nSecond = nToRefresh - nFirst;
            }
            bFull = false;
            bMore = true;
        }

        if (m_bInterleaved)
            m_nFramesWritten += WriteInterleaved(pBuffer, info, nFirst, nSecond);
        else
            m_nFramesWritten += WriteMultiMono(pBuffer, nFirst + nSecond);
        if (!m_bWriteFailed && m_nFramesWritten - m_nRefreshedFrames >= RefreshSpacing())
            RefreshHeaders();

        if (m_bWriteFailed) {
            // The recording ends as at a length limit: the headers cover what
            // the files took, and what is still buffered is dropped by the
            // reading side (the callback may be writing until the recorder
            // leaves Running).
            CloseFile();
            DiscardBuffered();
            return eServiceStopped;
        }
        if (bMore)
            continue;
        if (!bFull)
            return nResult;

        CloseFile();
        if (!m_bRolling || PrepNextFiles() != eServiceRolled) {
            // Recording is over. What is left is dropped by the reader moving
            // its own cursor: the callback may still be writing until the
            // recorder leaves Running, so the buffer must not be reset here.
            pBuffer->ReadAdvance(pBuffer->GetReadableFrames());
            return eServiceStopped;
        }
        // The frames that did not fit go on into the new files in this call.
        nResult = eServiceRolled;
    }
}

uint32_t CRecFileHandler::RefreshSpacing() const
{
    return m_sfInfo.samplerate > 0 ? static_cast<uint32_t>(m_sfInfo.samplerate) : 48000u;
}

void CRecFileHandler::RefreshHeaders()
{
    // The header is rewritten to cover every frame written so far, then one
    // sync pushes data and header together. A crash or power cut then loses
    // at most the second written since the last refresh (and what was still
    // buffered). Syncing the data on its own first would keep even a power
    // cut in the middle of the sync from leaving the header ahead of the
    // last second's data, but costs a second sync a file: three times the
    // stall on the disks measured, for a case in which readers just find
    // the file shorter than its header says.
    m_nRefreshedFrames = m_nFramesWritten;
    for (unsigned i = 0; i < kRecMaxChannels; ++i) {
        SNDFILE* pFile = m_pSndFiles[i];
        if (pFile == nullptr)
            continue;
        sf_command(pFile, SFC_UPDATE_HEADER_NOW, nullptr, 0);
        sf_write_sync(pFile);
        if (sf_error(pFile) != SF_ERR_NO_ERROR) {
            ReportWriteFailure(i, sf_strerror(pFile));
        } else if (access(m_szPrimaryNames[i], F_OK) != 0 && errno == ENOENT) {
            // Writes to a file removed from its folder (or with its folder)
            // still succeed, and all of it would vanish at the close: the
            // recording ends here instead, so the client learns of it.
            ReportWriteFailure(i, strerror(ENOENT));
        }
    }
}

uint32_t CRecFileHandler::WriteInterleaved(CZPBuffer* pBuffer, const CBufInfo& info, uint32_t nFirst,
                                           uint32_t nSecond)
{
    uint32_t nWritten = 0;
    const float* const pRegions[2] = {info.m_pFirst, info.m_pSecond};
    const uint32_t nFrames[2] = {nFirst, nSecond};
    for (unsigned k = 0; k < 2; ++k) {
        if (nFrames[k] == 0)
            continue;
        // Straight from the ring buffer's memory. Only the frames libsndfile
        // took are counted; after a short write nothing more is tried.
        const sf_count_t nDone = m_bWriteFailed ? 0 : sf_writef_float(m_pSndFiles[0], pRegions[k], nFrames[k]);
        pBuffer->ReadAdvance(nFrames[k]);
        if (!m_bWriteFailed && nDone < static_cast<sf_count_t>(nFrames[k]))
            ReportWriteFailure(0, sf_strerror(m_pSndFiles[0]));
        if (nDone > 0)
            nWritten += static_cast<uint32_t>(nDone);
    }
    return nWritten;
}

uint32_t CRecFileHandler::WriteMultiMono(CZPBuffer* pBuffer, uint32_t nTotal)
{
    // One row per channel on the worker's stack: no allocation while recording.
    float rows[kRecMaxChannels][kRecBlockFrames];
    float* pRows[kRecMaxChannels];
    const unsigned nChannels = std::min(m_nChannels, kRecMaxChannels);
    for (unsigned c = 0; c < nChannels; ++c)
        pRows[c] = rows[c];
    uint32_t nWritten = 0;
    while (nTotal > 0) {
        const uint32_t nBlock = std::min<uint32_t>(nTotal, kRecBlockFrames);
        pBuffer->ReadDeinterleaved(pRows, 0, nBlock);
        // Every channel gets the block even after another's write fell
        // short, so the files of the set end within one block of each other.
        for (unsigned c = 0; c < nChannels; ++c) {
            const sf_count_t nDone = sf_write_float(m_pSndFiles[c], rows[c], nBlock);
            if (nDone < static_cast<sf_count_t>(nBlock))
                ReportWriteFailure(c, sf_strerror(m_pSndFiles[c]));
            if (c == 0 && nDone > 0)
                nWritten += static_cast<uint32_t>(nDone);
        }
        nTotal -= nBlock;
        // The rest is dropped with the recording's end.
        if (m_bWriteFailed)
            break;
    }
    return nWritten;
}

void CRecFileHandler::ReportWriteFailure(unsigned nSlot, const char* pReason)
{
    if (m_bWriteFailed)
        return;
    m_bWriteFailed = true;
    printf("Recorder write to %s fell short: %s\r\n", m_szPrimaryNames[nSlot], pReason);
}

int CRecFileHandler::PrepNextFiles()
{
    if (m_szSecondaryNames[0][0] == '\0') {
        puts("Trying to roll, but no filenames!\r");
        return eServiceStopped;
    }
    m_nMaxLenFrames = m_nSecondaryMaxLenFrames;
    m_nSecondaryMaxLenFrames = 0;
    // Each prepared set serves exactly one roll-over.
    CopyFilenames(m_szPrimaryNames, m_szSecondaryNames);
    ClearFilenames(m_szSecondaryNames);
    if (!OpenFile()) {
        printf("Trying to roll, couldn't open: %s\r\n", m_szPrimaryNames[0]);
        ClearFilenames(m_szPrimaryNames);
        return eServiceStopped;
    }
    return eServiceRolled;
}

unsigned CRecFileHandler::GetProgressElapsed()
{
    // No rate before the first set-up: nothing has been recorded.
    if (m_sfInfo.samplerate <= 0)
        return 0;
    return m_nFramesWritten / static_cast<uint32_t>(m_sfInfo.samplerate);
}

unsigned CRecFileHandler::GetProgressMax()
{
    if (m_pSndFiles[0] == nullptr || m_sfInfo.samplerate <= 0)
        return 0;
    return m_nMaxFrames / static_cast<uint32_t>(m_sfInfo.samplerate);
}

void CRecFileHandler::PopCompletionMessage(structFileCompletion* pMsg)
{
    strscpy(pMsg->szFilename, m_szCompletedName, kRecNameSize);
    pMsg->nLength = m_nCompletedRate != 0 ? m_nCompletedFrames / m_nCompletedRate : 0;
}

void CRecFileHandler::DoDisplayDebug()
{
    if (m_pRTBuffer != nullptr)
        printf("RT Buffer Used: %u of %u Frames\r\n", m_pRTBuffer->GetReadableFrames(), m_pRTBuffer->GetTotalFrames());
    if (m_pSRCBuffer != nullptr)
        printf("SRC Buffer Used: %u of %u Frames\r\n", m_pSRCBuffer->GetReadableFrames(),
               m_pSRCBuffer->GetTotalFrames());
    printf("SRC Ratio: %f\r\n", m_pSRC->GetRatio());
    printf("File rolling: %s, max len frames: %u (0x%x)\r\n", m_bRolling ? "true" : "false", m_nMaxLenFrames,
           m_nMaxLenFrames);
    printf("Filetype: %s\r\n", m_bInterleaved ? "Interleaved" : "Multi-mono");
    printf("File Progress %u of %u\r\n", m_nFramesWritten, m_nMaxFrames);
    printf("File info: \n\tchannels: %d \n\ttot frames: %lld \n\trate: %d \n\tseekable: %d\r\n", m_sfInfo.channels,
           static_cast<long long>(m_sfInfo.frames), m_sfInfo.samplerate, m_sfInfo.seekable);
    if (m_bInterleaved) {
        printf("Primary Filename: %s \r\nSecondary Filename: %s\r\n", m_szPrimaryNames[0], m_szSecondaryNames[0]);
        return;
    }
    const unsigned nChannels = std::min(m_nChannels, kRecMaxChannels);
    printf("Primary Filenames: ");
    for (unsigned i = 0; i < nChannels; ++i)
        printf("%s, ", m_szPrimaryNames[i]);
    printf("\r\nSecondary Filenames: ");
    for (unsigned i = 0; i < nChannels; ++i)
        printf("%s, ", m_szSecondaryNames[i]);
    puts("\r");
}
