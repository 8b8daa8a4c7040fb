// uac_tmpfile.cpp - see uac_tmpfile.h.
#include "uac_tmpfile.h"

#include <cerrno>

#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool trusted(const struct stat &st) {
    return st.st_uid == geteuid() && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Removes the entry name of folder dirfd with all it holds. Every step goes through the
// descriptor of the folder it works in, never through a path, so a folder swapped for a
// link while this runs cannot lead it out of the tree.
int remove_tree_at(int dirfd, const char *name, int depth) {
    if (unlinkat(dirfd, name, 0) == 0)
        return 0;
    if (errno != EISDIR && errno != EPERM)
        return -1;
    if (depth > 32) {
        errno = ELOOP;
        return -1;
    }
    int fd = openat(dirfd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return -1;
    DIR *d = fdopendir(fd);
    if (!d) {
        close(fd);
        return -1;
    }
    int rc = 0;
    while (struct dirent *e = readdir(d)) {
        if (!strcmp(e->d_name, ".") || !strcmp(e->d_name, ".."))
            continue;
        if (remove_tree_at(fd, e->d_name, depth + 1) != 0)
            rc = -1;
    }
    closedir(d);
    return rc == 0 ? unlinkat(dirfd, name, AT_REMOVEDIR) : -1;
}

}  // namespace

extern "C" int uac_tmp_create(const char *path) noexcept {
    if (!path) {
        errno = EINVAL;
        return -1;
    }
    struct stat st;
    if (lstat(path, &st) == 0) {
        if (S_ISDIR(st.st_mode)) {
            errno = EISDIR;
            return -1;
        }
        if (unlink(path) != 0 && errno != ENOENT)
            return -1;
    }
    return open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
}

extern "C" int uac_tmp_is_ours(int fd, const char *path) noexcept {
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1 || !trusted(st))
        return 0;
    if (!path)
        return 1;
    struct stat at;
    return lstat(path, &at) == 0 && at.st_dev == st.st_dev && at.st_ino == st.st_ino;
}

extern "C" int uac_tmp_open_append(const char *path, int create, int *replaced) noexcept {
    if (replaced)
        *replaced = 0;
    if (!path) {
        errno = EINVAL;
        return -1;
    }
    int fd = open(path, O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd >= 0) {
        if (uac_tmp_is_ours(fd, nullptr)) {
            // Non-blocking was only for the open (a fifo put there must not hang it).
            fcntl(fd, F_SETFL, O_APPEND);
            return fd;
        }
        close(fd);
        if (!create) {
            errno = EPERM;
            return -1;
        }
    } else if (!create || (errno != ENOENT && errno != ELOOP && errno != ENXIO)) {
        return -1;
    }
    struct stat st;
    const bool something = lstat(path, &st) == 0;
    fd = uac_tmp_create(path);
    if (fd >= 0 && replaced)
        *replaced = something;
    return fd;
}

extern "C" int uac_tmp_dir_claim(const char *path) noexcept {
    if (!path) {
        errno = EINVAL;
        return -1;
    }
    struct stat st;
    if (lstat(path, &st) != 0)
        return errno == ENOENT ? 0 : -1;
    if (S_ISDIR(st.st_mode) && trusted(st))
        return 0;
    return remove_tree_at(AT_FDCWD, path, 0) == 0 ? 1 : -1;
}
