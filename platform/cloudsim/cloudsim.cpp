// cloudsim.cpp - stand-in for the management service: records every report POSTed to it,
// fails on order, and shows what it received on a web page.
//
//   POST <any path outside /api/>   recorded; answered 200 {"errorCode":0} unless a fault order applies
//   GET  /api/reports[?path=P][&since=SEQ][&limit=N]   kept records, oldest first
//   DELETE /api/reports              forget records and counts
//   GET  /api/stats                  counts per path, bytes
//   GET|POST /api/faults             pending fault orders / add one ({"status":500,"count":3},
//                                    {"hang_ms":12000}, {"drop":true}, {"clear":true},
//                                    {"hostile":"trickle"|"endless_headers"|"huge_body"|
//                                    "reset_mid_body"|"redirect_loop"})
//   GET|POST /api/device             the device's link state as the cloud sees it: POST
//                                    {"status":"online"|"offline"} (devsim --tell); GET gives
//                                    it with the time it changed and the time of the last report
//   POST /api/device/metrics         the daemon's metrics as devsim --metrics relays them (its
//                                    `ubus call nms_report metrics`); the last 10 minutes are kept
//   GET  /api/device/metrics[?since=MS]  those samples, oldest first, per list [accepted, sent,
//                                    held]: {"now_ms":..,"samples":[{"t":MS,"online":B,"lists":[[a,s,h],..]}]}
//   GET  /                           the page
// The same record is also available as JSON lines at /_cloudsim/messages, and fault orders are
// taken at /_cloudsim/fault too.

#include "cloudsim_page.h"
#include "report_store.h"

#include <httplib.h>
#include <json-c/json.h>

#include <arpa/inet.h>

#include <atomic>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace {

constexpr const char *kJson = "application/json";

struct Options {
    std::string listen = "127.0.0.1";
    int port = 8480;
    size_t keep = 10000;
    size_t keep_bytes = size_t(256) << 20;
    std::string record;
    bool verbose = false;
};

struct FileClose {
    void operator()(FILE *f) const noexcept { std::fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileClose>;

// Lets held requests end early when the server shuts down.
class Stopper {
public:
    // Sleeps up to ms; returns early once stop() was called.
    void wait(int ms)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        cv_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return stopping_; });
    }
    void stop()
    {
        {
            std::lock_guard<std::mutex> hold(mutex_);
            stopping_ = true;
        }
        cv_.notify_all();
    }
    bool stopping()
    {
        std::lock_guard<std::mutex> hold(mutex_);
        return stopping_;
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool stopping_ = false;
};

int64_t now_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

void usage(FILE *to)
{
    std::fputs("Usage: cloudsim [--listen ADDR] [--port N] [--keep N] [--keep-bytes N]\n"
               "                [--record FILE] [-v]\n"
               "  --listen ADDR    address to listen on (default 127.0.0.1, or $CLOUDSIM_LISTEN)\n"
               "  --port N         port (default 8480, or $CLOUDSIM_PORT)\n"
               "  --keep N         reports kept for /api/reports (default 10000)\n"
               "  --keep-bytes N   body bytes kept at most (default 268435456)\n"
               "  --record FILE    also append every report to FILE as one JSON line\n"
               "  -v               print one line per received report (or $CLOUDSIM_VERBOSE=1)\n",
               to);
}

// Whole decimal number within [lo, hi].
bool parse_number(const char *s, unsigned long long lo, unsigned long long hi,
                  unsigned long long &out)
{
    if (!s || !*s)
        return false;
    for (const char *p = s; *p; p++)
        if (*p < '0' || *p > '9')
            return false;
    errno = 0;
    char *end = nullptr;
    unsigned long long v = std::strtoull(s, &end, 10);
    if (errno != 0 || *end != '\0' || v < lo || v > hi)
        return false;
    out = v;
    return true;
}

bool parse_options(int argc, char **argv, Options &o)
{
    if (const char *e = std::getenv("CLOUDSIM_LISTEN"); e && *e)
        o.listen = e;
    if (const char *e = std::getenv("CLOUDSIM_VERBOSE"); e && *e && std::strcmp(e, "0") != 0)
        o.verbose = true;
    unsigned long long n;
    if (const char *e = std::getenv("CLOUDSIM_PORT"); e && *e) {
        if (!parse_number(e, 1, 65535, n)) {
            std::fprintf(stderr, "cloudsim: CLOUDSIM_PORT '%s' is not a port number\n", e);
            return false;
        }
        o.port = static_cast<int>(n);
    }
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        const char *v = i + 1 < argc ? argv[i + 1] : nullptr;
        auto need = [&](const char *what) {
            if (!v)
                std::fprintf(stderr, "cloudsim: %s needs %s\n", a.c_str(), what);
            return v != nullptr;
        };
        if (a == "-v" || a == "--verbose") {
            o.verbose = true;
        } else if (a == "-h" || a == "--help") {
            usage(stdout);
            std::exit(0);
        } else if (a == "--listen") {
            if (!need("an address"))
                return false;
            o.listen = v;
            i++;
        } else if (a == "--port") {
            if (!need("a number") || !parse_number(v, 1, 65535, n)) {
                if (v)
                    std::fprintf(stderr, "cloudsim: --port '%s' is not a port number\n", v);
                return false;
            }
            o.port = static_cast<int>(n);
            i++;
        } else if (a == "--keep" || a == "--keep-bytes") {
            if (!need("a number") || !parse_number(v, 1, 1ull << 40, n)) {
                if (v)
                    std::fprintf(stderr, "cloudsim: %s '%s' is not a positive number\n",
                                 a.c_str(), v);
                return false;
            }
            (a == "--keep" ? o.keep : o.keep_bytes) = static_cast<size_t>(n);
            i++;
        } else if (a == "--record") {
            if (!need("a file name"))
                return false;
            o.record = v;
            i++;
        } else {
            std::fprintf(stderr, "cloudsim: unknown argument '%s'\n", a.c_str());
            usage(stderr);
            return false;
        }
    }
    return true;
}

// cpp-httplib gives a handler no access to its connection. To answer "nothing at all", or
// to answer by hand, find the socket whose peer is this request's client. The handler's own
// connection stays open (and its descriptor unreused) while the handler runs. -1 if not found.
int connection_of(const httplib::Request &req, int port)
{
    DIR *dir = opendir("/proc/self/fd");
    if (!dir)
        return -1;
    int found = -1;
    while (dirent *d = readdir(dir)) {
        int fd = std::atoi(d->d_name);
        if (fd <= 2 || fd == dirfd(dir))
            continue;
        struct stat st;
        if (fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode))
            continue;
        sockaddr_storage local{}, peer{};
        socklen_t ll = sizeof local, pl = sizeof peer;
        if (getsockname(fd, reinterpret_cast<sockaddr *>(&local), &ll) != 0 ||
            getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &pl) != 0)
            continue;
        char host[INET6_ADDRSTRLEN] = "";
        int lport = 0, pport = 0;
        if (peer.ss_family == AF_INET) {
            auto *p = reinterpret_cast<sockaddr_in *>(&peer);
            inet_ntop(AF_INET, &p->sin_addr, host, sizeof host);
            pport = ntohs(p->sin_port);
            lport = ntohs(reinterpret_cast<sockaddr_in *>(&local)->sin_port);
        } else if (peer.ss_family == AF_INET6) {
            auto *p = reinterpret_cast<sockaddr_in6 *>(&peer);
            inet_ntop(AF_INET6, &p->sin6_addr, host, sizeof host);
            pport = ntohs(p->sin6_port);
            lport = ntohs(reinterpret_cast<sockaddr_in6 *>(&local)->sin6_port);
        }
        if (lport == port && pport == req.remote_port && req.remote_addr == host) {
            found = fd;
            break;
        }
    }
    closedir(dir);
    return found;
}

// Ends the connection with a reset: the server's own reply then fails, and the client sees
// the connection go without (the rest of) a response.
void reset_connection(int fd)
{
    linger lg{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    shutdown(fd, SHUT_RDWR);
}

void drop_connection(const httplib::Request &req, int port)
{
    int fd = connection_of(req, port);
    if (fd >= 0)
        reset_connection(fd);
}

// Writes text on fd while the client takes it; false once it went away, stopped reading for
// 5 s, or the server is stopping.
bool put_raw(int fd, const std::string &text, Stopper &stopper)
{
    size_t done = 0;
    while (done < text.size()) {
        if (stopper.stopping())
            return false;
        ssize_t n = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
            pollfd p = {fd, POLLOUT, 0};
            if (poll(&p, 1, 5000) <= 0)
                return false;
            continue;
        }
        return false;
    }
    return true;
}

// The hostile answers written by hand (see report_store.h); the connection is reset after.
void answer_hostile(const std::string &kind, int fd, Stopper &stopper)
{
    const std::string chunk(4096, 'x');
    if (kind == "trickle") {
        put_raw(fd, "HTTP/1.1 200 OK\r\n", stopper);
        for (int i = 0; i < 60 && put_raw(fd, "X", stopper); i++)
            stopper.wait(1000);
    } else if (kind == "endless_headers") {
        put_raw(fd, "HTTP/1.1 200 OK\r\n", stopper);
        while (put_raw(fd, "X-Pad: " + chunk + "\r\n", stopper)) {
        }
    } else if (kind == "huge_body") {
        const size_t total = 50u << 20;
        put_raw(fd, "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                        std::to_string(total) + "\r\n\r\n",
                stopper);
        for (size_t n = 0; n < total && put_raw(fd, chunk, stopper); n += chunk.size()) {
        }
    } else if (kind == "reset_mid_body") {
        put_raw(fd, "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: "
                    "1000\r\n\r\n{\"errorCode\":0,\"pad\":\"" + chunk.substr(0, 200),
                stopper);
        stopper.wait(100);
    }
    reset_connection(fd);
}

class CloudSim {
public:
    explicit CloudSim(const Options &o) : opt_(o), store_(o.keep, o.keep_bytes) {}

    bool open_record()
    {
        if (opt_.record.empty())
            return true;
        record_.reset(std::fopen(opt_.record.c_str(), "ae"));
        if (!record_) {
            std::fprintf(stderr, "cloudsim: cannot open record file %s: %s\n",
                         opt_.record.c_str(), std::strerror(errno));
            return false;
        }
        return true;
    }

    void routes(httplib::Server &svr)
    {
        svr.Get("/", [](const httplib::Request &, httplib::Response &res) {
            res.set_content(cloudsim::kPage, "text/html; charset=utf-8");
        });
        svr.Get("/api/reports", [this](const httplib::Request &q, httplib::Response &r) {
            get_reports(q, r);
        });
        svr.Delete("/api/reports", [this](const httplib::Request &, httplib::Response &r) {
            store_.clear();
            r.set_content("{\"code\":0}", kJson);
        });
        svr.Get("/api/stats", [this](const httplib::Request &, httplib::Response &r) {
            r.set_content(store_.stats_json(), kJson);
        });
        auto get_faults = [this](const httplib::Request &, httplib::Response &r) {
            r.set_content(store_.faults_json(), kJson);
        };
        auto post_faults = [this](const httplib::Request &q, httplib::Response &r) {
            post_fault(q, r);
        };
        svr.Get("/api/faults", get_faults);
        svr.Post("/api/faults", post_faults);
        svr.Get("/_cloudsim/fault", get_faults);
        svr.Post("/_cloudsim/fault", post_faults);
        svr.Get("/api/device", [this](const httplib::Request &, httplib::Response &r) {
            std::lock_guard<std::mutex> hold(device_mutex_);
            r.set_content("{\"status\":\"" + device_status_ + "\",\"since_ms\":" +
                              std::to_string(device_since_ms_) + ",\"last_report_ms\":" +
                              std::to_string(last_report_ms_.load()) +
                              ",\"now_ms\":" + std::to_string(now_ms()) + "}",
                          kJson);
        });
        svr.Post("/api/device", [this](const httplib::Request &q, httplib::Response &r) {
            std::string status;
            json_object *body = json_tokener_parse(q.body.c_str());
            json_object *member = nullptr;
            if (json_object_object_get_ex(body, "status", &member) &&
                json_object_is_type(member, json_type_string))
                status = json_object_get_string(member);
            json_object_put(body);
            if (status != "online" && status != "offline")
                return bad_request(r, "give {\"status\":\"online\"} or {\"status\":\"offline\"}");
            std::lock_guard<std::mutex> hold(device_mutex_);
            if (status != device_status_) {
                device_status_ = status;
                device_since_ms_ = now_ms();
            }
            r.set_content("{\"code\":0}", kJson);
        });
        svr.Post("/api/device/metrics", [this](const httplib::Request &q, httplib::Response &r) {
            std::string sample;
            if (!metrics_sample(q.body, &sample))
                return bad_request(r, "give the JSON of ubus call nms_report metrics");
            std::lock_guard<std::mutex> hold(metrics_mutex_);
            metrics_.emplace_back(now_ms(), sample);
            if (metrics_.size() > kMetricsKept)
                metrics_.pop_front();
            r.set_content("{\"code\":0}", kJson);
        });
        svr.Get("/api/device/metrics", [this](const httplib::Request &q, httplib::Response &r) {
            unsigned long long since = 0;
            if (q.has_param("since") &&
                !parse_number(q.get_param_value("since").c_str(), 0, ~0ull, since))
                return bad_request(r, "since must be a time in milliseconds");
            std::string out = "{\"now_ms\":" + std::to_string(now_ms()) + ",\"samples\":[";
            std::lock_guard<std::mutex> hold(metrics_mutex_);
            bool first = true;
            for (const auto &m : metrics_) {
                if (static_cast<unsigned long long>(m.first) <= since)
                    continue;
                out += (first ? "" : ",") + m.second;
                first = false;
            }
            r.set_content(out + "]}", kJson);
        });
        svr.Get("/_cloudsim/messages", [this](const httplib::Request &, httplib::Response &r) {
            r.set_content(store_.record_lines(), "application/x-ndjson");
        });
        svr.Post(".*", [this](const httplib::Request &q, httplib::Response &r) {
            report(q, r);
        });
        svr.Get(".*", [](const httplib::Request &, httplib::Response &r) { not_found(r); });
    }

    void stop() { stopper_.stop(); }

private:
    static void not_found(httplib::Response &r)
    {
        r.status = 404;
        r.set_content("{\"error\":\"not found\"}", kJson);
    }
    // The compact sample of one metrics text: its time, the cloud link, and per list the
    // events accepted and sent so far and held now. False when the text is not metrics.
    static bool metrics_sample(const std::string &body, std::string *out)
    {
        json_object *m = json_tokener_parse(body.c_str());
        json_object *lists = nullptr;
        if (!m || !json_object_object_get_ex(m, "lists", &lists) ||
            !json_object_is_type(lists, json_type_array)) {
            json_object_put(m);
            return false;
        }
        json_object *online = nullptr;
        json_object_object_get_ex(m, "cloud_online", &online);
        std::string s = "{\"t\":" + std::to_string(now_ms()) + ",\"online\":" +
                        (json_object_get_boolean(online) ? "true" : "false") + ",\"lists\":[";
        for (size_t i = 0; i < json_object_array_length(lists); i++) {
            json_object *l = json_object_array_get_idx(lists, i);
            s += i ? ",[" : "[";
            const char *names[] = {"accepted", "sent", "in_list"};
            for (size_t k = 0; k < 3; k++) {
                json_object *v = nullptr;
                json_object_object_get_ex(l, names[k], &v);
                s += (k ? "," : "") + std::to_string(json_object_get_int64(v));
            }
            s += "]";
        }
        json_object_put(m);
        *out = s + "]}";
        return true;
    }

    static void bad_request(httplib::Response &r, const std::string &why)
    {
        std::string text = "{\"error\":\"";
        for (char c : why) {  // our messages quote member names, which come from the client
            if (static_cast<unsigned char>(c) < 0x20) {
                char u[8];
                std::snprintf(u, sizeof u, "\\u%04x", c);
                text += u;
                continue;
            }
            if (c == '"' || c == '\\')
                text += '\\';
            text += c;
        }
        r.status = 400;
        r.set_content(text + "\"}", kJson);
    }

    void get_reports(const httplib::Request &q, httplib::Response &r)
    {
        unsigned long long since = 0, limit = ~0ull;
        if (q.has_param("since") &&
            !parse_number(q.get_param_value("since").c_str(), 0, ~0ull, since))
            return bad_request(r, "since must be a sequence number");
        if (q.has_param("limit") &&
            !parse_number(q.get_param_value("limit").c_str(), 1, ~0ull, limit))
            return bad_request(r, "limit must be a positive number");
        std::string path = q.has_param("path") ? q.get_param_value("path") : "";
        r.set_content(store_.reports_json(path, since, static_cast<size_t>(limit)), kJson);
    }

    void post_fault(const httplib::Request &q, httplib::Response &r)
    {
        bool clear = false, has_order = false;
        cloudsim::FaultOrder order;
        std::string error;
        if (!cloudsim::parse_fault_order(q.body, clear, has_order, order, error))
            return bad_request(r, error);
        if (clear)
            store_.clear_faults();
        if (has_order && !store_.add_fault(order, error))
            return bad_request(r, error);
        r.set_content(store_.faults_json(), kJson);
    }

    void report(const httplib::Request &q, httplib::Response &r)
    {
        if (q.path.compare(0, 5, "/api/") == 0 || q.path.compare(0, 10, "/_cloudsim/") == 0)
            return not_found(r);
        cloudsim::Record rec;
        cloudsim::Answer a = store_.receive(q.path, q.get_header_value("Content-Type"), q.body,
                                            now_ms(), &rec);
        last_report_ms_.store(rec.time_ms);
        if (record_) {
            std::string line = cloudsim::ReportStore::record_line(rec);
            std::lock_guard<std::mutex> hold(record_mutex_);
            std::fwrite(line.data(), 1, line.size(), record_.get());
            std::fflush(record_.get());
        }
        if (opt_.verbose) {
            std::string outcome = a.drop ? "dropped" : std::to_string(a.status);
            std::printf("cloudsim: #%llu %s %zu bytes%s -> %s%s\n",
                        static_cast<unsigned long long>(rec.seq), rec.path.c_str(),
                        rec.body.size(), rec.json_ok ? "" : " (not plain JSON)",
                        a.hang_ms ? "held, then " : "", outcome.c_str());
            std::fflush(stdout);
        }
        if (a.hang_ms > 0)
            stopper_.wait(a.hang_ms);
        if (a.hostile == "redirect_loop") {
            r.status = 302;
            r.set_header("Location", q.path);
            return;
        }
        if (!a.hostile.empty()) {
            int fd = connection_of(q, opt_.port);
            if (fd >= 0)
                answer_hostile(a.hostile, fd, stopper_);
            r.status = 500;  // never reaches the client: its connection is gone
            return;
        }
        if (a.drop) {
            drop_connection(q, opt_.port);
            r.status = 500;  // never reaches the client: its connection is gone
            return;
        }
        r.status = a.status;
        if (a.status == 200)
            r.set_content("{\"errorCode\":0}", kJson);
        else
            r.set_content("{\"errorCode\":" + std::to_string(a.status) +
                              ",\"message\":\"fault order\"}",
                          kJson);
    }

    const Options opt_;
    cloudsim::ReportStore store_;
    Stopper stopper_;
    FilePtr record_;
    std::mutex record_mutex_;  // one line at a time into the record file
    std::mutex device_mutex_;
    std::string device_status_ = "unknown";  // until devsim tells
    int64_t device_since_ms_ = 0;
    std::atomic<int64_t> last_report_ms_{0};
    // Metrics samples of the device, as compact JSON texts, and their times (under the lock).
    static constexpr size_t kMetricsKept = 600;
    std::mutex metrics_mutex_;
    std::deque<std::pair<int64_t, std::string>> metrics_;
};

}  // namespace

int main(int argc, char **argv)
{
    Options opt;
    if (!parse_options(argc, argv, opt))
        return 2;

    // Block the stop signals before any server thread exists; one thread waits for them.
    sigset_t stopset;
    sigemptyset(&stopset);
    sigaddset(&stopset, SIGINT);
    sigaddset(&stopset, SIGTERM);
    sigaddset(&stopset, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stopset, nullptr);
    signal(SIGPIPE, SIG_IGN);

    CloudSim sim(opt);
    if (!sim.open_record())
        return 1;
    httplib::Server svr;
    svr.set_payload_max_length(size_t(16) << 20);
    // Address reuse for quick restarts, but not port sharing: a second stand-in on the same
    // port must fail instead of silently splitting the reports with the first.
    svr.set_socket_options([](int sock) {
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    sim.routes(svr);
    if (!svr.bind_to_port(opt.listen.c_str(), opt.port)) {
        std::fprintf(stderr, "cloudsim: cannot listen on %s:%d\n", opt.listen.c_str(), opt.port);
        return 1;
    }
    std::printf("cloudsim: listening on http://%s:%d/\n", opt.listen.c_str(), opt.port);
    std::fflush(stdout);

    std::thread waiter([&] {
        int sig = 0;
        sigwait(&stopset, &sig);
        sim.stop();
        svr.stop();
    });
    svr.listen_after_bind();
    sim.stop();
    // If the server ended by itself, the waiter still waits: wake it.
    pthread_kill(waiter.native_handle(), SIGTERM);
    waiter.join();
    return 0;
}
