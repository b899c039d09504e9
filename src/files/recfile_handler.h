// The recorder's file handler: owns the ring buffer the JACK callback records
// into, the converter output buffer, the optional sample-rate converter and up
// to eight open WAV files, and drains the buffered audio into those files on
// each service of the recorder's worker.
//
// Threads: the JACK callback calls GetRTBufferP only and writes into that
// buffer as its sole producer. Everything else runs on the recorder's worker,
// which is the only reader of the real-time buffer and the only user of the
// converter buffer, the converter and the files. No lock is taken.
#pragma once

#include <cstdint>

#include <sndfile.h>

#include "files/file_handler.h"

class CZPBuffer;
class CBufInfo;
class CSRCWrapper;

constexpr unsigned kRecMaxChannels = 8;
constexpr unsigned kRecNameSize = 384;
// De-interleaving of multi-mono recordings works in blocks of this many frames.
constexpr unsigned kRecBlockFrames = 1024;
// The largest data size a WAV file may hold, in bytes.
constexpr uint32_t kRecMaxWavBytes = 0xFFFFF7FF;
// Ring buffer sizes in JACK periods.
constexpr unsigned kRecRTBufferPeriods = 200;
constexpr unsigned kRecSRCBufferPeriods = 20;

// A list of file names, one per channel; an empty name ends the list.
typedef char RecNameList[kRecMaxChannels][kRecNameSize];

class CRecFileHandler : public CFileHandler {
public:
    // Results of ServiceBuffer, DrainBufferToFile and PrepNextFiles.
    enum { eServiceNone = 0, eServiceRolled = 1, eServiceStopped = 2 };

    explicit CRecFileHandler(unsigned nChannels);
    ~CRecFileHandler() override;
    CRecFileHandler(const CRecFileHandler&) = delete;
    CRecFileHandler& operator=(const CRecFileHandler&) = delete;

    // Primary set-up (bSecondary 0): options, names, opening; 0 or 23 to 29.
    // Secondary set-up: the names (and length) for the next roll-over only.
    enumZorPlayResult AddSingleFile(structSetupFile* pSetup) override;
    using CFileHandler::AddSingleFile;
    enumZorPlayResult AddPlaylist(structSetupPlaylist* pSetup) override;
    int ManualStop() override;
    unsigned GetRTBufLen() override;
    const char* GetActiveFilename() override;
    void DoDisplayDebug() override;

    // The buffer the JACK callback records into; null before the first open.
    CZPBuffer* GetRTBufferP() { return m_pRTBuffer; }

    // Moves every buffered frame into the files (through the converter when
    // the file rate differs). bRunning false means the recorder is draining:
    // the first service that finds nothing to read closes the set.
    int ServiceBuffer(bool bRunning);

    unsigned GetProgressElapsed();
    unsigned GetProgressMax();
    // Name and whole seconds of the file set closed last.
    void PopCompletionMessage(structFileCompletion* pMsg);

    // Drops whatever the reading side finds buffered, by moving the read
    // cursors only; safe while the callback may still be writing.
    void DiscardBuffered();

    bool OpenFile();
    void CloseFile();
    int PrepNextFiles();
    int DrainBufferToFile(CZPBuffer* pBuffer, bool bRunning);
    bool CopyFilenames(RecNameList dst, const RecNameList src);
    void ClearFilenames(RecNameList names);

private:
    enumZorPlayResult SetupPrimary(structSetupFile* pSetup);
    enumZorPlayResult SetupSecondary(structSetupFile* pSetup);
    // Frames of the given length for the current file rate; 0 seconds gives
    // the longest WAV file the frame size allows.
    uint32_t MaxLenFrames(uint32_t nSeconds) const;
    // Writes the taken frames of one buffer; returns frames written to file 0.
    uint32_t WriteInterleaved(CZPBuffer* pBuffer, const CBufInfo& info, uint32_t nFirst, uint32_t nSecond);
    uint32_t WriteMultiMono(CZPBuffer* pBuffer, uint32_t nTotal);
    // Marks the open set as failed, with one line naming the file and why;
    // the drain then ends the recording.
    void ReportWriteFailure(unsigned nSlot, const char* pReason);
    // Frames of audio between two header refreshes: one second at the file rate.
    uint32_t RefreshSpacing() const;
    // Rewrites the header of every open file to cover what was written,
    // then pushes data and header to the storage.
    void RefreshHeaders();
    // Opens one record target for writing with m_sfInfo; null after a line.
    SNDFILE* OpenTarget(const char* name);
    // Closes every open file of the set (synced), leaving the counters.
    void CloseOpenFiles();

    unsigned m_nChannels;
    bool m_bInterleaved = true;
    bool m_bRolling = false;
    bool m_bSRC = false;
    CSRCWrapper* m_pSRC = nullptr;
    uint32_t m_nBytesPerFrame = 0;
    uint32_t m_nFramesWritten = 0;
    uint32_t m_nMaxFrames = 0;
    char m_szCompletedName[kRecNameSize];
    uint32_t m_nCompletedFrames = 0;
    uint32_t m_nCompletedRate = 0;
    RecNameList m_szPrimaryNames;
    RecNameList m_szSecondaryNames;
    uint32_t m_nMaxLenFrames = 0;
    uint32_t m_nSecondaryMaxLenFrames = 0;
    SNDFILE* m_pSndFiles[kRecMaxChannels];
    SF_INFO m_sfInfo;
    CZPBuffer* m_pRTBuffer = nullptr;
    CZPBuffer* m_pSRCBuffer = nullptr;
    // Frames of the open set that the headers covered at the last refresh.
    uint32_t m_nRefreshedFrames = 0;
    // Set when a file of the open set could not take everything written to
    // it (full disk, I/O error) or is gone from its place; the drain then
    // closes the set and ends the recording.
    bool m_bWriteFailed = false;
};
