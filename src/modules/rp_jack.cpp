// CRPBase: the module's JACK client, its ports and their connections.
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "app/globals.h"
#include "app/logging.h"
#include "modules/rp_base.h"

namespace {

// Clients whose server has died and that their workers have not closed yet.
// libjack closes and frees such clients by itself at the next client open
// in the process, under the modules' feet; so no client is opened while one
// is counted here.
std::atomic<int> s_nDeadClients{0};
// How long an open waits for the workers to close their dead clients.
constexpr int kDeadClientWaitMs = 5000;

} // namespace

bool CRPBase::OpenJack()
{
    if (m_pJackClient) {
        SerialLog(eLogJack, "%s: Jack already open?\r\n", "OpenJack");
        return true;
    }
    for (int waited = 0; s_nDeadClients.load(std::memory_order_acquire) > 0; waited += 10) {
        if (waited >= kDeadClientWaitMs) {
            printf("%s: Modules still hold clients of a lost JACK server\r\n", "OpenJack");
            return false;
        }
        usleep(10000);
    }
    jack_status_t status = static_cast<jack_status_t>(0);
    m_pJackClient = jack_client_open(m_pNameFull, JackNoStartServer, &status);
    if (!m_pJackClient) {
        printf("%s: Couldn't open Jack client, status: 0x%x\r\n", "OpenJack", static_cast<unsigned>(status));
        return false;
    }
    SerialLog(eLogJack, "%s: New Jack Client ptr %p, actual name %s\r\n", "OpenJack",
              static_cast<void*>(m_pJackClient), jack_get_client_name(m_pJackClient));
    GetJackParams();
    return true;
}

void CRPBase::GetJackParams()
{
    g_nJackSampleRate.store(jack_get_sample_rate(m_pJackClient));
    g_nBufferSizeFrames.store(jack_get_buffer_size(m_pJackClient));
    SerialLog(eLogJack, "Client parameters: Fs: %d, buf sz %d frames\r\n", static_cast<int>(g_nJackSampleRate.load()),
              static_cast<int>(g_nBufferSizeFrames.load()));
}

unsigned CRPBase::FindSystemPorts()
{
    const char** ports =
        jack_get_ports(m_pJackClient, "system", nullptr, m_bRecorder ? JackPortIsOutput : JackPortIsInput);
    if (!ports)
        return 0;
    if (m_ppSystemPorts)
        jack_free(m_ppSystemPorts);
    m_ppSystemPorts = ports;
    unsigned count = 0;
    for (; ports[count]; ++count)
        SerialLog(eLogJack, "%s\r\n", ports[count]);
    SerialLog(eLogJack, "Found %d candidate ports\r\n", static_cast<int>(count));
    m_nNumSystemPorts = count;
    return count;
}

bool CRPBase::CreateClientPorts()
{
    m_pPorts = new jack_port_t*[m_nChannels]();
    SerialLog(eLogJack, "Creating client ports for %d channels\r\n", static_cast<int>(m_nChannels));
    for (unsigned i = 1; i <= m_nChannels; ++i) {
        char name[32];
        snprintf(name, sizeof(name), m_bRecorder ? "input%u" : "output%u", i);
        jack_port_t* port = jack_port_register(m_pJackClient, name, JACK_DEFAULT_AUDIO_TYPE,
                                               m_bRecorder ? JackPortIsInput : JackPortIsOutput, 0);
        if (!port) {
            // Ports registered so far go with the client when it is closed.
            printf("%s: Can't create client port #%d, named %s\r\n", jack_get_client_name(m_pJackClient),
                   static_cast<int>(i - 1), name);
            puts("May need to increase the maximum number of ports the JACK server can manage.");
            return false;
        }
        m_pPorts[i - 1] = port;
        SerialLog(eLogJack, "Created client port #%d, requested name %s, full name %s\r\n", static_cast<int>(i - 1),
                  name, jack_port_name(port));
    }
    return true;
}

int CRPBase::ProcessStatic(jack_nframes_t nframes, void* arg)
{
    return static_cast<CRPBase*>(arg)->ProcessMember(nframes);
}

bool CRPBase::InstallCallbacks()
{
    if (m_bRecorder)
        SerialLog(eLogCreation, "Installing REC callbacks\r\n");
    if (jack_set_process_callback(m_pJackClient, ProcessStatic, this) != 0) {
        printf("%s: Can't install process callback\r\n", "InstallCallbacks");
        return false;
    }
    jack_on_info_shutdown(m_pJackClient, JackShutdownStatic, this);
    return true;
}

void CRPBase::JackShutdownStatic(jack_status_t, const char*, void* arg)
{
    CRPBase* module = static_cast<CRPBase*>(arg);
    if (module->m_bJackLost.exchange(true, std::memory_order_acq_rel))
        return;
    s_nDeadClients.fetch_add(1, std::memory_order_acq_rel);
    // The worker looks at the flag on every pass; should the queue be full,
    // it is awake anyway.
    module->SendRTRequest(eInternalService);
}

// Runs at the top of the worker's first pass after the client died, so that
// it comes before any command still queued (a Delete's exit included). No
// callback runs any more: the file work is the worker's alone. The dead
// client is closed here rather than at the module's deletion, so that a new
// module can be created on a new server at once (see s_nDeadClients).
void CRPBase::HandleJackLoss()
{
    m_bClientLost = true;
    // Before Idle the main thread may still be setting the client up: the
    // module is then left to its deletion, which closes the client.
    const bool bInitialized = GetState() >= eStateIdle;
    EndOnJackLoss();
    printf("%s: JACK server lost\r\n", m_pNameFull);
    SetState(eStateBadInitialization);
    if (bInitialized)
        CloseJack();
}

bool CRPBase::ActivateJack()
{
    if (jack_activate(m_pJackClient) != 0) {
        printf("%s Trouble in activate\r\n", "ActivateJack");
        return false;
    }
    return true;
}

unsigned CRPBase::CountConnectedPorts() const
{
    unsigned connected = 0;
    for (unsigned i = 0; i < m_nChannels; ++i)
        connected += jack_port_connected(m_pPorts[i]) ? 1 : 0;
    return connected;
}

bool CRPBase::ConnectPorts()
{
    if (g_nNoConnect) {
        SetState(eStateIdle);
        return true;
    }
    if (m_nNumSystemPorts < m_nChannels + m_nOffset) {
        puts("Port number exceeds available JACK ports. Reduce num channels or first port number (offset).");
        return false;
    }
    for (unsigned i = 0; i < m_nChannels; ++i) {
        const char* own = jack_port_name(m_pPorts[i]);
        const char* sys = m_ppSystemPorts[i + m_nOffset];
        SerialLog(eLogJack, "Connecting Ports %s to %s\r\n", own, sys);
        const int rc = m_bRecorder ? jack_connect(m_pJackClient, sys, own) : jack_connect(m_pJackClient, own, sys);
        if (rc != 0) {
            printf("cannot connect output port %d, status %d\n", static_cast<int>(i), rc);
            return false;
        }
    }
    // A connection reaches the client's view of the graph only when the
    // server switches graph states, normally before jack_connect returns but
    // at the next cycle when that switch was deferred; allow the graph a few
    // periods (at most 250 ms) to show every connection before calling the
    // check failed.
    for (int tries = 0; tries < 50 && CountConnectedPorts() != m_nChannels; ++tries)
        usleep(5000);
    unsigned connected = 0;
    for (unsigned i = 0; i < m_nChannels; ++i) {
        if (jack_port_connected(m_pPorts[i])) {
            SerialLog(eLogJack, "Precheck: Our port %s is connected!\r\n", jack_port_name(m_pPorts[i]));
            ++connected;
        }
    }
    if (connected != m_nChannels)
        return false;
    SerialLog(eLogJack, "All module ports are connected!!\r\n");
    SetState(eStateIdle);
    return true;
}

bool CRPBase::DeactivateJack()
{
    // A dead client is not asked anything: it is only closed.
    if (!m_pJackClient || m_bJackLost.load(std::memory_order_acquire))
        return true;
    if (jack_deactivate(m_pJackClient) != 0) {
        printf("%s Trouble in deactivate\r\n", "DeactivateJack");
        return false;
    }
    return true;
}

bool CRPBase::CloseJack()
{
    // A dead client is freed even when its close reports the server gone.
    const bool dead = m_bJackLost.load(std::memory_order_acquire);
    if (jack_client_close(m_pJackClient) != 0 && !dead)
        return false;
    m_pJackClient = nullptr;
    if (dead)
        s_nDeadClients.fetch_sub(1, std::memory_order_acq_rel);
    return true;
}
