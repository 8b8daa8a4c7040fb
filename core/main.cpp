// main.cpp - nms_report start-up: brings the modules up in a fixed order, starts
// the long-lived threads, registers with the cloud client and parks for ever.
//
// A failed step ends start-up at once with -1 (exit status 255); nothing that
// was started is stopped, the process exit ends it. There is no orderly
// shutdown: the daemon runs until it is killed.
#include "event_config.h"
#include "event_dispatch.h"
#include "event_list.h"
#include "event_report.h"
#include "event_schedule.h"
#include "jcs.h"
#include "nms_log.h"
#include "nms_ledger.h"
#include "report_switch.h"
#include "nms_ubus.h"
#include "stats_registry.h"
#include "udbg.h"

#include "uac_lock.h"
#include "uac_thread.h"
#include "uac_timer.h"
#include "uac_tmpfile.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <malloc.h>
#include <pthread.h>
#include <unistd.h>

namespace {

// Fixed line numbers of the start-up failure messages. Support scripts match
// the printed text, so the numbers stay as they are when this file changes.
constexpr int kLineStatsInit = 93;
constexpr int kLineEventListInit = 99;
constexpr int kLineEventReportInit = 106;
constexpr int kLineReportTaskInit = 113;
constexpr int kLineMsgHandleInit = 119;
constexpr int kLineBusThread = 127;
constexpr int kLineRegThread = 140;

// The daemon's configuration directories with their save directories, and an
// empty package file each when none exists yet. (The double blanks are part of
// the commands as the device's support tools know them.)
constexpr const char *kMakeEventConfDirs =
    "mkdir -p  /etc/nms_report; mkdir -p  /etc/nms_report.uci;touch /etc/nms_report/event_report";
constexpr const char *kMakeStatsConfDirs =
    "mkdir -p  /tmp/nms_stats_report_cfg; mkdir -p  /tmp/nms_stats_report_cfg.uci;"
    "touch /tmp/nms_stats_report_cfg/nms_report_stat_cb_cfg";

// Run once the bus object is up, results ignored.
constexpr const char *kRegisterStatsParams =
    "lua /usr/lib/lua/nms_report/nms_report_reg_init.lua &> /dev/null";
constexpr const char *kCheckReportStatus =
    "ubus call cloudclient check_report_message_status "
    "'{\"callback\":\"lua /usr/lib/lua/nms_report/nms_report_call.lua \"}' &> /dev/null";

// Callback commands registered with the cloud client: going online starts
// reporting, going offline stops it, and the report scripts run on the
// client's basic and timed reports. The plain and the "intelligent" script
// commands are both registered for both types, and the trailing blanks inside
// some commands are part of what the client stores.
constexpr const char *kCloudRegistrations[] = {
    "ubus call cloudclient register_cmd_callback '{ \"register_notify_cmd\": \"ubus call "
    "nms_report_cache begin_report\", \"wait_time\": 0, \"type\": \"online\", "
    "\"action\":\"add\" }'",
    "ubus call cloudclient register_cmd_callback '{ \"register_notify_cmd\": \"ubus call "
    "nms_report_cache stop_report \", \"wait_time\": 0, \"type\": \"offline\", "
    "\"action\":\"add\" }'",
    "ubus call cloudclient register_cmd_callback '{ \"register_notify_cmd\": \"lua "
    "/usr/lib/lua/nms_report/nms_report_call.lua report_basic \", \"wait_time\": 0, "
    "\"type\": \"report_basic\", \"action\":\"add\" }'",
    "ubus call cloudclient register_cmd_callback '{ \"register_notify_cmd\": \"lua "
    "/usr/lib/lua/nms_report/nms_report_call.lua report_basic \", \"wait_time\": 0, "
    "\"type\": \"timing_report\", \"action\":\"add\" }'",
    "ubus call cloudclient register_cmd_callback '{ \"register_notify_cmd\": \"lua "
    "/usr/lib/lua/nms_report/nms_report_call.lua report_basic_intelligent \", "
    "\"wait_time\": 0, \"type\": \"report_basic\", \"action\":\"add\" }'",
    "ubus call cloudclient register_cmd_callback '{ \"register_notify_cmd\": \"lua "
    "/usr/lib/lua/nms_report/nms_report_call.lua report_update_intelligent \", "
    "\"wait_time\": 0, \"type\": \"timing_report\", \"action\":\"add\" }'",
};

// Runs a shell command whose outcome does not change what start-up does next.
void run_ignoring_result(const char *cmd)
{
    int rc = system(cmd);
    (void)rc;
}

// The statistics registry lives in /tmp, where any user may make the folders first and
// fill them with a registry of their own: commands the daemon would then run as its user.
// Folders that are not the daemon's are removed before the folders are made, and looked
// at again afterwards, in case somebody made them in between.
// Whether both folders are the daemon's (or missing); those that were not are removed.
bool claim_stats_conf_dirs()
{
    bool clean = true;
    for (const char *dir : {"/tmp/nms_stats_report_cfg", "/tmp/nms_stats_report_cfg.uci"}) {
        int rc = uac_tmp_dir_claim(dir);
        if (rc == 1)
            NMS_LOG_ALWAYS("%s was not the daemon's own folder (another user's, open to "
                           "others, or not a folder); removed", dir);
        else if (rc < 0)
            NMS_LOG_ALWAYS("%s is not the daemon's own folder and cannot be removed: %s", dir,
                           strerror(errno));
        clean = clean && rc == 0;
    }
    return clean;
}

void make_stats_conf_dirs()
{
    claim_stats_conf_dirs();
    run_ignoring_result(kMakeStatsConfDirs);
    if (claim_stats_conf_dirs())
        return;
    run_ignoring_result(kMakeStatsConfDirs);
    if (!claim_stats_conf_dirs())
        NMS_LOG_ALWAYS("the statistics registry's folders keep being made by someone else; "
                       "registrations are not kept");
}

// Registration thread: waits 2 s to give the cloud client (started by the
// same init run) a chance to be on the bus, registers once and ends. There is
// no retry: a client that is not there loses the registrations until the
// daemon starts again. (uac_thread_create has already detached this thread.)
void *cloudMngtRegThread(void *)
{
    sleep(2);
    for (const char *cmd : kCloudRegistrations)
        run_ignoring_result(cmd);
    return nullptr;
}

// glibc gives every thread that allocates its own arena (up to eight a core). Each
// dispatch worker would then grow a heap of its own, a page at a time with an mprotect
// call every few events, and keep free space that no other list can reuse: with all
// lists full that is eight heaps with their own slack. One arena serves the whole
// daemon; the workers seldom allocate at the same instant, and the small blocks of an
// event mostly come from each thread's own cache without taking the arena's lock.
// Other C libraries keep no per-thread arenas and have no such setting.
void use_one_malloc_arena()
{
#if defined(__GLIBC__) && defined(M_ARENA_MAX)
    mallopt(M_ARENA_MAX, 1);
#endif
}

}  // namespace

int main()
{
    use_one_malloc_arena();
    // Before any thread exists: every thread inherits a mask with SIGALRM
    // blocked, so only the wheel timer's tick thread (which sigwaits) gets it.
    uac_sigmask_set(SIG_BLOCK, 1, SIGALRM);
    uac_lock_module_init();
    uac_thread_module_init();

    // Command socket and its example service "example" (add, delete, get).
    jcs_init();
    jcs_callback_register("example", JCS_OP_ADD, jcs_test_callback_add);
    jcs_callback_register("example", JCS_OP_DEL, jcs_test_callback_del);
    jcs_callback_register("example", JCS_OP_GET, jcs_test_callback_get);

    // Debug shell. When it fails the daemon runs on, but without the wheel timer,
    // the console, its directories and the list settings of the block below.
    int udbg = udbg_init();
    if (udbg != -1) {
        uac_timer_init(10);
        udbg_help_register("nms_event", "nms_event_debug_help()");
        set_debug_output("/dev/console", 10);
        run_ignoring_result(kMakeEventConfDirs);
        make_stats_conf_dirs();
        update_event_list_buf_timer();
    }

    // The cloud link's state is counted from start-up: offline until the cloud client says.
    nms_ledger::link_state(get_report_online());
    if (init_statistics_params() != 0) {
        NMS_LOG_ERROR_AT(kLineStatsInit, "init_statistics_params error.");
        return -1;
    }
    if (init_event_node_list() != 0) {
        NMS_LOG_ERROR_AT(kLineEventListInit, "init_event_node_list error.");
        return -1;
    }
    if (init_nms_event_report(0, nullptr) != 0) {
        NMS_LOG_ERROR_AT(kLineEventReportInit, "init_nms_event_report error.");
        return -1;
    }
    if (init_nms_event_list_report_task() != 0) {
        NMS_LOG_ERROR_AT(kLineReportTaskInit, "init_nms_event_list_report_task error.");
        return -1;
    }
    if (init_msg_handle() != 0) {
        NMS_LOG_ERROR_AT(kLineMsgHandleInit, "init_msg_handle error.");
        return -1;
    }

    jcs_run();

    pthread_t bus_tid;
    if (uac_thread_create(&bus_tid, "handlerUbusThread", handleUbusEvent, nullptr) != 0) {
        NMS_LOG_ERROR_AT(kLineBusThread, "ubus pthread_create error.");
        return -1;
    }

    sleep(2);

    // With the bus object up: the local script registers the statistics parameters,
    // and the cloud client is asked to report its message status to the report script.
    run_ignoring_result(kRegisterStatsParams);
    run_ignoring_result(kCheckReportStatus);

    pthread_t reg_tid;
    if (uac_thread_create(&reg_tid, "cloudMngtRegThread", cloudMngtRegThread, nullptr) != 0) {
        // Written with puts on devices, hence the message's own newline before
        // the one every log line ends with.
        NMS_LOG_ERROR_AT(kLineRegThread, "%s\n", "create thread(cloudMngtRegThread) failed!");
        return -1;
    }

    nms_event_begin_scan();

    // Short-link self-test, only on a device prepared for it.
    if (access("/tmp/tmp_nms_event_test_short_link", F_OK) == 0) {
        for (int i = 0; i < 8; i++) {
            pthread_t tid;
            uac_thread_create(&tid, "g_test_short_link_send[i]", _test_short_link_send, nullptr);
        }
    }

    for (;;)
        sleep(60);
}
