#include "files/regular_file.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char* KindOf(mode_t mode)
{
    if (S_ISDIR(mode))
        return "a directory";
    if (S_ISFIFO(mode))
        return "a FIFO";
    if (S_ISCHR(mode))
        return "a character device";
    if (S_ISBLK(mode))
        return "a block device";
    if (S_ISSOCK(mode))
        return "a socket";
    return "a special file";
}

int RefuseKind(const char* path, mode_t mode)
{
    printf("%s is %s, not a regular file\r\n", path, KindOf(mode));
    return eOpenNotRegular;
}

} // namespace

int OpenRegularFile(const char* path, int flags)
{
    struct stat st;
    if (stat(path, &st) == 0 && !S_ISREG(st.st_mode))
        return RefuseKind(path, st.st_mode);
    // O_NONBLOCK keeps a FIFO put in place of the file since the look above
    // from blocking; it changes nothing for a regular file. New record files
    // get the mode libsndfile gives them (0666 less the umask).
    const int fd = open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
    if (fd < 0)
        return eOpenFailed;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return RefuseKind(path, st.st_mode);
    }
    return fd;
}
