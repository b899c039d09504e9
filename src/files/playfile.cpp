#include "files/playfile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <samplerate.h>

#include "app/globals.h"
#include "app/info_files.h"
#include "app/logging.h"
#include "files/regular_file.h"

uint32_t MonotonicSeconds()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint32_t>(ts.tv_sec);
}

CPlayFile::CPlayFile(unsigned channels, CFastWindInfo* fastWind)
    : m_nListIndex(0), m_nChannels(channels), m_bDone(false), m_pSndFile(nullptr), m_sfInfo(),
      m_pPlayBuffer(nullptr), m_pFileBuffer(nullptr), m_pSlab(nullptr), m_bChannelMap(false), m_bSRC(false),
      m_pSRC(new CSRCWrapper(static_cast<int>(channels), 1.0)), m_nFramesRead(0), m_nFileFrames(0),
      m_nPortMaxLen(0), m_pFastWind(fastWind), m_dRatio(1.0), m_bOpen(false)
{
    m_szFilename[0] = '\0';
}

CPlayFile::~CPlayFile()
{
    if (m_pSndFile)
        sf_close(m_pSndFile);
    delete m_pPlayBuffer;
    delete m_pFileBuffer;
    delete[] m_pSlab;
    delete m_pSRC;
}

bool CPlayFile::SetFilename(const char* name, unsigned listIndex)
{
    strscpy(m_szFilename, name, sizeof(m_szFilename));
    m_nListIndex = listIndex;
    return true;
}

// Opens a file for play and checks that it can be played: a regular file
// libsndfile reads, at a rate the converter can take to the JACK rate.
// Prints why not and answers null otherwise.
SNDFILE* CPlayFile::OpenPlayable(const char* name, SF_INFO& info)
{
    const int fd = OpenRegularFile(name, O_RDONLY);
    if (fd == eOpenFailed) // in the words libsndfile uses for a failed system call
        printf("Couldn't open file: %s: System error : %s.\r\n", name, strerror(errno));
    if (fd < 0)
        return nullptr;
    info = SF_INFO();
    SNDFILE* file = sf_open_fd(fd, SFM_READ, &info, SF_TRUE);
    if (!file) {
        printf("Couldn't open file: %s: %s\r\n", name, sf_strerror(nullptr));
        return nullptr;
    }
    // A rate the converter cannot take would leave the player running
    // without ever making progress.
    const unsigned jackRate = g_nJackSampleRate.load(std::memory_order_relaxed);
    if (!src_is_valid_ratio(static_cast<double>(jackRate) / static_cast<double>(info.samplerate))) {
        printf("Couldn't open file: %s: a rate of %d Hz cannot be converted to %u Hz\r\n", name, info.samplerate,
               jackRate);
        sf_close(file);
        return nullptr;
    }
    return file;
}

bool CPlayFile::OpenFile()
{
    SerialLog(eLogFile, "Player: OpenFile: %.200s\r\n", m_szFilename);
    if (m_pSndFile)
        return true;
    m_pSndFile = OpenPlayable(m_szFilename, m_sfInfo);
    if (!m_pSndFile)
        return false;

    const unsigned period = g_nBufferSizeFrames.load(std::memory_order_relaxed);
    if (!m_pPlayBuffer)
        m_pPlayBuffer = new CZPBuffer(m_nChannels, kPlayBufferPeriods * period);
    if (!m_pFileBuffer)
        m_pFileBuffer = new CZPBuffer(m_nChannels, kFileBufferPeriods * period);
    // The callback is off this slot (not published), so the reset is safe.
    m_pPlayBuffer->Reset();
    m_pFileBuffer->Reset();

    const unsigned jackRate = g_nJackSampleRate.load(std::memory_order_relaxed);
    const uint32_t frames = static_cast<uint32_t>(m_sfInfo.frames);
    if (static_cast<unsigned>(m_sfInfo.samplerate) == jackRate) {
        m_bSRC = false;
        m_dRatio = 1.0;
        m_nPortMaxLen.store(frames, std::memory_order_relaxed);
    } else {
        m_bSRC = true;
        m_dRatio = static_cast<double>(jackRate) / static_cast<double>(m_sfInfo.samplerate);
        m_nPortMaxLen.store(static_cast<uint32_t>(static_cast<double>(frames) * m_dRatio), std::memory_order_relaxed);
    }
    m_pSRC->SetRatio(m_dRatio);

    m_bChannelMap = static_cast<unsigned>(m_sfInfo.channels) != m_nChannels;
    if (m_bChannelMap && !m_pSlab)
        m_pSlab = new float[kSlabSamples];

    const int major = m_sfInfo.format & SF_FORMAT_TYPEMASK;
    const int subtype = m_sfInfo.format & SF_FORMAT_SUBMASK;
    if (major == SF_FORMAT_WAV || major == SF_FORMAT_WAVEX) {
        switch (subtype) {
        case SF_FORMAT_PCM_S8:
        case SF_FORMAT_PCM_16:
        case SF_FORMAT_PCM_24:
        case SF_FORMAT_PCM_32:
        case SF_FORMAT_PCM_U8:
        case SF_FORMAT_FLOAT:
            break;
        default:
            printf("Unknown file WAV subtype 0x%04x.\r\n", static_cast<unsigned>(m_sfInfo.format & 0xFFFF));
            break;
        }
    } else if (major != SF_FORMAT_FLAC && major != SF_FORMAT_OGG) {
        printf("Unknown file format: 0x%x.\r\n", static_cast<unsigned>(m_sfInfo.format));
    }

    SerialLog(eLogFile, "Opened file %.100s at %d rate, %d channels, %lld frames long\r\n", m_szFilename,
              m_sfInfo.samplerate, m_sfInfo.channels, static_cast<long long>(m_sfInfo.frames));
    m_bDone.store(false, std::memory_order_release);
    m_nFramesRead.store(0, std::memory_order_relaxed);
    m_nFileFrames = frames;
    m_bOpen.store(true, std::memory_order_release);
    return true;
}

void CPlayFile::Unstage()
{
    SerialLog(eLogFile, "Player::Unstage: %.200s\r\n", m_szFilename);
    m_bOpen.store(false, std::memory_order_release);
    if (m_pSndFile) {
        sf_close(m_pSndFile);
        m_pSndFile = nullptr;
    }
    m_szFilename[0] = '\0';
    m_bDone.store(false, std::memory_order_release);
}

// With conversion, frames read but still waiting in the file buffer (the
// play buffer had no room for them) have yet to play: the file is not played
// out until both buffers are empty.
bool CPlayFile::IsDone() const
{
    if (!m_bDone.load(std::memory_order_acquire))
        return false;
    CZPBuffer* buf = GetBufferP();
    return !buf || (buf->GetReadableFrames() == 0 && m_pFileBuffer->GetReadableFrames() == 0);
}

void CPlayFile::ClearBuffers()
{
    if (m_pPlayBuffer)
        m_pPlayBuffer->Reset();
    if (m_pFileBuffer)
        m_pFileBuffer->Reset();
}

void CPlayFile::ManualStop()
{
    ClearBuffers();
    m_bDone.store(true, std::memory_order_release);
}

void CPlayFile::ResetPosition()
{
    ClearBuffers();
    m_bDone.store(false, std::memory_order_release);
    if (m_pSndFile)
        sf_seek(m_pSndFile, 0, SEEK_SET);
    m_nFramesRead.store(0, std::memory_order_relaxed);
}

bool CPlayFile::SeekToAbsTime(unsigned seconds)
{
    if (!m_pSndFile)
        return false;
    const uint32_t target = static_cast<uint32_t>(m_sfInfo.samplerate) * seconds;
    if (target > m_nFileFrames)
        return false;
    if (sf_seek(m_pSndFile, target, SEEK_SET) != static_cast<sf_count_t>(target))
        return false;
    m_nFramesRead.store(target, std::memory_order_relaxed);
    // A file read to its end reads again from here; a stale done flag would
    // let the ports roll past it as soon as its buffer ran dry.
    m_bDone.store(false, std::memory_order_release);
    return true;
}

// The file position goes back by the audio read but not yet played. The
// frames-read count follows the file, so the port position stays right after
// a wind. Like any seek, it returns a file read to its end to reading.
void CPlayFile::SeekToPortTime()
{
    if (!m_pSndFile || !m_pPlayBuffer)
        return;
    const double back = static_cast<double>(m_pPlayBuffer->GetReadableFrames()) / m_dRatio;
    const sf_count_t pos = sf_seek(m_pSndFile, -static_cast<sf_count_t>(back), SEEK_CUR);
    if (pos >= 0)
        m_nFramesRead.store(static_cast<uint32_t>(pos), std::memory_order_relaxed);
    m_bDone.store(false, std::memory_order_release);
}

unsigned CPlayFile::SlabRead(float* dst, unsigned frames)
{
    if (!m_bChannelMap) {
        const sf_count_t got = sf_readf_float(m_pSndFile, dst, frames);
        const unsigned n = got > 0 ? static_cast<unsigned>(got) : 0;
        m_nFramesRead.fetch_add(n, std::memory_order_relaxed);
        return n;
    }
    const unsigned fileCh = static_cast<unsigned>(m_sfInfo.channels);
    const unsigned portCh = m_nChannels;
    const unsigned slabFrames = kSlabSamples / fileCh;
    const unsigned common = std::min(portCh, fileCh);
    const bool monoFill = fileCh == 1;
    unsigned total = 0;
    while (total < frames && slabFrames > 0) {
        const sf_count_t got = sf_readf_float(m_pSndFile, m_pSlab, std::min(frames - total, slabFrames));
        if (got <= 0)
            break;
        const unsigned n = static_cast<unsigned>(got);
        total += n;
        m_nFramesRead.fetch_add(n, std::memory_order_relaxed);
        const float* src = m_pSlab;
        for (unsigned f = 0; f < n; ++f, src += fileCh, dst += portCh) {
            unsigned c = 0;
            for (; c < common; ++c)
                dst[c] = src[c];
            for (; c < portCh; ++c)
                dst[c] = monoFill ? src[0] : 0.0f;
        }
    }
    return total;
}

int CPlayFile::FillBufferFromFile(CZPBuffer* dst)
{
    const unsigned period = g_nBufferSizeFrames.load(std::memory_order_relaxed);
    unsigned allowed = kFillPeriods * period;
    const bool winding = m_pFastWind && m_pFastWind->m_bEngaged;

    if (winding) {
        // The callback may be reading the play buffer, so a wind step never
        // resets it: a step is taken only once less than one period is left
        // to play, which keeps the ports at most a period behind the wind.
        if (m_pPlayBuffer->GetReadableFrames() >= period)
            return 0;
        const uint32_t elapsed = MonotonicSeconds() - m_pFastWind->m_nStartSeconds;
        const int speed = static_cast<int>(std::min<uint32_t>(elapsed / 5 + 1, 16));
        int step = (m_pFastWind->m_bForward ? 1 : -1) * 2 * speed;
        if (!m_pFastWind->m_bSilent)
            step -= 1;
        const sf_count_t offset = static_cast<sf_count_t>(step * (static_cast<double>(period) / m_dRatio));
        sf_count_t pos = sf_seek(m_pSndFile, offset, SEEK_CUR);
        m_pFileBuffer->Reset(); // worker on both sides
        if (pos < 0) {
            if (m_pFastWind->m_bForward) {
                m_bDone.store(true, std::memory_order_release);
                return -1;
            }
            pos = sf_seek(m_pSndFile, 0, SEEK_SET);
        }
        m_nFramesRead.store(static_cast<uint32_t>(pos < 0 ? 0 : pos), std::memory_order_relaxed);
        if (m_pFastWind->m_bSilent) {
            dst->StuffSilence(period);
            return 0;
        }
        allowed = static_cast<unsigned>(static_cast<double>(period) / m_dRatio + 0.5);
    }

    CBufInfo info;
    dst->GetWriteInfo(info);
    if (info.m_nFirstFrames == 0)
        return 0;
    const unsigned first = SlabRead(info.m_pFirst, std::min(allowed, info.m_nFirstFrames));
    dst->WriteAdvance(first);
    // Normal play may take its bound into each region. A wind step is heard
    // for exactly one period, so its bound covers both regions together: the
    // split of the free space only decides where the frames go.
    const unsigned secondAllowed = winding ? allowed - first : allowed;
    unsigned second = 0;
    if (first == info.m_nFirstFrames && info.m_nSecondFrames > 0 && secondAllowed > 0) {
        second = SlabRead(info.m_pSecond, std::min(secondAllowed, info.m_nSecondFrames));
        dst->WriteAdvance(second);
    }
    if (first + second == 0) {
        // A read error, or a file that shrank while it played, ends the file
        // here as its end would; the next staged file plays. An error is
        // named once, since the file may have held more.
        if (!m_bDone.load(std::memory_order_relaxed) && sf_error(m_pSndFile) == SF_ERR_SYSTEM)
            printf("Player couldn't read %s: %s\r\n", m_szFilename, sf_strerror(m_pSndFile));
        m_bDone.store(true, std::memory_order_release);
        return -1;
    }
    return static_cast<int>(first + second);
}

int CPlayFile::FillPlayBuffer()
{
    if (!m_pSndFile)
        return -1;
    if (!m_bSRC)
        return FillBufferFromFile(m_pPlayBuffer);
    const int r = FillBufferFromFile(m_pFileBuffer);
    if (!m_pSRC->PerformSRC(m_pFileBuffer, m_pPlayBuffer)) {
        // A file the converter refuses would never leave the file buffer:
        // it ends here, as if it had reached its end.
        m_pFileBuffer->Reset(); // worker on both sides
        m_bDone.store(true, std::memory_order_release);
        return -1;
    }
    return (r != -1 || m_pFileBuffer->GetReadableFrames() > 0) ? 1 : -1;
}

unsigned CPlayFile::GetPortPosition() const
{
    if (!IsOpen())
        return 0;
    const double pos = static_cast<double>(m_nFramesRead.load(std::memory_order_relaxed)) * m_dRatio -
                       static_cast<double>(m_pPlayBuffer->GetReadableFrames());
    return pos > 0.0 ? static_cast<unsigned>(pos) : 0;
}

unsigned CPlayFile::GetRTBufLen() const { return m_pPlayBuffer ? m_pPlayBuffer->GetTotalFrames() : 0; }

void CPlayFile::DoDisplayDebug(bool verbose) const
{
    printf("[%02u]:%.200s %s", m_nListIndex, m_szFilename, m_bDone.load(std::memory_order_relaxed) ? "- DONE" : "");
    if (!verbose)
        return;
    if (!m_pSndFile) {
        printf(" - No Open File");
        return;
    }
    printf("\r\n\t\tChans: %d%s, rate: %d, len(frames): %lld\r\n", m_sfInfo.channels,
           m_bChannelMap ? " (Skew)" : "", m_sfInfo.samplerate, static_cast<long long>(m_sfInfo.frames));
    printf("\t\tRT Buffer Used: %u of %u Frames\r\n", m_pPlayBuffer->GetReadableFrames(),
           m_pPlayBuffer->GetTotalFrames());
    printf("\t\tSRC Buffer Used: %u of %u Frames\r\n", m_pFileBuffer->GetReadableFrames(),
           m_pFileBuffer->GetTotalFrames());
    printf("\t\tSRC Ratio: %f\r\n", m_dRatio);
    const uint32_t read = m_nFramesRead.load(std::memory_order_relaxed);
    const unsigned percent =
        m_nFileFrames ? static_cast<unsigned>(100ULL * read / m_nFileFrames) : 0;
    printf("\t\tFile Progress %u/%u (%u%%)", read, m_nFileFrames, percent);
}
