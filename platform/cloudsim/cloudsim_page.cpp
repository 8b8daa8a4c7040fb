// cloudsim_page.cpp - the page that shows what reached the cloud stand-in.
//
// Everything is inline so the page works without any network beyond the stand-in itself.
// Text from reports is only ever put into the page through textContent, never as markup.

#include "cloudsim_page.h"

namespace cloudsim {

const char kPage[] = R"PAGE(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<title>cloudsim</title>
<style>
body { font: 14px/1.4 system-ui, sans-serif; margin: 1em 2em; color: #222; }
h1 { font-size: 1.4em; margin-bottom: .2em; }
h2 { font-size: 1.1em; margin: 1.2em 0 .4em; }
table { border-collapse: collapse; margin: .3em 0; }
th, td { border: 1px solid #ccc; padding: 2px 8px; text-align: left; vertical-align: top; }
th { background: #f0f0f0; }
code, .mono { font-family: ui-monospace, monospace; font-size: 12px; }
.report { border: 1px solid #bbb; border-radius: 4px; padding: .4em .8em; margin: .6em 0; }
.report.bad { border-color: #c33; background: #fff4f4; }
.head { color: #555; }
button { margin: 2px 4px 2px 0; }
#status { color: #777; }
.device { font-weight: 600; margin: .3em 0; }
.device.online { color: #176617; }
.device.offline { color: #b33; }
.note { color: #555; font-style: italic; }
pre { white-space: pre-wrap; word-break: break-all; margin: .3em 0; }
.panel { display: grid; grid-template-columns: repeat(4, 250px); gap: 6px 12px; }
.chart { border: 1px solid #ddd; border-radius: 4px; padding: 2px 4px; font-size: 12px; }
.chart svg { display: block; background: #fafafa; }
.chart .accepted { stroke: #2a62c9; fill: none; stroke-width: 1.5; }
.chart .sent { stroke: #1b8a3a; fill: none; stroke-width: 1.5; }
.chart .fill { stroke: none; fill: rgba(200, 90, 40, .25); }
.key-accepted { color: #2a62c9; } .key-sent { color: #1b8a3a; } .key-fill { color: #c85a28; }
</style>
</head>
<body>
<h1>cloudsim</h1>
<div id="device" class="device">device: waiting for the cloud client to say whether it is online</div>
<div id="status">connecting...</div>
<h2>Device panel</h2>
<p class="head">What the device's agent reports of the daemon every second (<code>ubus call
nms_report metrics</code>), over the last 5 minutes: per list, events
<span class="key-accepted">accepted</span> and <span class="key-sent">sent</span> a second, and
how <span class="key-fill">full</span> the list is (of its 6000 places).</p>
<div id="link" class="mono">no metrics from the device yet</div>
<div id="panel" class="panel"></div>
<div hidden><svg id="chart-proto" width="240" height="60" viewBox="0 0 240 60" role="img"><polygon
class="fill" points=""/><polyline class="accepted" points=""/><polyline class="sent" points=""/></svg></div>

<p class="head">What the management service received from the device, newest first. Event
reports carry one batch each: a list that buffers (lists 3 to 7) sends all the events it
gathered in one report. All times are UTC.</p>

<h2>Received</h2>
<table id="paths"><thead><tr><th>path</th><th>reports</th><th>bytes</th></tr></thead>
<tbody></tbody></table>

<h2>Fault orders</h2>
<div>
<button data-order='{"status":500,"count":3}'>next 3 answered 500</button>
<button data-order='{"hang_ms":12000,"count":1}'>next one held 12 s</button>
<button data-order='{"drop":true,"count":1}'>next one dropped</button>
<button data-order='{"clear":true}'>clear fault orders</button>
<button id="clear-reports">clear reports</button>
</div>
<div id="faults" class="mono"></div>

<h2>Latest reports (newest first)</h2>
<div id="reports"></div>

<script>
"use strict";
const MAX_SHOWN = 100;
let lastSeq = 0;
let shown = [];

function el(tag, text, cls) {
  const e = document.createElement(tag);
  if (text !== undefined) e.textContent = text;
  if (cls) e.className = cls;
  return e;
}

function table(headers, rows) {
  const t = el("table");
  const hr = t.insertRow();
  headers.forEach(h => hr.appendChild(el("th", h)));
  rows.forEach(r => {
    const tr = t.insertRow();
    r.forEach(c => tr.appendChild(el("td", c, "mono")));
  });
  return t;
}

// Every time on the page is UTC, the events' own stamps included.
function when(ms) {
  const n = Number(ms);
  return isFinite(n) && n > 0 ?
      new Date(n).toISOString().replace("T", " ").replace("Z", " UTC") : String(ms);
}

function ago(ms, now) {
  const s = Math.max(0, Math.round((now - ms) / 1000));
  return s < 120 ? s + " s ago" : Math.round(s / 60) + " min ago";
}

function text(v) {
  return typeof v === "string" ? v : JSON.stringify(v);
}

// The event envelope: identity, then one device with its list of events.
function eventView(j) {
  const box = el("div");
  const dev = (j.devEventList || [])[0] || {};
  box.appendChild(el("div", "site " + text(j.projectId) + ", device " + text(j.deviceMac) +
      " (" + text(j.deviceType) + ", " + text(dev.devName) + ")", "head"));
  const rows = (dev.eventList || []).map(e => [text(e.typeId), when(e.time), text(e.params)]);
  box.appendChild(el("div", rows.length + " event(s)"));
  box.appendChild(table(["typeId", "time", "params"], rows));
  return box;
}

// The parameter envelope: identity members, then the reported members.
function paramView(j) {
  const box = el("div");
  box.appendChild(el("div", "site " + text(j.projectId) + ", device " + text(j.deviceMac) +
      " (" + text(j.deviceType) + ")", "head"));
  const rows = Object.keys(j).filter(k => !["projectId", "deviceMac", "deviceType"].includes(k))
      .map(k => [k, text(j[k])]);
  box.appendChild(table(["parameter", "value"], rows));
  return box;
}

function reportView(r) {
  const box = el("div", undefined, "report" + (r.status === 200 ? "" : " bad"));
  box.appendChild(el("div", "#" + r.seq + "  " + when(r.time_ms) + "  " + r.path +
      "  answered " + (r.status === 0 ? "nothing (dropped)" : r.status) +
      "  " + r.bytes + " bytes" + (r.json_ok ? "" : r.json ? "  (text after the JSON: " +
      JSON.stringify(r.trailing) + ")" : "  (not JSON)")));
  if (!r.json_ok && r.json && String(r.trailing).trim() === "}") {
    box.appendChild(el("div", "The extra \"}\" at the end is what the device sends: its " +
        "event reports close the envelope once more than the JSON needs. Shown as received; " +
        "the report is read without it.", "note"));
  }
  const j = r.json;
  if (j && typeof j === "object" && Array.isArray(j.devEventList)) {
    box.appendChild(eventView(j));
  } else if (j && typeof j === "object" && "deviceMac" in j) {
    box.appendChild(paramView(j));
  } else {
    const b = r.body.length > 2000 ? r.body.slice(0, 2000) + "..." : r.body;
    box.appendChild(el("pre", b));
  }
  return box;
}

function render() {
  const div = document.getElementById("reports");
  div.replaceChildren(...shown.slice().reverse().map(reportView));
}

async function getJson(url, options) {
  const res = await fetch(url, options);
  return res.json();
}

async function poll() {
  try {
    const stats = await getJson("/api/stats");
    if (stats.last_seq < lastSeq) { lastSeq = 0; shown = []; }
    const tb = document.querySelector("#paths tbody");
    tb.replaceChildren(...Object.keys(stats.paths).map(p => {
      const tr = el("tr");
      [p, stats.paths[p].count, stats.paths[p].bytes].forEach(c => tr.appendChild(el("td", c)));
      return tr;
    }));
    const fresh = await getJson("/api/reports?limit=" + MAX_SHOWN + "&since=" + lastSeq);
    if (fresh.length) {
      lastSeq = fresh[fresh.length - 1].seq;
      shown = shown.concat(fresh).slice(-MAX_SHOWN);
      render();
    }
    const faults = await getJson("/api/faults");
    document.getElementById("faults").textContent = faults.pending.length ?
        "pending: " + JSON.stringify(faults.pending) : "no pending fault orders";
    const dev = await getJson("/api/device");
    const d = document.getElementById("device");
    d.className = "device " + dev.status;
    d.textContent = (dev.status === "unknown" ?
        "device: the cloud client has not said whether it is online" :
        "device: cloud client " + dev.status + " since " + when(dev.since_ms) + " (" +
        ago(dev.since_ms, dev.now_ms) + ")") +
        (dev.last_report_ms > 0 ? "; last report " + ago(dev.last_report_ms, dev.now_ms) +
         " (" + when(dev.last_report_ms) + ")" : "; no report yet");
    document.getElementById("status").textContent = stats.total + " report(s), " +
        stats.bytes + " bytes since the last clear; updated " + when(dev.now_ms);
  } catch (e) {
    document.getElementById("status").textContent = "cannot reach cloudsim: " + e;
  }
}

// ---- the device panel ----------------------------------------------------------------------
const PANEL_MS = 5 * 60 * 1000;
const LIST_SLOTS = 6000;
const W = 240, H = 60;
let samples = [];
let lastSampleT = 0;

function buildPanel() {
  const panel = document.getElementById("panel");
  for (let l = 0; l < 8; l++) {
    const box = el("div", undefined, "chart");
    box.appendChild(el("div", "list " + l));
    // A copy of the chart drawn in the page's markup, so it is SVG as the parser made it.
    const svg = document.getElementById("chart-proto").cloneNode(true);
    svg.id = "chart-" + l;
    svg.setAttribute("aria-label", "list " + l);
    box.appendChild(svg);
    box.appendChild(el("div", "", "mono figures"));
    panel.appendChild(box);
  }
}

// Per list and pair of successive samples: accepted and sent a second, and the fill.
function drawPanel(now) {
  const from = now - PANEL_MS;
  const x = t => ((t - from) / PANEL_MS * W).toFixed(1);
  for (let l = 0; l < 8; l++) {
    const acc = [], sent = [], fill = [];
    for (let i = 1; i < samples.length; i++) {
      const a = samples[i - 1], b = samples[i];
      if (!a.lists[l] || !b.lists[l]) continue;
      const dt = Math.max(1, b.t - a.t) / 1000;
      // A restarted daemon counts from 0 again: no negative rate.
      acc.push([b.t, Math.max(0, b.lists[l][0] - a.lists[l][0]) / dt]);
      sent.push([b.t, Math.max(0, b.lists[l][1] - a.lists[l][1]) / dt]);
      fill.push([b.t, b.lists[l][2] / LIST_SLOTS]);
    }
    const top = Math.max(1, ...acc.map(p => p[1]), ...sent.map(p => p[1]));
    const y = v => (H - 2 - v / top * (H - 4)).toFixed(1);
    const svg = document.getElementById("chart-" + l);
    svg.querySelector(".accepted").setAttribute("points", acc.map(p => x(p[0]) + "," + y(p[1])).join(" "));
    svg.querySelector(".sent").setAttribute("points", sent.map(p => x(p[0]) + "," + y(p[1])).join(" "));
    const area = fill.map(p => x(p[0]) + "," + (H - p[1] * H).toFixed(1));
    svg.querySelector(".fill").setAttribute("points", fill.length ?
        [x(fill[0][0]) + "," + H].concat(area, [x(fill[fill.length - 1][0]) + "," + H]).join(" ") : "");
    const last = samples.length ? samples[samples.length - 1].lists[l] : null;
    const rate = acc.length ? acc[acc.length - 1][1] : 0;
    const out = sent.length ? sent[sent.length - 1][1] : 0;
    svg.parentNode.querySelector(".figures").textContent = last ?
        rate.toFixed(1) + "/s in, " + out.toFixed(1) + "/s out, held " + last[2] + " (" +
        (100 * last[2] / LIST_SLOTS).toFixed(1) + " %), top " + top.toFixed(0) + "/s" : "-";
  }
}

async function pollPanel() {
  let m;
  try {
    m = await getJson("/api/device/metrics?since=" + lastSampleT);
  } catch (e) {
    document.getElementById("link").textContent = "cannot reach cloudsim: " + e;
    return;
  }
  if (m.samples.length) {
    lastSampleT = m.samples[m.samples.length - 1].t;
    samples = samples.concat(m.samples).filter(s => s.t > m.now_ms - PANEL_MS - 2000);
  }
  const link = document.getElementById("link");
  const fresh = samples.length && m.now_ms - samples[samples.length - 1].t < 5000;
  link.textContent = !samples.length ? "no metrics from the device yet" :
      "daemon: cloud link " + (samples[samples.length - 1].online ? "online" : "offline") +
      (fresh ? "" : " (no metrics for " + ago(samples[samples.length - 1].t, m.now_ms) + ")");
  drawPanel(m.now_ms);
}

// Script errors are counted on the page itself, where a test or a person can see them.
function scriptError() {
  document.body.dataset.scriptErrors = String(Number(document.body.dataset.scriptErrors || 0) + 1);
}
window.addEventListener("error", scriptError);
window.addEventListener("unhandledrejection", scriptError);
buildPanel();
pollPanel();
setInterval(pollPanel, 1000);

document.querySelectorAll("button[data-order]").forEach(b => b.addEventListener("click", () =>
  fetch("/api/faults", {method: "POST", headers: {"Content-Type": "application/json"},
                        body: b.dataset.order}).then(poll)));
document.getElementById("clear-reports").addEventListener("click", () =>
  fetch("/api/reports", {method: "DELETE"}).then(() => { shown = []; render(); poll(); }));

poll();
setInterval(poll, 1000);
</script>
</body>
</html>
)PAGE";

}  // namespace cloudsim
