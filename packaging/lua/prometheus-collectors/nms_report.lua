-- nms_report.lua - collector of prometheus-node-exporter-lua for nms_report: what the daemon
-- did with every event, per list, its statistics commands, the bus and the cloud link, read
-- from `ubus call nms_report metrics`.
--
-- The exporter loads every file of /usr/lib/lua/prometheus-collectors and calls its scrape(),
-- which reports through the exporter's metric(name, type, labels, value). With the daemon not
-- running (or its object not published) the collector reports nothing, as collectors do.
-- Run by itself (lua nms_report.lua) it prints the same text the exporter would serve.

-- The metrics text is small and flat; a reader of the JSON the ubus CLI prints, with no
-- module of its own to depend on.
local function decode(text)
  local pos = 1
  local value

  local function skip()
    pos = text:find("[^ \t\r\n]", pos) or #text + 1
  end

  local function fail()
    error("not JSON at " .. pos, 0)
  end

  local escapes = { ['"'] = '"', ["\\"] = "\\", ["/"] = "/", b = "\b", f = "\f", n = "\n",
                    r = "\r", t = "\t" }

  local function str()
    local out = {}
    pos = pos + 1
    while true do
      local c = text:sub(pos, pos)
      if c == "" then fail() end
      if c == '"' then
        pos = pos + 1
        return table.concat(out)
      end
      if c == "\\" then
        local e = text:sub(pos + 1, pos + 1)
        if e == "u" then
          local code = tonumber(text:sub(pos + 2, pos + 5), 16)
          if not code then fail() end
          -- Names and types are ASCII; anything else is kept as a placeholder.
          out[#out + 1] = code < 128 and string.char(code) or "?"
          pos = pos + 6
        elseif escapes[e] then
          out[#out + 1] = escapes[e]
          pos = pos + 2
        else
          fail()
        end
      else
        out[#out + 1] = c
        pos = pos + 1
      end
    end
  end

  function value()
    skip()
    local c = text:sub(pos, pos)
    if c == "{" then
      local t = {}
      pos = pos + 1
      skip()
      if text:sub(pos, pos) == "}" then pos = pos + 1 return t end
      while true do
        skip()
        if text:sub(pos, pos) ~= '"' then fail() end
        local k = str()
        skip()
        if text:sub(pos, pos) ~= ":" then fail() end
        pos = pos + 1
        t[k] = value()
        skip()
        c = text:sub(pos, pos)
        pos = pos + 1
        if c == "}" then return t end
        if c ~= "," then fail() end
      end
    elseif c == "[" then
      local t = {}
      pos = pos + 1
      skip()
      if text:sub(pos, pos) == "]" then pos = pos + 1 return t end
      while true do
        t[#t + 1] = value()
        skip()
        c = text:sub(pos, pos)
        pos = pos + 1
        if c == "]" then return t end
        if c ~= "," then fail() end
      end
    elseif c == '"' then
      return str()
    elseif text:sub(pos, pos + 3) == "true" then
      pos = pos + 4
      return true
    elseif text:sub(pos, pos + 4) == "false" then
      pos = pos + 5
      return false
    elseif text:sub(pos, pos + 3) == "null" then
      pos = pos + 4
      return nil
    end
    local num = text:match("^-?%d+%.?%d*[eE]?[-+]?%d*", pos)
    if not num or num == "" then fail() end
    pos = pos + #num
    return tonumber(num)
  end

  local ok, result = pcall(value)
  if not ok then return nil end
  return result
end

-- A label value as the text format wants it.
local function label(v)
  return (tostring(v):gsub("\\", "\\\\"):gsub("\n", "\\n"):gsub('"', '\\"'))
end

local function read_metrics()
  local p = io.popen("ubus call nms_report metrics 2>/dev/null")
  if not p then return nil end
  local text = p:read("*a")
  p:close()
  if not text or text == "" then return nil end
  return decode(text)
end

-- Per-list counters: metric name, the member of the list's entry, type.
local list_counters = {
  { "nms_report_events_accepted_total", "accepted" },
  { "nms_report_events_sent_total", "sent" },
  { "nms_report_events_replaced_total", "replaced" },
  { "nms_report_events_dropped_total", "dropped" },
  { "nms_report_events_cleaned_total", "cleaned" },
  { "nms_report_events_stopped_total", "stopped" },
  { "nms_report_events_removed_total", "removed" },
  { "nms_report_producer_waits_total", "waits" },
}
local refusals = { "disabled", "offline", "bad_params", "full", "no_victim", "no_memory", "too_long" }

local function scrape()
  local m = read_metrics()
  if type(m) ~= "table" or type(m.lists) ~= "table" then return end
  local lists = m.lists

  for _, c in ipairs(list_counters) do
    local out = metric(c[1], "counter")
    for _, l in ipairs(lists) do
      out({ list = label(l.list) }, l[c[2]] or 0)
    end
  end
  local refused = metric("nms_report_events_refused_total", "counter")
  for _, l in ipairs(lists) do
    for _, why in ipairs(refusals) do
      refused({ list = label(l.list), reason = why }, l["refused_" .. why] or 0)
    end
  end
  local waited = metric("nms_report_producer_wait_seconds_total", "counter")
  local batches = metric("nms_report_batches_total", "counter")
  local held = metric("nms_report_events_held", "gauge")
  local oldest = metric("nms_report_oldest_event_age_seconds", "gauge")
  for _, l in ipairs(lists) do
    local list = label(l.list)
    waited({ list = list }, (l.wait_ms or 0) / 1000)
    batches({ list = list, result = "ok" }, l.batches or 0)
    batches({ list = list, result = "failed" }, l.failed_batches or 0)
    held({ list = list }, l.in_list or 0)
    oldest({ list = list }, l.oldest_age or 0)
  end

  metric("nms_report_cloud_online", "gauge", nil, m.cloud_online and 1 or 0)
  local sends = metric("nms_report_cloud_sends_total", "counter")
  sends({ result = "ok" }, m.cloud_sends or 0)
  sends({ result = "failed" }, m.cloud_send_failures or 0)
  metric("nms_report_bus_connects_total", "counter", nil, m.bus_connects or 0)
  metric("nms_report_bus_reconnects_total", "counter", nil, m.bus_reconnects or 0)

  if type(m.statistics) == "table" and #m.statistics > 0 then
    for _, s in ipairs({ { "runs", "nms_report_statistics_runs_total" },
                         { "killed", "nms_report_statistics_killed_total" },
                         { "failed", "nms_report_statistics_failed_total" },
                         { "values", "nms_report_statistics_values_total" } }) do
      local out = metric(s[2], "counter")
      for _, row in ipairs(m.statistics) do
        out({ type = label(row.type) }, row[s[1]] or 0)
      end
    end
  end
end

-- Run by itself: the exporter's printing, to standard output.
if not metric then
  function metric(name, mtype, labels, value)
    print("# TYPE " .. name .. " " .. mtype)
    local function out(labels, value)
      local text = ""
      if labels then
        local keys = {}
        for k in pairs(labels) do keys[#keys + 1] = k end
        table.sort(keys)
        for _, k in ipairs(keys) do text = text .. k .. '="' .. labels[k] .. '",' end
        text = "{" .. text:sub(1, -2) .. "}"
      end
      print(name .. text .. " " .. value)
    end
    if value then out(labels, value) end
    return out
  end
  scrape()
  return
end

return { scrape = scrape }
