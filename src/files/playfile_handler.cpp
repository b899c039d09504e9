#include "files/playfile_handler.h"

#include <cstdio>
#include <cstring>
#include <utility>

#include "app/globals.h"
#include "app/info_files.h"
#include "app/logging.h"

namespace {

const char kNodeFailed[] = "File node couldn't be created - %s: empty path, file nonexistent, file empty?\r\n";

} // namespace

CPlayFileHandler::CPlayFileHandler(unsigned channels)
    : m_nChannels(channels), m_nNextStageIndex(0), m_nReadingIndex(0), m_nPortPlayingIndex(0),
      m_nNextCompletionIndex(0), m_pPlaylist(new CPlaylist), m_pNewPlaylist(nullptr), m_pFastWind(new CFastWindInfo)
{
    m_szPathScratch[0] = '\0';
    for (unsigned i = 0; i < kPlaySlots; ++i)
        m_pFiles[i] = new CPlayFile(channels, m_pFastWind);
}

CPlayFileHandler::~CPlayFileHandler()
{
    for (unsigned i = 0; i < kPlaySlots; ++i)
        delete m_pFiles[i];
    delete m_pPlaylist;
    delete m_pNewPlaylist;
    delete m_pFastWind;
}

bool CPlayFileHandler::IsRingFull() const
{
    return Next(m_nNextStageIndex.load(std::memory_order_relaxed)) ==
           m_nNextCompletionIndex.load(std::memory_order_relaxed);
}

bool CPlayFileHandler::IsRingEmpty() const
{
    return m_nReadingIndex.load(std::memory_order_relaxed) == m_nNextStageIndex.load(std::memory_order_relaxed);
}

bool CPlayFileHandler::IsEmpty() const
{
    const unsigned stage = m_nNextStageIndex.load(std::memory_order_relaxed);
    if (stage != m_nNextCompletionIndex.load(std::memory_order_relaxed))
        return false;
    for (unsigned i = 0; i < kPlaySlots; ++i)
        if (m_pFiles[i]->GetFilename()[0] != '\0')
            return false;
    return true;
}

unsigned CPlayFileHandler::SlotsPortToStage() const
{
    return (m_nNextStageIndex.load(std::memory_order_relaxed) + kPlaySlots -
            m_nPortPlayingIndex.load(std::memory_order_relaxed)) %
           kPlaySlots;
}

bool CPlayFileHandler::PullPlaylistEntry(unsigned& index)
{
    return m_pPlaylist->GetNextPath(m_szPathScratch, index);
}

bool CPlayFileHandler::AddFileToArray(const char* name, unsigned listIndex)
{
    if (IsRingFull())
        return false;
    if (!DoesFileExist(name))
        return false;
    const unsigned stage = m_nNextStageIndex.load(std::memory_order_relaxed);
    m_pFiles[stage]->SetFilename(name, listIndex);
    m_nNextStageIndex.store(Next(stage), std::memory_order_release);
    SerialLog(eLogFile, "Player added file to array: %.200s\r\n", name);
    return true;
}

void CPlayFileHandler::StagePlaylistEntries(bool bTrace)
{
    while (!IsRingFull()) {
        if (bTrace)
            SerialLog(eLogFile, "index: %d\r\n", static_cast<int>(m_nNextStageIndex.load(std::memory_order_relaxed)));
        unsigned index = 0;
        if (!PullPlaylistEntry(index))
            break;
        if (!AddFileToArray(m_szPathScratch, index))
            printf(kNodeFailed, m_szPathScratch);
    }
}

bool CPlayFileHandler::OpenFile()
{
    for (;;) {
        if (IsRingEmpty())
            return false;
        const unsigned reading = m_nReadingIndex.load(std::memory_order_relaxed);
        if (m_pFiles[reading]->OpenFile())
            return true;
        // Drop the failing file: every later staged name moves down a slot.
        const unsigned stage = m_nNextStageIndex.load(std::memory_order_relaxed);
        unsigned i = reading;
        for (; Next(i) != stage; i = Next(i))
            m_pFiles[i]->SetFilename(m_pFiles[Next(i)]->GetFilename(), m_pFiles[Next(i)]->GetListIndex());
        m_pFiles[i]->SetFilename("", 0);
        m_nNextStageIndex.store(Prev(stage), std::memory_order_release);
        unsigned index = 0;
        if (PullPlaylistEntry(index))
            AddFileToArray(m_szPathScratch, index);
    }
}

enumZorPlayResult CPlayFileHandler::AddSingleFile(structSetupPlayFile* setup)
{
    if (m_pPlaylist->IsActive()) {
        puts("Using playlist - can't add manual files\r");
        return eResultNotIdle;
    }
    // The record's field may lack its terminator; every check and message
    // works on a bounded copy.
    strscpy(m_szPathScratch, setup->szFilename, sizeof(m_szPathScratch));
    const char* name = m_szPathScratch;
    if (setup->bSecondary) {
        SerialLog(eLogFile, "Setting secondary names\r\n");
        if (m_nNextStageIndex.load(std::memory_order_relaxed) == m_nPortPlayingIndex.load(std::memory_order_relaxed)) {
            puts("Need primary files before secondary\r");
            return eResultNeedPrimary;
        }
        if (IsRingFull() || !DoesFileExist(name)) {
            printf("Secondary Stage of %s failed\r\n", name);
            return eResultPathMissing;
        }
        // The reading side may already wait at the end of the ring (its file
        // read to the end, nothing after it), where a draining player no
        // longer services it: OpenStagedSecondary takes it on to the new
        // file. The callback is told before the file appears.
        const unsigned reading = m_nReadingIndex.load(std::memory_order_relaxed);
        if (m_pFiles[reading]->IsReadToEnd() && Next(reading) == m_nNextStageIndex.load(std::memory_order_relaxed))
            m_bOpeningNext.store(true, std::memory_order_relaxed);
        AddFileToArray(name, 0);
        SerialLog(eLogFile, "Secondary file staged: %s\r\n", name);
        return eResultSuccess;
    }
    if (IsRingFull() || !DoesFileExist(name)) {
        printf("Primary Stage of %s failed\r\n", name);
        return eResultPathMissing;
    }
    AddFileToArray(name, 0);
    SerialLog(eLogFile, "Primary file staged: %s\r\n", name);
    return OpenFile() ? eResultSuccess : eResultCantOpenFile;
}

enumZorPlayResult CPlayFileHandler::AddPlaylist(structSetupPlaylist* setup)
{
    const enumZorPlayResult r = IndexNewPlaylist(setup);
    return r == eResultSuccess ? InstallNewPlaylist() : r;
}

// Files still staged (a set-up arriving while playing) keep playing while the
// new list is indexed into a second playlist: a set-up that fails leaves them
// as they were.
enumZorPlayResult CPlayFileHandler::IndexNewPlaylist(structSetupPlaylist* setup)
{
    strscpy(m_szPathScratch, setup->szPlaylist, sizeof(setup->szPlaylist));
    CPlaylist* list = m_pPlaylist;
    if (!IsEmpty() || m_pPlaylist->IsActive()) {
        if (!m_pNewPlaylist)
            m_pNewPlaylist = new CPlaylist;
        list = m_pNewPlaylist;
    }
    const enumZorPlayResult r = list->SetupPlaylistFile(m_szPathScratch);
    if (r != eResultSuccess || list == m_pPlaylist)
        return r;
    // Installing the list ends the files in play, so a list none of whose
    // entries opens is refused here, before they are touched. The list
    // starts at the first entry that opens; those before it are reported
    // as staging would report them.
    unsigned index = 0;
    while (list->GetNextPath(m_szPathScratch, index)) {
        if (!DoesFileExist(m_szPathScratch)) {
            printf(kNodeFailed, m_szPathScratch);
            continue;
        }
        SF_INFO info;
        if (SNDFILE* file = CPlayFile::OpenPlayable(m_szPathScratch, info)) {
            sf_close(file);
            list->Skip(false, static_cast<int>(index));
            return eResultSuccess;
        }
    }
    list->Reset();
    return eResultCantOpenFile;
}

// The old files are cleared first, so that no slot keeps an open file the new
// list would reuse.
enumZorPlayResult CPlayFileHandler::InstallNewPlaylist()
{
    if (m_pNewPlaylist && m_pNewPlaylist->IsActive()) {
        EndPlaylist();
        std::swap(m_pPlaylist, m_pNewPlaylist);
    }
    m_nNextStageIndex.store(0, std::memory_order_relaxed);
    m_nReadingIndex.store(0, std::memory_order_relaxed);
    m_nPortPlayingIndex.store(0, std::memory_order_relaxed);
    m_nNextCompletionIndex.store(0, std::memory_order_relaxed);
    // With every index at 0 the ring is full at stage index 4.
    StagePlaylistEntries(true);
    if (OpenFile())
        return eResultSuccess;
    // Nothing in the list could be opened: it is closed at once, so manual
    // files are accepted again.
    EndPlaylist();
    return eResultCantOpenFile;
}

void CPlayFileHandler::OpenStagedSecondary()
{
    if (!m_bOpeningNext.load(std::memory_order_relaxed))
        return;
    ServiceBuffer();
    m_bOpeningNext.store(false, std::memory_order_release);
}

int CPlayFileHandler::ServiceBuffer()
{
    if (IsRingEmpty())
        return 0;
    unsigned reading = m_nReadingIndex.load(std::memory_order_relaxed);
    if (Next(reading) == m_nNextStageIndex.load(std::memory_order_relaxed))
        return m_pFiles[reading]->FillPlayBuffer() == -1 ? 0 : 1;
    // A file follows. From the moment this fill finds the end of the reading
    // file until the next one is open, the callback must wait rather than
    // roll onto a slot that is still being opened. The flag is raised before
    // the fill publishes the done flag (a release store).
    m_bOpeningNext.store(true, std::memory_order_relaxed);
    int result = 1;
    if (m_pFiles[reading]->FillPlayBuffer() == -1) {
        reading = Next(reading);
        m_nReadingIndex.store(reading, std::memory_order_relaxed);
        SerialLog(eLogFile, "ReadIdx(post-inc) %d, NextStgIdx: %d\r\n", static_cast<int>(reading),
                  static_cast<int>(m_nNextStageIndex.load(std::memory_order_relaxed)));
        if (OpenFile()) {
            SerialLog(eLogFile, "Playlist opened next file: [%d]%.200s\r\n", static_cast<int>(reading),
                      m_pFiles[reading]->GetFilename());
            m_pFiles[reading]->FillPlayBuffer();
        } else {
            printf("Playlist couldn't open next file %d\r\n", static_cast<int>(reading));
            result = 0;
        }
    }
    m_bOpeningNext.store(false, std::memory_order_release);
    return result;
}

CZPBuffer* CPlayFileHandler::GetPlayBufferP() const { return PortFile()->GetBufferP(); }

bool CPlayFileHandler::IsCurrentPortFileDone() const { return PortFile()->IsDone(); }

// The callback rolls onto a file the worker has opened and put audio into,
// and waits (an underrun) while the worker is still opening the next file.
// A staged file that nobody is opening (staged after a stop, or after the
// files ran empty and the player stopped servicing) is rolled onto as it is:
// RTRoll finds it closed and play halts.
bool CPlayFileHandler::IsRollReady() const
{
    const unsigned next = Next(m_nPortPlayingIndex.load(std::memory_order_relaxed));
    if (next == m_nNextStageIndex.load(std::memory_order_acquire))
        return true;
    const CPlayFile* file = m_pFiles[next];
    CZPBuffer* buf = file->GetBufferP();
    if (!buf)
        return !m_bOpeningNext.load(std::memory_order_acquire);
    return buf->GetReadableFrames() > 0 || file->IsDone();
}

// Files read ahead are rewound by the worker when a wind starts or stops (see
// FastWind), so a roll during a wind needs no file work on this thread.
CZPBuffer* CPlayFileHandler::RTRoll()
{
    const unsigned port = Next(m_nPortPlayingIndex.load(std::memory_order_relaxed));
    m_nPortPlayingIndex.store(port, std::memory_order_release);
    return m_pFiles[port]->GetBufferP();
}

unsigned CPlayFileHandler::GetPortPosition() const { return PortFile()->GetPortPosition(); }

unsigned CPlayFileHandler::GetPortMaxLen() const { return PortFile()->GetPortMaxLen(); }

unsigned CPlayFileHandler::GetActivePlaylistIndex() const { return PortFile()->GetListIndex(); }

unsigned CPlayFileHandler::GetRTBufLen() { return PortFile()->GetRTBufLen(); }

const char* CPlayFileHandler::GetActiveFilename()
{
    return m_pFiles[m_nNextCompletionIndex.load(std::memory_order_relaxed)]->GetFilename();
}

void CPlayFileHandler::PopCompletionMessage(structFileCompletion* record, bool bRoll)
{
    // The callback has rolled past the completed slot; this load orders its
    // last reads of that slot's buffer before the slot is freed and reused.
    (void)m_nPortPlayingIndex.load(std::memory_order_acquire);
    unsigned completion = m_nNextCompletionIndex.load(std::memory_order_relaxed);
    CPlayFile* done = m_pFiles[completion];
    strscpy(record->szFilename, done->GetFilename(), kPlayFilenameSize);
    record->nIndex = done->GetListIndex();
    const unsigned rate = g_nJackSampleRate.load(std::memory_order_relaxed);
    record->nLength = rate ? done->GetPortMaxLen() / rate : 0;
    done->Unstage();
    completion = Next(completion);
    m_nNextCompletionIndex.store(completion, std::memory_order_relaxed);
    if (!bRoll) {
        EndPlaylist();
        return;
    }
    record->bRolled = 1;
    strscpy(record->szNewFilename, m_pFiles[completion]->GetFilename(), kPlayFilenameSize);
    record->nNewIndex = m_pFiles[completion]->GetListIndex();
    unsigned index = 0;
    if (PullPlaylistEntry(index))
        AddFileToArray(m_szPathScratch, index);
}

void CPlayFileHandler::EndPlaylist()
{
    SerialLog(eLogFile, "Cleaning up playlist variables.\r\n");
    m_pPlaylist->Reset();
    for (unsigned i = 0; i < kPlaySlots; ++i)
        m_pFiles[i]->Unstage();
    m_pFastWind->ClearAll();
    m_nNextStageIndex.store(0, std::memory_order_release);
    m_nReadingIndex.store(0, std::memory_order_relaxed);
    m_nPortPlayingIndex.store(0, std::memory_order_release);
    m_nNextCompletionIndex.store(0, std::memory_order_relaxed);
}

void CPlayFileHandler::ReadFromPortSlot()
{
    const unsigned port = m_nPortPlayingIndex.load(std::memory_order_relaxed);
    if (m_nReadingIndex.load(std::memory_order_relaxed) != port) {
        m_nReadingIndex.store(port, std::memory_order_relaxed);
        m_pFiles[port]->ClearDoneFlag();
    }
}

enumZorPlayResult CPlayFileHandler::SeekToTime(int seconds)
{
    // A negative time would wrap to a huge frame count; it is refused.
    if (seconds < 0 || !PortFile()->IsOpen())
        return eResultSkipImpossible;
    ReadFromPortSlot();
    CPlayFile* port = PortFile();
    if (!port->SeekToAbsTime(static_cast<unsigned>(seconds)))
        return eResultSkipImpossible;
    port->ClearBuffers();
    port->FillPlayBuffer();
    return eResultSuccess;
}

int CPlayFileHandler::FastWind(bool bEngage, bool bForward, bool bSilent)
{
    SerialLog(eLogInteractive, "%s - %s - %s\r\n", bForward ? "Fast Forward" : "Rewind",
              bEngage ? "Engage" : "Disengage", bSilent ? "Silent" : "Audible");
    // A port file that has played out (to its end, or stopped) stays so: no
    // wind brings it back, and the ports roll on to the next file or halt.
    CPlayFile* port = PortFile();
    const bool bPlayedOut = port->IsDone();
    if (!bPlayedOut) {
        ReadFromPortSlot();
        port->SeekToPortTime();
        port->ClearBuffers();
    }
    if (bEngage) {
        if (!m_pFastWind->m_bEngaged)
            m_pFastWind->m_bSilent = bSilent;
        m_pFastWind->m_bForward = bForward;
        m_pFastWind->m_nStartSeconds = MonotonicSeconds();
    } else {
        m_pFastWind->m_bForward = false;
        m_pFastWind->m_bSilent = false;
        m_pFastWind->m_nStartSeconds = 0;
    }
    m_pFastWind->m_bEngaged = bEngage;
    // Files read ahead start again from their beginning, so that the next
    // file follows the wind (or the end of it) from its start.
    const unsigned stage = m_nNextStageIndex.load(std::memory_order_relaxed);
    for (unsigned i = Next(m_nPortPlayingIndex.load(std::memory_order_relaxed)); i != stage; i = Next(i))
        if (m_pFiles[i]->IsOpen())
            m_pFiles[i]->ResetPosition();
    if (!bPlayedOut)
        port->FillPlayBuffer();
    return 0;
}

bool CPlayFileHandler::SkipIsValid(bool bRelative, int nSkip) const
{
    if (!m_pPlaylist->IsActive())
        return false;
    int64_t target = nSkip;
    if (bRelative)
        target += static_cast<int64_t>(m_pPlaylist->GetActiveIndex()) - static_cast<int64_t>(SlotsPortToStage());
    return target >= 0 && target < static_cast<int64_t>(m_pPlaylist->GetLength());
}

enumZorPlayResult CPlayFileHandler::SkipInPlaylist(bool bRelative, int nSkip)
{
    const int value = bRelative ? nSkip - static_cast<int>(SlotsPortToStage()) : nSkip;
    m_pPlaylist->Skip(bRelative, value);
    const unsigned port = m_nPortPlayingIndex.load(std::memory_order_relaxed);
    m_pFiles[port]->ManualStop();
    const unsigned stage = m_nNextStageIndex.load(std::memory_order_relaxed);
    for (unsigned i = Next(port); i != stage; i = Next(i))
        m_pFiles[i]->Unstage();
    m_nNextStageIndex.store(Next(port), std::memory_order_release);
    m_nReadingIndex.store(Next(port), std::memory_order_relaxed);
    StagePlaylistEntries(false);
    if (!OpenFile())
        return eResultCantOpenFile;
    // The new entry is read once at once, so the roll that follows finds
    // audio rather than an underrun.
    m_pFiles[Next(port)]->FillPlayBuffer();
    return eResultSuccess;
}

// Everything after the port slot is unstaged and nothing more is read: the
// callback plays out nothing further, finds the port slot done, rolls onto the
// end of the ring and halts. The stage and reading indices are pulled in to
// the slot after the port, so that the end is recognisable.
int CPlayFileHandler::ManualStop()
{
    SerialLog(eLogRuntime, "Manual Stop!!\r\n");
    const unsigned port = m_nPortPlayingIndex.load(std::memory_order_relaxed);
    m_pFiles[port]->ManualStop();
    const unsigned stage = m_nNextStageIndex.load(std::memory_order_relaxed);
    if (stage != port) {
        for (unsigned i = Next(port); i != stage; i = Next(i))
            m_pFiles[i]->Unstage();
        m_nNextStageIndex.store(Next(port), std::memory_order_release);
        m_nReadingIndex.store(Next(port), std::memory_order_relaxed);
    }
    return 0;
}

void CPlayFileHandler::DoDisplayDebug()
{
    puts("File Handler Internals\r\n~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~~\r");
    printf("Num Channels: %u\r\n", m_nChannels);
    if (m_pPlaylist->IsActive()) {
        puts("Mode: Playlist \r");
        m_pPlaylist->DisplayDebug();
    } else {
        puts("Mode: Manual Files\r");
    }
    const unsigned reading = GetReadingIndex();
    const unsigned port = GetPortPlayingIndex();
    printf("  Next Stage Index: %u\r\n", GetNextStageIndex());
    printf("     Reading Index: %u\r\n", reading);
    printf("Port Playing Index: %u\r\n", port);
    printf("Next Completion Ix: %u\r\n", GetNextCompletionIndex());
    for (unsigned i = 0; i < kPlaySlots; ++i) {
        printf("\t[%u]:", i);
        m_pFiles[i]->DoDisplayDebug(i == reading || i == port);
        puts("\r");
    }
}
