// info_report.cpp - host implementation of the reporting library: each message is an HTTP POST.
//
// The base URL is found on every send (environment, then UCI, then a loopback default), so a
// test or the sandbox can point the library at its stand-in without restarting anything.
// The POST goes through libcurl, or through the small socket client of http_post.cpp where
// the target has no libcurl (NMS_INFO_REPORT_SOCKET: the OpenWrt targets' sysroots, which need
// no TLS to reach the cloud stand-in). Either way a send is bounded whatever the server does:
// 3 s to connect, 10 s in all, 16 KiB of headers and 64 KiB of body read at most.

#include "info_report.h"

#ifdef NMS_INFO_REPORT_SOCKET
#include "http_post.h"
#else
#include <curl/curl.h>
#endif

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

extern "C" {
#include <uci.h>
}

namespace {

constexpr const char *kUrlEnv = "INFO_REPORT_URL";
constexpr const char *kDefaultBaseUrl = "http://127.0.0.1:8480";
constexpr char kUciLookup[] = "info_report.cloud.url";
constexpr long kConnectTimeoutMs = 3000;
constexpr long kTotalTimeoutMs = 10000;
constexpr int kFirstBackoffMs = 200;
// What is read of an answer at most: only its status matters.
constexpr size_t kMaxHeaderBytes = 16384;
constexpr size_t kMaxBodyBytes = 65536;

// Printing of requests and outcomes; shared by every caller thread without a lock.
std::atomic<int> g_debug_on{0};

struct UciFree {
    void operator()(uci_context *c) const noexcept { uci_free_context(c); }
};
using UciPtr = std::unique_ptr<uci_context, UciFree>;

#ifndef NMS_INFO_REPORT_SOCKET
std::once_flag g_curl_once;

struct CurlFree {
    void operator()(CURL *c) const noexcept { curl_easy_cleanup(c); }
};
struct SlistFree {
    void operator()(curl_slist *l) const noexcept { curl_slist_free_all(l); }
};
using CurlPtr = std::unique_ptr<CURL, CurlFree>;
using SlistPtr = std::unique_ptr<curl_slist, SlistFree>;

void curl_global_once() {
    std::call_once(g_curl_once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}
#endif

// The option info_report.cloud.url of the default configuration directory, or "".
std::string uci_base_url() {
    UciPtr ctx(uci_alloc_context());
    if (!ctx)
        return {};
    char lookup[sizeof(kUciLookup)];
    std::memcpy(lookup, kUciLookup, sizeof(kUciLookup));
    uci_ptr ptr{};
    if (uci_lookup_ptr(ctx.get(), &ptr, lookup, false) != UCI_OK)
        return {};
    if (!(ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE) || !ptr.o || ptr.o->type != UCI_TYPE_STRING ||
        !ptr.o->v.string)
        return {};
    return ptr.o->v.string;
}

std::string base_url() {
    const char *env = std::getenv(kUrlEnv);
    if (env && *env)
        return env;
    std::string uci = uci_base_url();
    if (!uci.empty())
        return uci;
    return kDefaultBaseUrl;
}

std::string join_url(std::string base, const char *path) {
    if (!base.empty() && base.back() == '/' && path[0] == '/')
        base.pop_back();
    return base + path;
}

#ifdef NMS_INFO_REPORT_SOCKET
// One POST. Returns the HTTP status, or -1 with the reason in err when no response came back.
long post_once(const std::string &url, const char *content, std::string &err) {
    info_report::PostLimits limits;
    limits.connect_ms = kConnectTimeoutMs;
    limits.total_ms = kTotalTimeoutMs;
    limits.max_header_bytes = kMaxHeaderBytes;
    return info_report::http_post(url, content, limits, &err);
}

void curl_global_once() {}
#else
// How much of the answer came, so that a server sending without end is cut off.
struct Received {
    size_t header_bytes = 0;
    size_t body_bytes = 0;
    bool cut = false;  // the body was cut off here, after the status had come
};

size_t count_header(char *, size_t size, size_t nmemb, void *arg) {
    auto *r = static_cast<Received *>(arg);
    r->header_bytes += size * nmemb;
    return r->header_bytes > kMaxHeaderBytes ? 0 : size * nmemb;  // 0 ends the transfer
}

// The management service's answer body is of no interest to the caller.
size_t discard_body(char *, size_t size, size_t nmemb, void *arg) {
    auto *r = static_cast<Received *>(arg);
    r->body_bytes += size * nmemb;
    if (r->body_bytes > kMaxBodyBytes) {
        r->cut = true;
        return 0;
    }
    return size * nmemb;
}

// One POST. Returns the HTTP status, or -1 with the reason in err when no response came back.
long post_once(const std::string &url, const char *content, std::string &err) {
    CurlPtr curl(curl_easy_init());
    if (!curl) {
        err = "curl_easy_init failed";
        return -1;
    }
    SlistPtr headers(curl_slist_append(nullptr, "Content-Type: application/json"));
    if (!headers) {
        err = "out of memory";
        return -1;
    }
    Received received;
    CURL *c = curl.get();
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    curl_easy_setopt(c, CURLOPT_POST, 1L);
    curl_easy_setopt(c, CURLOPT_POSTFIELDS, content);
    curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE, static_cast<long>(std::strlen(content)));
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, kConnectTimeoutMs);
    curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, kTotalTimeoutMs);
    // Many threads send at once; curl must not use signals for its time-outs.
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    // The management service is reached directly, never through a proxy of the environment.
    curl_easy_setopt(c, CURLOPT_PROXY, "");
    curl_easy_setopt(c, CURLOPT_HEADERFUNCTION, count_header);
    curl_easy_setopt(c, CURLOPT_HEADERDATA, &received);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, discard_body);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &received);
    CURLcode rc = curl_easy_perform(c);
    if (rc != CURLE_OK && !(rc == CURLE_WRITE_ERROR && received.cut)) {
        err = received.header_bytes > kMaxHeaderBytes
                  ? "response headers longer than " + std::to_string(kMaxHeaderBytes) + " bytes"
                  : curl_easy_strerror(rc);
        return -1;
    }
    long status = 0;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
    return status;
}
#endif

int send_one(const short_link_request *request, int *result) {
    curl_global_once();
    const std::string url = join_url(base_url(), request->url);
    const bool debug = g_debug_on.load(std::memory_order_relaxed) != 0;
    if (debug) {
        std::printf("[INFO_REPORT] POST %s %s\n", url.c_str(), request->content);
        std::fflush(stdout);
    }
    std::string err;
    long status = post_once(url, request->content, err);
    if (status < 0) {
        *result = -1;
        if (debug) {
            std::printf("[INFO_REPORT] POST %s: no response (%s)\n", url.c_str(), err.c_str());
            std::fflush(stdout);
        }
        return -1;
    }
    *result = (status >= 200 && status < 300) ? 0 : static_cast<int>(status);
    if (debug) {
        std::printf("[INFO_REPORT] POST %s: status %ld, result %d\n", url.c_str(), status, *result);
        std::fflush(stdout);
    }
    return 0;
}

bool request_valid(const short_link_request *request, const int *result) {
    return request && result && request->url && request->content;
}

}  // namespace

extern "C" int init_info_report2(int, void *) noexcept {
    curl_global_once();
    return 0;
}

extern "C" int sendto_business_by_short_link(short_link_request *request, int *result) noexcept {
    if (!request_valid(request, result)) {
        if (result)
            *result = -1;
        return -1;
    }
    try {
        return send_one(request, result);
    } catch (...) {  // out of memory building a URL: no response either
        *result = -1;
        return -1;
    }
}

extern "C" int sendto_business_by_short_link_retran(short_link_request *request, int *result,
                                                    uint32_t retries) noexcept {
    int ret = sendto_business_by_short_link(request, result);
    if (!request_valid(request, result))
        return ret;
    int backoff_ms = kFirstBackoffMs;
    for (uint32_t i = 0; i < retries && (ret != 0 || *result != 0); i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(backoff_ms));
        if (backoff_ms < (1 << 20))
            backoff_ms *= 2;
        ret = sendto_business_by_short_link(request, result);
    }
    return ret;
}

extern "C" void sec_request_debug_switch_set(int on) noexcept {
    g_debug_on.store(on ? 1 : 0, std::memory_order_relaxed);
}
