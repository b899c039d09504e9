// A player's file handler: a ring of five play file slots through which files
// pass in order. The worker stages files by name, opens them and reads ahead;
// the real-time callback plays the port slot and rolls to the next one inside
// a period; the worker reports each finished file.
//
// Ring (indices modulo kPlaySlots), going forward from the completion index:
// finished but unreported slots, the port slot, slots read to their end, the
// reading slot, staged but unopened slots, up to the stage index (exclusive).
// Empty when reading == stage; full when stage + 1 == completion.
//
// Threads: the callback calls GetPlayBufferP, IsCurrentPortFileDone,
// IsRollReady, RTRoll, GetPortPosition and GetPortMaxLen; it alone moves the
// port index while playing. Everything else runs on the worker, which owns
// the stage, reading and completion indices. Operations that empty or
// restage a buffer the callback may be reading (SeekToTime, FastWind,
// SkipInPlaylist, ManualStop, InstallNewPlaylist, EndPlaylist and so a final
// PopCompletionMessage, RTRoll on the worker) are called only while the
// player keeps its callback parked at the module's gate.
#pragma once

#include <atomic>
#include <cstdint>

#include "files/file_handler.h"
#include "files/playfile.h"
#include "files/playlist.h"

constexpr unsigned kPlaySlots = 5;

class CPlayFileHandler : public CFileHandler {
public:
    explicit CPlayFileHandler(unsigned channels);
    ~CPlayFileHandler() override;
    CPlayFileHandler(const CPlayFileHandler&) = delete;
    CPlayFileHandler& operator=(const CPlayFileHandler&) = delete;

    // CFileHandler, worker thread.
    // IndexNewPlaylist, then on success InstallNewPlaylist.
    enumZorPlayResult AddPlaylist(structSetupPlaylist* setup) override;
    using CFileHandler::AddSingleFile;
    // A primary file is staged and opened. A secondary file is staged only;
    // OpenStagedSecondary then opens it when the reading side waits for it.
    enumZorPlayResult AddSingleFile(structSetupPlayFile* setup) override;
    int ManualStop() override;
    unsigned GetRTBufLen() override;
    const char* GetActiveFilename() override;
    void DoDisplayDebug() override;

    // Worker thread.
    // A playlist set-up in two steps: the list is opened and indexed (the
    // callback plays on), then installed in place of whatever is staged
    // (parking the callback) with its first entries staged and opened.
    enumZorPlayResult IndexNewPlaylist(structSetupPlaylist* setup);
    enumZorPlayResult InstallNewPlaylist();
    // After a secondary set-up: a reading side that waited at the end of the
    // ring goes on to the new file now rather than at the next service
    // request, so that the ports roll on without a gap. Until then the
    // callback waits for the file instead of ending play.
    void OpenStagedSecondary();
    bool OpenFile();
    int ServiceBuffer();
    unsigned GetActivePlaylistIndex() const;
    void PopCompletionMessage(structFileCompletion* record, bool bRoll);
    enumZorPlayResult SeekToTime(int seconds);
    int FastWind(bool bEngage, bool bForward, bool bSilent);
    bool SkipIsValid(bool bRelative, int nSkip) const;
    enumZorPlayResult SkipInPlaylist(bool bRelative, int nSkip);
    void EndPlaylist();
    bool AddFileToArray(const char* name, unsigned listIndex);
    // Nothing staged, playing or waiting for its completion.
    bool IsEmpty() const;

    // Real-time thread (and the worker while the callback is kept away).
    CZPBuffer* GetPlayBufferP() const;
    bool IsCurrentPortFileDone() const;
    // Asked once the port file is done: true when RTRoll may run, that is
    // when the next slot ends play (nothing staged, or a file the worker is
    // not opening) or holds an open file with audio ready (or already done);
    // false while the worker is still opening it.
    bool IsRollReady() const;
    CZPBuffer* RTRoll();
    unsigned GetPortPosition() const;
    unsigned GetPortMaxLen() const;

    // Inspection (tests, debug display).
    unsigned GetNextStageIndex() const { return m_nNextStageIndex.load(std::memory_order_relaxed); }
    unsigned GetReadingIndex() const { return m_nReadingIndex.load(std::memory_order_relaxed); }
    unsigned GetPortPlayingIndex() const { return m_nPortPlayingIndex.load(std::memory_order_relaxed); }
    unsigned GetNextCompletionIndex() const { return m_nNextCompletionIndex.load(std::memory_order_relaxed); }
    CPlayFile* GetSlot(unsigned i) const { return m_pFiles[i % kPlaySlots]; }
    bool IsPlaylistActive() const { return m_pPlaylist->IsActive(); }

private:
    static unsigned Next(unsigned i) { return i + 1 == kPlaySlots ? 0 : i + 1; }
    static unsigned Prev(unsigned i) { return i == 0 ? kPlaySlots - 1 : i - 1; }
    bool IsRingFull() const;
    bool IsRingEmpty() const;
    unsigned SlotsPortToStage() const;
    // Next playlist entry into the scratch path; false when none.
    bool PullPlaylistEntry(unsigned& index);
    // Pulls playlist entries and stages them until the ring is full or the
    // playlist runs out, reporting every entry that cannot be staged;
    // bTrace logs each attempt's stage index (playlist set-up).
    void StagePlaylistEntries(bool bTrace);
    // Puts the reading index back on the port slot, which reads again.
    void ReadFromPortSlot();
    CPlayFile* PortFile() const { return m_pFiles[m_nPortPlayingIndex.load(std::memory_order_acquire)]; }

    const unsigned m_nChannels;
    char m_szPathScratch[kPlaylistLineSize];
    // Written by the worker; the callback reads the stage index to tell the
    // end of play from a file that is not ready yet.
    std::atomic<uint32_t> m_nNextStageIndex;
    std::atomic<uint32_t> m_nReadingIndex;      // worker
    // Written by the callback while playing, by the worker only while the
    // callback is kept away (or not running); read by both.
    std::atomic<uint32_t> m_nPortPlayingIndex;
    std::atomic<uint32_t> m_nNextCompletionIndex; // worker
    CPlaylist* m_pPlaylist;                       // worker
    // A list set up while files are staged is indexed here first and
    // swapped in only once it proves good; created when first needed.
    CPlaylist* m_pNewPlaylist; // worker
    CFastWindInfo* m_pFastWind;                   // worker
    CPlayFile* m_pFiles[kPlaySlots];
    // Raised by the worker while it may be between finding the end of the
    // reading file and opening the next one; read by the callback.
    std::atomic<bool> m_bOpeningNext{false};
};
