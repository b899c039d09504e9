#include "harness/protocol_client.h"

#include <chrono>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "protocol/rp_server.h"

namespace {

sockaddr_un Address(const char* path)
{
    sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path, sizeof(addr.sun_path) - 1);
    return addr;
}

bool IsUnrequested(const structZorPlayMsg& msg)
{
    return msg.nReq == eReqUnrequested;
}

int64_t NowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

} // namespace

ProtocolClient::~ProtocolClient() { Close(); }

bool ProtocolClient::Open()
{
    Close();
    m_nFD = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (m_nFD < 0)
        return false;
    int size = kSocketBufferBytes;
    setsockopt(m_nFD, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
    unlink(kClientSocketPath);
    sockaddr_un addr = Address(kClientSocketPath);
    if (bind(m_nFD, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        Close();
        return false;
    }
    return true;
}

void ProtocolClient::Close()
{
    if (m_nFD >= 0) {
        close(m_nFD);
        m_nFD = -1;
        unlink(kClientSocketPath);
    }
    m_Unrequested.clear();
}

structZorPlayMsg ProtocolClient::MakeRequest(enumZorPlayType type, enumZorPlayCmd cmd, int index)
{
    structZorPlayMsg msg;
    InitRequest(msg, m_nNextID++, type, cmd, index);
    return msg;
}

bool ProtocolClient::Send(const structZorPlayMsg& msg) { return SendRaw(&msg, sizeof(msg)); }

bool ProtocolClient::SendRaw(const void* data, size_t len)
{
    if (m_nFD < 0)
        return false;
    sockaddr_un addr = Address(kServerSocketPath);
    return sendto(m_nFD, data, len, 0, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) ==
           static_cast<ssize_t>(len);
}

bool ProtocolClient::ReceiveOne(structZorPlayMsg& out, int timeoutMs, size_t* length)
{
    pollfd pfd{m_nFD, POLLIN, 0};
    if (m_nFD < 0 || poll(&pfd, 1, timeoutMs) <= 0)
        return false;
    memset(&out, 0, sizeof(out));
    ssize_t got = recv(m_nFD, &out, sizeof(out), 0);
    if (got < 0)
        return false;
    if (length)
        *length = static_cast<size_t>(got);
    return true;
}

bool ProtocolClient::ReceiveAny(structZorPlayMsg& out, int timeoutMs, size_t* length)
{
    return ReceiveOne(out, timeoutMs, length);
}

bool ProtocolClient::Request(structZorPlayMsg& req, structZorPlayMsg& resp, int timeoutMs)
{
    if (!Send(req))
        return false;
    int64_t deadline = NowMs() + timeoutMs;
    for (;;) {
        int64_t left = deadline - NowMs();
        if (left <= 0 || !ReceiveOne(resp, static_cast<int>(left), nullptr))
            return false;
        if (IsUnrequested(resp)) {
            m_Unrequested.push_back(resp);
            continue;
        }
        if (resp.nReq == eReqResponse && resp.nID == req.nID)
            return true;
    }
}

int ProtocolClient::Call(enumZorPlayType type, enumZorPlayCmd cmd, int index, const void* payload,
                         size_t payloadLen, int timeoutMs)
{
    structZorPlayMsg req = MakeRequest(type, cmd, index);
    if (payload)
        memcpy(&req.payload, payload, payloadLen < sizeof(req.payload) ? payloadLen : sizeof(req.payload));
    structZorPlayMsg resp;
    if (!Request(req, resp, timeoutMs))
        return -1;
    return static_cast<int>(resp.payload.eResult);
}

int ProtocolClient::Create(enumZorPlayType type, int slot, int channels, int offset, int timeoutMs)
{
    const structAddModule add = {channels, offset};
    return Call(type, eCmdCreate, slot, &add, sizeof(add), timeoutMs);
}

bool ProtocolClient::WaitUnrequested(structZorPlayMsg& out, int timeoutMs, int cmd)
{
    for (auto it = m_Unrequested.begin(); it != m_Unrequested.end(); ++it) {
        if (cmd < 0 || static_cast<int>(it->eCmd) == cmd) {
            out = *it;
            m_Unrequested.erase(it);
            return true;
        }
    }
    int64_t deadline = NowMs() + timeoutMs;
    for (;;) {
        int64_t left = deadline - NowMs();
        if (left <= 0 || !ReceiveOne(out, static_cast<int>(left), nullptr))
            return false;
        if (!IsUnrequested(out))
            continue;
        if (cmd < 0 || static_cast<int>(out.eCmd) == cmd)
            return true;
        m_Unrequested.push_back(out);
    }
}

void ProtocolClient::DiscardPending()
{
    m_Unrequested.clear();
    structZorPlayMsg msg;
    while (ReceiveOne(msg, 0, nullptr)) {
    }
}
