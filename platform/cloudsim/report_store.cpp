// report_store.cpp - the cloud stand-in's record of received reports and its fault orders.

#include "report_store.h"

#include <json-c/json.h>

#include <cctype>
#include <cstring>
#include <memory>

namespace cloudsim {

namespace {

struct JsonPut {
    void operator()(json_object *o) const noexcept { json_object_put(o); }
};
using JsonPtr = std::unique_ptr<json_object, JsonPut>;

struct TokenerFree {
    void operator()(json_tokener *t) const noexcept { json_tokener_free(t); }
};
using TokenerPtr = std::unique_ptr<json_tokener, TokenerFree>;

constexpr int kMaxHangMs = 600000;
constexpr int kMaxCount = 1000000;
constexpr int kPrintFlags = JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE;

// Parses the JSON value at the start of text. Reports carry a fixed envelope that closes one
// brace more than it opens, so a value followed by other characters is still decoded; the
// rest goes to `trailing` (empty when only white space follows).
JsonPtr parse_prefix(const std::string &text, std::string &trailing)
{
    trailing.clear();
    TokenerPtr tok(json_tokener_new());
    if (!tok)
        return nullptr;
    JsonPtr value(json_tokener_parse_ex(tok.get(), text.data(), static_cast<int>(text.size())));
    if (json_tokener_get_error(tok.get()) != json_tokener_success)
        return nullptr;
    size_t end = json_tokener_get_parse_end(tok.get());
    if (end > text.size())
        end = text.size();
    size_t first = end;
    while (first < text.size() && std::isspace(static_cast<unsigned char>(text[first])))
        first++;
    if (first < text.size())
        trailing = text.substr(end);
    return value;
}

// json-c builds an object member by member; each call adopts the value it is given.
void add(json_object *obj, const char *key, json_object *value)
{
    json_object_object_add(obj, key, value);
}

std::string print(json_object *o)
{
    const char *s = json_object_to_json_string_ext(o, kPrintFlags);
    return s ? s : "null";
}

json_object *record_object(const Record &r)
{
    json_object *o = json_object_new_object();
    add(o, "seq", json_object_new_int64(static_cast<int64_t>(r.seq)));
    add(o, "time_ms", json_object_new_int64(r.time_ms));
    add(o, "path", json_object_new_string_len(r.path.data(), static_cast<int>(r.path.size())));
    add(o, "content_type", json_object_new_string(r.content_type.c_str()));
    add(o, "status", json_object_new_int(r.status));
    if (!r.fault.empty())
        add(o, "fault", json_object_new_string(r.fault.c_str()));
    add(o, "bytes", json_object_new_int64(static_cast<int64_t>(r.body.size())));
    add(o, "body", json_object_new_string_len(r.body.data(), static_cast<int>(r.body.size())));
    add(o, "json_ok", json_object_new_boolean(r.json_ok));
    std::string trailing;
    JsonPtr value = parse_prefix(r.body, trailing);
    if (value) {
        add(o, "json", value.release());
        if (!trailing.empty())
            add(o, "trailing", json_object_new_string(trailing.c_str()));
    }
    return o;
}

json_object *order_object(const FaultOrder &f)
{
    json_object *o = json_object_new_object();
    add(o, "status", json_object_new_int(f.status));
    add(o, "hang_ms", json_object_new_int(f.hang_ms));
    add(o, "drop", json_object_new_boolean(f.drop));
    if (!f.hostile.empty())
        add(o, "hostile", json_object_new_string(f.hostile.c_str()));
    add(o, "count", json_object_new_int(f.count));
    return o;
}

// Reads an integer member within [lo, hi]; false with a message otherwise.
bool int_member(json_object *v, const char *key, int lo, int hi, int &out, std::string &error)
{
    if (!json_object_is_type(v, json_type_int)) {
        error = std::string("\"") + key + "\" must be an integer";
        return false;
    }
    int64_t n = json_object_get_int64(v);
    if (n < lo || n > hi) {
        error = std::string("\"") + key + "\" must be between " + std::to_string(lo) +
                " and " + std::to_string(hi);
        return false;
    }
    out = static_cast<int>(n);
    return true;
}

bool bool_member(json_object *v, const char *key, bool &out, std::string &error)
{
    if (!json_object_is_type(v, json_type_boolean)) {
        error = std::string("\"") + key + "\" must be true or false";
        return false;
    }
    out = json_object_get_boolean(v);
    return true;
}

}  // namespace

const char *const kHostileKinds[] = {"trickle", "endless_headers", "huge_body", "reset_mid_body",
                                     "redirect_loop", nullptr};

bool parse_json_prefix(const std::string &text, std::string &trailing)
{
    return parse_prefix(text, trailing) != nullptr;
}

bool parse_fault_order(const std::string &text, bool &clear, bool &has_order,
                       FaultOrder &order, std::string &error)
{
    std::string trailing;
    JsonPtr root = parse_prefix(text, trailing);
    if (!root || !trailing.empty() || !json_object_is_type(root.get(), json_type_object)) {
        error = "a fault order is one JSON object";
        return false;
    }
    FaultOrder f;
    bool wants_clear = false;
    bool any = false;
    json_object_object_foreach(root.get(), key, value) {
        bool ok;
        if (std::strcmp(key, "status") == 0) {
            ok = int_member(value, key, 100, 599, f.status, error);
            any = true;
        } else if (std::strcmp(key, "hang_ms") == 0) {
            ok = int_member(value, key, 0, kMaxHangMs, f.hang_ms, error);
            any = true;
        } else if (std::strcmp(key, "drop") == 0) {
            ok = bool_member(value, key, f.drop, error);
            any = true;
        } else if (std::strcmp(key, "hostile") == 0) {
            ok = false;
            const char *kind = json_object_is_type(value, json_type_string)
                                   ? json_object_get_string(value)
                                   : "";
            for (const char *const *k = kHostileKinds; *k; k++)
                ok = ok || std::strcmp(kind, *k) == 0;
            if (ok)
                f.hostile = kind;
            else
                error = "\"hostile\" is one of trickle, endless_headers, huge_body, "
                        "reset_mid_body, redirect_loop";
            any = true;
        } else if (std::strcmp(key, "count") == 0) {
            ok = int_member(value, key, 1, kMaxCount, f.count, error);
        } else if (std::strcmp(key, "clear") == 0) {
            ok = bool_member(value, key, wants_clear, error);
        } else {
            error = std::string("unknown member \"") + key + "\"";
            ok = false;
        }
        if (!ok)
            return false;
    }
    if (!any && !wants_clear) {
        error = "a fault order needs \"status\", \"hang_ms\", \"drop\", \"hostile\" or "
                "\"clear\"";
        return false;
    }
    clear = wants_clear;
    has_order = any;
    if (any)
        order = f;
    return true;
}

Answer ReportStore::receive(const std::string &path, const std::string &content_type,
                            const std::string &body, int64_t now_ms, Record *out)
{
    Record r;
    r.time_ms = now_ms;
    r.path = path;
    r.content_type = content_type;
    r.body = body;
    std::string trailing;
    r.json_ok = parse_prefix(body, trailing) != nullptr && trailing.empty();

    std::lock_guard<std::mutex> hold(mutex_);
    Answer a;
    if (!faults_.empty()) {
        FaultOrder &f = faults_.front();
        a.status = f.status;
        a.hang_ms = f.hang_ms;
        a.drop = f.drop;
        a.hostile = f.hostile;
        if (--f.count == 0)
            faults_.pop_front();
    }
    r.status = a.drop ? 0 : a.status;
    r.fault = !a.hostile.empty() ? a.hostile
              : a.drop           ? "drop"
              : a.status != 200  ? "status"
              : a.hang_ms > 0    ? "hang"
                                 : "";
    r.seq = a.seq = next_seq_++;

    total_++;
    total_bytes_ += body.size();
    PathCount &pc = per_path_[path];
    pc.count++;
    pc.bytes += body.size();

    if (out)
        *out = r;
    kept_bytes_ += r.body.size();
    records_.push_back(std::move(r));
    while (records_.size() > 1 && (records_.size() > keep_ || kept_bytes_ > keep_bytes_)) {
        kept_bytes_ -= records_.front().body.size();
        records_.pop_front();
    }
    return a;
}

void ReportStore::clear()
{
    std::lock_guard<std::mutex> hold(mutex_);
    records_.clear();
    kept_bytes_ = 0;
    total_ = 0;
    total_bytes_ = 0;
    per_path_.clear();
}

bool ReportStore::add_fault(const FaultOrder &order, std::string &error)
{
    std::lock_guard<std::mutex> hold(mutex_);
    if (faults_.size() >= kMaxPendingOrders) {
        error = "too many pending fault orders (" + std::to_string(kMaxPendingOrders) + ")";
        return false;
    }
    faults_.push_back(order);
    return true;
}

void ReportStore::clear_faults()
{
    std::lock_guard<std::mutex> hold(mutex_);
    faults_.clear();
}

std::string ReportStore::reports_json(const std::string &path, uint64_t since,
                                      size_t limit) const
{
    JsonPtr arr(json_object_new_array());
    std::lock_guard<std::mutex> hold(mutex_);
    // Walk from the newest back, so that `limit` keeps the newest; then print oldest first.
    std::deque<const Record *> picked;
    for (auto it = records_.rbegin(); it != records_.rend() && picked.size() < limit; ++it) {
        if (it->seq <= since)
            break;
        if (path.empty() || it->path == path)
            picked.push_front(&*it);
    }
    for (const Record *r : picked)
        json_object_array_add(arr.get(), record_object(*r));
    return print(arr.get());
}

std::string ReportStore::stats_json() const
{
    JsonPtr o(json_object_new_object());
    std::lock_guard<std::mutex> hold(mutex_);
    add(o.get(), "total", json_object_new_int64(static_cast<int64_t>(total_)));
    add(o.get(), "bytes", json_object_new_int64(static_cast<int64_t>(total_bytes_)));
    add(o.get(), "kept", json_object_new_int64(static_cast<int64_t>(records_.size())));
    add(o.get(), "last_seq", json_object_new_int64(static_cast<int64_t>(next_seq_ - 1)));
    json_object *paths = json_object_new_object();
    for (const auto &p : per_path_) {
        json_object *c = json_object_new_object();
        add(c, "count", json_object_new_int64(static_cast<int64_t>(p.second.count)));
        add(c, "bytes", json_object_new_int64(static_cast<int64_t>(p.second.bytes)));
        add(paths, p.first.c_str(), c);
    }
    add(o.get(), "paths", paths);
    add(o.get(), "pending_faults", json_object_new_int64(static_cast<int64_t>(faults_.size())));
    return print(o.get());
}

std::string ReportStore::faults_json() const
{
    JsonPtr o(json_object_new_object());
    json_object *arr = json_object_new_array();
    std::lock_guard<std::mutex> hold(mutex_);
    for (const FaultOrder &f : faults_)
        json_object_array_add(arr, order_object(f));
    add(o.get(), "pending", arr);
    return print(o.get());
}

std::string ReportStore::record_line(const Record &r)
{
    JsonPtr o(json_object_new_object());
    add(o.get(), "seq", json_object_new_int64(static_cast<int64_t>(r.seq)));
    add(o.get(), "time_ms", json_object_new_int64(r.time_ms));
    add(o.get(), "path", json_object_new_string(r.path.c_str()));
    add(o.get(), "status", json_object_new_int(r.status));
    add(o.get(), "body",
        json_object_new_string_len(r.body.data(), static_cast<int>(r.body.size())));
    return print(o.get()) + "\n";
}

std::string ReportStore::record_lines() const
{
    std::string out;
    std::lock_guard<std::mutex> hold(mutex_);
    for (const Record &r : records_)
        out += record_line(r);
    return out;
}

}  // namespace cloudsim
