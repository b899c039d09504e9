// An indexed playlist file: one audio path a line, "#" comments, blank lines
// ignored. Only the byte offset of each entry is kept; paths are read back
// from the open file one at a time. Worker thread only.
#pragma once

#include <cstdio>

#include "protocol/zor_play_msg.h"

constexpr unsigned kPlaylistPathSize = 321;
constexpr unsigned kPlaylistLineSize = 1025;
constexpr unsigned kMaxPlaylistEntries = 65535;
// The largest playlist file: every entry a full line of 1024 characters
// with a CR LF ending.
constexpr long long kMaxPlaylistBytes = 65535LL * (1024 + 2);

// True when the path can be accessed; otherwise prints why and returns false.
bool DoesFileExist(const char* name);

class CPlaylist {
public:
    CPlaylist();
    ~CPlaylist();
    CPlaylist(const CPlaylist&) = delete;
    CPlaylist& operator=(const CPlaylist&) = delete;

    void Reset();
    // Opens and indexes a playlist: 0, 30 (missing), 29 (won't open) or 23 (no entry).
    enumZorPlayResult SetupPlaylistFile(const char* name);
    bool IndexPlaylist();
    // The next entry's path into buf (kPlaylistLineSize bytes) and its number.
    bool GetNextPath(char* buf, unsigned& index);
    void Skip(bool bRelative, int nSkip);
    void DisplayDebug() const;
    bool IsActive() const { return m_pFile != nullptr; }

    unsigned GetLength() const { return m_nLength; }
    unsigned GetActiveIndex() const { return m_nActiveIndex; }

private:
    void CloseFile();

    char m_szPlaylistPath[kPlaylistPathSize];
    char m_szLine[kPlaylistLineSize];
    int32_t m_nOffsets[kMaxPlaylistEntries];
    unsigned m_nActiveIndex; // next entry to hand out
    unsigned m_nLength;      // entries indexed
    FILE* m_pFile;
};
