// zor_play_ctl: the command-line client of the zor_play server, for scripts
// and bring-up. One readable line (or one JSON object) per answer and per
// message; the exit status is the server's result code, or 100 and above for
// failures on this side.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zor_play_client.h"

namespace {

enum : int {
    kExitUsage = 100,
    kExitNoServer = 101,
    kExitPathHeld = 102,
    kExitTimeout = 103,
    kExitSystem = 104,
    kExitInterrupted = 130,
};

const char* const kUsage =
    "Usage: zor_play_ctl [--timeout S] [--json] COMMAND ARGS...\n"
    "Drives a running zor_play server over its control socket.\n"
    "\n"
    "Commands:\n"
    "  hello [1]                         check that the server answers (1: it also prints its module table)\n"
    "  create player|recorder SLOT CHANNELS [OFFSET]\n"
    "                                    a module with CHANNELS ports from system port OFFSET (default 0)\n"
    "  delete player|recorder SLOT\n"
    "  delete-all player|recorder\n"
    "  start|stop|pause|ff|rew|status player|recorder SLOT\n"
    "                                    start --wait: wait for the module's final completion, printing\n"
    "                                    each roll-over and the completion on the way\n"
    "  play SLOT FILE [FILE...]          the first file as primary, each further one as a secondary\n"
    "  playlist SLOT PLAYLIST\n"
    "  seek SLOT SECONDS\n"
    "  skip SLOT +N|-N|N                 with a sign: relative; without: absolute playlist index\n"
    "  record SLOT [--mono] [--rate 48000|24000|16000|12000] [--bits 16|24|8] [--seconds N] [--roll] FILE...\n"
    "                                    set up a recording: one file, or with --mono one per channel\n"
    "  record-next SLOT [--seconds N] FILE...\n"
    "                                    names for the next roll-over\n"
    "  watch [player|recorder SLOT] [--until-complete]\n"
    "                                    print progress and completion messages as they arrive\n"
    "  exit                              shut the server down\n"
    "\n"
    "Options:\n"
    "  --timeout S   wait at most S seconds for each answer (default 10)\n"
    "  --json        one JSON object per line instead of readable lines\n"
    "  --help        this text; --version: the version\n"
    "\n"
    "Exit status: 0 when the server answered 0; otherwise the server's result code (1 to 34),\n"
    "its text on standard error. On this side: 100 bad arguments, 101 no server (socket missing\n"
    "or refusing), 102 the reply path is held by another running client (only one client at a\n"
    "time receives the server's answers), 103 no answer in time, 104 a system error, 130\n"
    "interrupted while waiting (an interrupted watch without --until-complete ends with 0).\n";

int g_nTimeoutMs = ZPC_DEFAULT_TIMEOUT_MS;
bool g_bJson = false;
volatile sig_atomic_t g_bInterrupted = 0;
zpc_client* g_pClient = nullptr;

void OnInterrupt(int) { g_bInterrupted = 1; }

int UsageError(const char* what, const char* arg = "")
{
    fprintf(stderr, "zor_play_ctl: %s%s\nTry 'zor_play_ctl --help'.\n", what, arg);
    return kExitUsage;
}

// Walks the words after the command name.
struct Args {
    int argc;
    char** argv;
    int next;
    bool More() const { return next < argc; }
    const char* Peek() const { return More() ? argv[next] : ""; }
    const char* Take() { return More() ? argv[next++] : nullptr; }
};

bool ParseInt(const char* text, int& out)
{
    if (!text || !*text)
        return false;
    char* end = nullptr;
    errno = 0;
    const long value = strtol(text, &end, 10);
    if (*end || errno || value < -0x7fffffffL - 1 || value > 0x7fffffffL)
        return false;
    out = static_cast<int>(value);
    return true;
}

bool ParseType(const char* text, enumZorPlayType& out)
{
    if (text && strcmp(text, "player") == 0)
        out = eZorPlayPlayer;
    else if (text && strcmp(text, "recorder") == 0)
        out = eZorPlayRecorder;
    else
        return false;
    return true;
}

const char* TypeName(uint32_t type) { return type == eZorPlayRecorder ? "recorder" : "player"; }

void PrintJsonString(FILE* out, const char* text)
{
    fputc('"', out);
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
        if (*p == '"' || *p == '\\')
            fprintf(out, "\\%c", *p);
        else if (*p < 0x20)
            fprintf(out, "\\u%04x", *p);
        else
            fputc(*p, out);
    }
    fputc('"', out);
}

// The one client of this process; opened once the arguments are known good.
// On failure the process ends with the matching status.
int ClientFailure(int code);

zpc_client* Client()
{
    if (!g_pClient) {
        const int result = zpc_open(&g_pClient);
        if (result == ZPC_ERR_SYSTEM) {
            fprintf(stderr, "zor_play_ctl: cannot bind the reply path %s: %s\n", ZPC_REPLY_PATH, strerror(errno));
            exit(kExitSystem);
        }
        if (result != 0)
            exit(ClientFailure(result));
        zpc_set_timeout(g_pClient, g_nTimeoutMs);
    }
    return g_pClient;
}

int ClientFailure(int code)
{
    const int err = errno;
    switch (code) {
    case ZPC_ERR_NO_SERVER:
        fprintf(stderr, "zor_play_ctl: no server at %s: %s (is zor_play running?)\n", ZPC_SERVER_PATH, strerror(err));
        return kExitNoServer;
    case ZPC_ERR_PATH_HELD:
        if (err == EADDRINUSE)
            fprintf(stderr,
                    "zor_play_ctl: the reply path %s is held by another running client; only one client at a "
                    "time can receive the server's answers\n",
                    ZPC_REPLY_PATH);
        else
            fprintf(stderr, "zor_play_ctl: the reply path %s cannot be taken: %s\n", ZPC_REPLY_PATH,
                    err == EEXIST ? "it exists and is not a socket" : strerror(err));
        return kExitPathHeld;
    case ZPC_ERR_TIMEOUT:
        fprintf(stderr, "zor_play_ctl: no answer from the server within %g s\n", g_nTimeoutMs / 1000.0);
        return kExitTimeout;
    case ZPC_ERR_ARGUMENT:
        return UsageError("invalid argument");
    default:
        fprintf(stderr, "zor_play_ctl: %s: %s\n", zpc_result_text(code), strerror(err));
        return kExitSystem;
    }
}

// Prints the answer to a command (type and slot left out when moduleWords
// is 0, the slot when it is 1) and turns the result into the exit status.
int Answer(int result, enumZorPlayCmd cmd, enumZorPlayType type = eZorPlayPlayer, int slot = 0, int moduleWords = 2)
{
    if (result < 0)
        return ClientFailure(result);
    const char* text = zpc_result_text(result);
    if (g_bJson) {
        printf("{\"kind\":\"answer\",\"cmd\":%u,\"command\":", static_cast<unsigned>(cmd));
        PrintJsonString(stdout, g_CommandStrings[cmd]);
        if (moduleWords > 0)
            printf(",\"module\":\"%s\"", TypeName(type));
        if (moduleWords > 1)
            printf(",\"slot\":%d", slot);
        printf(",\"result\":%d,\"text\":", result);
        PrintJsonString(stdout, text);
        printf("}\n");
        if (result != 0)
            fprintf(stderr, "zor_play_ctl: %s\n", text);
    } else {
        FILE* out = result == 0 ? stdout : stderr;
        if (moduleWords > 1)
            fprintf(out, "%s %d: ", TypeName(type), slot);
        else if (moduleWords > 0)
            fprintf(out, "%s: ", TypeName(type));
        fprintf(out, "%s: %d %s\n", g_CommandStrings[cmd], result, text);
    }
    fflush(stdout);
    return result == 0 ? 0 : (result < kExitUsage ? result : kExitUsage - 1);
}

void PrintMessage(const structZorPlayMsg& m)
{
    const char* type = TypeName(m.eType);
    if (m.eCmd == eCmdFileProgress) {
        const structFileProgress& p = m.payload.fileProgress;
        if (g_bJson)
            printf("{\"kind\":\"progress\",\"module\":\"%s\",\"slot\":%d,\"state\":%d,\"state_name\":\"%s\","
                   "\"elapsed\":%u,\"remaining\":%u,\"total\":%u,\"buffer_percent\":%u,\"xruns\":%u,"
                   "\"max_file_op_ms\":%u,\"max_process_delta_ms\":%u,\"playlist_index\":%u}\n",
                   type, m.nIndex, p.nState, zpc_state_name(p.nState), p.nElapsed, p.nRemaining, p.nMax,
                   p.nBufferPercent, p.nXRuns, p.nMaxFileOpMs, p.nMaxProcessDeltaMs, p.nPlaylistIndex);
        else
            printf("%s %d progress: %s, %u of %u s, buffer %u %%, %u xruns, playlist entry %u\n", type, m.nIndex,
                   zpc_state_name(p.nState), p.nElapsed, p.nMax, p.nBufferPercent, p.nXRuns, p.nPlaylistIndex);
    } else {
        const structFileCompletion& c = m.payload.fileCompletion;
        if (g_bJson) {
            printf("{\"kind\":\"completion\",\"module\":\"%s\",\"slot\":%d,\"file\":", type, m.nIndex);
            PrintJsonString(stdout, c.szFilename);
            printf(",\"length\":%u,\"rolled\":%s,\"new_file\":", c.nLength, c.bRolled ? "true" : "false");
            PrintJsonString(stdout, c.szNewFilename);
            printf(",\"xruns\":%u,\"index\":%u,\"new_index\":%u}\n", c.nXRuns, c.nIndex, c.nNewIndex);
        } else if (c.bRolled) {
            printf("%s %d rolled over: %s, %u s, %u xruns, to %s\n", type, m.nIndex, c.szFilename, c.nLength,
                   c.nXRuns, c.szNewFilename);
        } else {
            printf("%s %d completed: %s, %u s, %u xruns\n", type, m.nIndex, c.szFilename, c.nLength, c.nXRuns);
        }
    }
    fflush(stdout);
}

// Which unrequested messages a wait prints, and whether it is over.
struct WatchFilter {
    bool oneModule;
    enumZorPlayType type;
    int slot;
    bool progress;
    bool untilComplete;
    bool done;
};

void OnMessage(const structZorPlayMsg* m, void* user)
{
    WatchFilter& w = *static_cast<WatchFilter*>(user);
    if (w.done || (w.oneModule && (m->eType != w.type || m->nIndex != w.slot)) ||
        (m->eCmd == eCmdFileProgress && !w.progress))
        return;
    PrintMessage(*m);
    w.done = w.untilComplete && m->eCmd == eCmdFileCompletion && !m->payload.fileCompletion.bRolled;
}

// Prints the unrequested messages that pass the filter until an interrupt
// or, with untilComplete, a completion that did not roll over. Messages that
// came while a request waited for its answer are printed first. Checks about
// once a second that the server is still there.
int Watch(WatchFilter w)
{
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnInterrupt;
    static const int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
    for (int sig : kSignals)
        sigaction(sig, &sa, nullptr);
    zpc_client* client = Client();
    zpc_set_message_callback(client, OnMessage, &w);
    for (unsigned quiet = 0; !w.done && !g_bInterrupted;) {
        const int result = zpc_poll(client, nullptr, 250);
        if (result == ZPC_ERR_TIMEOUT && ++quiet % 4 == 0 && !zpc_server_running()) {
            fprintf(stderr, "zor_play_ctl: the server has gone (no socket at %s)\n", ZPC_SERVER_PATH);
            return kExitNoServer;
        }
        if (result != 0 && result != ZPC_ERR_TIMEOUT)
            return ClientFailure(result);
    }
    return w.done || !w.untilComplete ? 0 : kExitInterrupted;
}

// "player|recorder SLOT"
bool TakeModule(Args& a, enumZorPlayType& type, int& slot)
{
    return ParseType(a.Take(), type) && ParseInt(a.Take(), slot);
}

int CmdModule(Args& a, const char* name)
{
    static const struct {
        const char* name;
        enumZorPlayCmd cmd;
        int (*call)(zpc_client*, enumZorPlayType, int);
    } commands[] = {
        {"start", eCmdStart, zpc_start},         {"stop", eCmdStop, zpc_stop},
        {"pause", eCmdPause, zpc_pause},         {"ff", eCmdFastForward, zpc_fast_forward},
        {"rew", eCmdRewind, zpc_rewind},         {"status", eCmdQueryStatus, zpc_query_status},
        {"delete", eCmdDelete, zpc_delete},
    };
    const auto* entry = commands;
    while (entry < commands + sizeof(commands) / sizeof(commands[0]) && strcmp(entry->name, name) != 0)
        ++entry;
    if (entry == commands + sizeof(commands) / sizeof(commands[0]))
        return UsageError("unknown command: ", name);
    enumZorPlayType type;
    int slot;
    if (!TakeModule(a, type, slot))
        return UsageError(name, ": expects player|recorder SLOT");
    bool wait = false;
    if (strcmp(name, "start") == 0 && strcmp(a.Peek(), "--wait") == 0)
        wait = a.Take() != nullptr;
    if (a.More())
        return UsageError("unexpected argument: ", a.Peek());
    const int status = Answer(entry->call(Client(), type, slot), entry->cmd, type, slot);
    return status == 0 && wait ? Watch({true, type, slot, false, true, false}) : status;
}

int CmdCreate(Args& a)
{
    enumZorPlayType type;
    int slot, channels, offset = 0;
    if (!TakeModule(a, type, slot) || !ParseInt(a.Take(), channels) || (a.More() && !ParseInt(a.Take(), offset)) ||
        a.More())
        return UsageError("create expects player|recorder SLOT CHANNELS [OFFSET]");
    return Answer(zpc_create(Client(), type, slot, channels, offset), eCmdCreate, type, slot);
}

// Checks a file name against the record field it travels in.
bool NameFits(const char* name, size_t field)
{
    if (strlen(name) < field)
        return true;
    fprintf(stderr, "zor_play_ctl: file name longer than %zu characters: %s\n", field - 1, name);
    return false;
}

int CmdPlay(Args& a)
{
    int slot;
    if (!ParseInt(a.Take(), slot) || !a.More())
        return UsageError("play expects SLOT FILE [FILE...]");
    for (int i = a.next; i < a.argc; ++i)
        if (!NameFits(a.argv[i], kPlayFilenameFieldSize))
            return kExitUsage;
    int status = 0;
    for (bool secondary = false; status == 0 && a.More(); secondary = true)
        status = Answer(zpc_setup_play_file(Client(), slot, a.Take(), secondary), eCmdSetupPlayFile,
                        eZorPlayPlayer, slot);
    return status;
}

// record and record-next: options and file names in any order.
int CmdRecord(Args& a, bool next)
{
    zpc_record_format format = {0, 48000, 16, 0, 0};
    const char* names[kMaxRecordFiles];
    int count = 0, slot, value;
    if (!ParseInt(a.Take(), slot))
        return UsageError(next ? "record-next" : "record", " expects SLOT first");
    while (a.More()) {
        const char* word = a.Take();
        if (strcmp(word, "--seconds") == 0 && ParseInt(a.Take(), value) && value >= 0)
            format.seconds = static_cast<unsigned>(value);
        else if (!next && strcmp(word, "--mono") == 0)
            format.mono = 1;
        else if (!next && strcmp(word, "--roll") == 0)
            format.roll = 1;
        else if (!next && strcmp(word, "--rate") == 0 && ParseInt(a.Take(), value) &&
                 (value == 48000 || value == 24000 || value == 16000 || value == 12000))
            format.rate_hz = static_cast<unsigned>(value);
        else if (!next && strcmp(word, "--bits") == 0 && ParseInt(a.Take(), value) &&
                 (value == 16 || value == 24 || value == 8))
            format.bits = static_cast<unsigned>(value);
        else if (word[0] == '-' && word[1] == '-')
            return UsageError("bad or incomplete option: ", word);
        else if (count == kMaxRecordFiles)
            return UsageError("at most 8 file names");
        else if (!NameFits(word, kRecordFilenameSize))
            return kExitUsage;
        else
            names[count++] = word;
    }
    if (count == 0)
        return UsageError("no file name given");
    return Answer(next ? zpc_setup_record_next(Client(), slot, format.seconds, names, count)
                       : zpc_setup_record(Client(), slot, &format, names, count),
                  eCmdSetupFile, eZorPlayRecorder, slot);
}

int CmdPlayer(Args& a, const char* name)
{
    int slot, value = 0;
    if (!ParseInt(a.Take(), slot) || !a.More())
        return UsageError(name, ": expects SLOT and one more argument");
    const char* arg = a.Take();
    if (a.More())
        return UsageError("unexpected argument: ", a.Peek());
    if (strcmp(name, "playlist") == 0) {
        if (!NameFits(arg, kPlaylistFieldSize))
            return kExitUsage;
        return Answer(zpc_setup_playlist(Client(), slot, arg), eCmdSetupPlaylist, eZorPlayPlayer, slot);
    }
    if (!ParseInt(arg, value))
        return UsageError("not a whole number: ", arg);
    if (strcmp(name, "seek") == 0)
        return Answer(zpc_seek(Client(), slot, value), eCmdSeek, eZorPlayPlayer, slot);
    const bool relative = arg[0] == '+' || arg[0] == '-';
    return Answer(zpc_skip(Client(), slot, relative, value), eCmdSkipInPlaylist, eZorPlayPlayer, slot);
}

int CmdWatch(Args& a)
{
    enumZorPlayType type = eZorPlayPlayer;
    int slot = 0;
    bool oneModule = false, untilComplete = false;
    while (a.More()) {
        if (strcmp(a.Peek(), "--until-complete") == 0)
            untilComplete = a.Take() != nullptr;
        else if (!oneModule && TakeModule(a, type, slot))
            oneModule = true;
        else
            return UsageError("watch expects [player|recorder SLOT] [--until-complete]");
    }
    return Watch({oneModule, type, slot, true, untilComplete, false});
}

int Run(Args& a)
{
    const char* name = a.Take();
    if (!name)
        return UsageError("no command given");
    if (strcmp(name, "hello") == 0) {
        int table = 0;
        if ((a.More() && !ParseInt(a.Take(), table)) || a.More())
            return UsageError("hello expects [1]");
        return Answer(zpc_hello(Client(), table), eCmdHello, eZorPlayPlayer, 0, 0);
    }
    if (strcmp(name, "exit") == 0) {
        if (a.More())
            return UsageError("exit takes no arguments");
        return Answer(zpc_exit(Client()), eCmdExit, eZorPlayPlayer, 0, 0);
    }
    if (strcmp(name, "delete-all") == 0) {
        enumZorPlayType type;
        if (!ParseType(a.Take(), type) || a.More())
            return UsageError("delete-all expects player|recorder");
        return Answer(zpc_delete_all(Client(), type), eCmdDeleteAll, type, 0, 1);
    }
    if (strcmp(name, "create") == 0)
        return CmdCreate(a);
    if (strcmp(name, "play") == 0)
        return CmdPlay(a);
    if (strcmp(name, "record") == 0 || strcmp(name, "record-next") == 0)
        return CmdRecord(a, strcmp(name, "record-next") == 0);
    if (strcmp(name, "playlist") == 0 || strcmp(name, "seek") == 0 || strcmp(name, "skip") == 0)
        return CmdPlayer(a, name);
    if (strcmp(name, "watch") == 0)
        return CmdWatch(a);
    return CmdModule(a, name);
}

} // namespace

int main(int argc, char** argv)
{
    Args a = {argc, argv, 1};
    while (a.More() && strncmp(a.Peek(), "--", 2) == 0) {
        const char* option = a.Take();
        if (strcmp(option, "--help") == 0) {
            fputs(kUsage, stdout);
            return 0;
        }
        if (strcmp(option, "--version") == 0) {
            printf("zor_play_ctl %s\n", ZP_VERSION);
            return 0;
        }
        if (strcmp(option, "--json") == 0) {
            g_bJson = true;
            continue;
        }
        const char* value = a.Take();
        char* end = nullptr;
        const double seconds = value ? strtod(value, &end) : 0;
        if (strcmp(option, "--timeout") != 0 || !value || *end || !(seconds > 0 && seconds < 2e6))
            return UsageError("bad option: ", option);
        g_nTimeoutMs = seconds < 0.001 ? 1 : static_cast<int>(seconds * 1000 + 0.5);
    }
    if (a.More() && strcmp(a.Peek(), "-h") == 0) {
        fputs(kUsage, stdout);
        return 0;
    }
    const int status = Run(a);
    zpc_close(g_pClient);
    return status;
}
