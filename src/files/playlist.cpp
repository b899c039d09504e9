#include "files/playlist.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "app/info_files.h"
#include "app/logging.h"
#include "files/regular_file.h"

namespace {

// Removes up to two trailing line-end characters (CR or LF).
void TrimLineEnd(char* line)
{
    size_t len = strlen(line);
    for (int i = 0; i < 2 && len > 0 && (line[len - 1] == '\r' || line[len - 1] == '\n'); ++i)
        line[--len] = '\0';
}

} // namespace

bool DoesFileExist(const char* name)
{
    if (access(name, F_OK) == 0)
        return true;
    printf("DoesFileExist: could not access() '%s': %s\r\n", name, strerror(errno));
    return false;
}

CPlaylist::CPlaylist() : m_nActiveIndex(0), m_nLength(0), m_pFile(nullptr)
{
    m_szPlaylistPath[0] = '\0';
    m_szLine[0] = '\0';
    memset(m_nOffsets, 0, sizeof(m_nOffsets));
}

CPlaylist::~CPlaylist() { Reset(); }

void CPlaylist::CloseFile()
{
    if (m_pFile) {
        fclose(m_pFile);
        m_pFile = nullptr;
    }
}

void CPlaylist::Reset()
{
    m_szPlaylistPath[0] = '\0';
    memset(m_nOffsets, 0, sizeof(m_nOffsets));
    m_nActiveIndex = 0;
    m_nLength = 0;
    CloseFile();
}

enumZorPlayResult CPlaylist::SetupPlaylistFile(const char* name)
{
    if (!DoesFileExist(name)) {
        printf("Playlist file %s doesn't exist\r\n", name);
        return eResultPathMissing;
    }
    SerialLog(eLogFile, "Playlist file %s seems to exist\r\n", name);
    CloseFile();
    strscpy(m_szPlaylistPath, name, sizeof(m_szPlaylistPath));
    const int fd = OpenRegularFile(m_szPlaylistPath, O_RDONLY);
    if (fd == eOpenFailed)
        printf("Playlist file (%s) wouldn't open: %s\r\n", m_szPlaylistPath, strerror(errno));
    if (fd < 0) {
        m_szPlaylistPath[0] = '\0';
        return fd == eOpenNotRegular ? eResultPathMissing : eResultCantOpenFile;
    }
    // Judged by its size before anything is read: a longer file cannot be
    // a list the offset table holds, and reading it could take long.
    struct stat st;
    if (fstat(fd, &st) != 0 || st.st_size > kMaxPlaylistBytes) {
        printf("Playlist file %s is %lld bytes long, more than a playlist can hold (%lld)\r\n", m_szPlaylistPath,
               static_cast<long long>(st.st_size), static_cast<long long>(kMaxPlaylistBytes));
        close(fd);
        m_szPlaylistPath[0] = '\0';
        return eResultPathMissing;
    }
    m_pFile = fdopen(fd, "r");
    if (!m_pFile) {
        printf("Playlist file (%s) wouldn't open: %s\r\n", m_szPlaylistPath, strerror(errno));
        close(fd);
        m_szPlaylistPath[0] = '\0';
        return eResultCantOpenFile;
    }
    if (!IndexPlaylist()) {
        // A playlist without entries is closed at once, so manual files are
        // accepted again straight away.
        Reset();
        return eResultEmptyFilenames;
    }
    return eResultSuccess;
}

bool CPlaylist::IndexPlaylist()
{
    m_nLength = 0;
    m_nActiveIndex = 0;
    if (!m_pFile)
        return false;
    fseek(m_pFile, 0, SEEK_SET);
    long lineStart = 0;
    while (fgets(m_szLine, sizeof(m_szLine), m_pFile)) {
        TrimLineEnd(m_szLine);
        size_t spaces = strspn(m_szLine, " ");
        const char* text = m_szLine + spaces;
        if (m_szLine[0] == '\0' || text[0] == '#') {
            SerialLog(eLogFile, "NOT Indexing [%d]:%.300s\r\n", static_cast<int>(m_nLength), text);
        } else if (m_nLength == kMaxPlaylistEntries) {
            // The offset table is full: the rest of a longer playlist is not played.
            printf("Playlist %s has more than %u entries, the rest is ignored\r\n", m_szPlaylistPath,
                   kMaxPlaylistEntries);
            break;
        } else {
            SerialLog(eLogFile, "Indexing [%d]:%.300s\r\n", static_cast<int>(m_nLength), text);
            m_nOffsets[m_nLength++] = static_cast<int32_t>(lineStart + static_cast<long>(spaces));
        }
        lineStart = ftell(m_pFile);
    }
    return m_nLength != 0;
}

bool CPlaylist::GetNextPath(char* buf, unsigned& index)
{
    if (!m_pFile || m_nActiveIndex >= m_nLength)
        return false;
    index = m_nActiveIndex++;
    fseek(m_pFile, m_nOffsets[index], SEEK_SET);
    if (!fgets(buf, kPlaylistLineSize, m_pFile)) {
        printf("Couldn't open playlist index %d\r\n", static_cast<int>(index));
        return false;
    }
    TrimLineEnd(buf);
    SerialLog(eLogFile, "read from playlist: [%02d]%.200s, len %ld\r\n", static_cast<int>(index), buf,
              static_cast<long>(strlen(buf)));
    return true;
}

void CPlaylist::Skip(bool bRelative, int nSkip)
{
    SerialLog(eLogInteractive, "SKIP: Relative:%d value:%d\r\n", bRelative ? 1 : 0, nSkip);
    m_nActiveIndex = bRelative ? m_nActiveIndex + static_cast<unsigned>(nSkip) : static_cast<unsigned>(nSkip);
}

void CPlaylist::DisplayDebug() const
{
    puts("\tPlaylist Info\r");
    printf("\tActive Idx: %u, Total Tength %u\r\n", m_nActiveIndex, m_nLength);
    printf("\tContents Near Active: ");
    unsigned first = m_nActiveIndex > 3 ? m_nActiveIndex - 3 : 0;
    unsigned last = m_nActiveIndex + 2 < m_nLength ? m_nActiveIndex + 2 : m_nLength;
    for (unsigned i = first; i < last; ++i)
        printf("%s[%u]:%u ", i == m_nActiveIndex ? "ACT:" : "", i, static_cast<unsigned>(m_nOffsets[i]));
    puts("\r");
}
