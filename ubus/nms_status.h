// nms_status.h - the daemon's second bus object "nms_report": what it did with every event, as
// other OpenWrt services show theirs.
//
//   ubus call nms_report status    the ledger with its state: per list the events now held,
//                                  the age of the oldest, the last batch; the cloud link and
//                                  the bus connection; per statistics type its commands
//   ubus call nms_report metrics   the counters alone, for collectors
//
// Both take no arguments and ignore any they are given. `nms_dbg -l` prints status as a table.
#pragma once

#include <libubus.h>

// The object; published beside nms_report_cache on the same connection.
ubus_object *nms_status_object() noexcept;
