// uloop.cpp - the event loop: epoll for descriptors, a sorted list of
// one-shot timeouts on the monotonic clock, watchers for child processes,
// and a self-pipe through which signals and uloop_end wake the loop.
#include <libubox/uloop.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {
// Written by signal handlers and by uloop_end from any thread, read by the
// loop: every access goes through the atomic builtins (relaxed; the pipe
// byte that accompanies each write is what wakes the loop).
bool uloop_cancelled = false;
bool uloop_handle_sigchld = true;
}

namespace {

// Events taken from epoll per wake-up; the rest wait for the next pass.
constexpr int kMaxEvents = 32;

int g_poll_fd = -1;
int g_wake_pipe[2] = {-1, -1};
// Write end of the pipe as seen by uloop_end on other threads and by signal
// handlers; -1 while there is no loop.
std::atomic<int> g_wake_write{-1};
uloop_fd g_waker;
int g_run_depth;

// Signal that ended the loop (0 for uloop_end), and whether SIGCHLD came.
std::atomic<int> g_status{0};
std::atomic<int> g_sigchld{0};
static_assert(std::atomic<int>::is_always_lock_free, "touched from signal handlers");

LIST_HEAD(g_timeouts);   // uloop_timeout by expiry, equal expiries in arming order
LIST_HEAD(g_processes);  // uloop_process in order of uloop_process_add

// Events of one epoll_wait being dispatched. Frames nest with uloop_run;
// uloop_fd_delete clears a descriptor's undelivered events in all of them.
struct Frame {
	struct {
		uloop_fd *fd;
		uint32_t events;
	} ev[kMaxEvents];
	int count;
	Frame *outer;
};
Frame *g_frame;

// Handlers that uloop_init installed, with what they replaced.
struct SavedSignal {
	int signo;
	bool installed;
	struct sigaction old;
};
SavedSignal g_saved[] = {
	{SIGINT, false, {}}, {SIGTERM, false, {}}, {SIGCHLD, false, {}}, {SIGPIPE, false, {}},
};

bool cancelled()
{
	return __atomic_load_n(&uloop_cancelled, __ATOMIC_RELAXED);
}

void set_cancelled(bool v)
{
	__atomic_store_n(&uloop_cancelled, v, __ATOMIC_RELAXED);
}

void wake()
{
	int saved = errno;
	int fd = g_wake_write.load(std::memory_order_relaxed);
	if (fd >= 0) {
		ssize_t r = write(fd, "w", 1);
		(void)r;  // a full pipe already holds a wake-up
	}
	errno = saved;
}

void on_terminate(int signo)
{
	g_status.store(signo, std::memory_order_relaxed);
	set_cancelled(true);
	wake();
}

void on_sigchld(int)
{
	g_sigchld.store(1, std::memory_order_relaxed);
	wake();
}

void drain_waker(uloop_fd *u, unsigned int)
{
	char buf[64];
	while (read(u->fd, buf, sizeof(buf)) > 0) {
	}
}

// Takes a signal only where nobody else handles it. As upstream, without
// SA_RESTART: a blocking call on any thread of the process that the signal
// lands on returns EINTR.
void install(SavedSignal &s, void (*handler)(int))
{
	struct sigaction old {};
	if (sigaction(s.signo, nullptr, &old) < 0)
		return;
	if ((old.sa_flags & SA_SIGINFO) || old.sa_handler != SIG_DFL)
		return;
	struct sigaction sa {};
	sa.sa_handler = handler;
	sigemptyset(&sa.sa_mask);
	sa.sa_flags = 0;
	if (sigaction(s.signo, &sa, nullptr) == 0) {
		s.old = old;
		s.installed = true;
	}
}

void restore_signals()
{
	for (auto &s : g_saved) {
		if (s.installed)
			sigaction(s.signo, &s.old, nullptr);
		s.installed = false;
	}
}

timeval now()
{
	timespec ts {};
	clock_gettime(CLOCK_MONOTONIC, &ts);
	timeval tv {};
	tv.tv_sec = ts.tv_sec;
	tv.tv_usec = ts.tv_nsec / 1000;
	return tv;
}

int64_t diff_us(const timeval &a, const timeval &b)
{
	return (static_cast<int64_t>(a.tv_sec) - b.tv_sec) * 1000000 +
	       (static_cast<int64_t>(a.tv_usec) - b.tv_usec);
}

uloop_timeout *first_timeout()
{
	return list_first_entry(&g_timeouts, uloop_timeout, list);
}

// Fires every expired timeout, earliest first, until the loop is ended.
void process_timeouts()
{
	timeval t_now = now();
	while (!list_empty(&g_timeouts) && !cancelled()) {
		uloop_timeout *t = first_timeout();
		if (diff_us(t->time, t_now) > 0)
			break;
		uloop_timeout_cancel(t);
		if (t->cb)
			t->cb(t);
	}
}

// As upstream: every child of the process is reaped here, watched or not, so
// a child that popen, system or a waitpid on another thread waits for is
// taken from under it (they then fail with ECHILD). A program that runs
// commands on other threads clears uloop_handle_sigchld before uloop_init.
void process_children()
{
	if (!g_sigchld.exchange(0, std::memory_order_relaxed))
		return;
	for (;;) {
		int status = 0;
		pid_t r = waitpid(-1, &status, WNOHANG);
		if (r < 0 && errno == EINTR)
			continue;
		if (r <= 0)
			return;
		uloop_process *p, *n;
		list_for_each_entry_safe(p, n, &g_processes, list) {
			if (p->pid != r)
				continue;
			uloop_process_delete(p);
			if (p->cb)
				p->cb(p, status);
		}
	}
}

void dispatch_events(int timeout)
{
	epoll_event events[kMaxEvents];
	int n = epoll_wait(g_poll_fd, events, kMaxEvents, timeout);
	if (n <= 0)
		return;  // timeout, or a signal: the next pass looks at its flags

	Frame frame;
	frame.count = n;
	frame.outer = g_frame;
	for (int i = 0; i < n; i++) {
		frame.ev[i].fd = static_cast<uloop_fd *>(events[i].data.ptr);
		frame.ev[i].events = events[i].events;
	}
	g_frame = &frame;
	// The whole batch is delivered even if a callback ends the loop, so an
	// edge-triggered descriptor never loses its event.
	for (int i = 0; i < n; i++) {
		uloop_fd *u = frame.ev[i].fd;
		if (!u)
			continue;  // deleted by an earlier callback
		frame.ev[i].fd = nullptr;
		uint32_t e = frame.ev[i].events;
		unsigned int got = 0;
		if (e & (EPOLLRDHUP | EPOLLHUP))
			u->eof = true;
		if (e & (EPOLLERR | EPOLLHUP)) {
			u->error = true;
			if (!(u->flags & ULOOP_ERROR_CB))
				uloop_fd_delete(u);
		}
		if (e & EPOLLIN)
			got |= ULOOP_READ;
		if (e & EPOLLOUT)
			got |= ULOOP_WRITE;
		if (u->cb)
			u->cb(u, got);
	}
	g_frame = frame.outer;
}

} // namespace

extern "C" {

int uloop_init(void) noexcept
{
	if (g_poll_fd >= 0)
		return 0;
	g_poll_fd = epoll_create1(EPOLL_CLOEXEC);
	if (g_poll_fd < 0)
		return -1;
	if (pipe2(g_wake_pipe, O_CLOEXEC | O_NONBLOCK) < 0) {
		close(g_poll_fd);
		g_poll_fd = -1;
		return -1;
	}
	g_wake_write.store(g_wake_pipe[1], std::memory_order_relaxed);
	g_waker = uloop_fd {};
	g_waker.fd = g_wake_pipe[0];
	g_waker.cb = drain_waker;
	if (uloop_fd_add(&g_waker, ULOOP_READ) < 0) {
		uloop_done();
		return -1;
	}
	install(g_saved[0], on_terminate);
	install(g_saved[1], on_terminate);
	if (uloop_handle_sigchld)
		install(g_saved[2], on_sigchld);
	struct sigaction old {};
	if (sigaction(SIGPIPE, nullptr, &old) == 0 && !(old.sa_flags & SA_SIGINFO) &&
	    old.sa_handler == SIG_DFL) {
		struct sigaction ign {};
		ign.sa_handler = SIG_IGN;
		sigemptyset(&ign.sa_mask);
		if (sigaction(SIGPIPE, &ign, nullptr) == 0) {
			g_saved[3].old = old;
			g_saved[3].installed = true;
		}
	}
	return 0;
}

void uloop_done(void) noexcept
{
	restore_signals();
	g_wake_write.store(-1, std::memory_order_relaxed);
	if (g_poll_fd >= 0)
		close(g_poll_fd);
	g_poll_fd = -1;
	for (int &fd : g_wake_pipe) {
		if (fd >= 0)
			close(fd);
		fd = -1;
	}
	g_waker.registered = false;
	while (!list_empty(&g_timeouts))
		uloop_timeout_cancel(first_timeout());
	while (!list_empty(&g_processes))
		uloop_process_delete(list_first_entry(&g_processes, uloop_process, list));
}

void uloop_end(void) noexcept
{
	set_cancelled(true);
	wake();
}

bool uloop_cancelling(void) noexcept
{
	return g_run_depth > 0 && cancelled();
}

int uloop_run_timeout(int timeout) noexcept
{
	if (uloop_init() < 0)
		return -1;
	g_run_depth++;
	g_status.store(0, std::memory_order_relaxed);
	set_cancelled(false);
	do {
		process_timeouts();
		process_children();
		if (cancelled())
			break;
		int wait = uloop_get_next_timeout();
		if (timeout >= 0 && (wait < 0 || timeout < wait))
			wait = timeout;
		dispatch_events(wait);
	} while (!cancelled() && timeout < 0);
	g_run_depth--;
	return g_status.load(std::memory_order_relaxed);
}

int uloop_fd_add(uloop_fd *sock, unsigned int flags) noexcept
{
	if (!(flags & ULOOP_EVENT_MASK))
		return uloop_fd_delete(sock);
	if (g_poll_fd < 0 && uloop_init() < 0)
		return -1;
	if (!sock->registered && !(flags & ULOOP_BLOCKING)) {
		int fl = fcntl(sock->fd, F_GETFL);
		if (fl < 0 || fcntl(sock->fd, F_SETFL, fl | O_NONBLOCK) < 0)
			return -1;
	}
	epoll_event ev {};
	if (flags & ULOOP_READ)
		ev.events |= EPOLLIN | EPOLLRDHUP;
	if (flags & ULOOP_WRITE)
		ev.events |= EPOLLOUT;
	if (flags & ULOOP_EDGE_TRIGGER)
		ev.events |= EPOLLET;
	ev.data.ptr = sock;
	// `registered` can be stale after uloop_done and a new uloop_init (the
	// new poller has never seen the fd), so the other operation is tried too.
	int op = sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
	if (epoll_ctl(g_poll_fd, op, sock->fd, &ev) < 0) {
		int other = op == EPOLL_CTL_MOD ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
		if ((errno != ENOENT && errno != EEXIST) || epoll_ctl(g_poll_fd, other, sock->fd, &ev) < 0)
			return -1;
	}
	sock->flags = static_cast<uint8_t>(flags);
	sock->registered = true;
	sock->eof = false;
	sock->error = false;
	return 0;
}

int uloop_fd_delete(uloop_fd *sock) noexcept
{
	for (Frame *f = g_frame; f; f = f->outer) {
		for (int i = 0; i < f->count; i++) {
			if (f->ev[i].fd == sock)
				f->ev[i].fd = nullptr;
		}
	}
	sock->flags = 0;
	if (!sock->registered)
		return 0;
	sock->registered = false;
	if (g_poll_fd >= 0)
		epoll_ctl(g_poll_fd, EPOLL_CTL_DEL, sock->fd, nullptr);
	return 0;
}

int uloop_timeout_add(uloop_timeout *timeout) noexcept
{
	if (timeout->pending)
		return -1;
	list_head *pos;
	list_for_each(pos, &g_timeouts) {
		uloop_timeout *t = list_entry(pos, uloop_timeout, list);
		if (diff_us(t->time, timeout->time) > 0)
			break;
	}
	list_add_tail(&timeout->list, pos);
	timeout->pending = true;
	return 0;
}

int uloop_timeout_set(uloop_timeout *timeout, int msecs) noexcept
{
	if (timeout->pending)
		uloop_timeout_cancel(timeout);
	timeval t = now();
	int64_t us = static_cast<int64_t>(t.tv_sec) * 1000000 + t.tv_usec +
		     static_cast<int64_t>(msecs) * 1000;
	timeout->time.tv_sec = static_cast<time_t>(us / 1000000);
	timeout->time.tv_usec = static_cast<suseconds_t>(us % 1000000);
	if (timeout->time.tv_usec < 0) {
		timeout->time.tv_sec--;
		timeout->time.tv_usec += 1000000;
	}
	return uloop_timeout_add(timeout);
}

int uloop_timeout_cancel(uloop_timeout *timeout) noexcept
{
	if (!timeout->pending)
		return -1;
	list_del(&timeout->list);
	timeout->pending = false;
	return 0;
}

int64_t uloop_timeout_remaining64(uloop_timeout *timeout) noexcept
{
	if (!timeout->pending)
		return -1;
	int64_t us = diff_us(timeout->time, now());
	// Whole milliseconds still to wait, rounded up so that 0 means due.
	return us > 0 ? (us + 999) / 1000 : us / 1000;
}

int uloop_timeout_remaining(uloop_timeout *timeout) noexcept
{
	int64_t ms = uloop_timeout_remaining64(timeout);
	if (ms > INT_MAX)
		return INT_MAX;
	if (ms < INT_MIN)
		return INT_MIN;
	return static_cast<int>(ms);
}

int uloop_get_next_timeout(void) noexcept
{
	if (list_empty(&g_timeouts))
		return -1;
	int64_t us = diff_us(first_timeout()->time, now());
	if (us <= 0)
		return 0;
	int64_t ms = (us + 999) / 1000;
	return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

int uloop_process_add(uloop_process *p) noexcept
{
	if (p->pending)
		return -1;
	list_add_tail(&p->list, &g_processes);
	p->pending = true;
	// As upstream, adding does not look for children: only a SIGCHLD caught after
	// uloop_init makes the loop reap. A child that ended before that is seen at the
	// next child's end, or never.
	return 0;
}

int uloop_process_delete(uloop_process *p) noexcept
{
	if (!p->pending)
		return -1;
	list_del(&p->list);
	p->pending = false;
	return 0;
}

} // extern "C"
