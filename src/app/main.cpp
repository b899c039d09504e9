// zor_play: start-up, command line, main loop and shutdown.
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <jack/jack.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include "app/dispatch.h"
#include "app/globals.h"
#include "app/info_files.h"
#include "app/logging.h"
#include "console/menu.h"
#include "modules/queue_sizes.h"
#include "manager/manager.h"
#include "protocol/rp_server.h"

namespace {

struct StartupOptions {
    bool bInteractive = false;
    bool bEcho = false;
    bool bReportStatus = true;
};

void PrintVersion()
{
    printf("zor_play V%u.%02u, built %s %s\r\n", kVersionMajor, kVersionMinor, __DATE__, __TIME__);
    printf("JACK version: %s\r\n", jack_get_version_string());
}

void PrintHelp(const char* name)
{
    static const char* const kOptionHelp[][2] = {
        {"-v", "print version infomration and exit"},
        {"-i", "set interactive mode and log interactive operations"},
        {"-e", "echo command in interactive mode"},
        {"-lj", "log JACK actions such as port creation, connection, etc."},
        {"-lc", "log creation and destruction operations"},
        {"-lr", "log runtime, verbose tracing of the internals of the module, including the buffer, FSM, "
                "over/underruns, etc."},
        {"-lf", "log file operations such as opening and closing"},
        {"-lm", "log sending and reception of socket messages"},
        {"-lp", "log performance data such as timing of critical performance bottlenecks"},
        {"-s", "don't report status"},
        {"-nc", "don't connect JACK ports, assume this is managed elsewhere"},
    };
    printf("JACK version: %s\n\n", jack_get_version_string());
    printf("Usage: %s [options]\n\n", name);
    printf("Options:\n");
    printf("\t%s\n\t\t%s\n", "-h,--help", "print this help and exit");
    for (const auto& option : kOptionHelp)
        printf("\t%s\t%s\n", option[0], option[1]);
}

// Applies the options in order. Returns false when the process is to exit
// at once with status 0 (version or help printed).
bool ParseOptions(int argc, char** argv, const char* progName, StartupOptions& opts)
{
    struct Toggle {
        const char* option;
        RPLogCategory category;
    };
    static const Toggle kToggles[] = {
        {"-lj", eLogJack},   {"-lc", eLogCreation},  {"-lr", eLogRuntime},     {"-lf", eLogFile},
        {"-lm", eLogMessaging}, {"-lp", eLogPerformance},
    };
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (strcmp(arg, "-i") == 0) {
            opts.bInteractive = true;
            ToggleLogCategory(eLogInteractive);
            continue;
        }
        bool matched = false;
        for (const Toggle& toggle : kToggles) {
            if (strcmp(arg, toggle.option) == 0) {
                ToggleLogCategory(toggle.category);
                matched = true;
                break;
            }
        }
        if (matched)
            continue;
        if (strcmp(arg, "-e") == 0) {
            opts.bEcho = true;
        } else if (strcmp(arg, "-s") == 0) {
            opts.bReportStatus = false;
        } else if (strcmp(arg, "-nc") == 0) {
            g_nNoConnect = true;
        } else if (strcmp(arg, "-v") == 0 || strcmp(arg, "--version") == 0 || strcmp(arg, "-vq") == 0) {
            PrintVersion();
            return false;
        } else if (strcmp(arg, "-h") == 0 || strcmp(arg, "--help") == 0) {
            PrintHelp(progName);
            return false;
        } else if (arg[0] != '\0') {
            fprintf(stderr, "%s: unrecognized option '%s', ignoring\n", progName, arg);
        }
    }
    return true;
}

// Raises the per-user queue memory limit. When the system refuses (no
// privilege to raise resource limits) the limit already in force is kept if
// it covers every module's queues at once; otherwise the process cannot run.
bool RaiseQueueLimit(const char* progName)
{
    rlimit limit;
    limit.rlim_cur = RLIM_INFINITY;
    limit.rlim_max = RLIM_INFINITY;
    if (setrlimit(RLIMIT_MSGQUEUE, &limit) == 0)
        return true;
    fprintf(stderr, "%s: setrlimit() failed: %s\n", progName, strerror(errno));

    unsigned long needed = MessageQueueBytesForAllModules();
    if (getrlimit(RLIMIT_MSGQUEUE, &limit) != 0)
        return false;
    if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < needed)
        return false;
    if (limit.rlim_cur == RLIM_INFINITY)
        fprintf(stderr, "%s: going on with the current message queue limit (unlimited)\n", progName);
    else
        fprintf(stderr, "%s: going on with the current message queue limit of %lu bytes (%lu needed)\n",
                progName, static_cast<unsigned long>(limit.rlim_cur), needed);
    return true;
}

// Everything the process maps, now and later, is locked into memory, so that
// no page the real-time callbacks touch can be paged out and faulted back in
// on their thread. Without the privilege the server goes on unlocked.
// Sanitizer builds skip it: their shadow memory spans terabytes of reserved
// address space, and a privileged process would try to lock all of it.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZP_SKIP_MEMORY_LOCK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZP_SKIP_MEMORY_LOCK 1
#endif
#endif

void LockMemory()
{
#ifndef ZP_SKIP_MEMORY_LOCK
    if (mlockall(MCL_CURRENT | MCL_FUTURE) != 0)
        printf("Memory not locked, mlockall failed: %s\r\n", strerror(errno));
#endif
}

void finish(int signal)
{
    SerialLog(eLogCreation, "Signal Received: %d\r\n", signal);
}

void PublishInfoFiles()
{
    SetInfo("zor_play_pid", static_cast<int>(getpid()));
    char version[16];
    snprintf(version, sizeof(version), "%u.%02u", kVersionMajor, kVersionMinor);
    SetInfo("zor_play_version", version);
}

void RunMainLoop(int socketFD, int timerFD, bool reportStatus)
{
    int highest = socketFD > timerFD ? socketFD : timerFD;
    while (g_bRun) {
        fd_set readSet;
        FD_ZERO(&readSet);
        FD_SET(socketFD, &readSet);
        // A timer that could not be created (its lines were printed) is left
        // out: the socket is still served.
        if (timerFD >= 0)
            FD_SET(timerFD, &readSet);
        sigset_t mask;
        sigprocmask(SIG_SETMASK, nullptr, &mask);

        int ready = pselect(highest + 1, &readSet, nullptr, nullptr, nullptr, &mask);
        if (ready == 0) {
            SerialLog(eLogRuntime, "Select returned with 0 pending\r\n");
            continue;
        }
        if (ready < 0) {
            int err = errno;
            printf("Select returned -1: %s\r\n", strerror(err));
            if (err == EINTR) {
                printf("Errno indicates interrupt -\r\nEXITING!\r\n");
                g_bRun = false;
                break;
            }
            continue;
        }
        if (FD_ISSET(socketFD, &readSet)) {
            structZorPlayMsg msg;
            g_pServer->GetMessage(msg);
            SerialLog(eLogMessaging, "Message & seqnum: 0x%x type: %d\r\n", static_cast<unsigned>(msg.nID),
                      static_cast<int>(msg.eCmd));
            enumZorPlayResult result = HandleMessage(msg);
            g_pServer->SendResponse(msg, result);
        }
        if (timerFD >= 0 && FD_ISSET(timerFD, &readSet)) {
            uint64_t expiries = 0;
            if (read(timerFD, &expiries, sizeof(expiries)) != sizeof(expiries))
                printf("TimerFD unable to read correct item size: %s\r\n", strerror(errno));
            if (reportStatus)
                g_pMgr->GatherStatus();
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    // Diagnostics are read through pipes and log collectors as often as on a
    // terminal: flush each line as it is completed.
    setvbuf(stdout, nullptr, _IOLBF, 0);

    const char* progName = argc > 0 && argv[0] ? argv[0] : "zor_play";
    if (const char* slash = strrchr(progName, '/'))
        progName = slash + 1;

    StartupOptions opts;
    if (!ParseOptions(argc, argv, progName, opts))
        return 0;
    if (!RaiseQueueLimit(progName))
        return 1;
    LockMemory();
    signal(SIGINT, finish);
    PublishInfoFiles();

    g_pServer = new CRPServer();
    if (!g_pServer->CreateServerSocket()) {
        // Without the socket there is nothing to serve: undo the start-up and fail.
        delete g_pServer;
        g_pServer = nullptr;
        DeleteInfo("zor_play_pid");
        return 1;
    }
    int socketFD = g_pServer->GetSocketFD();
    g_pMgr = new CRPManager(g_pServer);
    g_pServer->CreateTimerFD();
    int timerFD = g_pServer->GetTimerFD();
    menu* console = nullptr;
    if (opts.bInteractive) {
        console = new menu(opts.bEcho);
    }

    g_bRun = true;
    RunMainLoop(socketFD, timerFD, opts.bReportStatus);

    delete console;
    // The manager goes before the server: module workers send through the
    // server until they are joined.
    delete g_pMgr;
    g_pMgr = nullptr;
    delete g_pServer;
    g_pServer = nullptr;
    DeleteInfo("zor_play_pid");
    SerialLog(eLogCreation, "%s Exiting.\r\n", "main");
    return 0;
}
