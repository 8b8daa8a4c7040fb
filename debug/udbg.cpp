// udbg.cpp - the debug shell's start-up, its help list and its command socket handler.
#include "udbg.h"

#include <cstring>
#include <mutex>

#include <json-c/json.h>

#include "jcs.h"
#include "uac_list.h"
#include "uac_mem.h"
#include "udbg_crash.h"
#include "udbg_exec.h"
#include "udbg_symbols.h"

namespace {

constexpr size_t kHelpTextLen = 96;   // 95 characters and the terminator
constexpr size_t kCmdMax = 256;

struct help_entry {
    uac_list_entry node;
    char module[kHelpTextLen];
    char help_fun[kHelpTextLen];
};

// Entries are appended at start and never removed; the lock keeps a late registration
// from racing a help print.
std::mutex g_help_lock;
uac_list_head g_help_list;
bool g_help_ready;

void help_list_ready()
{
    if (!g_help_ready) {
        uac_list_init(&g_help_list);
        g_help_ready = true;
    }
}

bool g_inited;

}  // namespace

int udbg_help_register(const char *module, const char *help_fun) noexcept
{
    if (!module || !help_fun) {
        UDBG_ERR_AT("udbg_help_register", 2124, "Error input parm\n");
        return -1;
    }
    auto *e = static_cast<help_entry *>(uac_calloc(1, sizeof(help_entry)));
    if (!e) {
        UDBG_ERR_AT("udbg_help_register", 2131, "Malloc memory failed, mod=[%s], help-fun=[%s]\n",
                    module, help_fun);
        return -1;
    }
    snprintf(e->module, sizeof e->module, "%s", module);
    snprintf(e->help_fun, sizeof e->help_fun, "%s", help_fun);
    std::lock_guard<std::mutex> hold(g_help_lock);
    help_list_ready();
    uac_list_insert_last(&g_help_list, &e->node);
    return 0;
}

int help(void) noexcept
{
    std::lock_guard<std::mutex> hold(g_help_lock);
    help_list_ready();
    uac_list_entry *n;
    uac_list_for_each(n, &g_help_list) {
        const help_entry *e = uac_container_of(n, help_entry, node);
        printf("%-32s  -- print help information for ** %s ** module \n\r", e->help_fun, e->module);
    }
    fflush(stdout);
    return 0;
}

int udbg_jcs_callback_set(json_object *request, json_object *) noexcept
{
    char cmd[kCmdMax + 1] = "";
    json_object *o = nullptr;
    if (json_object_object_get_ex(request, "cmd", &o) && json_object_is_type(o, json_type_string)) {
        snprintf(cmd, sizeof cmd, "%s", json_object_get_string(o));
    } else if (jcs_err_on.load(std::memory_order_relaxed)) {
        printf("[JCS_ERR]%s()/%d Warning: Get string with error obj or value type is unmatch.\n",
               "udbg_jcs_callback_set", 2109);
    }
    if (jcs_dbg_on.load(std::memory_order_relaxed))
        printf("[JCS_DBG]%s()/%d cmd=%s\n", "udbg_jcs_callback_set", 2110, cmd);
    if (cmd[0])
        udbg_cmd_exec(cmd);
    fflush(stdout);
    return 0;
}

int udbg_init(void) noexcept
{
    if (g_inited)
        return 0;
    if (udbg_crash_init() != 0)
        return -1;
    {
        std::lock_guard<std::mutex> hold(g_help_lock);
        help_list_ready();
    }
    udbg_help_register("dbg", "help()");
    if (udbg_init_process_var() != 0)
        return -1;
    const udbg_paths &p = udbg_get_paths();
    UDBG_DBG("UDBG_BIN_FILE=%s\n", p.bin_file);
    UDBG_DBG("UDBG_FUN_FILE=%s\n", p.fun_file);
    UDBG_DBG("UDBG_OBJ_FILE=%s\n", p.obj_file);
    UDBG_DBG("UDBG_TMP_SYM_FILE=%s\n", p.tmp_sym_file);
    UDBG_DBG("UDBG_SO_FILE=%s\n", p.so_file);
    UDBG_DBG("UDGB_TRACE_FILE=%s\n", p.trace_file);
    udbg_signals_install();
    udbg_load_library_list();
    jcs_callback_register("udbg", JCS_OP_SET, udbg_jcs_callback_set);
    udbg_deadlock_watch_start();
    g_inited = true;
    fflush(stdout);
    return 0;
}
