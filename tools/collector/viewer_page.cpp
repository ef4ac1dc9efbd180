#include "viewer_page.hpp"

namespace zelvanor::collector {

// Kept inline so the collector is one binary with nothing to install beside it.
std::string_view viewerPage() {
  return R"HTML(<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<title>Zelvanor events</title>
<style>
  body { font: 14px/1.4 system-ui, sans-serif; margin: 0; color: #1d2330; background: #f6f7f9; }
  header { display: flex; gap: 1rem; align-items: baseline; padding: .75rem 1rem; background: #1d2330; color: #fff; }
  header h1 { font-size: 1.1rem; margin: 0; font-weight: 600; }
  header .count { opacity: .85; }
  header .refused-count { color: #ffb4b4; }
  header .zone { margin-left: auto; opacity: .7; font-size: 12px; }
  form#filters { display: flex; flex-wrap: wrap; gap: .5rem; align-items: end; padding: .6rem 1rem; background: #fff; border-bottom: 1px solid #e3e6eb; }
  form#filters label { display: flex; flex-direction: column; font-size: 11px; color: #555; }
  form#filters input, form#filters select { font: inherit; padding: .2rem .35rem; border: 1px solid #c9ced8; border-radius: 3px; }
  form#filters input[name=q] { width: 16rem; }
  form#filters input.id { width: 8rem; }
  .actions { display: flex; gap: .4rem; margin-left: auto; }
  .actions a, button { font: inherit; font-size: 12px; padding: .25rem .6rem; border: 1px solid #c9ced8; border-radius: 3px; background: #f6f7f9; color: #1d2330; text-decoration: none; cursor: pointer; }
  #chart-box { display: grid; grid-template-columns: minmax(0, 1fr) 16rem; gap: 1rem; padding: .6rem 1rem 0; }
  #chart { width: 100%; height: 130px; background: #fff; border: 1px solid #e3e6eb; }
  #chart text { font-size: 9px; fill: #667; }
  #legend { list-style: none; margin: 0; padding: 0; font-size: 12px; max-height: 130px; overflow: auto; }
  #legend li { display: flex; gap: .4rem; align-items: center; cursor: pointer; padding: 1px 0; }
  #legend li .swatch { width: 10px; height: 10px; border-radius: 2px; }
  #legend li .n { margin-left: auto; font-variant-numeric: tabular-nums; }
  main { display: grid; grid-template-columns: minmax(0, 3fr) minmax(0, 2fr); gap: 1rem; padding: 1rem; }
  #table-box { max-height: 70vh; overflow: auto; background: #fff; border: 1px solid #e3e6eb; }
  table { width: 100%; border-collapse: collapse; background: #fff; font-size: 13px; }
  th, td { text-align: left; padding: .25rem .4rem; border-bottom: 1px solid #e3e6eb; white-space: nowrap; }
  th { background: #eef0f4; position: sticky; top: 0; }
  #events tr { cursor: pointer; }
  #events tr:hover { background: #f0f5ff; }
  #events tr.selected { background: #dce8ff; }
  #events tr.refused { background: #fff0f0; color: #8a1c1c; }
  #events tr.refused td.type::before { content: "\26A0  "; }
  td.xid { font-family: ui-monospace, monospace; font-size: 12px; color: #555; }
  td.num { font-variant-numeric: tabular-nums; color: #777; }
  pre { margin: 0; padding: 1rem; background: #fff; border: 1px solid #e3e6eb; overflow: auto; max-height: 50vh; font-size: 12px; }
  .detail-bar { display: flex; gap: .4rem; align-items: center; margin-bottom: .4rem; flex-wrap: wrap; }
  .empty, .more { padding: 1rem; text-align: center; color: #777; }
  #session { margin-top: 1rem; background: #fff; border: 1px solid #e3e6eb; }
  #session h2 { font-size: 13px; margin: 0; padding: .4rem .6rem; background: #eef0f4; }
  #session .gap { color: #777; font-variant-numeric: tabular-nums; }
  #session-box { max-height: 35vh; overflow: auto; }
  .paused { background: #fff6d6; padding: .3rem .6rem; font-size: 12px; }
</style>
</head>
<body>
<header>
  <h1>Zelvanor events</h1>
  <span class="count" id="count" data-testid="count">0 events</span>
  <span class="refused-count" id="refused-count" data-testid="refused-count"></span>
  <span class="zone" id="zone" data-testid="timezone"></span>
</header>
<form id="filters" data-testid="filters" autocomplete="off">
  <label>Search <input name="q" type="search" placeholder="any text in the record" data-testid="search"></label>
  <label>Action type <select name="type" data-testid="type-filter"><option value="">all</option></select></label>
  <label>Name <input name="name" class="id" data-testid="name-filter"></label>
  <label>Kind <input name="kind" class="id" data-testid="kind-filter"></label>
  <label>Page <input name="page" class="id" data-testid="page-filter"></label>
  <label>cid <input name="cid" class="id" data-testid="cid-filter"></label>
  <label>User id <input name="user" class="id" data-testid="user-filter"></label>
  <label>Records <select name="status" data-testid="status-filter">
    <option value="all">accepted and refused</option><option value="accepted">accepted</option><option value="refused">refused</option>
  </select></label>
  <button type="button" id="clear">Clear</button>
  <span class="actions">
    <a id="export-ndjson" data-testid="export-ndjson" download>Export NDJSON</a>
    <a id="export-csv" data-testid="export-csv" download>Export CSV</a>
  </span>
</form>
<div id="chart-box">
  <svg id="chart" data-testid="chart" viewBox="0 0 600 130" preserveAspectRatio="none" role="img" aria-label="events per minute, last hour"></svg>
  <ul id="legend" data-testid="type-counts"></ul>
</div>
<main>
  <section>
    <div class="paused" id="paused" hidden>Showing older events; new ones are not added. <button type="button" id="newest">Back to the newest</button></div>
    <div id="table-box">
      <table>
        <thead><tr><th>#</th><th id="received-head">received</th><th>type</th><th>name</th><th>kind</th><th>page</th><th>cid</th><th>user</th></tr></thead>
        <tbody id="events" data-testid="events"></tbody>
      </table>
      <div class="empty" id="empty">No events yet. Track something.</div>
      <div class="more"><button type="button" id="older" data-testid="older" hidden>Show older</button></div>
    </div>
  </section>
  <section>
    <div class="detail-bar">
      <button type="button" id="copy" data-testid="copy" disabled>Copy JSON</button>
      <span id="copied" data-testid="copied"></span>
      <span id="session-buttons"></span>
    </div>
    <pre id="detail" data-testid="detail">Click an event to see its JSON.</pre>
    <div id="session" data-testid="session" hidden>
      <h2 id="session-title"></h2>
      <div id="session-box">
        <table>
          <thead><tr><th>time</th><th>after</th><th>type</th><th>name</th><th>page</th></tr></thead>
          <tbody id="session-events"></tbody>
        </table>
      </div>
    </div>
  </section>
</main>
<script>
"use strict";
// The page holds at most maxRows rows; filtering, counting and searching happen in the collector's
// SQLite, so a store of a day's events costs the page no more than a few hundred.
const pageSize = 200;
const maxRows = 2000;
// A poll that finds more new rows than this reloads the newest page instead of adding them all.
const pollLimit = 500;
const filterNames = ["q", "type", "name", "kind", "page", "cid", "user", "status"];
const $ = (id) => document.getElementById(id);
const form = $("filters");

const shown = new Map();  // id -> event, the rows in the table
let newestId = 0, oldestId = 0, hasOlder = false, paused = false;
let generation = 0;  // answers to an earlier filter are dropped
let selectedId = null;
let session = null;  // {key: "cid"|"did"|"sid", value}
const knownTypes = new Set();

// ---- times: local, with the zone named ----
const pad = (n, w = 2) => String(n).padStart(w, "0");
function localTime(iso, withDate = true) {
  const d = new Date(iso);
  const time = `${pad(d.getHours())}:${pad(d.getMinutes())}:${pad(d.getSeconds())}.${pad(d.getMilliseconds(), 3)}`;
  return withDate ? `${d.getFullYear()}-${pad(d.getMonth() + 1)}-${pad(d.getDate())} ${time}` : time;
}
function zoneName() {
  const offset = -new Date().getTimezoneOffset();
  const sign = offset >= 0 ? "+" : "-";
  const zone = Intl.DateTimeFormat().resolvedOptions().timeZone || "local time";
  return `${zone} (UTC${sign}${pad(Math.floor(Math.abs(offset) / 60))}:${pad(Math.abs(offset) % 60)})`;
}
function gapText(ms) {
  if (ms < 1000) return `+${ms} ms`;
  if (ms < 60000) return `+${(ms / 1000).toFixed(1)} s`;
  const minutes = Math.floor(ms / 60000);
  if (minutes < 60) return `+${minutes} min ${Math.round((ms % 60000) / 1000)} s`;
  return `+${Math.floor(minutes / 60)} h ${minutes % 60} min`;
}

// ---- the filter, kept in the address so that it can be shared ----
function filter() {
  const f = {};
  for (const name of filterNames) {
    const value = form.elements[name].value.trim();
    if (value && !(name === "status" && value === "all")) f[name] = value;
  }
  return f;
}
function query(extra = {}) {
  const f = filter();
  const params = new URLSearchParams({status: "all", ...f, ...extra});
  return params.toString();
}
function saveToAddress() {
  const params = new URLSearchParams(filter());
  if (session) params.set("session", `${session.key}:${session.value}`);
  const text = params.toString();
  history.replaceState(null, "", text ? "?" + text : location.pathname);
}
function loadFromAddress() {
  const params = new URLSearchParams(location.search);
  for (const name of filterNames) {
    const value = params.get(name) || (name === "status" ? "all" : "");
    if (name === "type" && value) addTypeOption(value);
    form.elements[name].value = value;
  }
  const s = params.get("session");
  const colon = s ? s.indexOf(":") : -1;
  if (colon > 0) session = {key: s.slice(0, colon), value: s.slice(colon + 1)};
}
function updateExportLinks() {
  $("export-ndjson").href = "/api/export?" + query({format: "ndjson"});
  $("export-csv").href = "/api/export?" + query({format: "csv"});
}

async function getJson(path) {
  const answer = await fetch(path, {cache: "no-store"});
  if (!answer.ok) throw new Error(await answer.text());
  return answer.json();
}

// ---- the table ----
function cell(text, cls) {
  const td = document.createElement("td");
  td.textContent = text;
  if (cls) td.className = cls;
  return td;
}
function rowOf(e) {
  const tr = document.createElement("tr");
  tr.dataset.id = e.id;
  if (e.refused) {
    tr.className = "refused";
    tr.dataset.type = "refused";
    tr.append(cell(e.id, "num"), cell(localTime(e.receivedAt)), cell("refused", "type"),
              cell(`${e.refused.reason} at ${e.refused.path}`), cell(""), cell(""),
              cell(e.body.slice(0, 40), "xid"), cell(""));
  } else {
    tr.dataset.type = e.actionType;
    tr.append(cell(e.id, "num"), cell(localTime(e.receivedAt)), cell(e.actionType, "type"),
              cell(e.actionName), cell(e.actionKind), cell(e.page), cell(e.xid.cid.slice(0, 12), "xid"),
              cell(e.userId));
  }
  if (e.id === selectedId) tr.classList.add("selected");
  return tr;
}
function updateTableState() {
  $("empty").style.display = shown.size ? "none" : "block";
  $("older").hidden = !hasOlder;
  $("paused").hidden = !paused;
}
// Newest first; `arrived` is oldest first, as the API pages forward.
function addNewest(arrived) {
  const body = $("events");
  const fragment = document.createDocumentFragment();
  for (let i = arrived.length - 1; i >= 0; --i) {
    const e = arrived[i];
    if (shown.has(e.id)) continue;
    shown.set(e.id, e);
    fragment.append(rowOf(e));
    newestId = Math.max(newestId, e.id);
  }
  body.prepend(fragment);
  while (shown.size > maxRows) {
    const last = body.lastElementChild;
    shown.delete(Number(last.dataset.id));
    last.remove();
    hasOlder = true;
  }
  oldestId = body.lastElementChild ? Number(body.lastElementChild.dataset.id) : 0;
  updateTableState();
}
function addOlder(events) {
  const body = $("events");
  const fragment = document.createDocumentFragment();
  for (const e of events) {
    if (shown.has(e.id)) continue;
    shown.set(e.id, e);
    fragment.append(rowOf(e));
  }
  body.append(fragment);
  // Reading further back drops the newest rows; live updates stop until the reader comes back.
  while (shown.size > maxRows) {
    const first = body.firstElementChild;
    shown.delete(Number(first.dataset.id));
    first.remove();
    paused = true;
  }
  if (body.firstElementChild) newestId = Number(body.firstElementChild.dataset.id);
  oldestId = body.lastElementChild ? Number(body.lastElementChild.dataset.id) : 0;
  updateTableState();
}

let reloading = 0;
async function reload() {
  ++reloading;
  try {
    await loadFirstPage();
  } finally {
    --reloading;
  }
}
async function loadFirstPage() {
  const mine = ++generation;
  updateExportLinks();
  saveToAddress();
  const [page] = await Promise.all([
    getJson("/api/events?" + query({limit: pageSize})),
    refreshStats(mine),
  ]);
  if (mine !== generation) return;
  shown.clear();
  $("events").replaceChildren();
  newestId = 0;
  paused = false;
  hasOlder = page.events.length === pageSize || page.truncated;
  addNewest(page.events.slice().reverse());
  if (!document.body.dataset.loadedAt) document.body.dataset.loadedAt = performance.now();
  document.body.dataset.loaded = query();
}

async function showOlder() {
  const mine = generation;
  const page = await getJson("/api/events?" + query({limit: pageSize, before: oldestId}));
  if (mine !== generation) return;
  hasOlder = page.events.length === pageSize || page.truncated;
  addOlder(page.events);
}

let polling = false;
async function poll() {
  // A poll asks for what is newer than the page shown: none starts while a reload's page is on
  // its way (it would ask from the old page's newest, or from 0, and add that to the new page).
  if (polling || paused || reloading > 0) return;
  polling = true;
  const mine = generation;
  try {
    const {events: arrived} =
        await getJson("/api/events?" + query({order: "asc", limit: pollLimit, after: newestId}));
    if (mine !== generation) return;
    if (arrived.length === pollLimit) {
      await reload();
    } else if (arrived.length > 0) {
      addNewest(arrived);
      await refreshStats(mine);
    } else if (minuteNow() !== chartMinute) {
      await refreshStats(mine);  // the chart moves on even when nothing arrives
    }
  } catch (error) {
    $("count").textContent = "collector unreachable";
  } finally {
    polling = false;
  }
}

// ---- counts and the chart ----
const palette = ["#3b6fd8", "#e07b24", "#2f9e6e", "#9b59b6", "#8e6e53", "#16a2b8", "#b8860b",
                 "#7f8c8d", "#d35486", "#4b5ea8"];
const typeColor = new Map();
function colorOf(type) {
  if (!typeColor.has(type)) typeColor.set(type, palette[typeColor.size % palette.length]);
  return typeColor.get(type);
}
const minuteNow = () => new Date().toISOString().slice(0, 16);
let chartMinute = "";

function addTypeOption(type) {
  if (knownTypes.has(type)) return;
  knownTypes.add(type);
  const select = form.elements.type;
  const option = document.createElement("option");
  option.value = option.textContent = type;
  const after = [...select.options].slice(1).find((o) => o.value > type);
  select.insertBefore(option, after || null);
}

async function refreshStats(mine) {
  // The type choices come from everything stored: a filtered answer lists only what it matches,
  // and a shared link with ?type=X would offer nothing but X. One minute keeps the extra count small.
  const filtered = Object.keys(filter()).length > 0;
  const [stats, everything] = await Promise.all([
    getJson("/api/stats?" + query()),
    filtered ? getJson("/api/stats?status=all&minutes=1") : null,
  ]);
  if (mine !== generation) return;
  const accepted = stats.total - stats.refused;
  const type = filter().type;
  $("count").textContent = `${accepted.toLocaleString("en")} ${accepted === 1 ? "event" : "events"}` +
      (type ? ` of type ${type}` : "");
  $("refused-count").textContent = stats.refused ? `${stats.refused.toLocaleString("en")} refused` : "";
  (everything || stats).types.forEach((t) => addTypeOption(t.type));
  drawLegend(stats);
  drawChart(stats);
}

function drawLegend(stats) {
  const items = stats.types.map((t) => {
    const li = document.createElement("li");
    li.dataset.type = t.type;
    li.title = `show only ${t.type}`;
    const swatch = document.createElement("span");
    swatch.className = "swatch";
    swatch.style.background = colorOf(t.type);
    const name = document.createElement("span");
    name.textContent = t.type;
    const n = document.createElement("span");
    n.className = "n";
    n.textContent = t.count.toLocaleString("en");
    li.append(swatch, name, n);
    li.addEventListener("click", () => { form.elements.type.value = t.type; reload(); });
    return li;
  });
  if (stats.refused) {
    const li = document.createElement("li");
    li.dataset.type = "refused";
    li.innerHTML = '<span class="swatch" style="background:#e74c3c"></span><span>refused</span><span class="n"></span>';
    li.lastChild.textContent = stats.refused.toLocaleString("en");
    li.addEventListener("click", () => { form.elements.status.value = "refused"; reload(); });
    items.push(li);
  }
  $("legend").replaceChildren(...items);
}

const svgNs = "http://www.w3.org/2000/svg";
function svg(name, attributes, text) {
  const element = document.createElementNS(svgNs, name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  if (text !== undefined) element.textContent = text;
  return element;
}

// Sixty stacked bars, one a minute, the newest on the right.
function drawChart(stats) {
  chartMinute = minuteNow();
  const perMinute = new Map();
  for (const m of stats.minutes) {
    if (!perMinute.has(m.minute)) perMinute.set(m.minute, []);
    perMinute.get(m.minute).push(m);
  }
  const start = Date.parse(stats.since + ":00Z");
  const minutes = [];
  for (let i = 0; i < 60; ++i) {
    const key = new Date(start + i * 60000).toISOString().slice(0, 16);
    const parts = perMinute.get(key) || [];
    minutes.push({key, parts, total: parts.reduce((sum, p) => sum + p.count, 0)});
  }
  const highest = Math.max(1, ...minutes.map((m) => m.total));
  const left = 34, top = 8, width = 560, height = 100, barWidth = width / 60;
  const nodes = [
    svg("line", {x1: left, y1: top + height, x2: left + width, y2: top + height, stroke: "#c9ced8"}),
    svg("text", {x: left - 4, y: top + 8, "text-anchor": "end"}, highest.toLocaleString("en")),
    svg("text", {x: left - 4, y: top + height, "text-anchor": "end"}, "0"),
  ];
  minutes.forEach((m, i) => {
    const x = left + i * barWidth;
    const label = localTime(m.key + ":00Z", false).slice(0, 5);
    const group = svg("g", {"data-minute": label, "data-count": m.total, class: "bar"});
    group.append(svg("title", {}, `${label}: ${m.total} ${m.total === 1 ? "event" : "events"}`));
    let y = top + height;
    for (const p of m.parts) {
      const h = (p.count / highest) * height;
      y -= h;
      group.append(svg("rect", {x: x + 0.5, y, width: barWidth - 1, height: h,
                                fill: p.refused ? "#e74c3c" : colorOf(p.type)}));
    }
    // A transparent full-height target, so the tooltip shows over short bars too.
    group.append(svg("rect", {x, y: top, width: barWidth, height, fill: "transparent"}));
    nodes.push(group);
    if (i % 10 === 0 || i === 59) {
      nodes.push(svg("text", {x: x + barWidth / 2, y: top + height + 14, "text-anchor": "middle"}, label));
    }
  });
  $("chart").replaceChildren(...nodes);
}

// ---- one event: its JSON, copying it, its device's session ----
function detailText(e) {
  if (!e.refused) return JSON.stringify(e.record, null, 2);
  return `Refused: ${e.refused.reason} at ${e.refused.path}\nreceived ${localTime(e.receivedAt)}\n\n${e.body}`;
}
function select(id) {
  const e = shown.get(id);
  if (!e) return;
  const previous = $("events").querySelector("tr.selected");
  if (previous) previous.classList.remove("selected");
  const row = $("events").querySelector(`tr[data-id="${id}"]`);
  if (row) row.classList.add("selected");
  selectedId = id;
  $("detail").textContent = detailText(e);
  $("copy").disabled = false;
  $("copied").textContent = "";
  const buttons = [];
  if (!e.refused) {
    for (const key of ["cid", "did", "sid"]) {
      if (!e.xid[key]) continue;
      const button = document.createElement("button");
      button.type = "button";
      button.dataset.testid = "session-" + key;
      button.textContent = `${key} session`;
      button.title = `every event of ${key} ${e.xid[key]}, in order`;
      button.addEventListener("click", () => openSession(key, e.xid[key]));
      buttons.push(button);
    }
  }
  $("session-buttons").replaceChildren(...buttons);
}

async function copyDetail() {
  const text = $("detail").textContent;
  try {
    await navigator.clipboard.writeText(text);
  } catch {
    // Without clipboard permission, the older way through a selection.
    const area = document.createElement("textarea");
    area.value = text;
    document.body.append(area);
    area.select();
    document.execCommand("copy");
    area.remove();
  }
  $("copied").textContent = "Copied";
}

// A device left running for days has more than this; its latest events are the ones that matter,
// so the newest are read and shown oldest first.
const sessionLimit = 1000;
async function openSession(key, value) {
  session = {key, value};
  saveToAddress();
  const newestFirst = (await getJson("/api/events?" + new URLSearchParams(
      {[key]: value, order: "desc", limit: sessionLimit}).toString())).events;
  if (!session || session.key !== key || session.value !== value) return;
  const events = newestFirst.reverse();
  let previous = null;
  const rows = events.map((e) => {
    const tr = document.createElement("tr");
    const at = Date.parse(e.receivedAt);
    tr.dataset.id = e.id;
    tr.append(cell(localTime(e.receivedAt)), cell(previous === null ? "" : gapText(at - previous), "gap"),
              cell(e.actionType), cell(e.actionName), cell(e.page));
    previous = at;
    return tr;
  });
  $("session-events").replaceChildren(...rows);
  $("session-title").textContent = `${key} ${value}: ${events.length}${events.length === sessionLimit ? " (the newest)" : ""} ` +
      `${events.length === 1 ? "event" : "events"}` +
      (events.length > 1 ? `, ${gapText(Date.parse(events.at(-1).receivedAt) - Date.parse(events[0].receivedAt)).slice(1)} from first to last` : "");
  $("session").hidden = false;
}

// ---- wiring ----
$("zone").textContent = "Times in " + zoneName();
$("received-head").textContent = "received (local)";
let typing = null;
form.addEventListener("input", (event) => {
  clearTimeout(typing);
  // Selects apply at once; text waits for a pause in typing.
  typing = setTimeout(reload, event.target.tagName === "SELECT" ? 0 : 200);
});
form.addEventListener("submit", (event) => { event.preventDefault(); clearTimeout(typing); reload(); });
$("clear").addEventListener("click", () => {
  form.reset();
  session = null;  // out of the address too
  $("session").hidden = true;
  reload();
});
$("events").addEventListener("click", (event) => {
  const row = event.target.closest("tr");
  if (row) select(Number(row.dataset.id));
});
$("older").addEventListener("click", showOlder);
$("newest").addEventListener("click", reload);
$("copy").addEventListener("click", copyDetail);
loadFromAddress();
updateTableState();
reload().then(() => { if (session) openSession(session.key, session.value); });
setInterval(poll, 1000);
</script>
</body>
</html>
)HTML";
}

}  // namespace zelvanor::collector
