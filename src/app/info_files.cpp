#include "app/info_files.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The info directory, opened once it has been found fit to write into; -1
// until then. Every info file is reached through it, never by path, so that
// /tmp/info or a name in it swapped for a link cannot send a write elsewhere.
int nInfoDirFD = -1;
// This process made the directory (its mode then follows the umask).
bool bInfoDirectoryCreated = false;
// The line saying why the directory is not used is printed once.
bool bInfoRefusalPrinted = false;

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
    return n >= 0 && static_cast<unsigned>(n) < sizeof(path) && !strchr(name, '/');
}

int RefuseInfoDirectory(const char* why)
{
    if (!bInfoRefusalPrinted)
        printf("Info directory %s not used (%s): going on without info files\r\n", kInfoDirectory, why);
    bInfoRefusalPrinted = true;
    return -1;
}

// The directory is used only when it is a real directory (not a link) owned
// by this process's user or by root that no one else may write to. One this
// process has just made is used whatever the umask left it: nothing in it can
// turn a write against us, as files are created afresh and renamed into place.
int OpenInfoDirectory()
{
    if (nInfoDirFD >= 0)
        return nInfoDirFD;
    if (mkdir(kInfoDirectory, 0777) == 0)
        bInfoDirectoryCreated = true;
    else if (errno != EEXIST)
        return -1;
    const int fd = open(kInfoDirectory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return RefuseInfoDirectory(errno == ELOOP || errno == ENOTDIR ? "not a directory, or a link" : strerror(errno));
    struct stat st;
    const char* why = nullptr;
    if (fstat(fd, &st) != 0)
        why = strerror(errno);
    else if (st.st_uid != geteuid() && st.st_uid != 0)
        why = "owned by another user";
    else if (!bInfoDirectoryCreated && ((st.st_mode & S_IWOTH) ||
                                        ((st.st_mode & S_IWGRP) && st.st_gid != getegid() && st.st_gid != 0)))
        why = "writable by others";
    if (why) {
        close(fd);
        return RefuseInfoDirectory(why);
    }
    nInfoDirFD = fd;
    return fd;
}

// A failed write forgets the directory, so that the next one looks again.
int ForgetInfoDirectory(int result)
{
    if (nInfoDirFD >= 0)
        close(nInfoDirFD);
    nInfoDirFD = -1;
    return result;
}

// Writes the text whole under a temporary name and renames it into place:
// readers never see a partial value, and a link planted under either name is
// replaced, never followed.
int WriteInfoFile(int dir, const char* name, const char* text)
{
    char temp[kInfoPathSize];
    snprintf(temp, sizeof(temp), ".%s.new", name);
    unlinkat(dir, temp, 0); // a leftover of an earlier run, or planted
    const int fd = openat(dir, temp, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd < 0)
        return eInfoCantOpen;
    const size_t len = strlen(text);
    const ssize_t written = write(fd, text, len);
    close(fd);
    if (renameat(dir, temp, dir, name) != 0) {
        unlinkat(dir, temp, 0);
        return eInfoCantOpen;
    }
    return written == static_cast<ssize_t>(len) ? eInfoOK : eInfoShortWrite;
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
    return OpenInfoDirectory() >= 0 ? eInfoOK : eInfoNoDirectory;
}

int SetInfo(const char* name, const char* text)
{
    if (!name || !text)
        return eInfoBadArgument;
    char path[kInfoPathSize];
    if (!FormInfoPath(path, name))
        return eInfoBadArgument;
    const int dir = OpenInfoDirectory();
    if (dir < 0)
        return eInfoNoDirectory;
    const int result = WriteInfoFile(dir, name, text);
    return result == eInfoCantOpen ? ForgetInfoDirectory(result) : result;
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
    const int dir = OpenInfoDirectory();
    return dir >= 0 && unlinkat(dir, name, 0) == 0 ? eInfoOK : eInfoCantRemove;
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
