// event_msg_test.cpp - the event frame as the kernel carries it on this target: the message type
// is a C long, the fields follow at their natural alignment in the target's byte order, and a
// whole frame is what one receive takes.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "event_msg.h"

namespace {

// The bytes of v as this target stores them, built from the value without memcpy.
template <typename T>
std::vector<uint8_t> native_bytes(T v) {
    std::vector<uint8_t> b(sizeof(T));
    for (size_t i = 0; i < sizeof(T); i++) {
        size_t shift = 8 * i;
        uint8_t byte = static_cast<uint8_t>(static_cast<uint64_t>(v) >> shift);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
        b[sizeof(T) - 1 - i] = byte;
#else
        b[i] = byte;
#endif
    }
    return b;
}

struct PrivateQueue {
    int id = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
    ~PrivateQueue() {
        if (id >= 0)
            msgctl(id, IPC_RMID, nullptr);
    }
};

}  // namespace

TEST(EventFrame, TravelsThroughAQueueInTheTargetsLayoutAndByteOrder) {
    if (sizeof(long) == 8) {
        EXPECT_EQ(sizeof(nms_event_msg), 520u);
        EXPECT_EQ(NMS_EVENT_MSG_TEXT_SIZE, 512u);
    } else {
        EXPECT_EQ(sizeof(nms_event_msg), 512u);
        EXPECT_EQ(NMS_EVENT_MSG_TEXT_SIZE, 508u);
    }
    PrivateQueue q;
    ASSERT_GE(q.id, 0);
    nms_event_msg out{};
    out.mtype = 3;
    out.id = 0x01020304;
    out.time = 0x1122334455667788ull;
    std::strcpy(out.params, "{\"k\":\"v\"}");
    ASSERT_EQ(msgsnd(q.id, &out, NMS_EVENT_MSG_TEXT_SIZE, IPC_NOWAIT), 0);

    struct {
        long mtype;
        uint8_t text[NMS_EVENT_MSG_TEXT_MAX];
    } raw{};
    ssize_t got = msgrcv(q.id, &raw, sizeof(raw.text), 0, IPC_NOWAIT);
    ASSERT_EQ(got, static_cast<ssize_t>(NMS_EVENT_MSG_TEXT_SIZE));
    EXPECT_EQ(raw.mtype, 3);
    auto at = [&](size_t frame_offset, size_t n) {
        const uint8_t *p = raw.text + frame_offset - sizeof(long);
        return std::vector<uint8_t>(p, p + n);
    };
    EXPECT_EQ(at(offsetof(nms_event_msg, id), 4), native_bytes<int32_t>(0x01020304));
    EXPECT_EQ(at(offsetof(nms_event_msg, time), 8), native_bytes<uint64_t>(0x1122334455667788ull));
    EXPECT_EQ(std::memcmp(raw.text + offsetof(nms_event_msg, params) - sizeof(long), "{\"k\":\"v\"}", 10),
              0);
    // The padding a zeroed frame carries stays zero on the wire.
    for (size_t i = offsetof(nms_event_msg, id) + 4; i < offsetof(nms_event_msg, time); i++)
        EXPECT_EQ(raw.text[i - sizeof(long)], 0) << i;

    // A receive of one frame takes a whole frame and refuses a longer text (as a sender with
    // an 8-byte message type would send on a target with 4-byte ones) rather than write past it.
    std::vector<uint8_t> longer(sizeof(long) + NMS_EVENT_MSG_TEXT_SIZE + 4, 'x');
    long type = 1;
    std::memcpy(longer.data(), &type, sizeof(type));
    ASSERT_EQ(msgsnd(q.id, longer.data(), NMS_EVENT_MSG_TEXT_SIZE + 4, IPC_NOWAIT), 0);
    nms_event_msg in{};
    EXPECT_EQ(msgrcv(q.id, &in, NMS_EVENT_MSG_TEXT_SIZE, 0, IPC_NOWAIT), -1);
    EXPECT_EQ(errno, E2BIG);
}
