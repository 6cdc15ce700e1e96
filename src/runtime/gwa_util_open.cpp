#include "runtime/gwa_util_open.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "runtime/gwa_scoped_fd.h"
#include "runtime/gwa_types.h"

namespace {

constexpr int ATTEMPTS = 8;  // links in a row, or names that come and go
constexpr mode_t SOCKET_MODE = 0660;
constexpr size_t LINK_SIZE = 32;  // "/proc/self/fd/2"

// A path, and within it the name of what is in the last folder.
struct place {
    char path[PATH_MAX];
    char* name;
    struct stat folder;
};

}  // namespace

static bool is_ours(const struct stat& what) {
    return what.st_uid == 0 || what.st_uid == geteuid();
}

// Whether somebody else can put things into the folder.
static bool others_write(const struct stat& folder) {
    const bool by_group = (folder.st_mode & S_ISVTX) != 0 && (folder.st_mode & S_IWGRP) != 0;
    return !is_ours(folder) || (folder.st_mode & S_IWOTH) != 0 || by_group;
}

// Opens the folder. -1: errno says why.
static int folder_open(place* at) {
    char* const slash = strrchr(at->path, '/');
    at->name = slash == nullptr ? at->path : slash + 1;
    const char first = *at->name;
    *at->name = '\0';
    const int fd = open(slash == nullptr ? "." : at->path, O_PATH | O_DIRECTORY | O_CLOEXEC);
    *at->name = first;
    if (fd != -1 && fstat(fd, &at->folder) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Puts the link's target in its place. False: errno says why.
static bool link_follow(int folder, place* at) {
    struct stat link {};
    if (fstatat(folder, at->name, &link, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    // In a sticky folder nobody exchanges a link of ours between here and the next line.
    const bool stays = is_ours(at->folder) && (at->folder.st_mode & S_ISVTX) != 0;
    if (others_write(at->folder) && !(stays && is_ours(link))) {
        errno = EPERM;
        return false;
    }
    char target[PATH_MAX];
    const ssize_t length = readlinkat(folder, at->name, target, sizeof target);
    const size_t before =
        length > 0 && *target == '/' ? 0 : static_cast<size_t>(at->name - at->path);
    if (length <= 0 || before + static_cast<size_t>(length) >= sizeof at->path) {
        return false;
    }
    *std::copy_n(target, length, at->path + before) = '\0';
    return true;
}

// Whether the rules allow what has been opened, and empties it if it was asked for.
static bool is_taken(int fd, const struct stat& folder, int flags) {
    struct stat file {};
    if (fstat(fd, &file) != 0) {
        return false;
    }
    const bool reads = (flags & O_ACCMODE) == O_RDONLY;
    const bool known = reads || is_ours(file) || file.st_uid == folder.st_uid;
    if (others_write(folder) && (file.st_nlink > 1 || !known)) {
        errno = EPERM;
        return false;
    }
    return (flags & O_TRUNC) == 0 || !S_ISREG(file.st_mode) || ftruncate(fd, 0) == 0;
}

// Whether the kernel makes what is in the folder, proc(5). Its links, to which /dev/stderr leads,
// have no text that could be followed, and nobody plants one.
static bool is_of_kernel(int folder) {
    struct statfs system {};
    return fstatfs(folder, &system) == 0 && system.f_type == PROC_SUPER_MAGIC;
}

// What is there, or a new one; only then is it known that nobody else has made it.
static int entry_open(int folder, const char* name, int flags, mode_t mode) {
    const int follow = is_of_kernel(folder) ? 0 : O_NOFOLLOW;
    const int always = follow | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const int fd = openat(folder, name, (flags & ~(O_CREAT | O_TRUNC)) | always);
    if (fd != -1 || errno != ENOENT || (flags & O_CREAT) == 0) {
        return fd;
    }
    return openat(folder, name, flags | always | O_EXCL, mode);
}

int gwa_open(const char* path, int flags, mode_t mode) {
    place at{};
    errno = ENAMETOOLONG;
    bool again = text_copy(at.path, path);
    for (int attempt = 0; again && attempt < ATTEMPTS; ++attempt) {
        const scoped_fd folder(folder_open(&at));
        if (folder.fd == -1) {
            return -1;
        }
        scoped_fd fd(entry_open(folder.fd, at.name, flags, mode));
        if (fd.fd != -1) {
            return is_taken(fd.fd, at.folder, flags) ? fd.release() : -1;
        }
        again = errno == EEXIST || (errno == ELOOP && link_follow(folder.fd, &at));
    }
    return -1;
}

void gwa_socket_admit_group(const char* path) {
    const scoped_fd fd(open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat file {};
    if (fd.fd == -1 || fstat(fd.fd, &file) != 0 || !S_ISSOCK(file.st_mode) ||
        file.st_uid != geteuid() || (file.st_mode & S_IRGRP) == 0) {
        return;
    }
    char itself[LINK_SIZE];  // the socket, whatever bears its name by now
    snprintf(itself, sizeof itself, "/proc/self/fd/%d", fd.fd);
    chmod(itself, SOCKET_MODE);
}
