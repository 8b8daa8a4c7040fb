// ubus_test.cpp - the client library against a real broker started on a
// socket in a temporary folder of the build tree.
extern "C" {
#include <libubox/blobmsg_json.h>
}
#include <libubus.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// ---- a broker process of our own ---------------------------------------------

class Broker {
public:
    Broker()
    {
        std::string tmpl = std::string(UBUS_TEST_TMPDIR) + "/ubus.XXXXXX";
        dir_ = mkdtemp(&tmpl[0]) ? tmpl : std::string();
        path_ = dir_ + "/ubus.sock";
        start();
    }
    ~Broker()
    {
        stop();
        rmdir(dir_.c_str());
    }
    const char *path() const { return path_.c_str(); }

    void start()
    {
        pid_ = fork();
        if (pid_ == 0) {
            execl(UBUSD_PATH, "ubusd", "-s", path_.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        // Ready once it accepts a connection.
        for (int i = 0; i < 500; i++) {
            if (ubus_context *probe = ubus_connect(path())) {
                ubus_free(probe);
                return;
            }
            usleep(10000);
        }
        ADD_FAILURE() << "ubusd did not come up on " << path_;
    }
    void stop()
    {
        if (pid_ <= 0)
            return;
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    std::string dir_, path_;
    pid_t pid_ = -1;
};

// ---- a test object ---------------------------------------------------------------

enum { HELLO_ID, HELLO_MSG, HELLO_COUNT };
const blobmsg_policy hello_policy[] = {
    /* HELLO_ID  */ {"id", BLOBMSG_TYPE_INT32},
    /* HELLO_MSG */ {"msg", BLOBMSG_TYPE_STRING},
};
static_assert(ARRAY_SIZE(hello_policy) == HELLO_COUNT, "one entry per attribute");

std::atomic<int> gHandlerSawNullMsg{0};
ubus_request_data gHeld;  // a call deferred by "hang", never answered
blob_buf gReply;          // handlers run on the server thread only

int hello(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *,
          blob_attr *msg)
{
    if (!msg) {
        gHandlerSawNullMsg.store(1, std::memory_order_relaxed);
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    blob_attr *tb[HELLO_COUNT];
    blobmsg_parse(hello_policy, HELLO_COUNT, tb, blob_data(msg), blob_len(msg));
    if (!tb[HELLO_MSG])
        return UBUS_STATUS_INVALID_ARGUMENT;
    blob_buf_init(&gReply, 0);
    blobmsg_add_u32(&gReply, "id", tb[HELLO_ID] ? blobmsg_get_u32(tb[HELLO_ID]) : 0);
    blobmsg_add_string(&gReply, "msg", blobmsg_get_string(tb[HELLO_MSG]));
    ubus_send_reply(ctx, req, gReply.head);
    return 0;
}

int fail(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
    blob_buf_init(&gReply, 0);
    blobmsg_add_u8(&gReply, "partial", 1);
    ubus_send_reply(ctx, req, gReply.head);
    return -1;
}

int odd(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *)
{
    return 42;
}

int hang(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
    ubus_defer_request(ctx, req, &gHeld);
    return 0;
}

const ubus_method test_methods[] = {
    UBUS_METHOD("hello", hello, hello_policy),
    UBUS_METHOD_NOARG("fail", fail),
    UBUS_METHOD_NOARG("odd", odd),
    UBUS_METHOD_NOARG("hang", hang),
};
ubus_object_type test_type = UBUS_OBJECT_TYPE("test", test_methods);

ubus_object make_object(const char *name)
{
    ubus_object o = {};
    o.name = name;
    o.type = &test_type;
    o.methods = test_methods;
    o.n_methods = ARRAY_SIZE(test_methods);
    return o;
}

// Serves a context from a thread of its own, as a service would from its loop.
class Server {
public:
    explicit Server(ubus_context *ctx) : ctx_(ctx), wake_(eventfd(0, EFD_CLOEXEC))
    {
        thread_ = std::thread([this] { loop(); });
    }
    ~Server()
    {
        uint64_t one = 1;
        (void)!write(wake_, &one, sizeof(one));
        thread_.join();
        close(wake_);
    }

private:
    void loop()
    {
        for (;;) {
            pollfd p[2] = {{ctx_->sock.fd, POLLIN, 0}, {wake_, POLLIN, 0}};
            if (poll(p, 2, -1) < 0 || p[1].revents)
                return;
            if (p[0].revents)
                ubus_handle_event(ctx_);
            if (ctx_->sock.eof)
                return;  // the broker went away
        }
    }
    ubus_context *ctx_;
    int wake_;
    std::thread thread_;
};

struct Replies {
    std::vector<std::string> json;
};

void collect(ubus_request *req, int, blob_attr *msg)
{
    char *s = blobmsg_format_json(msg, true);
    static_cast<Replies *>(req->priv)->json.push_back(s ? s : "");
    free(s);
}

int call(ubus_context *ctx, const char *path, const char *method, const char *json,
         Replies *out, int timeout = 5000)
{
    uint32_t id;
    int ret = ubus_lookup_id(ctx, path, &id);
    if (ret)
        return ret;
    blob_buf b = {};
    blob_buf_init(&b, 0);
    if (json)
        blobmsg_add_json_from_string(&b, json);
    ret = ubus_invoke(ctx, id, method, b.head, collect, out, timeout);
    blob_buf_free(&b);
    return ret;
}

void collect_path(ubus_context *, ubus_object_data *obj, void *priv)
{
    static_cast<std::vector<std::string> *>(priv)->push_back(obj->path);
}

}  // namespace

TEST(UbusClient, PublishesLooksUpAndRemovesObjects)
{
    Broker broker;
    ubus_context *a = ubus_connect(broker.path());
    ubus_context *b = ubus_connect(broker.path());
    ASSERT_TRUE(a && b);
    EXPECT_NE(a->local_id, b->local_id);
    EXPECT_GE(a->local_id, static_cast<uint32_t>(UBUS_SYSTEM_OBJECT_MAX));
    // Commands the daemon runs through popen must not inherit the bus socket.
    EXPECT_TRUE(fcntl(a->sock.fd, F_GETFD) & FD_CLOEXEC);

    ubus_object first = make_object("test.one");
    ubus_object second = make_object("test.two");
    ASSERT_EQ(ubus_add_object(a, &first), 0);
    EXPECT_NE(first.id, 0u);
    uint32_t type_id = test_type.id;
    EXPECT_NE(type_id, 0u);
    ASSERT_EQ(ubus_add_object(a, &second), 0);
    EXPECT_EQ(test_type.id, type_id) << "the second object reuses the registered type";

    SCOPED_TRACE("object names are unique on the bus");
    ubus_object clash = make_object("test.one");
    EXPECT_EQ(ubus_add_object(b, &clash), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(clash.id, 0u);

    SCOPED_TRACE("lookups: exact, prefix, missing");
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(b, "test.one", &id), 0);
    EXPECT_EQ(id, first.id);
    EXPECT_EQ(ubus_lookup_id(b, "test", &id), UBUS_STATUS_NOT_FOUND);
    std::vector<std::string> paths;
    EXPECT_EQ(ubus_lookup(b, "test.*", collect_path, &paths), 0);
    EXPECT_EQ(paths, (std::vector<std::string>{"test.one", "test.two"}));
    paths.clear();
    EXPECT_EQ(ubus_lookup(b, "nothing*", collect_path, &paths), UBUS_STATUS_NOT_FOUND);
    EXPECT_TRUE(paths.empty());

    SCOPED_TRACE("removal frees the name");
    EXPECT_EQ(ubus_remove_object(a, &first), 0);
    EXPECT_EQ(first.id, 0u);
    EXPECT_EQ(ubus_lookup_id(b, "test.one", &id), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(ubus_add_object(b, &clash), 0);

    SCOPED_TRACE("a client that goes away takes its objects with it");
    ubus_free(b);
    // The broker notices the hang-up on its own time.
    int ret = 0;
    for (int i = 0; i < 500 && (ret = ubus_lookup_id(a, "test.one", &id)) == 0; i++)
        usleep(10000);
    EXPECT_EQ(ret, UBUS_STATUS_NOT_FOUND);
    ubus_free(a);
    test_type.id = 0;
}

TEST(UbusClient, CallsCarryArgumentsRepliesAndStatus)
{
    Broker broker;
    ubus_context *owner = ubus_connect(broker.path());
    ubus_context *caller = ubus_connect(broker.path());
    ASSERT_TRUE(owner && caller);
    ubus_object obj = make_object("test");
    ASSERT_EQ(ubus_add_object(owner, &obj), 0);
    {
        Server server(owner);
        Replies r;
        EXPECT_EQ(call(caller, "test", "hello", R"({"id": 7, "msg": "hi"})", &r), 0);
        EXPECT_EQ(r.json, (std::vector<std::string>{R"({"id":7,"msg":"hi"})"}));

        SCOPED_TRACE("a missing argument is the handler's status 2, without a reply");
        r = {};
        EXPECT_EQ(call(caller, "test", "hello", R"({"id": 7})", &r), UBUS_STATUS_INVALID_ARGUMENT);
        EXPECT_TRUE(r.json.empty());

        SCOPED_TRACE("a NULL message arrives as an empty table");
        uint32_t id = obj.id;
        EXPECT_EQ(ubus_invoke(caller, id, "hello", nullptr, nullptr, nullptr, 5000),
                  UBUS_STATUS_INVALID_ARGUMENT);
        EXPECT_EQ(gHandlerSawNullMsg.load(std::memory_order_relaxed), 0);

        SCOPED_TRACE("statuses outside the known codes travel unchanged");
        r = {};
        EXPECT_EQ(call(caller, "test", "fail", nullptr, &r), -1);
        EXPECT_EQ(r.json, (std::vector<std::string>{R"({"partial":true})"}));
        EXPECT_EQ(call(caller, "test", "odd", nullptr, &r), 42);

        SCOPED_TRACE("unknown methods and objects");
        EXPECT_EQ(call(caller, "test", "nope", nullptr, &r), UBUS_STATUS_METHOD_NOT_FOUND);
        EXPECT_EQ(ubus_invoke(caller, 12345, "hello", nullptr, nullptr, nullptr, 5000),
                  UBUS_STATUS_NOT_FOUND);

        SCOPED_TRACE("an unanswered call times out and a later one still works");
        EXPECT_EQ(call(caller, "test", "hang", nullptr, &r, 50), UBUS_STATUS_TIMEOUT);
        r = {};
        EXPECT_EQ(call(caller, "test", "hello", R"({"msg": "again"})", &r), 0);
        EXPECT_EQ(r.json.size(), 1u);
    }
    ubus_free(caller);
    ubus_free(owner);
    test_type.id = 0;
}

TEST(UbusClient, OpenCallsFailWhenTheOwnerOrTheBrokerGoesAway)
{
    Broker broker;
    ubus_context *owner = ubus_connect(broker.path());
    ubus_context *caller = ubus_connect(broker.path());
    ASSERT_TRUE(owner && caller);
    ubus_object obj = make_object("test");
    ASSERT_EQ(ubus_add_object(owner, &obj), 0);

    SCOPED_TRACE("the owner disconnects while a call waits: No response");
    ubus_request req;
    {
        Server server(owner);
        ASSERT_EQ(ubus_invoke_async(caller, obj.id, "hang", nullptr, &req), 0);
        // The call reaches the handler before the owner leaves.
        Replies r;
        EXPECT_EQ(call(caller, "test", "hello", R"({"msg": "x"})", &r), 0);
    }
    ubus_free(owner);
    EXPECT_EQ(ubus_complete_request(caller, &req, 5000), UBUS_STATUS_NO_DATA);

    SCOPED_TRACE("the broker goes away while a call waits: Connection failed");
    owner = ubus_connect(broker.path());
    ASSERT_TRUE(owner);
    ASSERT_EQ(ubus_add_object(owner, &obj), 0);
    {
        Server server(owner);
        ASSERT_EQ(ubus_invoke_async(caller, obj.id, "hang", nullptr, &req), 0);
        Replies r;
        EXPECT_EQ(call(caller, "test", "hello", R"({"msg": "x"})", &r), 0);
        broker.stop();
        EXPECT_EQ(ubus_complete_request(caller, &req, 5000), UBUS_STATUS_CONNECTION_FAILED);
    }
    uint32_t id;
    EXPECT_EQ(ubus_lookup_id(caller, "test", &id), UBUS_STATUS_CONNECTION_FAILED);

    SCOPED_TRACE("reconnecting with no broker fails; with one back, objects return");
    EXPECT_EQ(ubus_reconnect(owner, broker.path()), UBUS_STATUS_CONNECTION_FAILED);
    broker.start();
    uint32_t old_id = obj.id;
    ASSERT_EQ(ubus_reconnect(owner, broker.path()), 0);
    EXPECT_NE(obj.id, 0u);
    EXPECT_NE(obj.id, old_id);
    ASSERT_EQ(ubus_reconnect(caller, broker.path()), 0);
    {
        Server server(owner);
        Replies r;
        EXPECT_EQ(call(caller, "test", "hello", R"({"msg": "back"})", &r), 0);
        EXPECT_EQ(r.json, (std::vector<std::string>{R"({"id":0,"msg":"back"})"}));
    }
    ubus_free(caller);
    ubus_free(owner);
    test_type.id = 0;
}

extern "C" int libubus_c_method_count(void);

TEST(UbusClient, StatusTextsAndHeaders)
{
    EXPECT_EQ(libubus_c_method_count(), 2);
    EXPECT_STREQ(ubus_strerror(UBUS_STATUS_OK), "Success");
    EXPECT_STREQ(ubus_strerror(UBUS_STATUS_NOT_FOUND), "Not found");
    EXPECT_STREQ(ubus_strerror(UBUS_STATUS_TIMEOUT), "Request timed out");
    EXPECT_STREQ(ubus_strerror(UBUS_STATUS_SYSTEM_ERROR), "System error");
    EXPECT_STREQ(ubus_strerror(__UBUS_STATUS_LAST), "Unknown error: 14");
    EXPECT_STREQ(ubus_strerror(-1), "Unknown error: -1");
    EXPECT_EQ(ubus_connect("/nonexistent/ubus.sock"), nullptr);
}
