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

bool ProtocolClient::ReceiveAny(structZorPlayMsg& out, int timeoutMs, size_t* length)
{
    pollfd pfd{m_nFD, POLLIN, 0};
    if (m_nFD < 0 || poll(&pfd, 1, timeoutMs) <= 0)
        return false;
    memset(&out, 0, sizeof(out));
    const ssize_t got = recv(m_nFD, &out, sizeof(out), 0);
    if (length)
        *length = got < 0 ? 0 : static_cast<size_t>(got);
    return got >= 0;
}

template <typename Pick>
bool ProtocolClient::ReceiveUntil(structZorPlayMsg& out, int timeoutMs, Pick pick)
{
    const int64_t deadline = NowMs() + timeoutMs;
    for (;;) {
        const int64_t left = deadline - NowMs();
        if (left <= 0 || !ReceiveAny(out, static_cast<int>(left)))
            return false;
        if (pick(out))
            return true;
    }
}

bool ProtocolClient::Request(structZorPlayMsg& req, structZorPlayMsg& resp, int timeoutMs)
{
    // Unrequested messages that arrive meanwhile are kept for WaitUnrequested.
    return Send(req) && ReceiveUntil(resp, timeoutMs, [&](const structZorPlayMsg& m) {
               if (m.nReq == eReqUnrequested)
                   m_Unrequested.push_back(m);
               return m.nReq == eReqResponse && m.nID == req.nID;
           });
}

int ProtocolClient::Call(enumZorPlayType type, enumZorPlayCmd cmd, int index, const void* payload,
                         size_t payloadLen, int timeoutMs)
{
    structZorPlayMsg req = MakeRequest(type, cmd, index);
    if (payload)
        memcpy(&req.payload, payload, payloadLen < sizeof(req.payload) ? payloadLen : sizeof(req.payload));
    structZorPlayMsg resp;
    return Request(req, resp, timeoutMs) ? static_cast<int>(resp.payload.eResult) : -1;
}

int ProtocolClient::Create(enumZorPlayType type, int slot, int channels, int offset, int timeoutMs)
{
    const structAddModule add = {channels, offset};
    return Call(type, eCmdCreate, slot, &add, sizeof(add), timeoutMs);
}

bool ProtocolClient::WaitUnrequested(structZorPlayMsg& out, int timeoutMs, int cmd)
{
    auto wanted = [cmd](const structZorPlayMsg& m) { return cmd < 0 || static_cast<int>(m.eCmd) == cmd; };
    for (auto it = m_Unrequested.begin(); it != m_Unrequested.end(); ++it) {
        if (wanted(*it)) {
            out = *it;
            m_Unrequested.erase(it);
            return true;
        }
    }
    return ReceiveUntil(out, timeoutMs, [&](const structZorPlayMsg& m) {
        if (m.nReq != eReqUnrequested)
            return false;
        if (wanted(m))
            return true;
        m_Unrequested.push_back(m);
        return false;
    });
}
