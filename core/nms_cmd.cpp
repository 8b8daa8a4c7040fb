// nms_cmd.cpp - shell commands of other services, run with a time limit: spawned in a process
// group of their own, their output read with a deadline, the whole group killed when it passes.
#include "nms_cmd.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "nms_log.h"

extern char **environ;

std::atomic<int32_t> nms_cmd_timeout_sec{NMS_CMD_TIMEOUT_DEFAULT};

namespace {

int64_t now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// The end of a command's time, or -1 for none.
int64_t deadline_ms() {
    int32_t limit = nms_cmd_timeout_sec.load(std::memory_order_relaxed);
    return limit > 0 ? now_ms() + static_cast<int64_t>(limit) * 1000 : -1;
}

// Milliseconds left until deadline for poll(): -1 waits without limit.
int left_ms(int64_t deadline) {
    if (deadline < 0)
        return -1;
    int64_t left = deadline - now_ms();
    return left > 0 ? static_cast<int>(left > 1000 ? 1000 : left) : 0;
}

// Starts /bin/sh -c cmd as the leader of a new process group, its standard output on out_fd.
// The child starts with no signal blocked and SIGPIPE at its default, whatever the daemon's
// threads have (SIGALRM is blocked in all of them), as a command started by hand would.
pid_t spawn_shell(const char *cmd, int out_fd, int close_fd) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attr;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attr);
    posix_spawn_file_actions_adddup2(&actions, out_fd, STDOUT_FILENO);
    if (close_fd >= 0)
        posix_spawn_file_actions_addclose(&actions, close_fd);
    sigset_t none;
    sigemptyset(&none);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK |
                                        POSIX_SPAWN_SETSIGDEF);
    char sh[] = "/bin/sh";
    char dash_c[] = "-c";
    char *argv[] = {sh, dash_c, const_cast<char *>(cmd), nullptr};
    pid_t pid = -1;
    int err = posix_spawn(&pid, sh, &actions, &attr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    if (err != 0) {
        errno = err;
        return -1;
    }
    return pid;
}

// Waits for the shell until the deadline; past it (or at once when late), kills its whole group
// (commands it started in the background included) and reaps the shell. True when it ended in
// time.
bool wait_shell(pid_t pid, int64_t deadline, const char *cmd, bool late) {
    for (useconds_t pause = 1000; !late;) {
        int status = 0;
        pid_t got = waitpid(pid, &status, WNOHANG);
        if (got == pid || (got < 0 && errno != EINTR))
            return true;
        if (deadline >= 0 && now_ms() >= deadline)
            break;
        usleep(pause);
        if (pause < 50000)
            pause *= 2;
    }
    NMS_LOG_ERROR("cmd:%s still running after %d s, stopped.\n", cmd,
                  static_cast<int>(nms_cmd_timeout_sec.load(std::memory_order_relaxed)));
    kill(-pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    return false;
}

}  // namespace

long nms_cmd_read(const char *cmd, char *buf, size_t size, bool *timed_out) noexcept {
    if (timed_out)
        *timed_out = false;
    if (!cmd || (!buf && size > 0)) {
        errno = EINVAL;
        return -1;
    }
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return -1;
    pid_t pid = spawn_shell(cmd, fds[1], fds[0]);
    int err = errno;
    close(fds[1]);
    if (pid < 0) {
        close(fds[0]);
        errno = err;
        return -1;
    }
    const int64_t deadline = deadline_ms();
    size_t got = 0;
    bool late = false;
    while (got < size) {
        pollfd p{fds[0], POLLIN, 0};
        int ready = poll(&p, 1, left_ms(deadline));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready == 0) {
            if (deadline >= 0 && now_ms() >= deadline) {
                late = true;
                break;
            }
            continue;
        }
        if (ready < 0)
            break;
        ssize_t n = read(fds[0], buf + got, size - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
    }
    // As with pclose: a command that still writes gets a broken pipe once the reading stops.
    close(fds[0]);
    bool in_time = wait_shell(pid, deadline, cmd, late);
    if (timed_out)
        *timed_out = late || !in_time;
    return static_cast<long>(got);
}

int nms_cmd_run(const char *cmd) noexcept {
    if (!cmd) {
        errno = EINVAL;
        return -1;
    }
    // Output goes nowhere rather than into a pipe nobody reads: a command the text leaves
    // running in the background must not die of a broken pipe when it prints.
    int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null_fd < 0)
        return -1;
    pid_t pid = spawn_shell(cmd, null_fd, -1);
    int err = errno;
    close(null_fd);
    if (pid < 0) {
        errno = err;
        return -1;
    }
    wait_shell(pid, deadline_ms(), cmd, false);
    return 0;
}
