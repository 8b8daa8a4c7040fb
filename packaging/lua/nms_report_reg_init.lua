-- nms_report_reg_init.lua - registers the device's statistics parameters with the
-- daemon at start-up.
--
-- Every section of the package stats_report (in /etc/nms_report) that carries a get_cb
-- option is one parameter type: its name is the type, get_cb the command that prints
-- the value, success_cb (optional) the command run after a successful report. The
-- period comes from the same section's param_buffer_time, which the daemon reads itself.
-- Prints nothing: the daemon runs this with its output on the console.

local CONFDIR = "/etc/nms_report"

local function shell_quote(s)
	return "'" .. s:gsub("'", "'\\''") .. "'"
end

local function json_string(s)
	local escaped = s:gsub('[%c"\\]', function(c)
		if c == '"' then return '\\"' end
		if c == "\\" then return "\\\\" end
		return string.format("\\u%04x", c:byte())
	end)
	return '"' .. escaped .. '"'
end

-- Reads "stats_report.<section>.<option>='<value>'" lines of `uci show`.
local function read_sections()
	local p = io.popen("uci -q -c " .. CONFDIR .. " show stats_report 2>/dev/null")
	if not p then return {} end
	local sections, order = {}, {}
	for line in p:lines() do
		local sec, opt, val = line:match("^stats_report%.([^.=]+)%.([^.=]+)='(.*)'$")
		if sec then
			if not sections[sec] then
				sections[sec] = {}
				order[#order + 1] = sec
			end
			sections[sec][opt] = val:gsub("'\\''", "'")
		end
	end
	p:close()
	return sections, order
end

local sections, order = read_sections()
for _, name in ipairs(order or {}) do
	local s = sections[name]
	if s.get_cb and s.get_cb ~= "" then
		local msg = "{\"type\":" .. json_string(name) ..
			",\"get_cb\":" .. json_string(s.get_cb) ..
			",\"success_cb\":" .. json_string(s.success_cb or "") .. "}"
		os.execute("ubus call nms_report_cache statistics_parms_reg " ..
			shell_quote(msg) .. " >/dev/null 2>&1")
	end
end
