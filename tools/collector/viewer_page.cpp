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
  header { display: flex; gap: 1rem; align-items: center; padding: .75rem 1rem; background: #1d2330; color: #fff; }
  header h1 { font-size: 1.1rem; margin: 0; font-weight: 600; }
  header .count { opacity: .8; }
  main { display: grid; grid-template-columns: minmax(0, 3fr) minmax(0, 2fr); gap: 1rem; padding: 1rem; }
  table { width: 100%; border-collapse: collapse; background: #fff; }
  th, td { text-align: left; padding: .35rem .5rem; border-bottom: 1px solid #e3e6eb; white-space: nowrap; }
  th { background: #eef0f4; position: sticky; top: 0; }
  tbody tr { cursor: pointer; }
  tbody tr:hover { background: #f0f5ff; }
  tbody tr.selected { background: #dce8ff; }
  td.xid { font-family: ui-monospace, monospace; font-size: 12px; color: #555; }
  pre { margin: 0; padding: 1rem; background: #fff; border: 1px solid #e3e6eb; overflow: auto; max-height: 80vh; font-size: 12px; }
  .empty { padding: 2rem; text-align: center; color: #777; }
</style>
</head>
<body>
<header>
  <h1>Zelvanor events</h1>
  <label>Action type
    <select id="type-filter" data-testid="type-filter"><option value="">all</option></select>
  </label>
  <span class="count" id="count" data-testid="count">0 events</span>
</header>
<main>
  <section>
    <table>
      <thead><tr><th>#</th><th>received</th><th>type</th><th>name</th><th>kind</th><th>page</th><th>cid</th></tr></thead>
      <tbody id="events" data-testid="events"></tbody>
    </table>
    <div class="empty" id="empty">No events yet. Track something.</div>
  </section>
  <section>
    <pre id="detail" data-testid="detail">Click an event to see its JSON.</pre>
  </section>
</main>
<script>
"use strict";
const events = new Map();  // id -> event, everything seen so far
const types = new Set();
let lastId = 0;
let selectedId = null;

function cell(text, cls) {
  const td = document.createElement("td");
  td.textContent = text;
  if (cls) td.className = cls;
  return td;
}

function render() {
  const filter = document.getElementById("type-filter").value;
  const body = document.getElementById("events");
  const shown = [...events.values()]
      .filter(e => !filter || e.actionType === filter)
      .sort((a, b) => b.id - a.id);
  body.replaceChildren(...shown.map(e => {
    const tr = document.createElement("tr");
    tr.dataset.id = e.id;
    tr.dataset.type = e.actionType;
    if (e.id === selectedId) tr.className = "selected";
    tr.append(cell(e.id), cell(e.receivedAt.replace("T", " ").replace("Z", "")), cell(e.actionType),
              cell(e.actionName), cell(e.actionKind), cell(e.page), cell(e.xid.cid.slice(0, 12), "xid"));
    tr.addEventListener("click", () => select(e.id));
    return tr;
  }));
  document.getElementById("empty").style.display = shown.length ? "none" : "block";
  document.getElementById("count").textContent =
      shown.length + (shown.length === 1 ? " event" : " events") + (filter ? " of type " + filter : "");
}

function select(id) {
  selectedId = id;
  document.getElementById("detail").textContent = JSON.stringify(events.get(id).record, null, 2);
  render();
}

function updateTypes() {
  const select = document.getElementById("type-filter");
  const known = new Set([...select.options].map(o => o.value));
  [...types].sort().filter(t => !known.has(t)).forEach(t => {
    const option = document.createElement("option");
    option.value = option.textContent = t;
    select.append(option);
  });
}

// Pages are read oldest first from the last id seen, so a burst bigger than a page is fetched
// whole: what one poll leaves (it reads a few pages at most) the next picks up where it stopped.
const pageSize = 5000;
const pagesPerPoll = 10;
let polling = false;

async function poll() {
  if (polling) return;  // a slow poll is not overtaken by the next tick
  polling = true;
  let changed = false;
  try {
    for (let page = 0; page < pagesPerPoll; ++page) {
      const answer = await fetch("/api/events?order=asc&limit=" + pageSize + "&after=" + lastId,
                                 {cache: "no-store"});
      const {events: arrived} = await answer.json();
      for (const e of arrived) {
        events.set(e.id, e);
        types.add(e.actionType);
        lastId = Math.max(lastId, e.id);
      }
      changed = changed || arrived.length > 0;
      if (arrived.length < pageSize) break;
    }
  } catch (error) {
    document.getElementById("count").textContent = "collector unreachable";
  } finally {
    polling = false;
  }
  if (changed) { updateTypes(); render(); }
}

document.getElementById("type-filter").addEventListener("change", render);
render();
poll();
setInterval(poll, 1000);
</script>
</body>
</html>
)HTML";
}

}  // namespace zelvanor::collector
