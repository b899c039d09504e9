#include "protocol/rp_server.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

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

} // namespace

CRPServer::CRPServer() : m_bRunning(true), m_nSocketFD(-1), m_nTimerFD(-1)
{
    SerialLog(eLogCreation, "Creating RP server\r\n");
    memset(&m_ServerAddr, 0, sizeof(m_ServerAddr));
    memset(&m_ClientAddr, 0, sizeof(m_ClientAddr));
    pthread_mutex_init(&m_AsyncLock, nullptr);
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

    if (bind(m_nSocketFD, reinterpret_cast<sockaddr*>(&m_ServerAddr), sizeof(m_ServerAddr)) != 0) {
        printf("Can't bind unix socket '%s': %s\n", kServerSocketPath, strerror(errno));
        close(m_nSocketFD);
        m_nSocketFD = -1;
        return false;
    }
    FillAddress(m_ClientAddr, kClientSocketPath);
    return true;
}

void CRPServer::GetMessage(structZorPlayMsg& msg)
{
    memset(&msg, 0, sizeof(msg));
    ssize_t got = recv(m_nSocketFD, &msg, sizeof(msg), 0);
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
    if (sendto(m_nSocketFD, &msg, sizeof(msg), 0, reinterpret_cast<const sockaddr*>(&m_ClientAddr),
               sizeof(m_ClientAddr)) < 0)
        printf("SendResponse send() failed: %s\r\n", strerror(errno));
}

void CRPServer::SendAsync(structZorPlayMsg& msg)
{
    CRAIIMutex lock(&m_AsyncLock);
    SerialLog(eLogMessaging, "Server sending async message, ID=%d, cmd=%d, req=%d\r\n", msg.nID,
              static_cast<int>(msg.eCmd), msg.nReq);
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
