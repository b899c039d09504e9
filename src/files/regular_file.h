// Opening of the files a set-up names (play files, playlists, record
// targets). A client may name anything: a FIFO would block the worker (and
// with it the main thread waiting for the answer) until someone writes to it,
// a device may never end or may act on being opened. Only regular files are
// opened, and never in a way that can block.
#pragma once

// Results of OpenRegularFile besides a descriptor.
enum : int {
    eOpenFailed = -1,     // open() failed; errno says why
    eOpenNotRegular = -2, // the path is something else; a line naming it was printed
};

// Opens path with flags (O_RDONLY, or O_WRONLY | O_CREAT | O_TRUNC for a
// record target, which is created as a regular file when missing). An
// existing path is judged before it is opened and again once it is open.
// The descriptor is close-on-exec.
int OpenRegularFile(const char* path, int flags);
