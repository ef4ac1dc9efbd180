// The collector's event viewer in headless Chromium: a collector started here on a store of
// 100,000 made-up events, the demo's shop session run against it while the page is open, and the
// page checked as a person would use it.
//
//   ZELVANOR_COLLECTOR=path/to/zelvanor-collector ZELVANOR_SHOP_SESSION=path/to/shop_session \
//     [ZELVANOR_CHROMIUM=path] [ZELVANOR_ARTIFACT_DIR=dir] node --test viewer.test.mjs
import { test } from "node:test";
import assert from "node:assert/strict";
import { spawn, spawnSync } from "node:child_process";
import { mkdtempSync, readFileSync, existsSync, mkdirSync, rmSync } from "node:fs";
import { request } from "node:https";
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
  "page_view/home", "event/search", "view_imp/search_results", "event/promotion_click", "page_view/product",
  "ecommerce/purchase", "video_meeting/join", "video_meeting/leave", "page_view/order_status",
  "app/앱설치", "app/앱실행", "app/앱실행", "app/앱실행", "app/백그라운드",
];

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

// Starts a collector in a fresh folder; stopped and removed when the test ends.
async function startCollector(t, extraArgs, startTimeoutMs) {
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

// Posts one body to /sdk/track; the answer's status.
function post(port, ca, body) {
  return new Promise((resolve, reject) => {
    const req = request({ host: "127.0.0.1", port, path: "/sdk/track", method: "POST", ca }, (res) => {
      res.resume();
      res.on("end", () => resolve(res.statusCode));
    });
    req.on("error", reject);
    req.end(body);
  });
}

// What the API says about a filter, asked from inside the page (same origin, same certificate).
const api = (page, path) => page.evaluate(async (p) => (await fetch(p)).json(), path);
const rowIds = (page) => page.locator("tbody#events tr").evaluateAll((trs) => trs.map((tr) => Number(tr.dataset.id)));
const column = (page, n) => page.locator("tbody#events tr").evaluateAll(
    (trs, i) => trs.map((tr) => tr.children[i].textContent), n);

test("on 100,000 stored events and a live demo session the viewer lists, filters, charts, exports and shows sessions", async (t) => {
  assert.ok(collectorBinary && shopSessionBinary, "ZELVANOR_COLLECTOR and ZELVANOR_SHOP_SESSION name the binaries");
  const generated = 100000;
  const { dataDir, port, ca, base } = await startCollector(t, ["--generate-events", String(generated)], 150000);
  // Two refused bodies, kept with their reason (collector_test has every kind of refusal).
  const noKind = JSON.stringify({ xid: { cid: "c", did: "d", sid: "s" }, sdk: { type: "production", version: "0.9.0", common_log_version: "1.2.0" },
                                  action: { type: "event", name: "no-kind" } });
  for (const body of [noKind, "{not json"]) assert.equal(await post(port, ca, body), 400);

  const page = await openViewer(t, base, { timezoneId: "Asia/Seoul", permissions: ["clipboard-read", "clipboard-write"] });
  await page.waitForFunction(() => document.body.dataset.loaded !== undefined, null, { timeout: 30000 });
  assert.equal(await page.textContent("[data-testid=count]"), `${generated.toLocaleString("en")} events`);
  assert.equal(await page.textContent("[data-testid=refused-count]"), "2 refused");
  // One page of rows, not the store: the newest first, refused ones among them and marked.
  const newest = await api(page, "/api/events?status=all&limit=200");
  assert.deepEqual(await rowIds(page), newest.events.map((e) => e.id));
  assert.equal(newest.events.length, 200);
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
  assert.equal(Object.values(legend).reduce((a, b) => a + b, 0), generated + 2);
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

  // Live: the demo session runs while the page is open; its events show up on top without the
  // rows already there being drawn again, and the chart and counts follow.
  const marked = await page.evaluate(() => { document.querySelector("tbody#events tr").dataset.mark = "kept"; return true; });
  assert.ok(marked);
  // The page polls in the browser's own process while this one waits for the session.
  const session = spawnSync(shopSessionBinary, [base, join(dataDir, "collector", "cert.pem"), join(dataDir, "app")],
                            { encoding: "utf8", timeout: 60000, killSignal: "SIGKILL" });
  assert.equal(session.status, 0, `shop_session failed:\n${session.stdout}${session.stderr}`);
  assert.ok(!existsSync(join(dataDir, "app", "ZLogs.tmp")), "nothing left behind for the next start");
  const total = generated + sessionActions.length;
  await waitFor("the session's events", async () => (await page.textContent("[data-testid=count]")) === `${total.toLocaleString("en")} events`);
  const rows = page.locator("tbody#events tr");
  const top = await rows.evaluateAll((trs, n) => trs.slice(0, n).map((tr) => `${tr.children[2].textContent}/${tr.children[3].textContent}`),
                                     sessionActions.length);
  assert.deepEqual([...top].sort(), [...sessionActions].sort());
  assert.equal(await page.getAttribute(`tbody#events tr:nth-child(${sessionActions.length + 1})`, "data-mark"), "kept");
  await waitFor("the chart to count them", async () =>
      (await bars()).reduce((a, b) => a + b, 0) === inLastHour(await api(page, "/api/stats?status=all")));

  // A click shows the event's full JSON: the purchase as the app described it.
  await rows.nth(top.indexOf("ecommerce/purchase")).click();
  const detail = JSON.parse(await page.textContent("[data-testid=detail]"));
  assert.deepEqual([detail.action, detail.page.id, detail.common.service_name, detail.id.app_user_id],
                   [{ type: "ecommerce", name: "purchase", kind: "complete" }, "checkout", "trail-shop", "shopper-1042"]);
  const { order_id, price, currency } = detail.domain.purchase;
  assert.deepEqual({ order_id, price, currency }, { order_id: "order-58213", price: 129.9, currency: "EUR" });
  assert.ok(detail.xid.cid && detail.xid.did && detail.xid.sid, "the identity triple is there");
  assert.equal(await rows.nth(top.indexOf("ecommerce/purchase")).getAttribute("class"), "selected");

  // A filter change: search text, answered by the collector; nothing matching shows the empty list.
  await page.fill("[data-testid=search]", "user-00041");
  await settled(page);
  const expected = await api(page, "/api/stats?status=all&q=user-00041");
  assert.ok(expected.total > 0);
  assert.equal(await page.textContent("[data-testid=count]"), `${expected.total.toLocaleString("en")} events`);
  assert.ok((await column(page, 7)).every((user) => user === "user-00041"));
  assert.match(page.url(), /[?&]q=user-00041/);
  await page.fill("[data-testid=search]", "matches-nothing-at-all");
  await settled(page);
  assert.ok(await page.isVisible("text=No events yet"));

  // Each filter from a shared address: the form shows it, the count is the collector's for it and
  // below the whole store's, and every row carries the value. A tap is not one type's: the kind
  // filter is not the type filter under another name. Nothing arrives meanwhile, so the page
  // holds exactly one page of rows (a poll started while the page loaded used to add more).
  const second = await openViewer(t, base, { timezoneId: "Asia/Seoul" });
  const everything = await api(second, "/api/stats?status=all");
  for (const [name, value, columnIndex] of [["type", "video_meeting", 2], ["name", "purchase", 3], ["kind", "tap", 4],
                                            ["page", "checkout", 5], ["cid", "cid-00000", 6], ["user", "user-00007", 7]]) {
    await second.goto(`${base}/?${name}=${value}`);
    await settled(second);
    assert.equal(await second.inputValue(`[data-testid=${name}-filter]`), value, name);
    const counted = await api(second, `/api/stats?status=all&${name}=${value}`);
    const n = counted.total - counted.refused;
    assert.ok(n > 0 && n < everything.total - everything.refused, `${name}=${value} matches ${n}`);
    assert.match(await second.textContent("[data-testid=count]"), new RegExp(`^${n.toLocaleString("en")} events`), name);
    const values = await column(second, columnIndex);
    assert.equal(values.length, Math.min(n, 200), name);
    assert.ok(values.every((v) => v === value), `every row has ${name} ${value}`);
    if (name === "kind") assert.ok(counted.types.length >= 2, "taps of more than one type");
  }
  // The type choices are every type stored, not only the one the address names.
  assert.deepEqual(await second.locator("[data-testid=type-filter] option").evaluateAll((os) => os.map((o) => o.value)),
                   ["", ...everything.types.map((s) => s.type).sort()]);

  // A busy device's sessions by cid, did and sid: its newest events (1000 at most), oldest of them
  // first, each after the first with the time since the one before.
  await second.goto(`${base}/?cid=cid-00000`);
  await settled(second);
  await second.locator("tbody#events tr").first().click();
  const sid = JSON.parse(await second.textContent("[data-testid=detail]")).xid.sid;
  for (const [key, value] of [["cid", "cid-00000"], ["did", "did-00000"], ["sid", sid]]) {
    await second.click(`[data-testid=session-${key}]`);
    await waitFor(`the ${key} session`, async () => (await second.textContent("#session-title")).startsWith(`${key} ${value}:`));
    const events = (await api(second, `/api/events?${key}=${value}&limit=1000`)).events.reverse();
    if (key !== "sid") assert.equal(events.length, 1000, `device 0 has more than 1000 events (${key})`);
    const shown = await second.locator("#session-events tr").evaluateAll((trs) => trs.map((tr) => ({
      id: Number(tr.dataset.id), gap: tr.children[1].textContent })));
    assert.deepEqual(shown.map((r) => r.id), events.map((e) => e.id));
    assert.ok(shown.every((r, i) => (i === 0 ? r.gap === "" : /^\+\d/.test(r.gap))), `gaps in the ${key} session`);
    const newestOnly = events.length === 1000 ? " \\(the newest\\)" : "";
    assert.match(await second.textContent("#session-title"), new RegExp(`^${key} ${value}: ${events.length}${newestOnly} events`));
    assert.match(second.url(), new RegExp(`session=${key}%3A${value}`));
  }
  // Clear empties the form and closes the session, in the page and in its address.
  await second.click("#clear");
  await settled(second);
  assert.ok(await second.isHidden("[data-testid=session]"), "the session panel closed");
  assert.equal(new URL(second.url()).search, "");
  assert.equal(await second.inputValue("[data-testid=cid-filter]"), "");
  assert.equal(await second.textContent("[data-testid=count]"), `${total.toLocaleString("en")} events`);

  // Only refused ones, then all of one type.
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
  assert.ok(lines.every((e, i) => e.record.action.type === "video_meeting" && (i === 0 || lines[i - 1].id < e.id)), "oldest first");
  const csvRows = exported.csv.trimEnd().split("\r\n");
  assert.equal(csvRows.length, videoCount + 1);
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

  // The JSON view's copy button puts exactly what is shown on the clipboard.
  await page.locator("tbody#events tr:not(.refused)").nth(10).click();
  await page.click("[data-testid=copy]");
  await page.getByText("Copied").waitFor();
  assert.equal(await page.evaluate(() => navigator.clipboard.readText()), await page.textContent("[data-testid=detail]"));

  mkdirSync(artifactDir, { recursive: true });
  await page.evaluate(() => { window.scrollTo(0, 0); document.getElementById("table-box").scrollTop = 0; });
  await page.screenshot({ path: join(artifactDir, "viewer.png") });
});
