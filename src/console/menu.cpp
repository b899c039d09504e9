#include "console/menu.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <strings.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "app/info_files.h"
#include "app/logging.h"
#include "modules/rp_common.h"
#include "protocol/rp_server.h"

namespace {

char g_line[80];

// The command table: word, help text, parameter count, indexed by command number.
const char* const cmdtokens[kMenuCommandCount] = {
    "h", "am", "ami", "sf", "rf", "sp", "go", "p", "ff", "sk", "ska", "se",
    "rw", "q", "d", "da", "ls", "dd", "tl", "sl", "?", "x", "#", "",
};

const char* const cmdhelp[kMenuCommandCount] = {
    "send hello message",
    "add module 0 <rec/play [0/1]> <# chan> <firstport>",
    "add module <rec/play [0/1]> <instance> <# chan> <JACK port>",
    "set filename <rec/play [0/1]> <instance> <filename>",
    "set secondary filename <rec/play [0/1]> <instance> <filename>",
    "set playlist file <play ONLY> <instance> <filename>",
    "start recorder/player <rec/play [0/1]> <instance>",
    "pause recorder/player <rec/play [0/1]> <instance>",
    "fast forward <play ONLY> <instance>",
    "relative skip in playlist <play ONLY> <instance> <rel #> ",
    "absolute skip in playlist <play ONLY> <instance> <abs #> ",
    "seek to time in file <play ONLY> <Instance> <# seconds>",
    "rewind <play ONLY> <instance>",
    "stop recorder/player <rec/play [0/1]> <instance>",
    "delete module <rec/play [0/1]> <instance>",
    "delete all <rec/play [0/1]> modules",
    "show system status",
    "display debug info <rec/play [0/1]> <instance>",
    "toggle log category",
    "show log categories",
    "show this menu",
    "halt everything and exit",
    "ignore this line",
    "",
};

const int numparams[kMenuCommandCount] = {0, 3, 4, 3, 3, 3, 2, 2, 2, 3, 3, 3, 2, 2, 2, 1, 0, 2, 1, 0, 0, 0, 0, 0};

enum MenuCommand {
    eMenuHello = 0,
    eMenuAddModule,
    eMenuAddModuleInstance,
    eMenuSetFile,
    eMenuSetSecondaryFile,
    eMenuSetPlaylist,
    eMenuGo,
    eMenuPause,
    eMenuFastForward,
    eMenuSkip,
    eMenuSkipAbsolute,
    eMenuSeek,
    eMenuRewind,
    eMenuStop,
    eMenuDelete,
    eMenuDeleteAll,
    eMenuShowStatus,
    eMenuDebug,
    eMenuToggleLog,
    eMenuShowLog,
    eMenuHelp,
    eMenuExit,
};

const char* const kDelimiters = " ,;\r\n\t";

void FillAddress(sockaddr_un& addr, const char* path)
{
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    strscpy(addr.sun_path, path, sizeof(addr.sun_path));
}

// Copies a typed name into a fixed field, adding ".wav" unless the name
// already ends in it (any case).
void CopyWavName(char* dst, unsigned size, const char* name)
{
    strscpy(dst, name, size);
    size_t len = strlen(name);
    if (len > 4 && strcasecmp(name + len - 4, ".wav") == 0)
        return;
    strncat(dst, ".wav", size - 1 - strlen(dst));
}

// Result texts as the console prints them: the protocol's own table.
const char* const* const szResultStrings = g_ResultStrings;

const char* ResultText(uint32_t result) { return result < eResultCount ? szResultStrings[result] : "Unknown result"; }

// A state outside the table (a message from something other than this
// server) is named, not looked up.
const char* StateName(int32_t state)
{
    return state >= 0 && state < eStateCount ? szZorPlayStateNames[state] : "Unknown";
}

const char* TypeWord(enumZorPlayType type) { return type == eZorPlayRecorder ? "Recorder" : "Player"; }

} // namespace

menu::menu(bool bEcho) : m_nMsgID(0), m_bEcho(bEcho), m_nSocket(-1), m_hThread(), m_bThreadStarted(false)
{
    m_nWakeFDs[0] = m_nWakeFDs[1] = -1;
    memset(m_szParams, 0, sizeof(m_szParams));
    FillAddress(m_ServerAddr, kServerSocketPath);
    FillAddress(m_ClientAddr, kClientSocketPath);
    unlink(kClientSocketPath);
    SerialLog(eLogCreation, "Creating socket '%s' for recorder communications\r\n", kClientSocketPath);

    m_nSocket = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (m_nSocket < 0) {
        printf("Can't create unix socket '%s': %s\n", kClientSocketPath, strerror(errno));
        return;
    }
    if (bind(m_nSocket, reinterpret_cast<sockaddr*>(&m_ClientAddr), sizeof(m_ClientAddr)) != 0) {
        printf("Can't bind unix socket '%s': %s\n", kClientSocketPath, strerror(errno));
        close(m_nSocket);
        m_nSocket = -1;
        return;
    }
    // Without its wake descriptor the thread could not be stopped while
    // standard input is idle, so it is not started.
    if (pipe(m_nWakeFDs) != 0) {
        m_nWakeFDs[0] = m_nWakeFDs[1] = -1;
        puts("Menu couldn't create worker thread\r");
        return;
    }
    // Lines are taken one at a time: with a buffered stdin, lines already
    // read ahead would wait unseen while select watches the descriptor.
    setvbuf(stdin, nullptr, _IONBF, 0);

    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 0x10000);
    // No thread blocks interrupts. An interrupt sent to the process goes to
    // the main thread while it waits in its loop; one that this thread takes
    // only breaks its select, which is simply made again.
    if (pthread_create(&m_hThread, &attr, MenuThreadStatic, this) == 0)
        m_bThreadStarted = true;
    else
        puts("Menu couldn't create worker thread\r");
    pthread_attr_destroy(&attr);
}

menu::~menu()
{
    SerialLog(eLogCreation, "~Menu destructor\r\n");
    // Wake the thread before closing anything it waits on, so its descriptor
    // numbers cannot be reused under it; a thread never started is not joined.
    if (m_bThreadStarted) {
        const char wake = 1;
        ssize_t ignored = write(m_nWakeFDs[1], &wake, 1);
        (void)ignored;
        pthread_join(m_hThread, nullptr);
    }
    if (m_nSocket >= 0) {
        close(m_nSocket);
        unlink(kClientSocketPath);
    }
    for (int fd : m_nWakeFDs)
        if (fd >= 0)
            close(fd);
}

void* menu::MenuThreadStatic(void* self) { return static_cast<menu*>(self)->MenuThreadMember(); }

void* menu::MenuThreadMember()
{
    ShowHelp();
    for (;;) {
        fd_set readSet;
        FD_ZERO(&readSet);
        FD_SET(0, &readSet);
        FD_SET(m_nSocket, &readSet);
        FD_SET(m_nWakeFDs[0], &readSet);
        const int highest = m_nSocket > m_nWakeFDs[0] ? m_nSocket : m_nWakeFDs[0];
        printf("> ");
        fflush(stdout);

        if (select(highest + 1, &readSet, nullptr, nullptr, nullptr) < 0) {
            int err = errno;
            printf("%s: select failed: %s\n", "MenuThreadMember", strerror(err));
            if (err == EBADF)
                return nullptr;
            continue;
        }
        if (FD_ISSET(m_nWakeFDs[0], &readSet))
            return nullptr; // the process is shutting down

        bool exitRequested = false;
        if (FD_ISSET(0, &readSet)) {
            bool haveLine = true;
            if (!fgets(g_line, sizeof(g_line), stdin)) {
                if (feof(stdin)) {
                    strscpy(g_line, "x", sizeof(g_line)); // end of input halts like "x"
                } else {
                    puts("Menu input error\r");
                    clearerr(stdin);
                    haveLine = false;
                }
            }
            if (haveLine) {
                if (m_bEcho.load(std::memory_order_relaxed))
                    printf("%s", g_line);
                int command = GetCommand(g_line);
                structZorPlayMsg msg;
                if (command == eMenuToggleLog || command == eMenuShowLog || command == eMenuHelp)
                    RunLocal(command);
                else if (command < kMenuComment && BuildRequest(command, msg))
                    SendMessage(msg);
                exitRequested = command == eMenuExit;
            }
        }
        if (FD_ISSET(m_nSocket, &readSet))
            ReceiveResponse();
        if (exitRequested)
            return nullptr;
    }
}

int menu::GetCommand(char* line)
{
    char* save = nullptr;
    const char* word = strtok_r(line, kDelimiters, &save);
    if (!word)
        return kMenuNoCommand;
    int command = 0;
    while (command <= kMenuComment && strcmp(word, cmdtokens[command]) != 0)
        ++command;
    if (command > kMenuComment) {
        puts("No valid command found.\r");
        return kMenuNoCommand;
    }
    if (command == kMenuComment)
        return kMenuComment;
    for (int i = 0; i < numparams[command]; ++i) {
        const char* param = strtok_r(nullptr, kDelimiters, &save);
        if (!param) {
            puts("Too few parameters for command\r");
            return kMenuNoCommand;
        }
        strscpy(m_szParams[i], param, sizeof(m_szParams[i]));
    }
    if (strtok_r(nullptr, kDelimiters, &save)) {
        puts("Too many parameters for command");
        return kMenuNoCommand;
    }
    return command;
}

// Every slot is tried; one that does not parse reads as 0, and the request
// still goes out.
bool menu::GetInts(int count, int* values, const char* failureLine)
{
    bool allParsed = true;
    for (int i = 0; i < count; ++i) {
        if (sscanf(m_szParams[i], "%d", &values[i]) != 1) {
            values[i] = 0;
            allParsed = false;
        }
    }
    if (!allParsed)
        puts(failureLine);
    return allParsed;
}

bool menu::Get4Ints(int* values) { return GetInts(4, values, "Parameters not all integer\r"); }
bool menu::Get3Ints(int* values) { return GetInts(3, values, "Parameters not all integer\r"); }
bool menu::Get2Ints(int* values) { return GetInts(2, values, "Parameters not both integer\r"); }
bool menu::Get1Int(int* values) { return GetInts(1, values, "First param not integer\r"); }

bool menu::Get2IntsString(int* values, const char** text)
{
    if (!GetInts(2, values, "First param not integer\r"))
        return false;
    *text = m_szParams[2];
    return true;
}

void menu::PrepareHeader(structZorPlayMsg& msg, enumZorPlayCmd cmd)
{
    memset(&msg, 0, sizeof(msg));
    msg.nLength = kZorPlayMsgSize;
    msg.nID = static_cast<int32_t>(m_nMsgID++);
    msg.nReq = eReqRequest;
    msg.eType = eZorPlayRecorder;
    msg.eCmd = cmd;
    msg.nIndex = 0;
}

bool menu::BuildRequest(int command, structZorPlayMsg& msg)
{
    int p[4] = {0, 0, 0, 0};
    const char* name = nullptr;
    switch (command) {
    case eMenuHello:
    case eMenuShowStatus:
        PrepareHeader(msg, eCmdHello);
        msg.nIndex = command == eMenuShowStatus ? 1 : 0;
        return true;
    case eMenuExit:
        PrepareHeader(msg, eCmdExit);
        return true;
    case eMenuAddModule:
    case eMenuAddModuleInstance: {
        bool instance = command == eMenuAddModuleInstance;
        instance ? Get4Ints(p) : Get3Ints(p);
        PrepareHeader(msg, eCmdCreate);
        msg.eType = static_cast<enumZorPlayType>(p[0]);
        msg.nIndex = instance ? p[1] : 0;
        msg.payload.addModule.nChannels = instance ? p[2] : p[1];
        msg.payload.addModule.nOffset = instance ? p[3] - 1 : p[2]; // typed ports count from 1
        return true;
    }
    case eMenuSetFile:
    case eMenuSetSecondaryFile:
    case eMenuSetPlaylist: {
        // Without both numbers there is no trustworthy target: nothing is sent.
        if (!Get2IntsString(p, &name))
            return false;
        bool secondary = command == eMenuSetSecondaryFile;
        if (command == eMenuSetPlaylist) {
            PrepareHeader(msg, eCmdSetupPlaylist);
            strscpy(msg.payload.setupPlaylist.szPlaylist, name, 321);
        } else if (p[0] == 0) {
            PrepareHeader(msg, eCmdSetupFile);
            structSetupFile& setup = msg.payload.setupFile;
            setup.bSecondary = secondary ? 1 : 0;
            setup.nFileSeconds = 10;
            setup.nFileFormat = 0;
            setup.nSampleRate = 0;
            setup.nWordLength = secondary ? 0 : 2;
            setup.bRoll = 0;
            CopyWavName(setup.szFilenames[0], kRecordFilenameSize, name);
        } else {
            PrepareHeader(msg, eCmdSetupPlayFile);
            msg.payload.setupPlayFile.bSecondary = secondary ? 1 : 0;
            CopyWavName(msg.payload.setupPlayFile.szFilename, 1025, name);
        }
        msg.eType = static_cast<enumZorPlayType>(p[0]);
        msg.nIndex = p[1];
        return true;
    }
    case eMenuSkip:
    case eMenuSkipAbsolute:
    case eMenuSeek:
        Get3Ints(p);
        PrepareHeader(msg, command == eMenuSeek ? eCmdSeek : eCmdSkipInPlaylist);
        msg.eType = static_cast<enumZorPlayType>(p[0]);
        msg.nIndex = p[1];
        if (command == eMenuSeek) {
            msg.payload.seekOperation.nSeconds = p[2];
        } else {
            msg.payload.skipInPlaylist.bRelative = command == eMenuSkip ? 1 : 0;
            msg.payload.skipInPlaylist.nSkip = p[2];
        }
        return true;
    case eMenuGo:
    case eMenuPause:
    case eMenuFastForward:
    case eMenuRewind:
    case eMenuStop:
    case eMenuDebug:
    case eMenuDelete: {
        static const enumZorPlayCmd kCommands[] = {
            eCmdStart, eCmdPause, eCmdFastForward, eCmdSkipInPlaylist, eCmdSkipInPlaylist, eCmdSeek,
            eCmdRewind, eCmdStop, eCmdDelete, eCmdDeleteAll, eCmdHello, eCmdQueryStatus,
        };
        Get2Ints(p);
        PrepareHeader(msg, kCommands[command - eMenuGo]);
        msg.eType = command == eMenuDelete ? (p[0] != 0 ? eZorPlayPlayer : eZorPlayRecorder)
                                           : static_cast<enumZorPlayType>(p[0]);
        msg.nIndex = p[1];
        return true;
    }
    case eMenuDeleteAll:
        Get1Int(p);
        PrepareHeader(msg, eCmdDeleteAll);
        msg.eType = p[0] != 0 ? eZorPlayPlayer : eZorPlayRecorder;
        return true;
    default:
        return false;
    }
}

void menu::RunLocal(int command)
{
    int p[1] = {0};
    switch (command) {
    case eMenuToggleLog:
        Get1Int(p);
        if (ToggleLogCategory(static_cast<RPLogCategory>(p[0])))
            printf("Enabled logging for category %d \r\n", p[0]);
        else
            printf("Disabled logging for category %d \r\n", p[0]);
        break;
    case eMenuShowLog:
        ShowLogCategories();
        break;
    case eMenuHelp:
        ShowHelp();
        break;
    default:
        break;
    }
}

bool menu::SendMessage(structZorPlayMsg& msg)
{
    SerialLog(eLogMessaging, "Send message over Unix domain socket, sun_path = %s\r\n", m_ServerAddr.sun_path);
    if (sendto(m_nSocket, &msg, sizeof(msg), 0, reinterpret_cast<const sockaddr*>(&m_ServerAddr),
               sizeof(m_ServerAddr)) < 0) {
        perror("sendto() to recorder failed");
        puts("\r");
        fflush(stdout);
    }
    return true;
}

bool menu::ReceiveResponse()
{
    structZorPlayMsg msg;
    memset(&msg, 0, sizeof(msg));
    sockaddr_un from;
    socklen_t fromLen = sizeof(from);
    ssize_t got = recvfrom(m_nSocket, &msg, sizeof(msg), 0, reinterpret_cast<sockaddr*>(&from), &fromLen);
    if (got < 0) {
        perror("Client ReceiveResponse recvfrom()");
        return false;
    }
    // Answers come from the server's own path; keep sending there.
    if (fromLen > sizeof(sa_family_t) && from.sun_family == AF_UNIX)
        memcpy(&m_ServerAddr, &from, fromLen);
    PrintMessage(msg, static_cast<int>(got));
    return true;
}

void menu::PrintMessage(const structZorPlayMsg& msg, int length)
{
    if (msg.eCmd == eCmdFileProgress) {
        const structFileProgress& progress = msg.payload.fileProgress;
        printf("%s[%01d]: %s progress->", TypeWord(msg.eType), msg.nIndex, StateName(progress.nState));
        unsigned hashes = progress.nMax ? static_cast<unsigned>(static_cast<uint64_t>(progress.nElapsed) * 20 /
                                                                progress.nMax)
                                        : 0;
        if (hashes > 20)
            hashes = 20; // elapsed beyond the length still draws a full bar, never a longer one
        for (unsigned i = 0; i < 20; ++i)
            putchar(i < hashes ? '#' : ' ');
        printf("<- ");
        if (msg.eType == eZorPlayPlayer)
            printf("idx[%02u] ", progress.nPlaylistIndex);
        printf("(%u/%u) Buffer %3u%%, Runs %u, u's: %u,%u\r\n", progress.nElapsed, progress.nMax,
               progress.nBufferPercent, progress.nXRuns, progress.nMaxProcessDeltaMs, progress.nMaxFileOpMs);
    } else if (msg.eCmd == eCmdFileCompletion) {
        const structFileCompletion& done = msg.payload.fileCompletion;
        printf("%s[%01d] File Complete: %.1027s", TypeWord(msg.eType), msg.nIndex, done.szFilename);
        if (msg.eType == eZorPlayPlayer)
            printf(", [%02u]", done.nIndex);
        puts("\r");
        printf("\tLength: %u Sec\r\n\tXRuns: %u\r\n", done.nLength, done.nXRuns);
        if (!done.bRolled) {
            puts("\tDid not roll on completion.\r");
        } else {
            printf("\tRolled to new file: %.1027s", done.szNewFilename);
            if (msg.eType == eZorPlayPlayer)
                printf("[%02u]", done.nNewIndex);
            puts("\r");
        }
    } else if (msg.nReq == eReqResponse) {
        printf("Response to id:%d, status: %d-%s\r\n", msg.nID, static_cast<int>(msg.payload.eResult),
               ResultText(msg.payload.eResult));
    } else {
        printf("Client got %d byte UD message, ID=%d, cmd=%d, req=%d \r\n", length, msg.nID,
               static_cast<int>(msg.eCmd), msg.nReq);
    }
}

void menu::ShowHelp()
{
    puts("**** Command Menu ****\r");
    for (int i = 0; i < kMenuComment; ++i)
        printf("\t%3s - %s\r\n", cmdtokens[i], cmdhelp[i]);
    puts("\r");
}

void menu::ShowLogCategories()
{
    puts("          Category");
    puts("          |   Enabled");
    puts("          |   |   Name");
    for (uint32_t category = eLogJack; category <= eLogInteractive; category <<= 1)
        printf("\t%3d - %d - %s\n", static_cast<int>(category), (g_nEnableBits.load() & category) ? 1 : 0,
               LogCatStr(static_cast<RPLogCategory>(category)));
    puts("");
}
