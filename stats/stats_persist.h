// stats_persist.h - registration and move of statistics parameters with their record in
// UCI, and the list of supported-parameter commands.
//
// Registrations are written to the package nms_report_stat_cb_cfg under
// "/tmp/nms_stats_report_cfg" (one section of type "nms_report_stat_cb" per parameter type,
// options "get_cb" and "success_cb"); the package is written only, never read back, and
// lasts until the device restarts. The bus thread calls all four operations.
#pragma once

#include <cstddef>

#include "stats_registry.h"

#define STATS_CB_CFG_PACKAGE "nms_report_stat_cb_cfg"
#define STATS_CB_CFG_SECTION_TYPE "nms_report_stat_cb"
#define STATS_CB_CFG_DIR "/tmp/nms_stats_report_cfg"
#define STATS_SUPPORT_READ_LEN 2048    // bytes of one supported-list command's output

extern "C" {

// Registers type at the period timeout (decimal seconds): creates the period group when
// new, adds the node or, when the type is there already, replaces its get_cb (its
// success_cb is kept), records both commands in UCI and starts the new group's timer while
// reporting runs. All four texts are required. 0 or -1.
int insert_params_cb_node(const char *type, const char *get_cb, const char *success_cb,
                          const char *timeout) noexcept;
// Moves type from old_timeout to new_timeout (delete, then insert), taking the commands
// that are not given from the old node; an emptied old group goes away with its timer.
// type and new_timeout are required. Without old_timeout the type is inserted at
// new_timeout with empty commands. 0, or -1 with nothing changed when the old group does
// not hold the type.
int update_params_cb_node(const char *type, const char *get_cb, const char *success_cb,
                          const char *new_timeout, const char *old_timeout) noexcept;
// Appends cb to the supported-parameter list unless it is there already. 0 or -1.
int store_support_params_list(const char *cb) noexcept;
// Runs every supported-list command in registration order and appends their outputs,
// unseparated, to text (a terminated string with room for size bytes). 0, or -1 when a
// command cannot run or its output does not fit ("too much return!").
int get_support_params_list(char *text, int size) noexcept;
// One element's step of get_support_params_list; read_buf holds STATS_SUPPORT_READ_LEN + 1
// bytes. The caller holds gParamsSupportListLocker.
int _get_support_params_list_by_popen(const statistics_params_support_node *node, char *text,
                                      int size, char *read_buf) noexcept;

}  // extern "C"
