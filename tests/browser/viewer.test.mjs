// The collector's event viewer in headless Chromium: a collector started here, the demo's shop
// session run against it while the page is open, and the page checked as a person would use it;
// then the same on a store of 100,000 made-up events.
//
//   ZELVANOR_COLLECTOR=path/to/zelvanor-collector ZELVANOR_SHOP_SESSION=path/to/shop_session \
//     [ZELVANOR_CHROMIUM=path] [ZELVANOR_ARTIFACT_DIR=dir] node --test viewer.test.mjs
import { test } from "node:test";
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { mkdtempSync, readFileSync, existsSync, mkdirSync, rmSync } from "node:fs";
import { Agent, request } from "node:https";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { chromium } from "playwright-core";

const collectorBinary = process.env.ZELVANOR_COLLECTOR;
const shopSessionBinary = process.env.ZELVANOR_SHOP_SESSION;
const chromiumBinary = process.env.ZELVANOR_CHROMIUM || "/usr/bin/chromium";
const artifactDir = process.env.ZELVANOR_ARTIFACT_DIR || tmpdir();

// What examples/shop_session.cpp tracks, as "type/name", and the app events the SDK adds (install,
// launches, background). Records travel over parallel connections, so the collector may store two
// close ones in either order: the list is checked against what it stored, not against this order.
const sessionActions = [
  "page_view/home",
  "event/search",
  "view_imp/search_results",
  "event/promotion_click",
  "page_view/product",
  "ecommerce/purchase",
  "video_meeting/join",
  "video_meeting/leave",
  "page_view/order_status",
];
const appActions = ["app/앱설치", "app/앱실행", "app/앱실행", "app/앱실행", "app/백그라운드"];

// Every wait is for a condition, bounded generously: a loaded machine makes the page slower, not
// wrong. (How fast it is belongs to a benchmark, not to this test.)
async function waitFor(what, check, timeoutMs = 30000) {
  const deadline = Date.now() + timeoutMs;
  while (Date.now() < deadline) {
    const value = await check();
    if (value) return value;
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
  throw new Error(`timed out waiting for ${what}`);
}

// Runs a program to its end (bounded), with its output kept for the failure message.
function run(binary, args, timeoutMs) {
  return new Promise((resolve, reject) => {
    const child = spawn(binary, args, { stdio: ["ignore", "pipe", "pipe"] });
    let output = "";
    child.stdout.on("data", (chunk) => (output += chunk));
    child.stderr.on("data", (chunk) => (output += chunk));
    const timer = setTimeout(() => child.kill("SIGKILL"), timeoutMs);
    child.on("error", reject);
    child.on("close", (code, signal) => {
      clearTimeout(timer);
      resolve({ code, signal, output });
    });
  });
}

// Starts a collector in a fresh folder; stopped and removed when the test ends.
async function startCollector(t, extraArgs = [], startTimeoutMs = 10000) {
  const dataDir = mkdtempSync(join(tmpdir(), "zelvanor-viewer-"));
  const portFile = join(dataDir, "port");
  const collector = spawn(collectorBinary, ["--data-dir", join(dataDir, "collector"), "--port-file", portFile, ...extraArgs],
                          { stdio: ["ignore", "ignore", "inherit"] });
  t.after(() => {
    collector.kill("SIGTERM");
    rmSync(dataDir, { recursive: true, force: true });
  });
  await waitFor("the collector's port", () => existsSync(portFile), startTimeoutMs);
  const port = Number(readFileSync(portFile, "utf8").trim());
  return { dataDir, port, base: `https://127.0.0.1:${port}`, ca: readFileSync(join(dataDir, "collector", "cert.pem")) };
}

async function openViewer(t, base, contextOptions = {}, path = "/") {
  // The collector's certificate is self-signed and this browser profile has no way to trust it;
  // skipping the check is confined to this loopback test.
  const browser = await chromium.launch({
    executablePath: chromiumBinary, headless: true,
    args: ["--no-sandbox", "--disable-gpu", "--disable-background-networking", "--disable-dev-shm-usage"],
  });
  t.after(() => browser.close());
  const context = await browser.newContext({ ignoreHTTPSErrors: true, viewport: { width: 1400, height: 900 }, ...contextOptions });
  const page = await context.newPage();
  const errors = [];
  page.on("pageerror", (error) => errors.push(error.message));
  t.after(() => assert.deepEqual(errors, [], "the page threw"));
  await page.goto(base + path);
  return page;
}

// Waits until the page has shown the answer to the filter its form now holds.
async function settled(page) {
  await page.waitForFunction(() => document.body.dataset.loaded === query(), null, { timeout: 30000 });
}

test("the viewer lists the demo session newest first, live, filters by type and shows the JSON", async (t) => {
  assert.ok(collectorBinary, "ZELVANOR_COLLECTOR names the collector binary");
  assert.ok(shopSessionBinary, "ZELVANOR_SHOP_SESSION names the shop_session example");
  const { dataDir, base } = await startCollector(t);
  const page = await openViewer(t, base);
  await page.getByText("No events yet").waitFor({ timeout: 30000 });

  // The session runs while the page is open: its events show up without a reload.
  const session = await run(shopSessionBinary, [base, join(dataDir, "collector", "cert.pem"), join(dataDir, "app")], 60000);
  assert.equal(session.code, 0, `shop_session failed:\n${session.output}`);
  assert.ok(!existsSync(join(dataDir, "app", "ZLogs.tmp")), "nothing left behind for the next start");
  const total = sessionActions.length + appActions.length;
  const rows = page.locator("tbody#events tr");
  await rows.nth(total - 1).waitFor({ timeout: 30000 });
  const shown = async () => rows.evaluateAll((trs) => trs.map((tr) => ({
    id: Number(tr.dataset.id),
    received: tr.children[1].textContent,
    action: `${tr.children[2].textContent}/${tr.children[3].textContent}`,
  })));

  const listed = await shown();
  assert.equal(listed.length, total);
  assert.deepEqual(listed.map((r) => r.action).sort(), [...sessionActions, ...appActions].sort());
  // Newest first: the collector's own newest-first list, row for row, the receive times falling.
  const stored = await page.evaluate(async () => {
    const answer = await fetch("/api/events?limit=100");
    return (await answer.json()).events.map((e) => e.id);
  });
  assert.deepEqual(listed.map((r) => r.id), stored);
  for (let i = 1; i < listed.length; ++i) {
    assert.ok(listed[i - 1].received >= listed[i].received, `row ${i} was received after the row above it`);
  }
  assert.match(await page.textContent("[data-testid=count]"), new RegExp(`^${total} events$`));

  // Filtering by action type: only that type, in the same order; "all" brings everything back.
  for (const [type, count] of [["page_view", 3], ["video_meeting", 2], ["app", appActions.length]]) {
    await page.selectOption("[data-testid=type-filter]", type);
    await settled(page);
    assert.deepEqual(await shown(), listed.filter((r) => r.action.startsWith(type + "/")));
    assert.equal((await shown()).length, count);
    assert.equal(await page.textContent("[data-testid=count]"), `${count} events of type ${type}`);
  }
  await page.selectOption("[data-testid=type-filter]", "");
  await settled(page);
  assert.deepEqual(await shown(), listed);

  // A click shows the event's full JSON: the purchase as the app described it.
  await rows.filter({ hasText: "purchase" }).click();
  const detail = JSON.parse(await page.textContent("[data-testid=detail]"));
  assert.deepEqual(detail.action, { type: "ecommerce", name: "purchase", kind: "complete" });
  assert.equal(detail.page.id, "checkout");
  assert.equal(detail.domain.purchase.order_id, "order-58213");
  assert.equal(detail.domain.purchase.price, 129.9);
  assert.equal(detail.domain.purchase.currency, "EUR");
  assert.equal(detail.common.service_name, "trail-shop");
  assert.equal(detail.id.app_user_id, "shopper-1042");
  const impression = (await api(page, "/api/events?limit=100")).events.find((e) => e.actionName === "search_results");
  assert.ok(impression?.record?.viewimp_contents?.length > 0, "the impression carries its contents");
  assert.ok(detail.xid.cid && detail.xid.did && detail.xid.sid, "the identity triple is there");
  assert.equal(await rows.filter({ hasText: "purchase" }).getAttribute("class"), "selected");
});

// Posts one body to /sdk/track; the status and the answer's text.
function post(port, ca, body, headers = {}) {
  return new Promise((resolve, reject) => {
    const req = request({ host: "127.0.0.1", port, path: "/sdk/track", method: "POST", ca,
                          headers: { "Content-Type": "application/json", ...headers } }, (res) => {
      let text = "";
      res.on("data", (chunk) => (text += chunk));
      res.on("end", () => resolve({ status: res.statusCode, text }));
    });
    req.on("error", reject);
    req.end(body);
  });
}

const record = (name, extra = {}) => JSON.stringify({
  xid: { cid: "cid-live", did: "did-live", sid: "sid-live" },
  sdk: { type: "production", version: "0.9.0", common_log_version: "1.2.0" },
  action: { type: "event", name, kind: "tap" },
  ...extra,
});

// What the API says about a filter, asked from inside the page (same origin, same certificate).
const api = (page, path) => page.evaluate(async (p) => (await fetch(p)).json(), path);
const rowIds = (page) => page.locator("tbody#events tr").evaluateAll((trs) => trs.map((tr) => Number(tr.dataset.id)));
const column = (page, n) => page.locator("tbody#events tr").evaluateAll(
    (trs, i) => trs.map((tr) => tr.children[i].textContent), n);

test("on 100,000 stored events the viewer loads, filters, charts, exports and shows sessions", async (t) => {
  const generated = 100000;
  const { port, ca, base } = await startCollector(t, ["--generate-events", String(generated)], 150000);

  // Refused bodies are kept with their reason; a post from another site's page is not stored at all.
  const badKind = JSON.parse(record("no-kind"));
  delete badKind.action.kind;
  assert.equal((await post(port, ca, JSON.stringify(badKind))).status, 400);
  assert.equal((await post(port, ca, "{not json")).status, 400);
  const foreign = await post(port, ca, record("from-elsewhere"), { Origin: "https://shop.example", "Content-Type": "text/plain" });
  assert.equal(foreign.status, 403);
  const own = await post(port, ca, record("from-the-viewer"), { Origin: `https://127.0.0.1:${port}` });
  assert.equal(own.text, "ok");

  const page = await openViewer(t, base, { timezoneId: "Asia/Seoul", permissions: ["clipboard-read", "clipboard-write"] });
  await page.waitForFunction(() => document.body.dataset.loaded !== undefined, null, { timeout: 30000 });

  const accepted = generated + 1;
  assert.equal(await page.textContent("[data-testid=count]"), `${accepted.toLocaleString("en")} events`);
  assert.equal(await page.textContent("[data-testid=refused-count]"), "2 refused");
  assert.ok(!(await column(page, 3)).includes("from-elsewhere"));
  // One page of rows, not the store: the newest first, refused ones among them and marked.
  const ids = await rowIds(page);
  assert.equal(ids.length, 200);
  const newest = await api(page, "/api/events?status=all&limit=200");
  assert.deepEqual(ids, newest.events.map((e) => e.id));
  const refusedRows = page.locator("tbody#events tr.refused");
  assert.equal(await refusedRows.count(), 2);
  assert.match(await refusedRows.nth(1).textContent(), /key not found at action\.kind/);
  await refusedRows.nth(1).click();
  assert.match(await page.textContent("[data-testid=detail]"), /^Refused: key not found at action\.kind/);
  assert.ok((await page.textContent("[data-testid=detail]")).includes('"name":"no-kind"'), "the body as it came");

  // Local times, the zone named: Seoul is nine hours ahead of UTC all year.
  assert.match(await page.textContent("[data-testid=timezone]"), /Asia\/Seoul \(UTC\+09:00\)/);
  const utc = new Date(newest.events[5].receivedAt);
  const seoul = new Date(utc.getTime() + 9 * 3600000).toISOString().replace("T", " ").replace("Z", "");
  assert.equal((await column(page, 1))[5], seoul);

  // Per-type counts and the per-minute chart agree with the store.
  const stats = await api(page, "/api/stats?status=all");
  const legend = await page.locator("[data-testid=type-counts] li").evaluateAll(
      (lis) => Object.fromEntries(lis.map((li) => [li.dataset.type, Number(li.querySelector(".n").textContent.replace(/,/g, ""))])));
  assert.deepEqual(legend, { ...Object.fromEntries(stats.types.map((s) => [s.type, s.count])), refused: 2 });
  assert.equal(Object.values(legend).reduce((a, b) => a + b, 0), accepted + 2);
  const bars = () => page.locator("#chart g.bar").evaluateAll((gs) => gs.map((g) => Number(g.dataset.count)));
  assert.equal((await bars()).length, 60);
  const inLastHour = (s) => s.minutes.reduce((sum, m) => sum + m.count, 0);
  assert.equal((await bars()).reduce((a, b) => a + b, 0), inLastHour(stats));
  assert.ok((await bars()).filter((n) => n > 0).length >= 55, "the made-up hour fills the chart");
  // Bars stack by type: the newest full minute with events has one segment per type the store
  // counts for it, in the order it lists them, each in that type's legend colour. Asked again
  // if the minute turned between the page's counts and these.
  const stacked = await waitFor("the chart drawn for the same hour as the counts", async () => {
    const s = await api(page, "/api/stats?status=all");
    const start = Date.parse(s.since + ":00Z");
    const current = new Date(start + 59 * 60000).toISOString().slice(0, 16);
    const key = s.minutes.map((m) => m.minute).filter((m) => m < current).at(-1);
    const types = s.minutes.filter((m) => m.minute === key).map((m) => (m.refused ? "refused" : m.type));
    const index = (Date.parse(key + ":00Z") - start) / 60000;
    const seen = await page.evaluate(({ key, index, types }) => {
      const bar = document.querySelectorAll("#chart g.bar")[index];
      if (bar.dataset.minute !== localTime(key + ":00Z", false).slice(0, 5)) return null;
      const swatch = (type) => {
        const li = [...document.querySelectorAll("#legend li")].find((l) => l.dataset.type === type);
        return li ? getComputedStyle(li.querySelector(".swatch")).backgroundColor : `no legend entry for ${type}`;
      };
      // The last rect is the transparent hover target.
      return { drawn: [...bar.querySelectorAll("rect")].slice(0, -1).map((r) => getComputedStyle(r).fill),
               legend: types.map(swatch) };
    }, { key, index, types });
    return seen && { ...seen, types, index };
  });
  assert.ok(stacked.index >= 50, `the newest full minute with events is bar ${stacked.index}`);
  assert.ok(stacked.types.length >= 5, `that minute has ${stacked.types.length} types`);
  assert.deepEqual(stacked.drawn, stacked.legend);
  assert.ok(new Set(stacked.drawn).size >= 5, "the types have colours of their own");

  // Live: new records show up on top without the rows already there being drawn again, and the
  // chart and counts follow.
  const marked = await page.evaluate(() => { document.querySelector("tbody#events tr").dataset.mark = "kept"; return true; });
  assert.ok(marked);
  for (const name of ["live-1", "live-2", "live-3"]) assert.equal((await post(port, ca, record(name))).text, "ok");
  await waitFor("three live events", async () => (await page.textContent("[data-testid=count]")) === `${(accepted + 3).toLocaleString("en")} events`);
  assert.deepEqual((await column(page, 3)).slice(0, 3), ["live-3", "live-2", "live-1"]);
  assert.equal(await page.getAttribute("tbody#events tr:nth-child(4)", "data-mark"), "kept");
  await waitFor("the chart to count them", async () =>
      (await bars()).reduce((a, b) => a + b, 0) === inLastHour(await api(page, "/api/stats?status=all")));
  assert.equal((await bars()).at(-1) >= 3, true);

  // A filter change: search text, answered by the collector.
  await page.fill("[data-testid=search]", "user-00041");
  await settled(page);
  const expected = await api(page, "/api/stats?status=all&q=user-00041");
  assert.ok(expected.total > 0);
  assert.equal(await page.textContent("[data-testid=count]"), `${expected.total.toLocaleString("en")} events`);
  assert.ok((await column(page, 7)).every((user) => user === "user-00041"));
  assert.match(page.url(), /[?&]q=user-00041/);

  // Every filter, from a shared address: the form shows it and the rows match it.
  const shared = "/?type=ecommerce&name=purchase&kind=complete&page=checkout&cid=cid-00007&user=user-00007";
  const second = await openViewer(t, base, { timezoneId: "Asia/Seoul" }, shared);
  await settled(second);
  assert.equal(await second.inputValue("[data-testid=type-filter]"), "ecommerce");
  assert.equal(await second.inputValue("[data-testid=cid-filter]"), "cid-00007");
  const match = await api(second, "/api/events?status=all&limit=5000" + shared.slice(1).replace("?", "&"));
  assert.ok(match.events.length > 0);
  assert.deepEqual(await rowIds(second), match.events.map((e) => e.id).slice(0, 200));
  assert.ok(match.events.every((e) => e.actionType === "ecommerce" && e.actionName === "purchase" && e.page === "checkout" &&
                                      e.xid.cid === "cid-00007" && e.userId === "user-00007"));
  // The type choices are every type stored, not only the one the shared address names.
  const everything = await api(second, "/api/stats?status=all");
  assert.deepEqual(await second.locator("[data-testid=type-filter] option").evaluateAll((os) => os.map((o) => o.value)),
                   ["", ...everything.types.map((s) => s.type).sort()]);

  // Each filter on its own from an address: the form shows it, the count is the collector's for
  // it and below the whole store's, and every row carries the value.
  const allAccepted = everything.total - everything.refused;
  for (const [name, value, columnIndex] of [["name", "purchase", 3], ["kind", "tap", 4], ["page", "checkout", 5],
                                            ["user", "user-00007", 7]]) {
    await second.goto(`${base}/?${name}=${value}`);
    await settled(second);
    assert.equal(await second.inputValue(`[data-testid=${name}-filter]`), value, name);
    const counted = await api(second, `/api/stats?status=all&${name}=${value}`);
    const n = counted.total - counted.refused;
    assert.ok(n > 0 && n < allAccepted, `${name}=${value} matches ${n} of ${allAccepted}`);
    assert.equal(await second.textContent("[data-testid=count]"), `${n.toLocaleString("en")} events`, name);
    const values = await column(second, columnIndex);
    assert.equal(values.length, Math.min(n, 200), name);
    assert.ok(values.every((v) => v === value), `every row has ${name} ${value}`);
    // A tap is not one type's: the kind filter is not the type filter under another name.
    if (name === "kind") assert.ok(counted.types.length >= 2, "taps of more than one type");
  }

  // A busy device's cid and did sessions: its newest 1000 events, oldest of them first.
  await second.goto(`${base}/?cid=cid-00000`);
  await settled(second);
  await second.locator("tbody#events tr").first().click();
  const sessionIds = () => second.locator("#session-events tr").evaluateAll((trs) => trs.map((tr) => Number(tr.dataset.id)));
  for (const [key, value] of [["cid", "cid-00000"], ["did", "did-00000"]]) {
    await second.click(`[data-testid=session-${key}]`);
    await waitFor(`the ${key} session`, async () => (await second.textContent("#session-title")).startsWith(`${key} ${value}:`));
    const newestThousand = (await api(second, `/api/events?${key}=${value}&limit=1000`)).events;
    assert.equal(newestThousand.length, 1000, `device 0 has more than 1000 events (${key})`);
    assert.deepEqual(await sessionIds(), newestThousand.map((e) => e.id).reverse());
    assert.match(await second.textContent("#session-title"), new RegExp(`^${key} ${value}: 1000 \\(the newest\\) events`));
    assert.match(second.url(), new RegExp(`session=${key}%3A${value}`));
  }
  // Clear empties the form and closes the session, in the page and in its address.
  await second.click("#clear");
  await settled(second);
  assert.ok(await second.isHidden("[data-testid=session]"), "the session panel closed");
  assert.equal(new URL(second.url()).search, "");
  assert.equal(await second.inputValue("[data-testid=cid-filter]"), "");
  const cleared = await api(second, "/api/stats?status=all");
  assert.equal(await second.textContent("[data-testid=count]"), `${(cleared.total - cleared.refused).toLocaleString("en")} events`);

  // Only refused ones, then back to all.
  await page.fill("[data-testid=search]", "");
  await page.selectOption("[data-testid=status-filter]", "refused");
  await settled(page);
  assert.deepEqual(await column(page, 2), ["refused", "refused"]);
  await page.selectOption("[data-testid=status-filter]", "all");
  await page.selectOption("[data-testid=type-filter]", "video_meeting");
  await settled(page);
  assert.ok((await column(page, 2)).every((type) => type === "video_meeting"));

  // Export of the current filter, everything it matches and not only the rows on the page.
  const videoCount = (await api(page, "/api/stats?status=all&type=video_meeting")).total;
  assert.ok(videoCount > 200);
  const exported = await page.evaluate(async () => {
    const text = async (id) => (await fetch(document.getElementById(id).href)).text();
    return { ndjson: await text("export-ndjson"), csv: await text("export-csv") };
  });
  const lines = exported.ndjson.trimEnd().split("\n").map((line) => JSON.parse(line));
  assert.equal(lines.length, videoCount);
  assert.ok(lines.every((e) => e.record.action.type === "video_meeting"));
  assert.ok(lines.every((e, i) => i === 0 || lines[i - 1].id < e.id), "oldest first");
  const csvRows = exported.csv.trimEnd().split("\r\n");
  assert.equal(csvRows.length, videoCount + 1);
  assert.match(csvRows[0], /^id,received_at,status,action_type,/);
  assert.equal(csvRows[1].split(",")[0], String(lines[0].id));

  // The rows stay bounded when reading far back; live updates pause until the reader returns.
  await page.selectOption("[data-testid=type-filter]", "");
  await settled(page);
  for (let i = 0; i < 12; ++i) {
    const before = (await rowIds(page)).at(-1);
    await page.click("[data-testid=older]");
    await waitFor("an older page", async () => (await rowIds(page)).at(-1) < before);
  }
  assert.equal((await rowIds(page)).length, 2000);
  assert.ok(await page.isVisible("#paused"));
  await page.evaluate(() => delete document.body.dataset.loaded);  // the filter stays the same
  await page.click("#newest");
  await settled(page);
  assert.equal((await rowIds(page)).length, 200);

  // One device's session, in order with the time between its events.
  await page.locator("tbody#events tr:not(.refused)").nth(10).click();
  const sid = JSON.parse(await page.textContent("[data-testid=detail]")).xid.sid;
  await page.click("[data-testid=session-sid]");
  await page.locator("#session-events tr").first().waitFor();
  const sessionEvents = (await api(page, `/api/events?sid=${sid}&limit=1000`)).events.reverse();
  const sessionRows = await page.locator("#session-events tr").evaluateAll((trs) => trs.map((tr) => ({
    id: Number(tr.dataset.id), gap: tr.children[1].textContent })));
  assert.deepEqual(sessionRows.map((r) => r.id), sessionEvents.map((e) => e.id));
  assert.equal(sessionRows[0].gap, "");
  assert.ok(sessionRows.slice(1).every((r) => /^\+\d/.test(r.gap)), "a gap before each later event");
  assert.match(await page.textContent("#session-title"), new RegExp(`^sid ${sid}: ${sessionEvents.length} events`));
  assert.match(page.url(), new RegExp(`session=sid%3A${sid}`));

  // The JSON view's copy button puts exactly what is shown on the clipboard.
  await page.click("[data-testid=copy]");
  await page.getByText("Copied").waitFor();
  assert.equal(await page.evaluate(() => navigator.clipboard.readText()), await page.textContent("[data-testid=detail]"));

  mkdirSync(artifactDir, { recursive: true });
  await page.evaluate(() => { window.scrollTo(0, 0); document.getElementById("table-box").scrollTop = 0; });
  await page.screenshot({ path: join(artifactDir, "viewer.png") });
});
