// A plain JACK client in the test process, to look at the ports and
// connections the server's modules made.
#pragma once

#include <jack/jack.h>

#include <string>
#include <vector>

class JackProbe {
public:
    JackProbe() = default;
    ~JackProbe() { Close(); }
    JackProbe(const JackProbe&) = delete;
    JackProbe& operator=(const JackProbe&) = delete;

    bool Open(const std::string& serverName);
    void Close();

    // Full names of the ports whose names match the pattern (a regular
    // expression, as JACK takes it) and carry all of flags, in server order.
    std::vector<std::string> Ports(const std::string& pattern, unsigned long flags = 0) const;
    // Full names of the ports connected to one port.
    std::vector<std::string> Connections(const std::string& port) const;
    bool HasClient(const std::string& clientName) const;

private:
    jack_client_t* m_pClient = nullptr;
};
