#include "harness/jack_client.h"

#include <cstring>

namespace {

jack_client_t* OpenClient(const std::string& server, const std::string& name)
{
    return jack_client_open(name.c_str(), static_cast<jack_options_t>(JackNoStartServer | JackServerName), nullptr,
                            server.c_str());
}

// Runs list(client) on a client of its own and takes the names it answers.
template <typename List>
std::vector<std::string> Ask(const std::string& server, List list)
{
    jack_client_t* client = OpenClient(server, "zp_probe");
    if (!client)
        return {"<no JACK server>"};
    const char** names = list(client);
    std::vector<std::string> result;
    for (const char** p = names; p && *p; ++p)
        result.push_back(*p);
    jack_free(names);
    jack_client_close(client);
    return result;
}

} // namespace

std::vector<std::string> JackPorts(const std::string& server, const std::string& pattern, unsigned long flags)
{
    return Ask(server, [&](jack_client_t* c) { return jack_get_ports(c, pattern.c_str(), nullptr, flags); });
}

std::vector<std::string> JackConnections(const std::string& server, const std::string& port)
{
    return Ask(server, [&](jack_client_t* c) {
        jack_port_t* p = jack_port_by_name(c, port.c_str());
        return p ? jack_port_get_all_connections(c, p) : nullptr;
    });
}

TestJackClient::~TestJackClient()
{
    if (m_pClient) {
        jack_deactivate(m_pClient);
        jack_client_close(m_pClient);
    }
}

bool TestJackClient::Open(const std::string& server, const std::string& name, unsigned inputs, size_t capacity,
                          unsigned outputs)
{
    m_Data.assign(inputs, std::vector<float>(capacity)); // value-initialised: every page touched
    m_pClient = OpenClient(server, name);
    for (unsigned i = 0; m_pClient && i < inputs + outputs; ++i) {
        const bool in = i < inputs;
        const std::string port = (in ? "in" : "out") + std::to_string(in ? i + 1 : i - inputs + 1);
        (in ? m_Inputs : m_Outputs)
            .push_back(jack_port_register(m_pClient, port.c_str(), JACK_DEFAULT_AUDIO_TYPE,
                                          in ? JackPortIsInput : JackPortIsOutput, 0));
    }
    return m_pClient && jack_set_process_callback(m_pClient, Process, this) == 0 && jack_activate(m_pClient) == 0;
}

bool TestJackClient::Connect(const std::string& other, const char* ours, unsigned channels, bool from)
{
    for (unsigned c = 1; c <= channels; ++c) {
        const std::string a = other + std::to_string(c), b = jack_get_client_name(m_pClient) + (":" + (ours + std::to_string(c)));
        if (jack_connect(m_pClient, (from ? a : b).c_str(), (from ? b : a).c_str()) != 0)
            return false;
    }
    return true;
}

int TestJackClient::Process(jack_nframes_t nframes, void* arg)
{
    TestJackClient* self = static_cast<TestJackClient*>(arg);
    const Signal signal = self->m_Signal.load();
    const uint32_t param = self->m_nParam.load();
    for (unsigned c = 0; c < self->m_Outputs.size(); ++c) {
        float* out = static_cast<float*>(jack_port_get_buffer(self->m_Outputs[c], nframes));
        for (uint32_t i = 0; i < nframes; ++i)
            out[i] = signal ? signal(self->m_nPlayed + i, c, param) : 0.0f;
    }
    self->m_nPlayed += nframes;
    const size_t at = self->m_nFrames.load(std::memory_order_relaxed);
    if (self->Channels() == 0 || at + nframes > self->m_Data[0].size())
        return 0;
    for (unsigned c = 0; c < self->Channels(); ++c)
        memcpy(self->m_Data[c].data() + at, jack_port_get_buffer(self->m_Inputs[c], nframes), nframes * sizeof(float));
    self->m_nFrames.store(at + nframes, std::memory_order_release);
    return 0;
}
