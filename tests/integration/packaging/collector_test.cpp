// collector_test.cpp - the prometheus-node-exporter-lua collector against the installed daemon:
// loaded the way the exporter loads its collectors, its text checked against the exposition
// format and its figures against what the daemon was given.
#include "itest.h"

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

using namespace std::chrono_literals;
using itest::run;

namespace {

// What the exporter does around a collector: its global metric() and output, the collector
// required from its folder as a module, scrape() under pcall and the success gauge after it.
const char kExporter[] = R"LUA(
package.path = "/usr/lib/lua/?.lua;" .. package.path
output = print
function get_contents(path)
  local f = io.open(path, "rb")
  if not f then return "" end
  local s = f:read("*a")
  f:close()
  return s
end
function print_metric(name, labels, value)
  local text = ""
  if labels then
    for k, v in pairs(labels) do text = text .. k .. '="' .. v .. '",' end
    text = "{" .. string.sub(text, 1, -2) .. "}"
  end
  output(string.format("%s%s %s", name, text, value))
end
function metric(name, mtype, labels, value)
  output("# TYPE " .. name .. " " .. mtype)
  local out = function(labels, value) print_metric(name, labels, value) end
  if value then out(labels, value) end
  return out
end
local col = require("prometheus-collectors.nms_report")
local ok, err = pcall(col.scrape)
if not ok then io.stderr:write(tostring(err), "\n") end
print('node_scrape_collector_success{collector="nms_report"} ' .. (ok and 1 or 0))
)LUA";

itest::Result scrape()
{
    itest::write_file("/tmp/exporter.lua", kExporter);
    return run("lua /tmp/exporter.lua");
}

// Samples by name and sorted labels ("name{a=\"1\",b=\"2\"}"); fails the test on any line
// outside the text format, a sample without its TYPE line before it, or a TYPE given twice.
std::map<std::string, std::string> parse_exposition(const std::string &text)
{
    static const std::regex type_line(R"(# TYPE ([a-zA-Z_:][a-zA-Z0-9_:]*) (counter|gauge))");
    static const std::regex sample(
        R"(([a-zA-Z_:][a-zA-Z0-9_:]*)(\{(.*)\})? (-?[0-9]+(\.[0-9]+)?([eE][-+]?[0-9]+)?))");
    static const std::regex label(R"(([a-zA-Z_][a-zA-Z0-9_]*)="((\\.|[^"\\])*)\"(,|$))");
    std::map<std::string, std::string> out;
    std::set<std::string> typed;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        std::smatch m;
        if (std::regex_match(line, m, type_line)) {
            EXPECT_TRUE(typed.insert(m[1]).second) << "TYPE twice: " << line;
            continue;
        }
        if (!std::regex_match(line, m, sample)) {
            ADD_FAILURE() << "not in the text format: " << line;
            continue;
        }
        const std::string name = m[1];
        if (name.rfind("node_scrape_", 0) != 0) {
            EXPECT_TRUE(typed.count(name)) << "no TYPE before " << line;
        }
        std::string labels = m[3];
        std::set<std::string> parts;
        for (std::sregex_iterator it(labels.begin(), labels.end(), label), end; it != end; ++it)
            parts.insert((*it)[1].str() + "=\"" + (*it)[2].str() + "\"");
        std::string key = name;
        if (!parts.empty()) {
            key += "{";
            for (const std::string &p : parts)
                key += (key.back() == '{' ? "" : ",") + p;
            key += "}";
        }
        EXPECT_TRUE(out.emplace(key, m[4]).second) << "sample twice: " << line;
    }
    return out;
}

}  // namespace

TEST(Collector, WithoutTheDaemonItReportsNothing)
{
    auto r = scrape();
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.output, "node_scrape_collector_success{collector=\"nms_report\"} 1\n");
    // Run by itself, as an operator tries it: nothing, and a clean exit.
    auto alone = run("lua /usr/lib/lua/prometheus-collectors/nms_report.lua");
    EXPECT_EQ(alone.status, 0);
    EXPECT_EQ(alone.output, "");
}

TEST(Collector, ShowsTheLedgerInTheExpositionFormat)
{
    itest::write_file("/tmp/tmp_nms_event_test_ignore_enable", "");
    itest::write_file("/etc/nms_report/stats_report",
                      "\nconfig stats 'uptime'\n\toption param_buffer_time '600'\n"
                      "\toption get_cb 'nms_stats_uptime'\n"
                      "\nconfig stats 'broken'\n\toption param_buffer_time '600'\n"
                      "\toption get_cb 'echo not json'\n");
    ASSERT_EQ(run("/usr/sbin/nms_report >/tmp/nms_report.out 2>&1 &").status, 0);
    ASSERT_TRUE(itest::wait_until([] { return run("ubus list nms_report").status == 0; }, 20s));
    ASSERT_EQ(run("ubus call nms_report_cache begin_report").status, 0);
    ASSERT_EQ(run("lua /usr/lib/lua/nms_report/nms_report_reg_init.lua").status, 0);
    ASSERT_EQ(run("nms_event_send -l 3 -n 7 100 '{\"a\":1}'").status, 0);
    ASSERT_EQ(run("ubus call nms_report_cache flush_report '{\"type\":\"param\"}'").status, 0);

    std::map<std::string, std::string> s;
    ASSERT_TRUE(itest::wait_until([&] {
        s = parse_exposition(scrape().output);
        return s["nms_report_events_held{list=\"3\"}"] == "7" &&
               s["nms_report_statistics_values_total{type=\"uptime\"}"] == "1" &&
               s["nms_report_statistics_failed_total{type=\"broken\"}"] == "1";
    }, 20s)) << scrape().output;
    EXPECT_EQ(s["node_scrape_collector_success{collector=\"nms_report\"}"], "1");
    EXPECT_EQ(s["nms_report_events_accepted_total{list=\"3\"}"], "7");
    EXPECT_EQ(s["nms_report_events_refused_total{list=\"3\",reason=\"offline\"}"], "0");
    EXPECT_EQ(s["nms_report_cloud_online"], "1");
    EXPECT_EQ(s["nms_report_bus_connects_total"], "1");
    EXPECT_EQ(s["nms_report_statistics_runs_total{type=\"uptime\"}"], "1");
    // Every list, every reason.
    for (int l = 0; l < 8; l++)
        EXPECT_EQ(s.count("nms_report_events_refused_total{list=\"" + std::to_string(l) +
                          "\",reason=\"too_long\"}"), 1u);
    std::printf("%s", scrape().output.c_str());
}
