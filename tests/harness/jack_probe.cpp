#include "harness/jack_probe.h"

bool JackProbe::Open(const std::string& serverName)
{
    Close();
    jack_status_t status;
    m_pClient = jack_client_open("zp_probe", static_cast<jack_options_t>(JackNoStartServer | JackServerName),
                                 &status, serverName.c_str());
    return m_pClient != nullptr;
}

void JackProbe::Close()
{
    if (m_pClient)
        jack_client_close(m_pClient);
    m_pClient = nullptr;
}

static std::vector<std::string> TakeList(const char** list)
{
    std::vector<std::string> names;
    if (!list)
        return names;
    for (const char** p = list; *p; ++p)
        names.push_back(*p);
    jack_free(list);
    return names;
}

std::vector<std::string> JackProbe::Ports(const std::string& pattern, unsigned long flags) const
{
    return TakeList(jack_get_ports(m_pClient, pattern.c_str(), nullptr, flags));
}

std::vector<std::string> JackProbe::Connections(const std::string& port) const
{
    jack_port_t* p = jack_port_by_name(m_pClient, port.c_str());
    return p ? TakeList(jack_port_get_all_connections(m_pClient, p)) : std::vector<std::string>();
}

bool JackProbe::HasClient(const std::string& clientName) const
{
    char* uuid = jack_get_uuid_for_client_name(m_pClient, clientName.c_str());
    if (!uuid)
        return false;
    jack_free(uuid);
    return true;
}
