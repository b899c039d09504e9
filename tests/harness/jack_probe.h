// A plain JACK client in the test process, to look at the ports and
// connections the server's modules made. Each query opens a client of its
// own and closes it again: an idle client kept open while the server's
// modules come and go by the hundred can hang libjack's close.
#pragma once

#include <jack/jack.h>

#include <string>
#include <vector>

class JackProbe {
public:
    // Only remembers the server; false when no client can be opened there.
    bool Open(const std::string& serverName);

    // Full names of the ports whose names match the pattern (a regular
    // expression, as JACK takes it) and carry all of flags, in server order.
    std::vector<std::string> Ports(const std::string& pattern, unsigned long flags = 0) const;
    // Full names of the ports connected to one port.
    std::vector<std::string> Connections(const std::string& port) const;

private:
    jack_client_t* Connect() const;
    // Runs query on a client opened for it; Result() when none can be opened.
    template <typename Result, typename Query>
    Result Ask(Query query) const;

    std::string m_ServerName;
};
