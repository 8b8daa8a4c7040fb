// uloop_test.cpp - the event loop: timeout order, cancel and remaining,
// descriptor events and their flags, ending the loop by call, from another
// thread and by signal, child watchers, and close-on-exec descriptors.
// Nothing here asserts how long anything takes.
#include <libubox/uloop.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class Uloop : public ::testing::Test {
protected:
	void SetUp() override { ASSERT_EQ(0, uloop_init()); }
	void TearDown() override { uloop_done(); }
};

// A timeout that records its label and optionally ends the loop.
struct Mark {
	uloop_timeout t {};
	std::string label;
	std::vector<std::string> *log;
	bool end;

	Mark(const char *l, std::vector<std::string> *lg, bool e = false) : label(l), log(lg), end(e)
	{
		t.cb = fire;
	}
	static void fire(uloop_timeout *t)
	{
		Mark *m = container_of(t, Mark, t);
		EXPECT_FALSE(t->pending);  // removed before its callback
		m->log->push_back(m->label);
		if (m->end)
			uloop_end();
	}
};

TEST_F(Uloop, TimeoutsFireInExpiryOrderAndCancelledOnesNever)
{
	std::vector<std::string> log;
	Mark c("c", &log, true), a("a", &log), b("b", &log), gone("gone", &log);
	ASSERT_EQ(0, uloop_timeout_set(&c.t, 30));
	ASSERT_EQ(0, uloop_timeout_set(&b.t, 20));
	ASSERT_EQ(0, uloop_timeout_set(&a.t, 1));
	ASSERT_EQ(0, uloop_timeout_set(&gone.t, 5));
	EXPECT_EQ(-1, uloop_timeout_add(&gone.t));  // already pending
	EXPECT_EQ(0, uloop_timeout_cancel(&gone.t));
	EXPECT_EQ(-1, uloop_timeout_cancel(&gone.t));
	EXPECT_EQ(-1, uloop_timeout_remaining(&gone.t));

	// Equal expiries fire in the order they were added.
	Mark e1("e1", &log), e2("e2", &log);
	e1.t.time = a.t.time;
	e2.t.time = a.t.time;
	ASSERT_EQ(0, uloop_timeout_add(&e1.t));
	ASSERT_EQ(0, uloop_timeout_add(&e2.t));

	EXPECT_EQ(0, uloop_run());
	EXPECT_EQ((std::vector<std::string> {"a", "e1", "e2", "b", "c"}), log);
	EXPECT_EQ(-1, uloop_get_next_timeout());
}

TEST_F(Uloop, RemainingAndRearmingFromTheCallback)
{
	uloop_timeout far {};
	ASSERT_EQ(0, uloop_timeout_set(&far, 100000));
	int r = uloop_timeout_remaining(&far);
	EXPECT_GT(r, 0);
	EXPECT_LE(r, 100000);
	EXPECT_GT(uloop_timeout_remaining64(&far), 0);
	EXPECT_LE(uloop_get_next_timeout(), 100000);
	// Setting again moves it instead of adding it twice.
	ASSERT_EQ(0, uloop_timeout_set(&far, 200000));
	EXPECT_GT(uloop_timeout_remaining(&far), 100000);

	struct Again {
		uloop_timeout t {};
		int left = 3;
	} again;
	again.t.cb = [](uloop_timeout *t) {
		Again *a = container_of(t, Again, t);
		if (--a->left > 0)
			uloop_timeout_set(t, 0);  // re-arms itself
		else
			uloop_end();
	};
	uloop_timeout_set(&again.t, 0);
	EXPECT_EQ(0, uloop_run());
	EXPECT_EQ(0, again.left);
	EXPECT_TRUE(far.pending);
	uloop_timeout_cancel(&far);  // it lives on this stack frame
}

TEST_F(Uloop, EndBeforeRunHasNoEffect)
{
	std::vector<std::string> log;
	Mark stop("stop", &log, true);
	uloop_end();
	uloop_timeout_set(&stop.t, 1);
	EXPECT_EQ(0, uloop_run());  // ran until the timeout ended it
	EXPECT_EQ(1u, log.size());
	EXPECT_FALSE(uloop_cancelling());
}

struct Reader {
	uloop_fd u {};
	std::vector<unsigned int> events;
	std::string got;
	size_t per_call = 1;  // read one byte per callback

	explicit Reader(int fd)
	{
		u.fd = fd;
		u.cb = [](uloop_fd *u, unsigned int ev) {
			Reader *r = container_of(u, Reader, u);
			r->events.push_back(ev);
			char buf[64];
			ssize_t n = read(u->fd, buf, r->per_call);
			if (n > 0)
				r->got.append(buf, static_cast<size_t>(n));
		};
	}
};

TEST_F(Uloop, LevelTriggeredReadsUntilDrainedThenSeesEof)
{
	int p[2];
	ASSERT_EQ(0, pipe(p));
	Reader r(p[0]);
	ASSERT_EQ(0, uloop_fd_add(&r.u, ULOOP_READ));
	EXPECT_TRUE(r.u.registered);
	EXPECT_TRUE(fcntl(p[0], F_GETFL) & O_NONBLOCK);
	ASSERT_EQ(3, write(p[1], "abc", 3));
	for (int i = 0; i < 5; i++)
		uloop_run_timeout(0);  // single passes
	EXPECT_EQ("abc", r.got);
	EXPECT_EQ(3u, r.events.size());
	EXPECT_EQ(static_cast<unsigned int>(ULOOP_READ), r.events[0]);

	close(p[1]);  // writer gone: hang-up, flagged and unregistered
	uloop_run_timeout(0);
	EXPECT_TRUE(r.u.eof);
	EXPECT_TRUE(r.u.error);
	EXPECT_FALSE(r.u.registered);
	size_t calls = r.events.size();
	uloop_run_timeout(0);
	EXPECT_EQ(calls, r.events.size());
	close(p[0]);
}

TEST_F(Uloop, EdgeTriggeredFiresOncePerArrivalAndBlockingIsKept)
{
	int p[2];
	ASSERT_EQ(0, pipe(p));
	Reader r(p[0]);
	ASSERT_EQ(0, uloop_fd_add(&r.u, ULOOP_READ | ULOOP_EDGE_TRIGGER | ULOOP_BLOCKING));
	EXPECT_FALSE(fcntl(p[0], F_GETFL) & O_NONBLOCK);
	ASSERT_EQ(3, write(p[1], "abc", 3));
	for (int i = 0; i < 3; i++)
		uloop_run_timeout(0);
	EXPECT_EQ(1u, r.events.size());  // not drained, but no new edge
	ASSERT_EQ(1, write(p[1], "d", 1));
	uloop_run_timeout(0);
	EXPECT_EQ(2u, r.events.size());
	EXPECT_EQ("ab", r.got);

	// Changing the interest set of a registered fd; no READ/WRITE = delete.
	ASSERT_EQ(0, uloop_fd_add(&r.u, ULOOP_READ));
	uloop_run_timeout(0);
	EXPECT_EQ(3u, r.events.size());
	ASSERT_EQ(0, uloop_fd_add(&r.u, 0));
	EXPECT_FALSE(r.u.registered);
	uloop_run_timeout(0);
	EXPECT_EQ(3u, r.events.size());
	EXPECT_EQ(0, uloop_fd_delete(&r.u));  // not registered: still fine
	close(p[0]);
	close(p[1]);
}

TEST_F(Uloop, DescriptorStillRegisteredAcrossDoneAndInitCanBeAddedAgain)
{
	// What a bus context does when its owner restarts the loop under it.
	int p[2];
	ASSERT_EQ(0, pipe(p));
	Reader r(p[0]);
	ASSERT_EQ(0, uloop_fd_add(&r.u, ULOOP_READ));
	uloop_done();
	ASSERT_EQ(0, uloop_init());
	EXPECT_TRUE(r.u.registered);  // stale: the new poller never saw it
	ASSERT_EQ(0, uloop_fd_add(&r.u, ULOOP_READ));
	ASSERT_EQ(1, write(p[1], "x", 1));
	uloop_run_timeout(0);
	EXPECT_EQ("x", r.got);
	uloop_fd_delete(&r.u);
	close(p[0]);
	close(p[1]);
}

TEST_F(Uloop, DeleteDropsUndeliveredEventsAndWriteIsReported)
{
	int a[2], b[2];
	ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, a));
	ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, b));
	struct Pair {
		uloop_fd x {}, y {};
		int calls = 0;
	} pr;
	// Whichever of the two is dispatched first unregisters the other.
	static Pair *current;
	current = &pr;
	pr.x.fd = a[0];
	pr.y.fd = b[0];
	pr.x.cb = pr.y.cb = [](uloop_fd *u, unsigned int ev) {
		EXPECT_EQ(static_cast<unsigned int>(ULOOP_WRITE), ev);
		current->calls++;
		uloop_fd_delete(u == &current->x ? &current->y : &current->x);
		uloop_fd_delete(u);
	};
	ASSERT_EQ(0, uloop_fd_add(&pr.x, ULOOP_WRITE));
	ASSERT_EQ(0, uloop_fd_add(&pr.y, ULOOP_WRITE));
	uloop_run_timeout(0);
	EXPECT_EQ(1, pr.calls);
	for (int fd : {a[0], a[1], b[0], b[1]})
		close(fd);
}

TEST_F(Uloop, EndFromAnotherThreadWakesTheLoop)
{
	// An end that lands before the run starts is undone by it, so the
	// thread keeps ending until the run has returned.
	std::atomic<bool> returned {false};
	std::thread t([&returned] {
		while (!returned.load(std::memory_order_relaxed)) {
			uloop_end();
			std::this_thread::sleep_for(std::chrono::milliseconds(1));
		}
	});
	EXPECT_EQ(0, uloop_run());  // no timeout or fd of its own: only the end wakes it
	returned.store(true, std::memory_order_relaxed);
	t.join();
}

sighandler_t handler_of(int sig)
{
	struct sigaction sa {};
	sigaction(sig, nullptr, &sa);
	return sa.sa_handler;
}

TEST_F(Uloop, TerminatingSignalsEndTheRunAndAreReturned)
{
	for (int sig : {SIGTERM, SIGINT}) {
		uloop_timeout raiser {};
		static int which;
		which = sig;
		raiser.cb = [](uloop_timeout *) { raise(which); };
		uloop_timeout_set(&raiser, 0);
		EXPECT_EQ(sig, uloop_run());
	}
	uloop_done();
	EXPECT_EQ(SIG_DFL, handler_of(SIGTERM));  // done gives the signal back
	ASSERT_EQ(0, uloop_init());
}

TEST_F(Uloop, EveryChildIsReapedAndWatchedOnesReportTheirStatus)
{
	// As upstream: uloop_init took SIGCHLD, without SA_RESTART.
	struct sigaction sa {};
	ASSERT_EQ(0, sigaction(SIGCHLD, nullptr, &sa));
	EXPECT_NE(SIG_DFL, sa.sa_handler);
	EXPECT_EQ(0, sa.sa_flags & SA_RESTART);
	pid_t other = fork();  // nobody watches this one
	ASSERT_GE(other, 0);
	if (other == 0)
		_exit(0);
	pid_t pid = fork();
	ASSERT_GE(pid, 0);
	if (pid == 0)
		_exit(3);
	struct Watch {
		uloop_process p {};
		int status = -1;
	} w;
	w.p.pid = pid;
	w.p.cb = [](uloop_process *p, int ret) {
		container_of(p, Watch, p)->status = ret;
		uloop_end();
	};
	ASSERT_EQ(0, uloop_process_add(&w.p));
	EXPECT_EQ(-1, uloop_process_add(&w.p));
	EXPECT_EQ(0, uloop_run());
	ASSERT_TRUE(WIFEXITED(w.status));
	EXPECT_EQ(3, WEXITSTATUS(w.status));
	EXPECT_FALSE(w.p.pending);
	// The unwatched child was taken too: a waitpid that expected it finds nothing.
	usleep(50000);
	uloop_run_timeout(10);
	EXPECT_EQ(-1, waitpid(other, nullptr, WNOHANG));
	EXPECT_EQ(ECHILD, errno);
	uloop_done();
	EXPECT_EQ(SIG_DFL, handler_of(SIGCHLD));

	// Cleared before uloop_init, SIGCHLD stays with the program.
	uloop_handle_sigchld = false;
	ASSERT_EQ(0, uloop_init());
	EXPECT_EQ(SIG_DFL, handler_of(SIGCHLD));
	uloop_done();
	uloop_handle_sigchld = true;
	ASSERT_EQ(0, uloop_init());
}

std::set<int> open_fds()
{
	std::set<int> fds;
	DIR *d = opendir("/proc/self/fd");
	if (!d)
		return fds;
	int own = dirfd(d);
	while (dirent *e = readdir(d)) {
		if (e->d_name[0] != '.')
			fds.insert(atoi(e->d_name));
	}
	closedir(d);
	fds.erase(own);
	return fds;
}

TEST(UloopDescriptors, AreCloseOnExec)
{
	std::set<int> before = open_fds();
	ASSERT_EQ(0, uloop_init());
	int fresh = 0;
	for (int fd : open_fds()) {
		if (before.count(fd))
			continue;
		fresh++;
		EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << fd;
	}
	EXPECT_GE(fresh, 2);  // the poller and the wake-up pipe at least
	EXPECT_EQ(0, uloop_init());  // idempotent
	uloop_done();
	EXPECT_EQ(before, open_fds());
}

} // namespace
