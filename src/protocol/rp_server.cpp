#include "protocol/rp_server.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <vector>

#include "app/info_files.h"
#include "app/logging.h"
#include "manager/raii_mutex.h"

namespace {

void FillAddress(sockaddr_un& addr, const char* path)
{
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    strscpy(addr.sun_path, path, sizeof(addr.sun_path));
}

// The server's own user, root, and the members of the server's group may
// control it (the socket's mode lets exactly them send).
bool MayControl(uid_t uid)
{
    if (uid == 0 || uid == geteuid())
        return true;
    const gid_t group = getegid();
    passwd entry;
    passwd* found = nullptr;
    std::vector<char> text(16384);
    if (getpwuid_r(uid, &entry, text.data(), text.size(), &found) != 0 || found == nullptr)
        return false;
    if (entry.pw_gid == group)
        return true;
    int count = 256;
    std::vector<gid_t> groups(static_cast<size_t>(count));
    if (getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0)
        return false; // more groups than we look through: not taken as a member
    for (int i = 0; i < count; ++i)
        if (groups[static_cast<size_t>(i)] == group)
            return true;
    return false;
}

} // namespace

CRPServer::CRPServer()
    : m_bRunning(true), m_nSocketFD(-1), m_nTimerFD(-1), m_nSenderUid(0), m_bSenderKnown(false), m_nJudgedOwner(0),
      m_bOwnerJudged(false), m_bOwnerTrusted(false), m_nRefusedSender(0), m_bSenderRefused(false)
{
    SerialLog(eLogCreation, "Creating RP server\r\n");
    memset(&m_ServerAddr, 0, sizeof(m_ServerAddr));
    memset(&m_ClientAddr, 0, sizeof(m_ClientAddr));
    pthread_mutex_init(&m_AsyncLock, nullptr);
    pthread_mutex_init(&m_OwnerLock, nullptr);
}

CRPServer::~CRPServer()
{
    SerialLog(eLogCreation, "~Destructing RP server\r\n");
    if (m_nTimerFD >= 0)
        close(m_nTimerFD);
    // Only a server that bound the path removes it: one that never got that
    // far must not take away another process's socket.
    if (m_nSocketFD >= 0) {
        close(m_nSocketFD);
        unlink(kServerSocketPath);
    }
    pthread_mutex_destroy(&m_AsyncLock);
    pthread_mutex_destroy(&m_OwnerLock);
}

bool CRPServer::CreateServerSocket()
{
    unlink(kServerSocketPath); // leftover of an earlier run
    FillAddress(m_ServerAddr, kServerSocketPath);
    SerialLog(eLogCreation, "Creating socket '%s' for recorder communications\r\n", kServerSocketPath);

    m_nSocketFD = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (m_nSocketFD < 0) {
        printf("Can't create unix socket '%s': %s\n", kServerSocketPath, strerror(errno));
        return false;
    }
    int flags = fcntl(m_nSocketFD, F_GETFL);
    fcntl(m_nSocketFD, F_SETFL, flags | O_NONBLOCK);

    int size = kSocketBufferBytes;
    if (setsockopt(m_nSocketFD, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)) != 0)
        printf("Couldn't set send buffer size SO_SNDBUF for unix socket '%s': %s\n", kServerSocketPath,
               strerror(errno));
    if (setsockopt(m_nSocketFD, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size)) != 0)
        printf("Couldn't set receive buffer size SO_RCVBUF for unix socket '%s': %s\n", kServerSocketPath,
               strerror(errno));

    // Only the server's user and group may send requests, whatever the
    // umask. The socket is bound private (a datagram socket connected in a
    // wider window would keep its right to send) and then opened to the group.
    // Start-up is single-threaded here, so the umask may be changed.
    const mode_t oldMask = umask(0177);
    const int bound = bind(m_nSocketFD, reinterpret_cast<sockaddr*>(&m_ServerAddr), sizeof(m_ServerAddr));
    umask(oldMask);
    if (bound != 0) {
        printf("Can't bind unix socket '%s': %s\n", kServerSocketPath, strerror(errno));
        close(m_nSocketFD);
        m_nSocketFD = -1;
        return false;
    }
    if (chmod(kServerSocketPath, 0660) != 0)
        printf("Couldn't set the mode of unix socket '%s': %s\n", kServerSocketPath, strerror(errno));
    // Every request then carries its sender's credentials.
    const int on = 1;
    if (setsockopt(m_nSocketFD, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0)
        printf("Couldn't set SO_PASSCRED for unix socket '%s': %s\n", kServerSocketPath, strerror(errno));
    FillAddress(m_ClientAddr, kClientSocketPath);
    return true;
}

void CRPServer::GetMessage(structZorPlayMsg& msg)
{
    memset(&msg, 0, sizeof(msg));
    iovec data = {&msg, sizeof(msg)};
    union {
        cmsghdr align;
        char bytes[CMSG_SPACE(sizeof(ucred))];
    } control;
    msghdr header = {};
    header.msg_iov = &data;
    header.msg_iovlen = 1;
    header.msg_control = control.bytes;
    header.msg_controllen = sizeof(control.bytes);
    ssize_t got = recvmsg(m_nSocketFD, &header, 0);
    m_bSenderKnown = false;
    m_nSenderUid = static_cast<uid_t>(-1);
    for (cmsghdr* c = got < 0 ? nullptr : CMSG_FIRSTHDR(&header); c; c = CMSG_NXTHDR(&header, c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS && c->cmsg_len >= CMSG_LEN(sizeof(ucred))) {
            ucred cred;
            memcpy(&cred, CMSG_DATA(c), sizeof(cred));
            m_nSenderUid = cred.uid;
            m_bSenderKnown = true;
        }
    }
    if (got < 0) {
        printf("ReceiveMessage recv(): %s\n", strerror(errno));
        memset(&msg, 0, sizeof(msg));
        return;
    }
    SerialLog(eLogMessaging, "Server got %d byte UD message, ID=%d, cmd=%d, req=%d\r\n", static_cast<int>(got),
              msg.nID, static_cast<int>(msg.eCmd), msg.nReq);
}

void CRPServer::SendResponse(structZorPlayMsg& msg, enumZorPlayResult result)
{
    msg.nReq = eReqResponse;
    memset(&msg.payload, 0, sizeof(msg.payload));
    msg.payload.eResult = result;
    SerialLog(eLogMessaging, "Server sending response, ID=%d, cmd=%d, req=%d\r\n", msg.nID,
              static_cast<int>(msg.eCmd), msg.nReq);
    if (!ClientMayHear(true))
        return;
    if (sendto(m_nSocketFD, &msg, sizeof(msg), 0, reinterpret_cast<const sockaddr*>(&m_ClientAddr),
               sizeof(m_ClientAddr)) < 0)
        printf("SendResponse send() failed: %s\r\n", strerror(errno));
}

void CRPServer::SendAsync(structZorPlayMsg& msg)
{
    CRAIIMutex lock(&m_AsyncLock);
    SerialLog(eLogMessaging, "Server sending async message, ID=%d, cmd=%d, req=%d\r\n", msg.nID,
              static_cast<int>(msg.eCmd), msg.nReq);
    if (!ClientMayHear(false))
        return;
    if (sendto(m_nSocketFD, &msg, sizeof(msg), 0, reinterpret_cast<const sockaddr*>(&m_ClientAddr),
               sizeof(m_ClientAddr)) < 0)
        printf("SendAsync send() failed: %s\r\n", strerror(errno));
}

void CRPServer::CreateTimerFD()
{
    m_nTimerFD = timerfd_create(CLOCK_MONOTONIC, 0);
    if (fcntl(m_nTimerFD, F_SETFL, O_NONBLOCK) != 0)
        printf("Failed to set timerfd to non blocking mode: %s\r\n", strerror(errno));
    itimerspec period{};
    period.it_value.tv_sec = 1;
    period.it_interval.tv_sec = 1;
    if (timerfd_settime(m_nTimerFD, 0, &period, nullptr) != 0)
        printf("Failed to set timerfd duration: %s\n", strerror(errno));
}

bool CRPServer::ClientMayHear(bool bResponse)
{
    // In a sticky /tmp only the path's owner (or root) can put another
    // socket in its place between this look and the send.
    struct stat st;
    if (lstat(kClientSocketPath, &st) != 0)
        return true; // nobody is bound: the send fails and says so
    CRAIIMutex lock(&m_OwnerLock);
    if (!m_bOwnerJudged || st.st_uid != m_nJudgedOwner) {
        m_bOwnerJudged = true;
        m_nJudgedOwner = st.st_uid;
        m_bSenderRefused = false;
        m_bOwnerTrusted = MayControl(st.st_uid);
        if (!m_bOwnerTrusted)
            printf("Client path %s belongs to uid %u, who may not control this server: nothing is sent there\r\n",
                   kClientSocketPath, static_cast<unsigned>(st.st_uid));
    }
    if (!m_bOwnerTrusted)
        return false;
    if (!bResponse || st.st_uid == 0)
        return true;
    // Responses: main thread, where the sender fields are written.
    if (m_bSenderKnown && st.st_uid == m_nSenderUid)
        return true;
    if (!m_bSenderRefused || m_nSenderUid != m_nRefusedSender) {
        m_bSenderRefused = true;
        m_nRefusedSender = m_nSenderUid;
        printf("Client path %s belongs to uid %u: responses to requests of uid %d are not sent there\r\n",
               kClientSocketPath, static_cast<unsigned>(st.st_uid), m_bSenderKnown ? static_cast<int>(m_nSenderUid) : -1);
    }
    return false;
}
