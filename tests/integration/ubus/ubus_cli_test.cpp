// ubus_cli_test.cpp - a test object served from this process over the
// sandbox's broker, called through the installed ubus tool as the daemon and
// the cloud client call each other on a device.
#include "itest.h"

#include <libubus.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using itest::run;

namespace {

enum { HELLO_ID, HELLO_MSG, HELLO_COUNT };
const blobmsg_policy hello_policy[] = {
    /* HELLO_ID  */ {"id", BLOBMSG_TYPE_INT32},
    /* HELLO_MSG */ {"msg", BLOBMSG_TYPE_STRING},
};
static_assert(ARRAY_SIZE(hello_policy) == HELLO_COUNT, "one entry per attribute");

// Handlers and the reconnection run on the service's loop thread only.
blob_buf gReply;
ubus_request_data gHeld;

int hello(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *,
          blob_attr *msg)
{
    blob_attr *tb[HELLO_COUNT];
    blobmsg_parse(hello_policy, HELLO_COUNT, tb, blob_data(msg), blob_len(msg));
    if (!tb[HELLO_MSG])
        return UBUS_STATUS_INVALID_ARGUMENT;
    blob_buf_init(&gReply, 0);
    if (tb[HELLO_ID])
        blobmsg_add_u32(&gReply, "id", blobmsg_get_u32(tb[HELLO_ID]));
    blobmsg_add_string(&gReply, "msg", blobmsg_get_string(tb[HELLO_MSG]));
    ubus_send_reply(ctx, req, gReply.head);
    return 0;
}

// Replies, then returns -1 as several of the daemon's own methods do.
int fail(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
    blob_buf_init(&gReply, 0);
    blobmsg_add_string(&gReply, "param_list", "a,b");
    ubus_send_reply(ctx, req, gReply.head);
    return -1;
}

int hang(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
    ubus_defer_request(ctx, req, &gHeld);
    return 0;
}

const ubus_method test_methods[] = {
    UBUS_METHOD("hello", hello, hello_policy),
    UBUS_METHOD_NOARG("fail", fail),
    UBUS_METHOD_NOARG("hang", hang),
};
ubus_object_type test_type = UBUS_OBJECT_TYPE("test", test_methods);
ubus_object test_object = {};

// Publishes "test" on the default socket and runs uloop on a thread of its
// own; a lost connection is retried every 200 ms, the way the daemon does it.
class Service {
public:
    Service()
    {
        test_object.name = "test";
        test_object.type = &test_type;
        test_object.methods = test_methods;
        test_object.n_methods = ARRAY_SIZE(test_methods);
        // Before the first connection, which sets up the loop and its signals: the test's
        // own children are reaped by pclose.
        uloop_handle_sigchld = false;
        ctx_ = ubus_connect(nullptr);
        if (!ctx_)
            return;
        ctx_->connection_lost = lost;
        ok_ = ubus_add_object(ctx_, &test_object) == 0;
        uloop_init();
        ubus_add_uloop(ctx_);
        retry_.cb = retry;
        thread_ = std::thread([] { uloop_run(); });
    }
    ~Service()
    {
        if (!ctx_)
            return;
        uloop_end();
        thread_.join();
        uloop_done();
        ubus_free(ctx_);
        ctx_ = nullptr;
        test_type.id = 0;
    }
    bool ok() const { return ctx_ && ok_; }
    static int reconnects() { return reconnects_.load(std::memory_order_relaxed); }

private:
    static void lost(ubus_context *ctx)
    {
        (void)ctx;
        retry(&retry_);
    }
    static void retry(uloop_timeout *t)
    {
        if (ubus_reconnect(ctx_, nullptr) == 0) {
            ubus_add_uloop(ctx_);
            reconnects_.fetch_add(1, std::memory_order_relaxed);
        } else {
            uloop_timeout_set(t, 200);
        }
    }

    static ubus_context *ctx_;
    static uloop_timeout retry_;
    static std::atomic<int> reconnects_;
    bool ok_ = false;
    std::thread thread_;
};

ubus_context *Service::ctx_ = nullptr;
uloop_timeout Service::retry_ = {};
std::atomic<int> Service::reconnects_{0};

// Connects a raw socket to the broker and sends bytes; true when the broker
// then hangs up on it.
bool broker_hangs_up_after(const std::string &bytes)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sun = {};
    sun.sun_family = AF_UNIX;
    strcpy(sun.sun_path, "/var/run/ubus.sock");
    if (connect(fd, reinterpret_cast<sockaddr *>(&sun), sizeof(sun)) != 0) {
        close(fd);
        return false;
    }
    (void)!send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    char buf[64];
    ssize_t n;
    timeval tv = {5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    while ((n = read(fd, buf, sizeof(buf))) > 0) {
    }
    close(fd);
    return n == 0;
}

}  // namespace

TEST(UbusCli, CallsPrintRepliesAndStatusesAsTheDeviceToolDoes)
{
    Service service;
    ASSERT_TRUE(service.ok());

    SCOPED_TRACE("arguments in, reply out: indented with tabs, or compact with -S");
    auto r = run("ubus call test hello '{\"id\": 1, \"msg\": \"hi\"}'");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.output, "{\n\t\"id\": 1,\n\t\"msg\": \"hi\"\n}\n");
    r = run("ubus -S call test hello '{\"msg\": \"hi\"}'");
    EXPECT_EQ(r.output, "{\"msg\":\"hi\"}\n");

    // Not on a terminal (as here): a failed call names itself and exits with 256 - status.
    SCOPED_TRACE("a missing argument: status 2, reported like a usage error, exit 254");
    r = run("ubus call test hello '{\"id\": 1}' >/tmp/out 2>&1; s=$?; head -n 2 /tmp/out; exit $s");
    EXPECT_EQ(r.status, 254);
    EXPECT_EQ(r.output, "Command failed: ubus call test hello {\"id\": 1} (Invalid argument)\n"
                        "Usage: ubus [<options>] <command> [arguments...]\n");

    SCOPED_TRACE("a reply followed by status -1: the reply, then the tool's own failure, exit 1");
    r = run("ubus call test fail 2>/tmp/stderr");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.output, "{\n\t\"param_list\": \"a,b\"\n}\n");
    EXPECT_EQ(itest::read_file("/tmp/stderr"),
              "Command failed: ubus call test fail (Unknown error: -1)\n"
              "Command failed: Invalid command\n");

    // Options come before the command: musl's getopt, a device's, takes none after it.
    SCOPED_TRACE("an unanswered call times out after -t seconds");
    r = run("ubus -t 1 call test hang");
    EXPECT_EQ(r.status, 256 - 7);
    EXPECT_EQ(r.output, "Command failed: ubus call test hang (Request timed out)\n");

    SCOPED_TRACE("unknown method and object, bad JSON, no broker");
    r = run("ubus call test nope");
    EXPECT_EQ(r.status, 256 - 3);
    EXPECT_EQ(r.output, "Command failed: ubus call test nope (Method not found)\n");
    r = run("ubus call nothing hello");  // the object's look-up fails before any call
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.output, "Command failed: Not found\n");
    r = run("ubus call test hello '{\"msg\": '");
    EXPECT_EQ(r.status, 244);
    EXPECT_EQ(r.output, "Command failed: ubus call test hello {\"msg\":  (Parsing message data failed)\n");
    r = run("ubus -S call test nope");  // scripts' simple output: the status alone
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.output, "");

    SCOPED_TRACE("on a terminal: the short form, the status as exit code");
    r = run("script -qec \"ubus call test hello '{\\\"id\\\": 1}'\" /dev/null | tr -d '\\r'");
    EXPECT_EQ(r.output, "Command failed: Invalid argument\n");
    r = run("script -qec \"ubus call test hello '{\\\"msg\\\": '\" /dev/null | tr -d '\\r'");
    EXPECT_EQ(r.output, "Command failed: Parsing message data failed\n");
    r = run("ubus -s /tmp/no.sock list");
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.output, "Failed to connect to ubus\n");
    r = run("ubus -s /tmp/no.sock 2>&1 | head -1");  // no command: usage, broker or not
    EXPECT_EQ(r.output, "Usage: ubus [<options>] <command> [arguments...]\n");

    SCOPED_TRACE("list, plain and verbose");
    r = run("ubus list");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.output.find("test\n"), std::string::npos);
    r = run("ubus -v list test | sed 's/@[0-9a-f]\\{8\\}$/@ID/'");
    EXPECT_EQ(r.output, "'test' @ID\n"
                        "\t\"hello\":{\"id\":\"Integer\",\"msg\":\"String\"}\n"
                        "\t\"fail\":{}\n"
                        "\t\"hang\":{}\n");
    r = run("ubus list nothing");
    EXPECT_EQ(r.status, 4);

    SCOPED_TRACE("wait_for: at once for objects that are there, a time-out for one that is not");
    r = run("ubus -t 1 wait_for test");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.output, "");
    r = run("ubus -t 1 wait_for test nothing");
    EXPECT_EQ(r.status, 7);
    EXPECT_EQ(r.output, "Command failed: Request timed out\n");
    r = run("ubus -t 1 wait_for 2>&1 | head -1");  // no object named: a usage error
    EXPECT_EQ(r.output, "Usage: ubus [<options>] <command> [arguments...]\n");
}

TEST(UbusCli, TwentyConcurrentCallsAllGetTheirOwnAnswer)
{
    Service service;
    ASSERT_TRUE(service.ok());
    auto r = run("for i in $(seq 1 20); do "
                 "  (ubus -S call test hello \"{\\\"id\\\": $i, \\\"msg\\\": \\\"n$i\\\"}\" "
                 "     >/tmp/out.$i; echo $? >/tmp/rc.$i) & "
                 "done; wait");
    EXPECT_EQ(r.status, 0) << r.output;
    for (int i = 1; i <= 20; i++) {
        SCOPED_TRACE("call " + std::to_string(i));
        std::string n = std::to_string(i);
        EXPECT_EQ(itest::read_file("/tmp/rc." + n), "0\n");
        EXPECT_EQ(itest::read_file("/tmp/out." + n), "{\"id\":" + n + ",\"msg\":\"n" + n + "\"}\n");
    }
}

TEST(UbusCli, ServiceComesBackAfterABrokerRestart)
{
    Service service;
    ASSERT_TRUE(service.ok());
    ASSERT_EQ(run("ubus call test hello '{\"msg\": \"before\"}'").status, 0);

    // This sandbox's own broker, the only one in its process namespace.
    ASSERT_EQ(run("kill $(pidof ubusd)").status, 0);
    ASSERT_TRUE(itest::wait_until([] { return !itest::file_exists("/var/run/ubus.sock"); }));
    EXPECT_EQ(run("ubus call test hello '{\"msg\": \"gone\"}'").status, 255);

    ASSERT_EQ(run("/usr/sbin/ubusd >/dev/null 2>&1 &").status, 0);
    EXPECT_TRUE(itest::wait_until(
        [] { return run("ubus call test hello '{\"msg\": \"back\"}'").status == 0; }));
    EXPECT_GE(Service::reconnects(), 1);
    auto r = run("ubus -S call test hello '{\"msg\": \"back\"}'");
    EXPECT_EQ(r.output, "{\"msg\":\"back\"}\n");
}

TEST(UbusCli, GarbageOnTheBrokerSocketCostsOnlyTheSender)
{
    Service service;
    ASSERT_TRUE(service.ok());

    SCOPED_TRACE("text instead of frames");
    EXPECT_TRUE(broker_hangs_up_after("GET / HTTP/1.0\r\n\r\n"));
    SCOPED_TRACE("a frame whose attribute claims more than the frame holds");
    EXPECT_TRUE(broker_hangs_up_after(std::string("\0\4\0\1\0\0\0\0\0\0\0\x10\x02\0\0\x40xxxxxxxx", 24)));

    SCOPED_TRACE("a truncated frame held open does not stall anyone");
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sun = {};
    sun.sun_family = AF_UNIX;
    strcpy(sun.sun_path, "/var/run/ubus.sock");
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&sun), sizeof(sun)), 0);
    (void)!send(fd, "\0\4\0\1\0\0\0\0\0\0\1\0", 12, MSG_NOSIGNAL);

    auto r = run("ubus -S call test hello '{\"msg\": \"still here\"}'");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.output, "{\"msg\":\"still here\"}\n");
    close(fd);
}
