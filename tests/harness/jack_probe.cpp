#include "harness/jack_probe.h"

jack_client_t* JackProbe::Connect() const
{
    jack_status_t status;
    return jack_client_open("zp_probe", static_cast<jack_options_t>(JackNoStartServer | JackServerName), &status,
                            m_ServerName.c_str());
}

bool JackProbe::Open(const std::string& serverName)
{
    m_ServerName = serverName;
    jack_client_t* client = Connect();
    if (client)
        jack_client_close(client);
    return client != nullptr;
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
    jack_client_t* client = Connect();
    if (!client)
        return {};
    std::vector<std::string> names = TakeList(jack_get_ports(client, pattern.c_str(), nullptr, flags));
    jack_client_close(client);
    return names;
}

std::vector<std::string> JackProbe::Connections(const std::string& port) const
{
    jack_client_t* client = Connect();
    if (!client)
        return {};
    jack_port_t* p = jack_port_by_name(client, port.c_str());
    std::vector<std::string> names = p ? TakeList(jack_port_get_all_connections(client, p)) : std::vector<std::string>();
    jack_client_close(client);
    return names;
}

bool JackProbe::HasClient(const std::string& clientName) const
{
    jack_client_t* client = Connect();
    if (!client)
        return false;
    char* uuid = jack_get_uuid_for_client_name(client, clientName.c_str());
    jack_client_close(client);
    if (!uuid)
        return false;
    jack_free(uuid);
    return true;
}
