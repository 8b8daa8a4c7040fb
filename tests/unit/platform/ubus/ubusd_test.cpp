// ubusd_test.cpp - the broker faced with raw frames: malformed ones cost the
// sender its connection, truncated ones wait, and other clients are served on.
#include <libubus.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Bytes = std::vector<uint8_t>;

class BrokerProcess {
public:
    BrokerProcess()
    {
        std::string tmpl = std::string(UBUS_TEST_TMPDIR) + "/ubusd.XXXXXX";
        if (mkdtemp(&tmpl[0]))
            dir_ = tmpl;
        path_ = dir_ + "/ubus.sock";
        pid_ = fork();
        if (pid_ == 0) {
            execl(UBUSD_PATH, "ubusd", "-s", path_.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        for (int i = 0; i < 500 && access(path_.c_str(), F_OK) != 0; i++)
            usleep(10000);
    }
    ~BrokerProcess()
    {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        rmdir(dir_.c_str());
    }
    const char *path() const { return path_.c_str(); }

private:
    std::string dir_, path_;
    pid_t pid_ = -1;
};

// A connection that speaks raw bytes.
class Raw {
public:
    explicit Raw(const char *path)
    {
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un sun = {};
        sun.sun_family = AF_UNIX;
        strncpy(sun.sun_path, path, sizeof(sun.sun_path) - 1);
        if (connect(fd_, reinterpret_cast<sockaddr *>(&sun), sizeof(sun)) == 0) {
            uint8_t hello[12];
            connected_ = read(fd_, hello, sizeof(hello)) == sizeof(hello) && hello[1] == UBUS_MSG_HELLO;
        }
    }
    ~Raw() { close(fd_); }
    bool connected() const { return connected_; }
    void send(const Bytes &b) { (void)!::send(fd_, b.data(), b.size(), MSG_NOSIGNAL); }
    // What the broker sends back within a while; "closed" when it hangs up.
    std::string answer()
    {
        pollfd p = {fd_, POLLIN, 0};
        if (poll(&p, 1, 5000) <= 0)
            return "silence";
        uint8_t buf[256];
        ssize_t n = read(fd_, buf, sizeof(buf));
        if (n <= 0)
            return "closed";
        if (n >= 2 && buf[1] == UBUS_MSG_STATUS)
            return "status";
        return "other";
    }

private:
    int fd_ = -1;
    bool connected_ = false;
};

// A well-formed frame of the given type around the attributes built in b.
Bytes frame(uint8_t type, blob_buf *b)
{
    size_t len = blob_pad_len(b->head);
    Bytes out(8 + len, 0);
    out[1] = type;
    out[3] = 1;  // seq
    memcpy(out.data() + 8, b->head, len);
    return out;
}

Bytes lookup_frame(const char *path)
{
    blob_buf b = {};
    blob_buf_init(&b, 0);
    blob_put_string(&b, UBUS_ATTR_OBJPATH, path);
    Bytes f = frame(UBUS_MSG_LOOKUP, &b);
    blob_buf_free(&b);
    return f;
}

void put_be32(Bytes &f, size_t at, uint32_t v)
{
    f[at] = static_cast<uint8_t>(v >> 24);
    f[at + 1] = static_cast<uint8_t>(v >> 16);
    f[at + 2] = static_cast<uint8_t>(v >> 8);
    f[at + 3] = static_cast<uint8_t>(v);
}

// The broker still serves a well-behaved client.
void expect_served(const char *path)
{
    ubus_context *ctx = ubus_connect(path);
    ASSERT_NE(ctx, nullptr);
    uint32_t id;
    EXPECT_EQ(ubus_lookup_id(ctx, "nothing", &id), UBUS_STATUS_NOT_FOUND);
    ubus_free(ctx);
}

}  // namespace

TEST(Ubusd, DisconnectsSendersOfMalformedFrames)
{
    BrokerProcess broker;
    const Bytes good = lookup_frame("some.path");  // header 8, root 4, OBJPATH attr at 12

    struct Case {
        const char *what;
        Bytes bytes;
    };
    std::vector<Case> cases;
    Bytes f = good;
    f[0] = 1;
    cases.push_back({"wrong version", f});
    f = good;
    f[8] |= 0x80;
    cases.push_back({"extended root attribute", f});
    f = good;
    put_be32(f, 8, UBUS_MAX_MSGLEN);
    cases.push_back({"frame longer than the maximum", f});
    f = good;
    put_be32(f, 12, (UBUS_ATTR_OBJPATH << 24) | 200);
    cases.push_back({"attribute longer than its frame", f});
    f = good;
    put_be32(f, 12, (UBUS_ATTR_OBJPATH << 24) | 2);
    cases.push_back({"attribute shorter than a header", f});
    f = good;
    f[f.size() - 1] = 'x';
    f[f.size() - 2] = 'x';
    f[f.size() - 3] = 'x';
    f[f.size() - 4] = 'x';
    put_be32(f, 12, (UBUS_ATTR_OBJPATH << 24) | static_cast<uint32_t>(f.size() - 12));
    cases.push_back({"string without its NUL", f});
    {
        blob_buf b = {};
        blob_buf_init(&b, 0);
        blob_put_int32(&b, UBUS_ATTR_OBJID, 5);
        blob_put_string(&b, UBUS_ATTR_METHOD, "m");
        void *data = blob_nest_start(&b, UBUS_ATTR_DATA);
        blobmsg_add_string(&b, "key", "value");
        blob_nest_end(&b, data);
        Bytes inv = frame(UBUS_MSG_INVOKE, &b);
        // The blobmsg name length (right after the member's header) lies.
        size_t member = inv.size() - 20;
        inv[member + 4] = 0x7f;
        cases.push_back({"blobmsg name running past its attribute", inv});
        blob_buf_init(&b, 0);
        blob_put_int32(&b, UBUS_ATTR_OBJID, 5);
        blob_put_string(&b, UBUS_ATTR_METHOD, "m");
        data = blob_nest_start(&b, UBUS_ATTR_DATA);
        std::vector<void *> open;
        for (int i = 0; i < 100; i++)
            open.push_back(blobmsg_open_table(&b, "t"));
        while (!open.empty()) {
            blobmsg_close_table(&b, open.back());
            open.pop_back();
        }
        blob_nest_end(&b, data);
        cases.push_back({"nesting a hundred levels deep", frame(UBUS_MSG_INVOKE, &b)});
        blob_buf_free(&b);
    }

    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Raw raw(broker.path());
        ASSERT_TRUE(raw.connected());
        raw.send(c.bytes);
        EXPECT_EQ(raw.answer(), "closed");
        expect_served(broker.path());
    }

    SCOPED_TRACE("the untouched frame is answered, and so is an unknown type");
    Raw raw(broker.path());
    raw.send(good);
    EXPECT_EQ(raw.answer(), "status");
    f = good;
    f[1] = 77;
    raw.send(f);
    EXPECT_EQ(raw.answer(), "status");
}

TEST(Ubusd, TruncatedFramesWaitWithoutBlockingOthers)
{
    BrokerProcess broker;
    const Bytes good = lookup_frame("some.path");
    {
        SCOPED_TRACE("half a frame, then nothing");
        Raw raw(broker.path());
        raw.send(Bytes(good.begin(), good.begin() + 10));
        expect_served(broker.path());
        SCOPED_TRACE("the rest arrives later: the frame is whole and answered");
        raw.send(Bytes(good.begin() + 10, good.end()));
        EXPECT_EQ(raw.answer(), "status");
    }
    {
        SCOPED_TRACE("a large frame announced but never sent, then the sender leaves");
        Raw raw(broker.path());
        Bytes f = good;
        put_be32(f, 8, 512 * 1024);
        raw.send(f);
        expect_served(broker.path());
    }
    expect_served(broker.path());
}
