// event_msg.cpp - message-queue ingress: one receive loop per event list, keeping the backlog.

#include "event_msg.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "event_config.h"
#include "nms_ledger.h"
#include "nms_log.h"

std::atomic<int32_t> gNmsEventMsgId[8] = {{-1}, {-1}, {-1}, {-1}, {-1}, {-1}, {-1}, {-1}};
std::atomic<int32_t> event_stats_print_on{0};

namespace {

constexpr int kLists = 8;
// A queue that keeps failing (removed, no permission) is tried again after 1 ms, then after
// twice as long each time up to 1 s, and at once again after a success.
constexpr useconds_t kRetryUs = 1000;
constexpr useconds_t kRetryMaxUs = 1000 * 1000;
constexpr int kStatsEvery = 10000;
constexpr size_t kLongestText = 8192;  // msgmax of a default kernel

// Per list: the receive frame (owned by that list's loop) and the backlog seen at the last look.
nms_event_msg g_frame[kLists];
std::atomic<int32_t> g_backlog[kLists];
// Messages handed to the workers by all eight loops; only feeds the count print.
std::atomic<int32_t> g_dispatched{0};

bool list_valid(int list) { return list >= 0 && list < kLists; }

}  // namespace

extern "C" void set_event_stats_print_on(int32_t on) noexcept {
    event_stats_print_on.store(on, std::memory_order_relaxed);
}

extern "C" int32_t get_event_stats_print_on(void) noexcept {
    return event_stats_print_on.load(std::memory_order_relaxed);
}

namespace {

// A queue is the daemon's when its user both owns and created it and nobody else may use
// it. Anyone who owns or created a queue may read it, remove it or change its mode, so a
// key some other user took first would hand that user the list's events (and let them
// inject their own or cut the list off).
bool queue_is_ours(const msqid_ds &state) {
    const uid_t me = geteuid();
    return state.msg_perm.uid == me && state.msg_perm.cuid == me &&
           (state.msg_perm.mode & 077) == 0;
}

void say_not_ours(key_t key, int id, const msqid_ds &state) {
    NMS_LOG_ALWAYS("event queue key[%d] msgid[%d]: owner %u, creator %u, mode %03o is not the "
                   "daemon's own; removing it and creating it anew",
                   static_cast<int>(key), id, static_cast<unsigned>(state.msg_perm.uid),
                   static_cast<unsigned>(state.msg_perm.cuid),
                   static_cast<unsigned>(state.msg_perm.mode & 0777));
}

}  // namespace

extern "C" int init_nms_event_msg(int list) noexcept {
    if (!list_valid(list)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    key_t key = NMS_EVENT_MSG_KEY_BASE + list;
    NMS_LOG_DEBUG("init_nms_event_msg====begin");
    int probe = msgget(key, IPC_EXCL);
    if (probe >= 0) {
        NMS_LOG_DEBUG("error:{%s}", strerror(errno));
        NMS_LOG_DEBUG("@@@@@@key[%d], msgid[%d]@@@@@@", key, probe);
    }
    // A queue left by an earlier run of the daemon is adopted with the events in it; one
    // that somebody else made is removed first. It may be made again between the removal
    // and the create, so the created queue is checked too, a few times at most.
    for (int attempt = 0;; attempt++) {
        int id = msgget(key, IPC_CREAT);
        if (id < 0) {
            NMS_LOG_ERROR("msgget failed with error: %d\n", errno);
            return -1;
        }
        NMS_LOG_DEBUG("############key[%d], msgid[%d], error:{%s}################", key, id,
                      strerror(errno));
        msqid_ds state{};
        if (msgctl(id, IPC_STAT, &state) != 0) {
            NMS_LOG_ERROR("Get msgctl failed.[%d][%d]", id, errno);
            return -1;
        }
        if (!queue_is_ours(state)) {
            say_not_ours(key, id, state);
            if (msgctl(id, IPC_RMID, nullptr) != 0 || attempt == 2) {
                NMS_LOG_ALWAYS("event queue key[%d]: cannot take it back (%s); list %d takes "
                               "no events", static_cast<int>(key),
                               attempt == 2 ? "made again each time" : strerror(errno), list);
                return -1;
            }
            continue;
        }
        state.msg_qbytes = NMS_EVENT_MSG_QBYTES;
        if (msgctl(id, IPC_SET, &state) != 0) {
            NMS_LOG_ERROR("msgget failed with error: %d\n", errno);
            return -1;
        }
        gNmsEventMsgId[list].store(id, std::memory_order_relaxed);
        NMS_LOG_DEBUG("init_nms_event_msg====end l_client_msgid%d", id);
        return 0;
    }
}

namespace {

// The receive loop's queue id went away under it: the queue was removed. Made again,
// unless another thread has done so already.
void remake_queue(int list, int gone_id) {
    if (gNmsEventMsgId[list].load(std::memory_order_relaxed) != gone_id)
        return;
    if (gone_id >= 0)  // (-1: an earlier try failed and said why)
        NMS_LOG_ALWAYS("event queue of list %d (msgid[%d]) was removed; creating it again",
                       list, gone_id);
    gNmsEventMsgId[list].store(-1, std::memory_order_relaxed);
    init_nms_event_msg(list);
}

}  // namespace

extern "C" int recv_notify_nms_event(nms_event_msg_handler handler, nms_event_msg_ready ready,
                                     int list) noexcept {
    if (!list_valid(list)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    if (gNmsEventMsgId[list].load(std::memory_order_relaxed) == -1)
        init_nms_event_msg(list);
    NMS_LOG_DEBUG("recv_notify_nms_event");
    event_settings_loop_polls();
    nms_event_msg &frame = g_frame[list];
    int max_len = 0;
    useconds_t retry_us = kRetryUs;
    auto pause_after_failure = [&retry_us] {
        usleep(retry_us);
        retry_us = retry_us < kRetryMaxUs / 2 ? retry_us * 2 : kRetryMaxUs;
    };
    for (;;) {
        std::memset(&frame, 0, sizeof(frame));
        int id = gNmsEventMsgId[list].load(std::memory_order_relaxed);
        msqid_ds state{};
        if (msgctl(id, IPC_STAT, &state) != 0) {
            NMS_LOG_ERROR("Get msgctl failed.[%d][%d]", id, errno);
            // Removed (or never made): senders would find no queue under the key, or one
            // somebody else made. The list goes on with a queue of its own.
            if (errno == EIDRM || errno == EINVAL)
                remake_queue(list, id);
            pause_after_failure();
            continue;
        }
        int batch = state.msg_qnum > 0 ? static_cast<int>(state.msg_qnum) : 1;
        g_backlog[list].store(batch, std::memory_order_relaxed);
        NMS_LEDGER_HOT(nms_ledger::tick(list));
        // Every message of this round was sent before the count above: settings written
        // before any of them are known from here on.
        event_settings_look();
        const bool was_empty = state.msg_qnum == 0;
        while (ready && ready(list) == -1)
            usleep(kRetryUs);
        for (int index = 0; index < batch; index++) {
            NMS_LOG_DEBUG("index%d \r\n", index);
            // Blocks on an empty queue: an idle list costs no processor time.
            // At most 512 bytes of text; on targets with 4-byte message types the frame holds
            // 508, and a longer text (a sender built with an 8-byte type) is refused below
            // rather than written past the frame.
            ssize_t got = msgrcv(id, &frame, NMS_EVENT_MSG_TEXT_SIZE, 0, 0);
            if (got < 0 && errno == E2BIG) {
                // A sender broke the text limit. Left where it is, the message would sit
                // at the head of the queue and fail every later receive, so the list would
                // take no event again: take it off with truncation allowed and drop it.
                // Read into room for the kernel's largest default message, to name its size.
                struct {
                    long mtype;
                    char text[kLongestText];
                } big;
                ssize_t size = msgrcv(id, &big, sizeof(big.text), 0, MSG_NOERROR | IPC_NOWAIT);
                if (size >= 0) {
                    NMS_LOG_ERROR("###msgrcv failed:command too long:[%d]###",
                                  static_cast<int>(size));
                    nms_ledger::refused(list, NMS_REFUSED_TOO_LONG);
                    continue;
                }
            }
            if (got < 0) {
                NMS_LOG_ERROR("msgrcv failed.[%d]-[%d][%d][%d][%d][%d][%d][%d][%d]\r\n", errno,
                              E2BIG, EACCES, EAGAIN, EFAULT, EIDRM, EINTR, EINVAL, ENOMSG);
                // A queue that keeps failing (removed, no permission) must not cost a core.
                if (errno == EIDRM || errno == EINVAL)
                    remake_queue(list, id);
                pause_after_failure();
                continue;
            }
            retry_us = kRetryUs;
            // The frame as if zeroed before the receive: what the message did not fill is
            // cleared now (nothing at all for a full-length message).
            char *text_start = reinterpret_cast<char *>(&frame) + offsetof(nms_event_msg, id);
            std::memset(text_start + got, 0, NMS_EVENT_MSG_TEXT_SIZE - static_cast<size_t>(got));
            // Waited for on an empty queue: it was sent after the round's look.
            if (was_empty) {
                event_settings_look();
                NMS_LEDGER_HOT(nms_ledger::tick(list));
            }
            frame.params[sizeof(frame.params) - 1] = '\0';
            const char *text = text_start;
            int len = static_cast<int>(strlen(text));
            if (len > max_len) {
                max_len = len;
                NMS_LOG_DEBUG("@@MAX_LENGTH:[%d]{%s}@@", len, text);
            }
            if (len < static_cast<int>(NMS_EVENT_MSG_TEXT_SIZE)) {
                if (handler)
                    handler(&frame, list);
                int n = g_dispatched.fetch_add(1, std::memory_order_relaxed) + 1;
                if (event_stats_print_on.load(std::memory_order_relaxed) && n % kStatsEvery == 0) {
                    std::printf("recive %d events \r\n", n);
                    std::fflush(stdout);
                }
                NMS_LOG_DEBUG("send_notify_nms_event====%ld ", static_cast<long>(frame.mtype));
            } else {
                NMS_LOG_ERROR("###msgrcv failed:command too long:[%d]###", len);
                nms_ledger::refused(list, NMS_REFUSED_TOO_LONG);
            }
        }
    }
}

extern "C" void nms_event_msg_look(int list) noexcept {
    if (!list_valid(list))
        return;
    int id = gNmsEventMsgId[list].load(std::memory_order_relaxed);
    msqid_ds state{};
    if (id < 0 || msgctl(id, IPC_STAT, &state) != 0)
        return;
    g_backlog[list].store(state.msg_qnum > 0 ? static_cast<int32_t>(state.msg_qnum) : 1,
                          std::memory_order_relaxed);
}

extern "C" int is_msg_list_is_full(int list) noexcept {
    if (!list_valid(list)) {
        NMS_LOG_DEBUG("invalid params!!!");
        return -1;
    }
    return g_backlog[list].load(std::memory_order_relaxed) > NMS_EVENT_MSG_BACKLOG_FULL ? 0 : -1;
}
