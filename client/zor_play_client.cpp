// The client library. Written without the C++ run-time library (no new, no
// exceptions) so that C programs link the static archive with a C compiler.
#include "zor_play_client.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

namespace {

// Unrequested messages kept for zpc_poll when no callback takes them; the
// oldest is dropped when a new one finds the ring full.
constexpr unsigned kKeptMessages = 32;
// Large enough for a burst of progress reports from all 16 modules.
constexpr int kReceiveBufferBytes = 0x80000;
// A send that finds the server's queue full is tried again after this pause.
constexpr int kSendRetryMs = 10;

sockaddr_un Address(const char* path)
{
    sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path, sizeof(addr.sun_path) - 1);
    return addr;
}

long long NowMs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// True when a live socket is bound at path: connecting a datagram socket
// sends nothing, and is refused only where the file's socket has been closed.
bool Live(const char* path)
{
    const int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0)
        return true;
    const sockaddr_un addr = Address(path);
    const bool refused = connect(probe, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 &&
                         (errno == ECONNREFUSED || errno == ENOENT);
    close(probe);
    return !refused;
}

// Removes a socket file at the reply path whose process has gone. The file
// is first moved aside and looked at again there, so that a client that
// binds the path meanwhile is never unlinked by mistake. 0 when the path is
// free to bind, ZPC_ERR_PATH_HELD (errno says why) otherwise.
int RemoveStale(const char* path)
{
    struct stat st;
    if (lstat(path, &st) != 0)
        return errno == ENOENT ? 0 : ZPC_ERR_PATH_HELD;
    if (!S_ISSOCK(st.st_mode)) {
        errno = EEXIST;
        return ZPC_ERR_PATH_HELD;
    }
    if (Live(path)) {
        errno = EADDRINUSE;
        return ZPC_ERR_PATH_HELD;
    }
    char aside[sizeof(sockaddr_un::sun_path)];
    snprintf(aside, sizeof(aside), "%s.%ld", path, static_cast<long>(getpid()));
    if (rename(path, aside) != 0)
        return errno == ENOENT ? 0 : ZPC_ERR_PATH_HELD;
    if (!Live(aside)) {
        unlink(aside);
        return 0;
    }
    // Bound by another client between the two looks: put it back.
    if (link(aside, path) == 0)
        unlink(aside);
    errno = EADDRINUSE;
    return ZPC_ERR_PATH_HELD;
}

bool Unrequested(const structZorPlayMsg& msg)
{
    return msg.eCmd == eCmdFileProgress || msg.eCmd == eCmdFileCompletion;
}

int ResultOf(const structZorPlayMsg& msg)
{
    const uint32_t result = msg.payload.eResult;
    return result <= 0x7fffffffu ? static_cast<int>(result) : static_cast<int>(eResultUnmapped);
}

} // namespace

struct zpc_client {
    int fd;
    int timeoutMs;
    int32_t nextID;
    dev_t pathDev; // the reply path's file as bound, to remove only our own
    ino_t pathIno;
    zpc_message_fn callback;
    void* user;
    bool inCallback; // requests from inside the callback are refused
    unsigned keptFirst;
    unsigned keptCount;
    unsigned dropped;
    structZorPlayMsg incoming;
    structZorPlayMsg kept[kKeptMessages];
};

namespace {

// Hands an unrequested message to the callback, or keeps it.
void Call(zpc_client* c, const structZorPlayMsg& msg)
{
    c->inCallback = true;
    c->callback(&msg, c->user);
    c->inCallback = false;
}

void Deliver(zpc_client* c, const structZorPlayMsg& msg)
{
    if (c->callback) {
        Call(c, msg);
        return;
    }
    if (c->keptCount == kKeptMessages) {
        c->keptFirst = (c->keptFirst + 1) % kKeptMessages;
        --c->keptCount;
        ++c->dropped;
    }
    c->kept[(c->keptFirst + c->keptCount) % kKeptMessages] = msg;
    ++c->keptCount;
}

// Receives one whole record from the server into c->incoming before the
// deadline (-1: none). Datagrams of another size or from another sender are
// passed over. 0, ZPC_ERR_TIMEOUT or ZPC_ERR_SYSTEM.
int ReceiveOne(zpc_client* c, long long deadline)
{
    const sockaddr_un server = Address(ZPC_SERVER_PATH);
    // The socket is looked at once even when the deadline has passed, so a
    // zero timeout takes what is already there.
    for (bool first = true;; first = false) {
        int waitMs = -1;
        if (deadline >= 0) {
            const long long left = deadline - NowMs();
            if (left <= 0 && !first)
                return ZPC_ERR_TIMEOUT;
            waitMs = left <= 0 ? 0 : left > 0x7fffffff ? 0x7fffffff : static_cast<int>(left);
        }
        pollfd pfd = {c->fd, POLLIN, 0};
        const int ready = poll(&pfd, 1, waitMs);
        if (ready < 0 && errno != EINTR)
            return ZPC_ERR_SYSTEM;
        if (ready <= 0)
            continue;
        sockaddr_un from;
        socklen_t fromLen = sizeof(from);
        memset(&from, 0, sizeof(from));
        const ssize_t n = recvfrom(c->fd, &c->incoming, sizeof(c->incoming), MSG_DONTWAIT,
                                   reinterpret_cast<sockaddr*>(&from), &fromLen);
        if (n < 0) {
            if (errno == EAGAIN || errno == EINTR)
                continue;
            return ZPC_ERR_SYSTEM;
        }
        if (n == kZorPlayMsgSize && strcmp(from.sun_path, server.sun_path) == 0)
            return 0;
    }
}

int Send(zpc_client* c, const structZorPlayMsg& msg, long long deadline)
{
    const sockaddr_un server = Address(ZPC_SERVER_PATH);
    for (;;) {
        if (sendto(c->fd, &msg, sizeof(msg), MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&server),
                   sizeof(server)) == static_cast<ssize_t>(sizeof(msg)))
            return 0;
        switch (errno) {
        case EINTR:
            continue;
        case EAGAIN: // the server's queue is full: it is busy, not gone
            if (deadline >= 0 && NowMs() >= deadline)
                return ZPC_ERR_TIMEOUT;
            usleep(kSendRetryMs * 1000);
            continue;
        case ENOENT:
        case ECONNREFUSED:
        case EACCES:
        case EPERM:
        case ENOTSOCK:
            return ZPC_ERR_NO_SERVER;
        default:
            return ZPC_ERR_SYSTEM;
        }
    }
}

int Command(zpc_client* c, enumZorPlayType type, enumZorPlayCmd cmd, int slot, const void* payload = nullptr,
            size_t size = 0)
{
    if (!c)
        return ZPC_ERR_ARGUMENT;
    structZorPlayMsg msg;
    memset(&msg, 0, sizeof(msg));
    msg.eType = type;
    msg.eCmd = cmd;
    msg.nIndex = slot;
    if (payload)
        memcpy(&msg.payload, payload, size);
    return zpc_request(c, &msg);
}

// Copies name into a text field of the given size; false when it does not fit.
bool CopyName(char* field, size_t size, const char* name)
{
    if (!name || strlen(name) >= size)
        return false;
    strcpy(field, name);
    return true;
}

int RecordSetup(zpc_client* c, int slot, structSetupFile& setup, const char* const* names, int count)
{
    if (!names || count < 1 || count > kMaxRecordFiles)
        return ZPC_ERR_ARGUMENT;
    for (int i = 0; i < count; ++i)
        if (!CopyName(setup.szFilenames[i], sizeof(setup.szFilenames[i]), names[i]))
            return ZPC_ERR_ARGUMENT;
    return Command(c, eZorPlayRecorder, eCmdSetupFile, slot, &setup, sizeof(setup));
}

} // namespace

extern "C" {

int zpc_open(zpc_client** client)
{
    if (!client)
        return ZPC_ERR_ARGUMENT;
    *client = nullptr;
    zpc_client* c = static_cast<zpc_client*>(calloc(1, sizeof(zpc_client)));
    if (!c)
        return ZPC_ERR_SYSTEM;
    c->timeoutMs = ZPC_DEFAULT_TIMEOUT_MS;
    c->nextID = 1;
    c->fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (c->fd < 0) {
        free(c);
        return ZPC_ERR_SYSTEM;
    }
    // A smaller buffer only means that a slow reader loses progress reports.
    setsockopt(c->fd, SOL_SOCKET, SO_RCVBUF, &kReceiveBufferBytes, sizeof(kReceiveBufferBytes));
    const sockaddr_un reply = Address(ZPC_REPLY_PATH);
    int result = 0;
    for (int attempt = 0;; ++attempt) {
        if (bind(c->fd, reinterpret_cast<const sockaddr*>(&reply), sizeof(reply)) == 0)
            break;
        result = errno == EADDRINUSE ? RemoveStale(ZPC_REPLY_PATH) : ZPC_ERR_SYSTEM;
        if (result == 0 && attempt == 2) { // it keeps coming back: someone else is binding it
            errno = EADDRINUSE;
            result = ZPC_ERR_PATH_HELD;
        }
        if (result != 0)
            break;
    }
    struct stat st;
    if (result == 0 && lstat(ZPC_REPLY_PATH, &st) != 0)
        result = ZPC_ERR_SYSTEM;
    if (result != 0) {
        const int err = errno;
        close(c->fd);
        free(c);
        errno = err;
        return result;
    }
    c->pathDev = st.st_dev;
    c->pathIno = st.st_ino;
    *client = c;
    return 0;
}

void zpc_close(zpc_client* c)
{
    if (!c)
        return;
    struct stat st;
    if (lstat(ZPC_REPLY_PATH, &st) == 0 && st.st_dev == c->pathDev && st.st_ino == c->pathIno)
        unlink(ZPC_REPLY_PATH);
    close(c->fd);
    free(c);
}

void zpc_set_timeout(zpc_client* c, int timeout_ms)
{
    if (c)
        c->timeoutMs = timeout_ms;
}

void zpc_set_message_callback(zpc_client* c, zpc_message_fn fn, void* user)
{
    if (!c)
        return;
    c->callback = fn;
    c->user = user;
    // Messages kept before the callback was set go to it first.
    for (; fn && c->keptCount > 0; --c->keptCount) {
        Call(c, c->kept[c->keptFirst]);
        c->keptFirst = (c->keptFirst + 1) % kKeptMessages;
    }
}

int zpc_server_running(void) { return Live(ZPC_SERVER_PATH) ? 1 : 0; }

unsigned zpc_dropped(const zpc_client* c) { return c ? c->dropped : 0; }

int zpc_fd(const zpc_client* c) { return c ? c->fd : -1; }

int zpc_poll(zpc_client* c, structZorPlayMsg* msg, int timeout_ms)
{
    if (!c || (!msg && !c->callback) || c->inCallback)
        return ZPC_ERR_ARGUMENT;
    if (c->keptCount > 0) {
        if (msg)
            *msg = c->kept[c->keptFirst];
        c->keptFirst = (c->keptFirst + 1) % kKeptMessages;
        --c->keptCount;
        return 0;
    }
    const long long deadline = timeout_ms < 0 ? -1 : NowMs() + timeout_ms;
    for (;;) {
        const int result = ReceiveOne(c, deadline);
        if (result != 0)
            return result;
        if (!Unrequested(c->incoming))
            continue; // a late answer to a request that timed out
        if (c->callback)
            Call(c, c->incoming);
        if (msg)
            *msg = c->incoming;
        return 0;
    }
}

int zpc_request(zpc_client* c, structZorPlayMsg* msg)
{
    if (!c || !msg || c->inCallback)
        return ZPC_ERR_ARGUMENT;
    msg->nVersion = kZorPlayProtocolVersion;
    msg->nLength = kZorPlayMsgSize;
    msg->nReq = eReqRequest;
    msg->nID = c->nextID;
    // nID 0 marks unrequested messages; answers are told apart by their nID.
    c->nextID = c->nextID == 0x7fffffff ? 1 : c->nextID + 1;
    const long long deadline = c->timeoutMs < 0 ? -1 : NowMs() + c->timeoutMs;
    int result = Send(c, *msg, deadline);
    while (result == 0) {
        result = ReceiveOne(c, deadline);
        if (result != 0)
            break;
        const structZorPlayMsg& in = c->incoming;
        if (Unrequested(in))
            Deliver(c, in);
        else if (in.nReq == eReqResponse && in.nID == msg->nID && in.eCmd == msg->eCmd) {
            *msg = in;
            return ResultOf(in);
        }
    }
    return result;
}

const char* zpc_result_text(int code)
{
    switch (code) {
    case ZPC_ERR_ARGUMENT:
        return "Bad argument";
    case ZPC_ERR_NO_SERVER:
        return "No server at " ZPC_SERVER_PATH;
    case ZPC_ERR_PATH_HELD:
        return "Reply path " ZPC_REPLY_PATH " is held by another process";
    case ZPC_ERR_TIMEOUT:
        return "No answer from the server in time";
    case ZPC_ERR_SYSTEM:
        return "System call failed";
    default:
        return code >= 0 ? ResultString(static_cast<uint32_t>(code)) : "Unknown error";
    }
}

const char* zpc_state_name(int state) { return StateString(state); }

int zpc_hello(zpc_client* c, int print_table) { return Command(c, eZorPlayPlayer, eCmdHello, print_table); }

int zpc_create(zpc_client* c, enumZorPlayType type, int slot, int channels, int offset)
{
    const structAddModule add = {channels, offset};
    return Command(c, type, eCmdCreate, slot, &add, sizeof(add));
}

int zpc_delete(zpc_client* c, enumZorPlayType type, int slot) { return Command(c, type, eCmdDelete, slot); }
int zpc_delete_all(zpc_client* c, enumZorPlayType type) { return Command(c, type, eCmdDeleteAll, 0); }
int zpc_start(zpc_client* c, enumZorPlayType type, int slot) { return Command(c, type, eCmdStart, slot); }
int zpc_stop(zpc_client* c, enumZorPlayType type, int slot) { return Command(c, type, eCmdStop, slot); }
int zpc_pause(zpc_client* c, enumZorPlayType type, int slot) { return Command(c, type, eCmdPause, slot); }
int zpc_fast_forward(zpc_client* c, enumZorPlayType type, int slot)
{
    return Command(c, type, eCmdFastForward, slot);
}
int zpc_rewind(zpc_client* c, enumZorPlayType type, int slot) { return Command(c, type, eCmdRewind, slot); }
int zpc_query_status(zpc_client* c, enumZorPlayType type, int slot)
{
    return Command(c, type, eCmdQueryStatus, slot);
}
int zpc_exit(zpc_client* c) { return Command(c, eZorPlayPlayer, eCmdExit, 0); }

int zpc_setup_play_file(zpc_client* c, int slot, const char* path, int secondary)
{
    structSetupPlayFile setup;
    memset(&setup, 0, sizeof(setup));
    setup.bSecondary = secondary ? 1 : 0;
    if (!CopyName(setup.szFilename, sizeof(setup.szFilename), path))
        return ZPC_ERR_ARGUMENT;
    return Command(c, eZorPlayPlayer, eCmdSetupPlayFile, slot, &setup, sizeof(setup));
}

int zpc_setup_playlist(zpc_client* c, int slot, const char* path)
{
    structSetupPlaylist setup;
    memset(&setup, 0, sizeof(setup));
    if (!CopyName(setup.szPlaylist, sizeof(setup.szPlaylist), path))
        return ZPC_ERR_ARGUMENT;
    return Command(c, eZorPlayPlayer, eCmdSetupPlaylist, slot, &setup, sizeof(setup));
}

int zpc_seek(zpc_client* c, int slot, int seconds)
{
    const structSeekOperation seek = {0, seconds};
    return Command(c, eZorPlayPlayer, eCmdSeek, slot, &seek, sizeof(seek));
}

int zpc_skip(zpc_client* c, int slot, int relative, int n)
{
    const structSkipInPlaylist skip = {relative ? 1 : 0, n};
    return Command(c, eZorPlayPlayer, eCmdSkipInPlaylist, slot, &skip, sizeof(skip));
}

int zpc_setup_record(zpc_client* c, int slot, const zpc_record_format* format, const char* const* names, int count)
{
    // The record's codes for the rates and sample sizes a recorder writes.
    static const unsigned rates[] = {48000, 24000, 16000, 12000};
    static const unsigned bits[] = {16, 8, 24};
    const zpc_record_format plain = {0, 48000, 16, 0, 0};
    if (!format)
        format = &plain;
    structSetupFile setup;
    memset(&setup, 0, sizeof(setup));
    setup.nFileSeconds = format->seconds;
    setup.nFileFormat = format->mono ? 1 : 0;
    setup.bRoll = format->roll ? 1 : 0;
    setup.nSampleRate = sizeof(rates) / sizeof(rates[0]);
    for (unsigned i = 0; i < sizeof(rates) / sizeof(rates[0]); ++i)
        if (format->rate_hz == rates[i] || (format->rate_hz == 0 && i == 0))
            setup.nSampleRate = i;
    setup.nWordLength = sizeof(bits) / sizeof(bits[0]);
    for (unsigned i = 0; i < sizeof(bits) / sizeof(bits[0]); ++i)
        if (format->bits == bits[i] || (format->bits == 0 && i == 0))
            setup.nWordLength = static_cast<int32_t>(i);
    if (setup.nSampleRate == sizeof(rates) / sizeof(rates[0]) || setup.nWordLength == sizeof(bits) / sizeof(bits[0]))
        return ZPC_ERR_ARGUMENT;
    return RecordSetup(c, slot, setup, names, count);
}

int zpc_setup_record_next(zpc_client* c, int slot, unsigned seconds, const char* const* names, int count)
{
    structSetupFile setup;
    memset(&setup, 0, sizeof(setup));
    setup.bSecondary = 1;
    setup.nFileSeconds = seconds;
    return RecordSetup(c, slot, setup, names, count);
}

} // extern "C"
