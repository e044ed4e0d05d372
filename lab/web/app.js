// The lab dashboard: plain JavaScript over the lab controller's control API
// (docs/lab-api.md), polled every second or so. No framework, nothing loaded
// from elsewhere: change it freely.
"use strict";

// The twelve commands the daemon takes, with parameters to start from
// (commands.json, shared with lab/ctl.py).
let COMMANDS = {};

const state = {
  serial: null,        // the device shown below the list
  devices: [],
  now: 0,              // the controller's clock, from GET /devices
  syslogSince: 0,
  syslogLines: [],
  queued: [],          // commands queued from this page: {id, name, serial}
};

const $ = (sel) => document.querySelector(sel);

function el(tag, attrs, ...children) {
  const e = document.createElement(tag);
  for (const [k, v] of Object.entries(attrs || {})) {
    if (k === "class") e.className = v;
    else if (k.startsWith("data-")) e.setAttribute(k, v);
    else e[k] = v;
  }
  for (const c of children) e.append(c === null || c === undefined ? "" : c);
  return e;
}

async function api(method, path, body) {
  const r = await fetch(path, {
    method,
    headers: body === undefined ? {} : {"Content-Type": "application/json"},
    body: body === undefined ? undefined : JSON.stringify(body),
  });
  const value = await r.json();
  if (!r.ok) throw new Error(value.error || `${method} ${path}: ${r.status}`);
  return value;
}

const q = (params) => new URLSearchParams(
  Object.entries(params).filter(([, v]) => v !== null && v !== undefined)).toString();

function ago(t) {
  if (!t) return "never";
  const s = Math.max(0, state.now - t);
  if (s < 90) return `${s.toFixed(0)} s ago`;
  if (s < 5400) return `${(s / 60).toFixed(0)} min ago`;
  return `${(s / 3600).toFixed(1)} h ago`;
}

function clock(t) {
  return new Date(t * 1000).toLocaleTimeString();
}

// "12:00:01 (3 s ago)", or "in 59 min" for a time still to come.
function when(t) {
  if (!t) return "never";
  if (t > state.now) {
    const s = t - state.now;
    return `${clock(t)} (in ${s < 90 ? s.toFixed(0) + " s" : s < 5400 ? (s / 60).toFixed(0) + " min" : (s / 3600).toFixed(1) + " h"})`;
  }
  return `${clock(t)} (${ago(t)})`;
}

function duration(s) {
  if (s === null || s === undefined) return "";
  const d = Math.floor(s / 86400), h = Math.floor(s % 86400 / 3600), m = Math.floor(s % 3600 / 60);
  return (d ? `${d}d ` : "") + `${h}h ${m}m`;
}

// ---- devices ---------------------------------------------------------------

async function refreshDevices() {
  const v = await api("GET", "/devices");
  state.devices = v.devices;
  state.now = v.time;
  const body = $("#devices tbody");
  body.replaceChildren(...v.devices.map((d) => {
    const row = el("tr", {"data-serial": d.serial, class: d.serial === state.serial ? "selected" : ""},
      el("td", {}, d.serial),
      el("td", {}, d.note.name || ""),
      el("td", {}, d.note.model ? `${d.note.model} (${d.note.ports} ports)` : ""),
      el("td", {class: "conn " + (d.connected ? "up" : "down")},
        d.connected ? "connected" : "not connected"),
      el("td", {}, ago(d.last_heartbeat)),
      el("td", {}, duration(d.uptime)),
      el("td", {}, d.client || d.note.address || ""),
      el("td", {}, d.lanIp || ""),
      el("td", {}, d.vpnIp || ""),
      el("td", {class: "num"}, d.heartbeats),
      el("td", {class: "num"}, d.results));
    row.addEventListener("click", () => select(d.serial));
    return row;
  }));
  if (state.serial === null && v.devices.length === 1) select(v.devices[0].serial);
}

function device() {
  return state.devices.find((d) => d.serial === state.serial) || {note: {}};
}

function select(serial) {
  if (serial === state.serial) return;
  state.serial = serial;
  state.syslogSince = 0;
  state.syslogLines = [];
  $("#syslog").textContent = "";
  $("#plots").replaceChildren();
  $("#device").hidden = false;
  $("#device-serial").textContent = serial;
  $("#device-name").textContent = device().note.name || "";
  for (const r of document.querySelectorAll("#devices tbody tr"))
    r.classList.toggle("selected", r.dataset.serial === serial);
  refreshDevice();
  refreshStatistics();
}

// ---- health ----------------------------------------------------------------

// What the last set.<context> asked, when the daemon has not (yet) taken it.
function asked(x) {
  if (x.asked === null || x.asked === undefined || (x.code === 0 && x.asked === x.interval)) return "";
  return ` (asked ${x.asked} s: ${x.code === null ? "no answer yet" : "refused, code " + x.code})`;
}

function answer(code) {
  return el("td", {class: "answer" + (code === null ? "" : code >= 200 && code < 300 ? " ok" : " failed")},
    code === null ? "" : code);
}

function healthRows(h) {
  const hb = h.heartbeat, tok = h.token, fw = h.firmware, ph = h.phone_home;
  const query = ph.query ? Object.entries(ph.query).map(([k, v]) => `${k.replace("[phone_home]", "")}=${v}`).join(" ") : "";
  return [
    ["heartbeat-last", "Last heartbeat", when(hb.last)],
    ["heartbeat-answer", "Answered", hb.last === null ? "" :
      (hb.answer === null ? "no answer (dropped)" : `${hb.answer}`) + (hb.failures ? `, ${hb.failures} refused in a row, last 2xx ${when(hb.last_ok)}` : `, ${hb.count} heartbeats`)],
    ["heartbeat-interval", "Heartbeat interval",
      (hb.gap === null ? "" : `${hb.gap.toFixed(1)} s between the last two; `) +
      (hb.interval === null ? "not set by the lab" : `${hb.interval} s set`) + asked(hb)],
    ["uptime", "Uptime", hb.uptime === null ? "" : `${duration(hb.uptime)} (${hb.uptime} s, the last heartbeat's)`],
    ["token", "Token", !tok.issued ? "none issued" :
      (tok.held ? "held" : "not held") + (tok.expires ? `, expires ${when(tok.expires)}` : ", no expiry")],
    ["vpn", "VPN address", hb.last === null ? "" : h.vpn.address || "none"],
    ["firmware", "Firmware", fw.running === null ? "" :
      `${fw.running} (${fw.via} query, ${when(fw.reported)})` + (fw.offered ? `; offered ${fw.offered}` : "")],
    ["phone-home", "Phone-home", ph.last === null ? "never" :
      `${when(ph.last)}, answered ${ph.answer}` + (ph.count > 1 ? `, ${ph.count} queries` : "")],
    ["phone-home-query", "Phone-home query", query],
  ].map(([field, label, text]) => el("tr", {"data-field": field}, el("th", {}, label), el("td", {}, text)));
}

async function refreshHealth() {
  const h = await api("GET", `/devices/${encodeURIComponent(state.serial)}/health`);
  // The same controller's clock as GET /devices gives, maybe a moment later.
  state.now = Math.max(state.now, h.time);
  $("#health tbody").replaceChildren(...healthRows(h));
  $("#streams tbody").replaceChildren(...Object.entries(h.streams).map(([name, s]) =>
    el("tr", {"data-stream": name},
      el("td", {}, name),
      el("td", {class: "enabled"}, s.enabled ? "yes" : "no"),
      el("td", {class: "interval"}, (s.interval === null ? "" : `${s.interval} s`) + asked(s)),
      el("td", {class: "link"}, s.link || ""),
      el("td", {class: "last"}, when(s.last)),
      answer(s.answer),
      el("td", {class: "posted num"}, s.posted),
      el("td", {class: "failed num"}, s.failed),
      el("td", {class: "lines num"}, s.lines === undefined ? "" : s.lines))));
}

// ---- ports -----------------------------------------------------------------

function neighbours(p) {
  return (p.neighbor || []).map((n) =>
    [n.system_name || n.chassis_id, n.port_id].filter(Boolean).join(" / ")).join(", ");
}

function vlans(p) {
  return (p.vlan || []).map((v) => `${v.id}${v.name ? " " + v.name : ""}`).join(", ");
}

async function refreshPorts() {
  const v = await api("GET", "/status?" + q({serial: state.serial}));
  $("#ports-empty").hidden = v.ports.length > 0;
  $("#ports-info").textContent = v.documents ? `${v.documents} status documents` : "";
  $("#ports tbody").replaceChildren(...v.ports.map((p) => el("tr", {"data-port": p.id},
    el("td", {class: "num"}, p.id),
    el("td", {}, p.name),
    el("td", {class: "link " + (p.operational_status === "up" ? "up" : "down")}, p.operational_status),
    el("td", {class: "num"}, p.speed),
    el("td", {}, p.duplex),
    el("td", {class: "admin"}, p.admin_status),
    el("td", {class: "neighbours"}, neighbours(p)),
    el("td", {class: "vlans"}, vlans(p)),
    el("td", {}, ago(p.updated_at)))));
}

// ---- statistics ------------------------------------------------------------

const SERIES = [["rx_max", "rx peak"], ["rx_avg", "rx average"], ["tx_max", "tx peak"], ["tx_avg", "tx average"]];

function plot(name, points) {
  const W = 560, H = 150, L = 60, B = 20;
  const svgNS = "http://www.w3.org/2000/svg";
  const svg = document.createElementNS(svgNS, "svg");
  svg.setAttribute("viewBox", `0 0 ${W} ${H}`);
  svg.setAttribute("class", "plot");
  svg.dataset.interface = name;
  const t0 = points[0].time, t1 = Math.max(points[points.length - 1].time, t0 + 1);
  const top = Math.max(1, ...points.flatMap((p) => SERIES.map(([k]) => p[k] || 0)));
  const x = (t) => L + (W - L - 10) * (t - t0) / (t1 - t0);
  const y = (v) => H - B - (H - B - 10) * v / top;
  const add = (tag, attrs, text) => {
    const e = document.createElementNS(svgNS, tag);
    for (const [k, v] of Object.entries(attrs)) e.setAttribute(k, v);
    if (text !== undefined) e.textContent = text;
    svg.append(e);
  };
  add("line", {x1: L, y1: H - B, x2: W - 10, y2: H - B, class: "axis"});
  add("line", {x1: L, y1: 10, x2: L, y2: H - B, class: "axis"});
  add("text", {x: L - 4, y: 14, class: "label end"}, top.toLocaleString());
  add("text", {x: L - 4, y: H - B, class: "label end"}, "0");
  add("text", {x: L, y: H - 4, class: "label"}, new Date(t0 * 1000).toLocaleTimeString());
  add("text", {x: W - 10, y: H - 4, class: "label end"}, new Date(t1 * 1000).toLocaleTimeString());
  SERIES.forEach(([k], i) => {
    add("polyline", {class: `s${i}`, points: points.map((p) => `${x(p.time).toFixed(1)},${y(p[k] || 0).toFixed(1)}`).join(" ")});
  });
  const last = points[points.length - 1];
  const legend = el("div", {class: "legend"}, el("b", {}, name), ` ${points.length} points; last: `,
    ...SERIES.map(([k, label], i) => el("span", {class: `s${i}`}, `${label} ${(last[k] || 0).toLocaleString()} `)));
  return el("figure", {}, legend, svg);
}

async function refreshStatistics() {
  if (!state.serial) return;
  const v = await api("GET", "/statistics?" + q({serial: state.serial}));
  const names = Object.keys(v.interfaces).sort();
  $("#plots").replaceChildren(...(names.length ? names.map((n) => plot(n, v.interfaces[n]))
    : [el("p", {class: "hint"}, "No statistics document yet.")]));
}

// ---- syslog ----------------------------------------------------------------

async function refreshSyslog() {
  const v = await api("GET", "/syslog?" + q({serial: state.serial, since: state.syslogSince}));
  if (!v.lines.length) return;
  state.syslogSince = v.lines[v.lines.length - 1].n;
  state.syslogLines.push(...v.lines);
  showSyslog();
}

function showSyslog() {
  const f = $("#syslog-filter").value;
  const pre = $("#syslog");
  const atEnd = pre.scrollTop + pre.clientHeight >= pre.scrollHeight - 4;
  pre.textContent = state.syslogLines
    .map((l) => `${l.logTime || ""}  ${l.message === null ? l.text : l.message}`)
    .filter((t) => !f || t.includes(f)).join("\n");
  if (atEnd) pre.scrollTop = pre.scrollHeight;
}

async function sendSyslog(ev) {
  ev.preventDefault();
  const text = $("#syslog-text").value || "hello from the switch";
  const netns = device().note.syslog_netns;
  await api("POST", "/syslog/send", {lines: [`<13>${text}`], ...(netns ? {netns} : {})});
}

// ---- commands and results --------------------------------------------------

function chooseCommand() {
  $("#command-params").value = JSON.stringify(COMMANDS[$("#command-name").value], null, 1);
}

async function queueCommand(ev) {
  ev.preventDefault();
  $("#command-error").textContent = "";
  const name = $("#command-name").value;
  const [action, context] = name.split(".");
  let params;
  try {
    params = JSON.parse($("#command-params").value || "{}");
  } catch (e) {
    $("#command-error").textContent = "parameters are not JSON: " + e.message;
    return;
  }
  const serial = $("#command-target").value === "any" ? "any" : state.serial;
  try {
    const v = await api("POST", "/commands", {command: {action, context, params}, serial});
    state.queued.unshift({id: v.ids[0], name, serial});
    refreshResults();
  } catch (e) {
    $("#command-error").textContent = e.message;
  }
}

async function refreshResults() {
  if (!state.queued.length) return;
  const [res, cmds] = await Promise.all([api("GET", "/results"), api("GET", "/commands")]);
  const delivered = new Set(cmds.delivered.map((c) => c.command.id));
  $("#results tbody").replaceChildren(...state.queued.map((c) => {
    const r = res.results.filter((x) => x.commandId === c.id).pop();
    const st = r ? "answered" : delivered.has(c.id) ? "delivered" : "queued";
    return el("tr", {"data-id": c.id, class: r ? (r.code === 0 ? "ok" : "failed") : ""},
      el("td", {}, c.id), el("td", {}, c.name), el("td", {class: "state"}, st),
      el("td", {class: "code"}, r ? r.code : ""), el("td", {class: "message"}, r ? r.message : ""),
      el("td", {class: "data"}, r && r.data !== undefined ? JSON.stringify(r.data) : ""));
  }));
}

// ---- archives --------------------------------------------------------------

async function refreshArchives() {
  const v = await api("GET", "/archives?" + q({serial: state.serial}));
  $("#archives").replaceChildren(...(v.archives.length ? v.archives.map((a) => el("li", {},
    el("a", {href: `/archive/download?seq=${a.seq}`, download: `${a.seq}-${a.filename}`}, a.filename),
    ` ${a.size.toLocaleString()} bytes, ${new Date(a.time * 1000).toLocaleString()}`))
    : [el("li", {class: "hint"}, "none yet")]));
}

// ---- the loop --------------------------------------------------------------

async function refreshDevice() {
  if (!state.serial) return;
  await Promise.all([refreshHealth(), refreshPorts(), refreshSyslog(), refreshArchives(),
    refreshResults()]);
}

async function every(ms, fn) {
  for (;;) {
    try {
      await fn();
      $("#clock").classList.remove("error");
    } catch (e) {
      $("#clock").textContent = "lab unreachable: " + e.message;
      $("#clock").classList.add("error");
    }
    await new Promise((r) => setTimeout(r, ms));
  }
}

async function start() {
  COMMANDS = await (await fetch("/web/commands.json")).json();
  for (const name of Object.keys(COMMANDS)) $("#command-name").append(el("option", {value: name}, name));
  chooseCommand();
  $("#command-name").addEventListener("change", chooseCommand);
  $("#command-form").addEventListener("submit", queueCommand);
  $("#syslog-send").addEventListener("submit", sendSyslog);
  $("#syslog-filter").addEventListener("input", showSyslog);
  try {
    const info = await api("GET", "/info");
    $("#controller").textContent = `controller ${info.base_url}`;
  } catch (e) { /* shown by the loop */ }
  every(1000, async () => {
    await refreshDevices();
    $("#clock").textContent = new Date(state.now * 1000).toLocaleTimeString();
  });
  every(1000, refreshDevice);
  every(5000, refreshStatistics);
}

start();
