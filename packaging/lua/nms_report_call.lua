-- nms_report_call.lua - what the cloud client runs when it asks the device to report.
--
-- Usage: lua nms_report_call.lua [report_basic|report_basic_intelligent|report_update_intelligent]
--
-- The daemon registers this script for the cloud client's "report_basic" and
-- "timing_report" notifications and as its message-status callback. Each request turns
-- into a report of the statistics parameters now; events need no help, they are
-- reported as they arrive. Without a known action (the status callback) nothing is done.
-- Prints nothing.

local action = arg[1]
local known = {
	report_basic = true,
	report_basic_intelligent = true,
	report_update_intelligent = true,
}

if action and known[action] then
	os.execute("ubus call nms_report_cache flush_report '{\"type\":\"param\"}' >/dev/null 2>&1")
end
