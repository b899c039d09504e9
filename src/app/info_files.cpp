#include "app/info_files.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Remembers that /tmp/info is known to exist so later writes skip mkdir.
bool bInfoDirectoryExists = false;

// Formatted values of the number forms of SetInfo.
char szIntInfo[32];
char szFloatInfo[64];
char szBoolInfo[32];

// "/tmp/info/" plus the longest name we accept. Names used by the system are
// at most 16 characters; a name that does not fit is refused with -1.
constexpr unsigned kInfoPathSize = 128;

bool FormInfoPath(char (&path)[kInfoPathSize], const char* name)
{
    int n = snprintf(path, sizeof(path), "%s/%s", kInfoDirectory, name);
    return n >= 0 && static_cast<unsigned>(n) < sizeof(path);
}

int WriteText(const char* path, const char* text)
{
    FILE* file = fopen(path, "w+");
    if (!file)
        return eInfoCantOpen;
    size_t len = strlen(text);
    size_t written = fwrite(text, 1, len, file);
    fflush(file);
    fclose(file);
    return written == len ? eInfoOK : eInfoShortWrite;
}

int ReadText(const char* path, char* buf, unsigned size)
{
    FILE* file = fopen(path, "r");
    if (!file)
        return eInfoCantOpen;
    size_t got = fread(buf, 1, size, file);
    int result;
    if (got > 0) {
        if (got == size)
            --got;
        buf[got] = '\0';
        result = static_cast<int>(got);
    } else {
        result = ferror(file) ? eInfoReadFailed : eInfoEmptyFile;
    }
    fclose(file);
    return result;
}

// Parses one number from the info file's text with the given scanf format.
template <typename T>
int GetInfoNumber(const char* name, T& value, const char* format, unsigned bufSize)
{
    char buf[64];
    int got = GetInfo(name, buf, bufSize);
    if (got < 1)
        return got;
    T parsed;
    if (sscanf(buf, format, &parsed) != 1)
        return 0;
    value = parsed;
    return got;
}

} // namespace

int CreateInfoDirectory()
{
    if (bInfoDirectoryExists)
        return eInfoOK;
    if (mkdir(kInfoDirectory, 0777) == 0)
        return eInfoOK;
    if (errno == EEXIST) {
        bInfoDirectoryExists = true;
        return eInfoOK;
    }
    bInfoDirectoryExists = false;
    return eInfoNoDirectory;
}

int SetInfo(const char* name, const char* text)
{
    if (!name || !text)
        return eInfoBadArgument;
    char path[kInfoPathSize];
    if (!FormInfoPath(path, name))
        return eInfoBadArgument;
    if (!bInfoDirectoryExists && mkdir(kInfoDirectory, 0777) != 0) {
        if (errno != EEXIST)
            return eInfoNoDirectory;
        bInfoDirectoryExists = true;
    }
    int result = WriteText(path, text);
    if (result == eInfoCantOpen)
        bInfoDirectoryExists = false; // try the directory again next time
    return result;
}

int SetInfo(const char* name, int value)
{
    snprintf(szIntInfo, sizeof(szIntInfo), "%d", value);
    return SetInfo(name, szIntInfo);
}

int SetInfo(const char* name, float value)
{
    snprintf(szFloatInfo, sizeof(szFloatInfo), "%g", static_cast<double>(value));
    return SetInfo(name, szFloatInfo);
}

int SetInfo(const char* name, bool value)
{
    strscpy(szBoolInfo, value ? "1" : "0", sizeof(szBoolInfo));
    return SetInfo(name, szBoolInfo);
}

int WriteTextFile(const char* path, const char* text)
{
    if (!path || !text)
        return eInfoBadArgument;
    return WriteText(path, text);
}

int GetInfo(const char* name, char* buf, unsigned size)
{
    if (!name || !buf || size == 0)
        return eInfoBadArgument;
    char path[kInfoPathSize];
    if (!FormInfoPath(path, name))
        return eInfoBadArgument;
    return ReadText(path, buf, size);
}

int GetInfo(const char* name, int& value)
{
    return GetInfoNumber(name, value, "%d", 32);
}

int GetInfo(const char* name, bool& value)
{
    int number = 0;
    int got = GetInfoNumber(name, number, "%d", 32);
    if (got > 0)
        value = number != 0;
    return got;
}

int GetInfo(const char* name, float& value)
{
    return GetInfoNumber(name, value, "%g", 64);
}

int ReadTextFile(const char* path, char* buf, unsigned size)
{
    if (!path || !buf || size == 0)
        return eInfoBadArgument;
    return ReadText(path, buf, size);
}

int DeleteInfo(const char* name)
{
    if (!name)
        return eInfoBadArgument;
    char path[kInfoPathSize];
    if (!FormInfoPath(path, name))
        return eInfoBadArgument;
    return unlink(path) == 0 ? eInfoOK : eInfoCantRemove;
}

int strscpy(char* dst, const char* src, unsigned size)
{
    if (size == 0)
        return eInfoZeroSize;
    unsigned count = 0;
    while (count < size - 1 && src[count] != '\0')
        ++count;
    memcpy(dst, src, count);
    dst[count] = '\0';
    return static_cast<int>(count);
}

char* strmove(char* dst, const char* src)
{
    return static_cast<char*>(memmove(dst, src, strlen(src) + 1));
}

bool SetCloseOnExec(FILE* stream)
{
    if (!stream)
        return false;
    return SetCloseOnExec(fileno(stream));
}

bool SetCloseOnExec(int fd)
{
    if (fd < 0)
        return false;
    int flags = fcntl(fd, F_GETFD);
    if (flags < 0) {
        printf("Error getting flags for fd = %d: %s\r\n", fd, strerror(errno));
        return false;
    }
    fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
    return true;
}
