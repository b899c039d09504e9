#include "harness/jack_capture.h"

#include <cstring>

JackCapture::~JackCapture()
{
    if (m_pClient) {
        jack_deactivate(m_pClient);
        jack_client_close(m_pClient);
    }
}

bool JackCapture::Open(const std::string& server, const std::string& name, unsigned channels, size_t capacity)
{
    // Value-initialised, so every page is touched before the callback runs.
    m_Data.assign(channels, std::vector<float>(capacity));
    jack_status_t status;
    m_pClient = jack_client_open(name.c_str(), static_cast<jack_options_t>(JackNoStartServer | JackServerName),
                                 &status, server.c_str());
    if (!m_pClient)
        return false;
    m_Name = jack_get_client_name(m_pClient);
    for (unsigned c = 0; c < channels; ++c) {
        jack_port_t* port = jack_port_register(m_pClient, ("in" + std::to_string(c + 1)).c_str(),
                                               JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput, 0);
        if (!port)
            return false;
        m_Ports.push_back(port);
    }
    return jack_set_process_callback(m_pClient, Process, this) == 0 && jack_activate(m_pClient) == 0;
}

bool JackCapture::ConnectFrom(const std::string& source)
{
    for (unsigned c = 0; c < Channels(); ++c)
        if (jack_connect(m_pClient, (source + std::to_string(c + 1)).c_str(),
                         (m_Name + ":in" + std::to_string(c + 1)).c_str()) != 0)
            return false;
    return true;
}

int JackCapture::Process(jack_nframes_t nframes, void* arg)
{
    JackCapture* self = static_cast<JackCapture*>(arg);
    const size_t at = self->m_nFrames.load(std::memory_order_relaxed);
    if (self->m_Data.empty() || at + nframes > self->m_Data[0].size())
        return 0;
    for (unsigned c = 0; c < self->Channels(); ++c)
        memcpy(self->m_Data[c].data() + at, jack_port_get_buffer(self->m_Ports[c], nframes), nframes * sizeof(float));
    self->m_nFrames.store(at + nframes, std::memory_order_release);
    return 0;
}
