// report_store.h - what the cloud stand-in keeps: received reports, their counts, and the
// fault orders that decide how the next reports are answered.
//
// The store knows nothing of HTTP: the server hands it each POST with the time it arrived and
// gets back how to answer, so the whole bookkeeping can be driven directly by tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>

namespace cloudsim {

// One received POST.
struct Record {
    uint64_t seq = 0;       // 1, 2, ... in arrival order; never reused, not even after clear()
    int64_t time_ms = 0;    // receive time, milliseconds since the epoch
    std::string path;
    std::string content_type;
    std::string body;
    bool json_ok = false;   // the whole body is one JSON value
    int status = 200;       // status answered; 0 when the connection was dropped unanswered
    std::string fault;      // "" or the fault applied: "status", "hang", "drop"
};

// How to treat the next `count` recorded POSTs. A hang comes first; then the connection is
// dropped, or `status` is answered.
// A hostile answer, written on the connection by hand: what a broken or malicious service
// (or a middle box) does to a client.
//   trickle          the status line, then one byte of header a second (60 s at most)
//   endless_headers  header lines as fast as the client takes them, never a blank line
//   huge_body        a 50 MB body
//   reset_mid_body   half a body, then a reset
//   redirect_loop    302 to the same path
extern const char *const kHostileKinds[];  // null-terminated

struct FaultOrder {
    int status = 200;
    int hang_ms = 0;
    bool drop = false;
    std::string hostile;    // one of kHostileKinds, or empty
    int count = 1;          // POSTs still to be treated so
};

// What the server does with one POST.
struct Answer {
    uint64_t seq = 0;
    int status = 200;
    int hang_ms = 0;
    bool drop = false;
    std::string hostile;
};

// Parses a fault order text: {"status":500,"count":3}, {"hang_ms":12000}, {"drop":true},
// {"hostile":"trickle"}, {"clear":true} (which may be combined with a new order). On success fills `order` (unless
// the text only clears) and `clear`, and returns true; otherwise `error` says what is wrong.
bool parse_fault_order(const std::string &text, bool &clear, bool &has_order,
                       FaultOrder &order, std::string &error);

// The first JSON value of a text and what follows it, as the store's outputs show bodies.
// Returns false when the text does not start with a JSON value.
bool parse_json_prefix(const std::string &text, std::string &trailing);

class ReportStore {
public:
    // Keeps at most `keep` records and about `keep_bytes` of bodies (the newest record is
    // always kept); counts cover every POST since the last clear().
    ReportStore(size_t keep, size_t keep_bytes) : keep_(keep), keep_bytes_(keep_bytes) {}

    // Records one POST, consuming one unit of the oldest fault order, and says how to answer.
    // `out` receives a copy of the record when not null.
    Answer receive(const std::string &path, const std::string &content_type,
                   const std::string &body, int64_t now_ms, Record *out = nullptr);

    // Forgets the kept records and the counts; sequence numbers go on.
    void clear();

    // Fault orders: queued oldest first; false with `error` when the queue is full.
    bool add_fault(const FaultOrder &order, std::string &error);
    void clear_faults();

    // JSON texts for the API. reports_json: array of the kept records, oldest first, with
    // seq > since and (if path is not empty) that path, at most the newest `limit` of them.
    std::string reports_json(const std::string &path, uint64_t since, size_t limit) const;
    std::string stats_json() const;
    std::string faults_json() const;
    // The kept records as one JSON line each ({"seq","time_ms","path","status","body"}).
    std::string record_lines() const;
    static std::string record_line(const Record &r);

    static constexpr size_t kMaxPendingOrders = 1000;

private:
    struct PathCount {
        uint64_t count = 0;
        uint64_t bytes = 0;
    };

    mutable std::mutex mutex_;  // guards everything below
    const size_t keep_;
    const size_t keep_bytes_;
    std::deque<Record> records_;
    size_t kept_bytes_ = 0;
    uint64_t next_seq_ = 1;
    uint64_t total_ = 0;
    uint64_t total_bytes_ = 0;
    std::map<std::string, PathCount> per_path_;
    std::deque<FaultOrder> faults_;
};

}  // namespace cloudsim
