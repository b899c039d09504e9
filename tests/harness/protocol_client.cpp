#include "harness/protocol_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "protocol/rp_server.h"

sockaddr_un UnixAddress(const char* path)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path, sizeof(addr.sun_path) - 1);
    return addr;
}

bool ProtocolClient::Open()
{
    Close();
    m_nFD = socket(AF_UNIX, SOCK_DGRAM, 0);
    int size = kSocketBufferBytes;
    setsockopt(m_nFD, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
    unlink(kClientSocketPath);
    const sockaddr_un addr = UnixAddress(kClientSocketPath);
    return bind(m_nFD, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0;
}

void ProtocolClient::Close()
{
    if (m_nFD >= 0 && close(m_nFD) == 0)
        unlink(kClientSocketPath);
    m_nFD = -1;
    m_Unrequested.clear();
}

bool ProtocolClient::SendRaw(const void* data, size_t len)
{
    const sockaddr_un addr = UnixAddress(kServerSocketPath);
    return sendto(m_nFD, data, len, 0, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) ==
           static_cast<ssize_t>(len);
}

bool ProtocolClient::ReceiveAny(structZorPlayMsg& out, int timeoutMs, size_t* length)
{
    pollfd pfd{m_nFD, POLLIN, 0};
    memset(&out, 0, sizeof(out));
    const ssize_t got = poll(&pfd, 1, timeoutMs) > 0 ? recv(m_nFD, &out, sizeof(out), 0) : -1;
    if (length)
        *length = got < 0 ? 0 : static_cast<size_t>(got);
    return got >= 0;
}

bool ProtocolClient::Await(structZorPlayMsg& out, int timeoutMs, int id, int cmd)
{
    auto wanted = [&](const structZorPlayMsg& m) {
        return id >= 0 ? m.nReq == eReqResponse && m.nID == id
                       : m.nReq == eReqUnrequested && (cmd < 0 || static_cast<int>(m.eCmd) == cmd);
    };
    for (auto it = m_Unrequested.begin(); it != m_Unrequested.end(); ++it)
        if (wanted(*it)) {
            out = *it;
            m_Unrequested.erase(it);
            return true;
        }
    using Clock = std::chrono::steady_clock;
    for (const Clock::time_point end = Clock::now() + std::chrono::milliseconds(timeoutMs);;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0 || !ReceiveAny(out, static_cast<int>(left)))
            return false;
        if (wanted(out))
            return true;
        if (out.nReq == eReqUnrequested)
            m_Unrequested.push_back(out);
    }
}

int ProtocolClient::Call(enumZorPlayType type, enumZorPlayCmd cmd, int index, const void* payload, size_t len,
                         int timeoutMs)
{
    structZorPlayMsg req = MakeRequest(type, cmd, index), resp;
    if (payload)
        memcpy(&req.payload, payload, std::min(len, sizeof(req.payload)));
    return Request(req, resp, timeoutMs) ? static_cast<int>(resp.payload.eResult) : -1;
}
