#include "harness/jack_probe.h"

namespace {

std::vector<std::string> TakeList(const char** list)
{
    std::vector<std::string> names;
    for (const char** p = list; p && *p; ++p)
        names.push_back(*p);
    if (list)
        jack_free(list);
    return names;
}

} // namespace

jack_client_t* JackProbe::Connect() const
{
    jack_status_t status;
    return jack_client_open("zp_probe", static_cast<jack_options_t>(JackNoStartServer | JackServerName), &status,
                            m_ServerName.c_str());
}

template <typename Result, typename Query>
Result JackProbe::Ask(Query query) const
{
    jack_client_t* client = Connect();
    if (!client)
        return Result();
    Result result = query(client);
    jack_client_close(client);
    return result;
}

bool JackProbe::Open(const std::string& serverName)
{
    m_ServerName = serverName;
    return Ask<bool>([](jack_client_t*) { return true; });
}

std::vector<std::string> JackProbe::Ports(const std::string& pattern, unsigned long flags) const
{
    return Ask<std::vector<std::string>>(
        [&](jack_client_t* c) { return TakeList(jack_get_ports(c, pattern.c_str(), nullptr, flags)); });
}

std::vector<std::string> JackProbe::Connections(const std::string& port) const
{
    return Ask<std::vector<std::string>>([&](jack_client_t* c) {
        jack_port_t* p = jack_port_by_name(c, port.c_str());
        return p ? TakeList(jack_port_get_all_connections(c, p)) : std::vector<std::string>();
    });
}
