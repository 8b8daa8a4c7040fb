/* uloop.h - single-threaded event loop over epoll: descriptor callbacks,
 * one-shot timeouts on the monotonic clock, child-process watchers, and
 * SIGINT/SIGTERM ending the loop. One loop per process; all calls come from
 * the thread that runs it, except uloop_end, which may come from anywhere. */
#ifndef LIBUBOX_ULOOP_H
#define LIBUBOX_ULOOP_H

#include <stdint.h>
#include <stdbool.h>
#include <sys/types.h>
#include <sys/time.h>
#include <signal.h>

#include "list.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ULOOP_READ          (1 << 0)
#define ULOOP_WRITE         (1 << 1)
#define ULOOP_EDGE_TRIGGER  (1 << 2)
#define ULOOP_BLOCKING      (1 << 3)
#define ULOOP_EVENT_MASK    (ULOOP_READ | ULOOP_WRITE)
#define ULOOP_EVENT_BUFFERED (1 << 4)
#define ULOOP_EDGE_DEFER    (1 << 5)
#define ULOOP_ERROR_CB      (1 << 6)

struct uloop_fd;
struct uloop_timeout;
struct uloop_process;

typedef void (*uloop_fd_handler)(struct uloop_fd *u, unsigned int events);
typedef void (*uloop_timeout_handler)(struct uloop_timeout *t);
typedef void (*uloop_process_handler)(struct uloop_process *c, int ret);

struct uloop_fd {
	uloop_fd_handler cb;
	int fd;
	bool eof;              /* peer closed its writing side */
	bool error;            /* error or hang-up seen */
	bool registered;
	uint8_t flags;
};

struct uloop_timeout {
	struct list_head list;
	bool pending;
	uloop_timeout_handler cb;
	struct timeval time;   /* absolute expiry on the monotonic clock */
};

struct uloop_process {
	struct list_head list;
	bool pending;
	uloop_process_handler cb;
	pid_t pid;
};

/* Set by uloop_end and by SIGINT/SIGTERM; reset when uloop_run starts. */
extern bool uloop_cancelled;
/* Whether uloop_init takes SIGCHLD (default true); the loop then reaps every
 * child of the process with waitpid(-1), watched or not. */
extern bool uloop_handle_sigchld;

/* Creates the poller and wake-up pipe (close-on-exec) and takes SIGINT,
 * SIGTERM, SIGCHLD (when uloop_handle_sigchld) and SIGPIPE (ignored) where
 * their handling is still the default, without SA_RESTART.
 * Idempotent; 0 or -1. */
int uloop_init(void) UBOX_NOEXCEPT;
/* Runs until uloop_end or SIGINT/SIGTERM (timeout < 0), or makes one pass
 * waiting at most timeout ms. Returns the signal that ended it, else 0. */
int uloop_run_timeout(int timeout) UBOX_NOEXCEPT;
/* Ends the innermost uloop_run after the current callback returns. */
void uloop_end(void) UBOX_NOEXCEPT;
/* Restores the signals, closes the poller, forgets every timeout and watcher. */
void uloop_done(void) UBOX_NOEXCEPT;
bool uloop_cancelling(void) UBOX_NOEXCEPT;

static inline int uloop_run(void)
{
	return uloop_run_timeout(-1);
}

/* Registers (or changes the interest of) sock; flags without READ or WRITE
 * unregister it. The fd becomes non-blocking unless ULOOP_BLOCKING. 0 or -1. */
int uloop_fd_add(struct uloop_fd *sock, unsigned int flags) UBOX_NOEXCEPT;
/* Unregisters sock (0 if it was not) and drops its undelivered events. */
int uloop_fd_delete(struct uloop_fd *sock) UBOX_NOEXCEPT;

/* Inserts with the expiry already in timeout->time; -1 if pending. */
int uloop_timeout_add(struct uloop_timeout *timeout) UBOX_NOEXCEPT;
/* (Re)arms to fire msecs from now. 0 or -1. */
int uloop_timeout_set(struct uloop_timeout *timeout, int msecs) UBOX_NOEXCEPT;
/* 0, or -1 if it was not pending. */
int uloop_timeout_cancel(struct uloop_timeout *timeout) UBOX_NOEXCEPT;
/* ms until expiry (<= 0 when overdue), -1 if not pending. */
int uloop_timeout_remaining(struct uloop_timeout *timeout) UBOX_NOEXCEPT;
int64_t uloop_timeout_remaining64(struct uloop_timeout *timeout) UBOX_NOEXCEPT;
/* ms until the earliest pending timeout (0 if overdue), -1 if none. */
int uloop_get_next_timeout(void) UBOX_NOEXCEPT;

/* Watches p->pid; p->cb(p, raw wait status) runs from the loop once it
 * exits. Only watched children are reaped: children of popen or system keep
 * their status for pclose or waitpid. */
int uloop_process_add(struct uloop_process *p) UBOX_NOEXCEPT;
int uloop_process_delete(struct uloop_process *p) UBOX_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* LIBUBOX_ULOOP_H */
