// layout_test.cpp - every libubox, libubus and libuci structure the daemon and
// nms_event_send declare, embed, allocate or read fields of has the device library's
// size, alignment and field offsets on this target.
//
// The programs are compiled against the declarations in platform/ and linked, on a device,
// against the device's own libraries: a field at another offset is memory corruption there,
// and nothing else here would notice. The figures below were taken by compiling a probe of
// these same names against the upstream headers with each target's toolchain (libubox
// 2024-03-29 and 2026-02-13, ubus 2025-01-02 and 2025-12-02, uci 2025-01-20 and 2025-12-02:
// the libraries of OpenWrt 24.10 and 25.12, whose layouts are the same). Structures the
// libraries allocate (ubus_context) are pinned up to their last public field only.
#include <libubox/avl.h>
#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>
#include <libubus.h>
#include <uci.h>
#include <gtest/gtest.h>
#include <cstddef>
#include <cstring>
#include <map>
#include <string>

namespace {

#define NMS_LAYOUT_LIST(S, A, F) \
  S(list_head) F(list_head, next) F(list_head, prev) \
  S(avl_node) S(avl_tree) \
  S(blob_attr) F(blob_attr, id_len) F(blob_attr, data) \
  S(blob_buf) F(blob_buf, head) F(blob_buf, grow) F(blob_buf, buflen) F(blob_buf, buf) \
  S(blobmsg_policy) F(blobmsg_policy, name) F(blobmsg_policy, type) \
  S(uloop_fd) F(uloop_fd, cb) F(uloop_fd, fd) F(uloop_fd, eof) F(uloop_fd, error) \
    F(uloop_fd, registered) F(uloop_fd, flags) \
  S(uloop_timeout) F(uloop_timeout, list) F(uloop_timeout, pending) F(uloop_timeout, cb) \
    F(uloop_timeout, time) \
  S(uloop_process) F(uloop_process, list) F(uloop_process, pending) F(uloop_process, cb) \
    F(uloop_process, pid) \
  A(ubus_context) F(ubus_context, requests) F(ubus_context, objects) F(ubus_context, pending) \
    F(ubus_context, sock) F(ubus_context, pending_timer) F(ubus_context, local_id) \
    F(ubus_context, request_seq) F(ubus_context, cancel_poll) F(ubus_context, stack_depth) \
    F(ubus_context, connection_lost) F(ubus_context, monitor_cb) \
  S(ubus_object) F(ubus_object, avl) F(ubus_object, name) F(ubus_object, id) \
    F(ubus_object, path) F(ubus_object, type) F(ubus_object, subscribe_cb) \
    F(ubus_object, has_subscribers) F(ubus_object, methods) F(ubus_object, n_methods) \
  S(ubus_object_type) F(ubus_object_type, name) F(ubus_object_type, id) \
    F(ubus_object_type, methods) F(ubus_object_type, n_methods) \
  S(ubus_method) F(ubus_method, name) F(ubus_method, handler) F(ubus_method, mask) \
    F(ubus_method, tags) F(ubus_method, policy) F(ubus_method, n_policy) \
  S(ubus_request_data) F(ubus_request_data, object) F(ubus_request_data, peer) \
    F(ubus_request_data, seq) F(ubus_request_data, acl) F(ubus_request_data, deferred) \
    F(ubus_request_data, fd) F(ubus_request_data, req_fd) \
  S(uci_element) F(uci_element, list) F(uci_element, type) F(uci_element, name) \
  S(uci_context) F(uci_context, root) F(uci_context, pctx) F(uci_context, backend) \
    F(uci_context, backends) F(uci_context, flags) F(uci_context, confdir) \
    F(uci_context, savedir) F(uci_context, conf2dir) F(uci_context, delta_path) \
  S(uci_package) F(uci_package, e) F(uci_package, sections) F(uci_package, ctx) \
    F(uci_package, has_delta) F(uci_package, uses_conf2) F(uci_package, path) \
  S(uci_section) F(uci_section, e) F(uci_section, options) F(uci_section, package) \
    F(uci_section, anonymous) F(uci_section, type) \
  S(uci_option) F(uci_option, e) F(uci_option, section) F(uci_option, type) F(uci_option, v) \
  S(uci_ptr) F(uci_ptr, target) F(uci_ptr, flags) F(uci_ptr, p) F(uci_ptr, s) F(uci_ptr, o) \
    F(uci_ptr, last) F(uci_ptr, package) F(uci_ptr, section) F(uci_ptr, option) F(uci_ptr, value)

struct Pinned {
    const char *what;
    size_t ilp32;  // mips_24kc, mipsel_24kc, arm_cortex-a7_neon-vfpv4 (musl)
    size_t lp64;   // aarch64_cortex-a53 (musl), x86_64 and s390x (glibc)
};

const Pinned kPinned[] = {
    {"sizeof list_head", 8, 16},
    {"alignof list_head", 4, 8},
    {"list_head.next", 0, 0},
    {"list_head.prev", 4, 8},
    {"sizeof avl_node", 28, 56},
    {"alignof avl_node", 4, 8},
    {"sizeof avl_tree", 28, 48},
    {"alignof avl_tree", 4, 8},
    {"sizeof blob_attr", 4, 4},
    {"alignof blob_attr", 1, 1},
    {"blob_attr.id_len", 0, 0},
    {"blob_attr.data", 4, 4},
    {"sizeof blob_buf", 16, 32},
    {"alignof blob_buf", 4, 8},
    {"blob_buf.head", 0, 0},
    {"blob_buf.grow", 4, 8},
    {"blob_buf.buflen", 8, 16},
    {"blob_buf.buf", 12, 24},
    {"sizeof blobmsg_policy", 8, 16},
    {"alignof blobmsg_policy", 4, 8},
    {"blobmsg_policy.name", 0, 0},
    {"blobmsg_policy.type", 4, 8},
    {"sizeof uloop_fd", 12, 16},
    {"alignof uloop_fd", 4, 8},
    {"uloop_fd.cb", 0, 0},
    {"uloop_fd.fd", 4, 8},
    {"uloop_fd.eof", 8, 12},
    {"uloop_fd.error", 9, 13},
    {"uloop_fd.registered", 10, 14},
    {"uloop_fd.flags", 11, 15},
    {"sizeof uloop_timeout", 32, 48},
    {"alignof uloop_timeout", 8, 8},
    {"uloop_timeout.list", 0, 0},
    {"uloop_timeout.pending", 8, 16},
    {"uloop_timeout.cb", 12, 24},
    {"uloop_timeout.time", 16, 32},
    {"sizeof uloop_process", 20, 40},
    {"alignof uloop_process", 4, 8},
    {"uloop_process.list", 0, 0},
    {"uloop_process.pending", 8, 16},
    {"uloop_process.cb", 12, 24},
    {"uloop_process.pid", 16, 32},
    {"alignof ubus_context", 8, 8},
    {"ubus_context.requests", 0, 0},
    {"ubus_context.objects", 8, 16},
    {"ubus_context.pending", 36, 64},
    {"ubus_context.sock", 44, 80},
    {"ubus_context.pending_timer", 56, 96},
    {"ubus_context.local_id", 88, 144},
    {"ubus_context.request_seq", 92, 148},
    {"ubus_context.cancel_poll", 94, 150},
    {"ubus_context.stack_depth", 96, 152},
    {"ubus_context.connection_lost", 100, 160},
    {"ubus_context.monitor_cb", 104, 168},
    {"sizeof ubus_object", 60, 120},
    {"alignof ubus_object", 4, 8},
    {"ubus_object.avl", 0, 0},
    {"ubus_object.name", 28, 56},
    {"ubus_object.id", 32, 64},
    {"ubus_object.path", 36, 72},
    {"ubus_object.type", 40, 80},
    {"ubus_object.subscribe_cb", 44, 88},
    {"ubus_object.has_subscribers", 48, 96},
    {"ubus_object.methods", 52, 104},
    {"ubus_object.n_methods", 56, 112},
    {"sizeof ubus_object_type", 16, 32},
    {"alignof ubus_object_type", 4, 8},
    {"ubus_object_type.name", 0, 0},
    {"ubus_object_type.id", 4, 8},
    {"ubus_object_type.methods", 8, 16},
    {"ubus_object_type.n_methods", 12, 24},
    {"sizeof ubus_method", 24, 48},
    {"alignof ubus_method", 4, 8},
    {"ubus_method.name", 0, 0},
    {"ubus_method.handler", 4, 8},
    {"ubus_method.mask", 8, 16},
    {"ubus_method.tags", 12, 24},
    {"ubus_method.policy", 16, 32},
    {"ubus_method.n_policy", 20, 40},
    {"sizeof ubus_request_data", 36, 56},
    {"alignof ubus_request_data", 4, 8},
    {"ubus_request_data.object", 0, 0},
    {"ubus_request_data.peer", 4, 4},
    {"ubus_request_data.seq", 8, 8},
    {"ubus_request_data.acl", 12, 16},
    {"ubus_request_data.deferred", 24, 40},
    {"ubus_request_data.fd", 28, 44},
    {"ubus_request_data.req_fd", 32, 48},
    {"sizeof uci_element", 16, 32},
    {"alignof uci_element", 4, 8},
    {"uci_element.list", 0, 0},
    {"uci_element.type", 8, 16},
    {"uci_element.name", 12, 24},
    {"alignof uci_context", 8, 8},
    {"uci_context.root", 0, 0},
    {"uci_context.pctx", 8, 16},
    {"uci_context.backend", 12, 24},
    {"uci_context.backends", 16, 32},
    {"uci_context.flags", 24, 48},
    {"uci_context.confdir", 28, 56},
    {"uci_context.savedir", 32, 64},
    {"uci_context.conf2dir", 36, 72},
    {"uci_context.delta_path", 40, 80},
    {"sizeof uci_package", 64, 128},
    {"alignof uci_package", 4, 8},
    {"uci_package.e", 0, 0},
    {"uci_package.sections", 16, 32},
    {"uci_package.ctx", 24, 48},
    {"uci_package.has_delta", 28, 56},
    {"uci_package.uses_conf2", 29, 57},
    {"uci_package.path", 32, 64},
    {"sizeof uci_section", 36, 72},
    {"alignof uci_section", 4, 8},
    {"uci_section.e", 0, 0},
    {"uci_section.options", 16, 32},
    {"uci_section.package", 24, 48},
    {"uci_section.anonymous", 28, 56},
    {"uci_section.type", 32, 64},
    {"sizeof uci_option", 32, 64},
    {"alignof uci_option", 4, 8},
    {"uci_option.e", 0, 0},
    {"uci_option.section", 16, 32},
    {"uci_option.type", 20, 40},
    {"uci_option.v", 24, 48},
    {"sizeof uci_ptr", 40, 72},
    {"alignof uci_ptr", 4, 8},
    {"uci_ptr.target", 0, 0},
    {"uci_ptr.flags", 4, 4},
    {"uci_ptr.p", 8, 8},
    {"uci_ptr.s", 12, 16},
    {"uci_ptr.o", 16, 24},
    {"uci_ptr.last", 20, 32},
    {"uci_ptr.package", 24, 40},
    {"uci_ptr.section", 28, 48},
    {"uci_ptr.option", 32, 56},
    {"uci_ptr.value", 36, 64},
};

// The one figure that differs between targets of one data model: the size of the C
// library's jmp_buf inside uci_context.
struct Target {
    const char *name;
    bool lp64;
    size_t uci_context_size;
};

constexpr Target kTarget =
#if defined(__x86_64__) && defined(__GLIBC__)
    {"x86_64 (glibc)", true, 336};
#elif defined(__s390x__) && defined(__GLIBC__)
    {"s390x (glibc)", true, 416};
#elif defined(__aarch64__) && !defined(__GLIBC__)
    {"aarch64 (musl)", true, 448};
#elif defined(__mips__) && !defined(__mips64) && !defined(__GLIBC__)
    {"32-bit mips (musl)", false, 312};
#elif defined(__arm__) && !defined(__GLIBC__)
    {"32-bit arm (musl)", false, 464};
#else
    {nullptr, false, 0};
#endif

std::map<std::string, size_t> here()
{
    std::map<std::string, size_t> m;
#define S(T) m["sizeof " #T] = sizeof(struct T); m["alignof " #T] = alignof(struct T);
#define A(T) m["alignof " #T] = alignof(struct T);
#define F(T, f) m[#T "." #f] = offsetof(struct T, f);
    NMS_LAYOUT_LIST(S, A, F)
#undef S
#undef A
#undef F
    return m;
}

TEST(Layout, SharedStructuresAreTheDeviceLibrariesOnThisTarget)
{
    ASSERT_NE(kTarget.name, nullptr)
        << "no figures of the device's libraries are pinned for this target; take them from "
           "the upstream headers with this target's toolchain before using it";
    std::map<std::string, size_t> got = here();
    std::map<std::string, size_t> want;
    for (const Pinned &p : kPinned)
        want[p.what] = kTarget.lp64 ? p.lp64 : p.ilp32;
    want["sizeof uci_context"] = kTarget.uci_context_size;

    for (const auto &[what, value] : want) {
        auto it = got.find(what);
        if (it == got.end()) {
            ADD_FAILURE() << what << ": pinned but no longer checked";
            continue;
        }
        if (it->second != value)
            ADD_FAILURE() << what << ": " << it->second << " here, " << value
                          << " in the device's library (" << kTarget.name << ")";
    }
    for (const auto &[what, value] : got)
        if (!want.count(what))
            ADD_FAILURE() << what << ": checked but no figure pinned";
}

}  // namespace
