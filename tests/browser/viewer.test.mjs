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
import { tmpdir } from "node:os";
import { join } from "node:path";
import { chromium } from "playwright-core";

const env = process.env;
const artifactDir = env.ZELVANOR_ARTIFACT_DIR || tmpdir();

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
  for (const deadline = Date.now() + timeoutMs; Date.now() < deadline;) {
    const value = await check();
    if (value) return value;
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
  throw new Error(`timed out waiting for ${what}`);
}

test("on 100,000 stored events and a live demo session the viewer lists, filters, charts, exports and shows sessions", async (t) => {
  assert.ok(env.ZELVANOR_COLLECTOR && env.ZELVANOR_SHOP_SESSION, "ZELVANOR_COLLECTOR and ZELVANOR_SHOP_SESSION name the binaries");
  const generated = 100000;
  const dataDir = mkdtempSync(join(tmpdir(), "zelvanor-viewer-"));
  const portFile = join(dataDir, "port"), certificate = join(dataDir, "collector", "cert.pem");
  const collector = spawn(env.ZELVANOR_COLLECTOR, ["--data-dir", join(dataDir, "collector"), "--port-file", portFile,
                                                   "--generate-events", String(generated)], { stdio: ["ignore", "ignore", "inherit"] });
  t.after(() => { collector.kill("SIGTERM"); rmSync(dataDir, { recursive: true, force: true }); });
  await waitFor("the collector's port", () => existsSync(portFile), 150000);
  const base = `https://127.0.0.1:${Number(readFileSync(portFile, "utf8").trim())}`;

  // The collector's certificate is self-signed and this browser profile has no way to trust it;
  // skipping the check is confined to this loopback test.
  const browser = await chromium.launch({ executablePath: env.ZELVANOR_CHROMIUM || "/usr/bin/chromium", headless: true,
    args: ["--no-sandbox", "--disable-gpu", "--disable-background-networking", "--disable-dev-shm-usage"] });
  t.after(() => browser.close());
  const context = await browser.newContext({ ignoreHTTPSErrors: true, viewport: { width: 1400, height: 900 },
                                             timezoneId: "Asia/Seoul", permissions: ["clipboard-read", "clipboard-write"] });
  const page = await context.newPage();
  const errors = [];
  page.on("pageerror", (error) => errors.push(error.message));
  t.after(() => assert.deepEqual(errors, [], "the page threw"));
  await page.goto(base);
  // What the API says, asked from inside the page (same origin, same certificate), and the table.
  const api = (path, body) => page.evaluate(async ([p, b]) => {
    const answer = await fetch(p, b === undefined ? {} : { method: "POST", body: b });
    return b === undefined ? answer.json() : answer.status;
  }, [path, body]);
  const text = (testid) => page.textContent(`[data-testid=${testid}]`);
  const rows = page.locator("tbody#events tr");
  const rowIds = () => rows.evaluateAll((trs) => trs.map((tr) => Number(tr.dataset.id)));
  const column = (n) => rows.evaluateAll((trs, i) => trs.map((tr) => tr.children[i].textContent), n);
  const bars = () => page.locator("#chart g.bar").evaluateAll((gs) => gs.map((g) => Number(g.dataset.count)));
  const sum = (numbers) => numbers.reduce((a, b) => a + b, 0);
  const inLastHour = (stats) => sum(stats.minutes.map((m) => m.count));
  // Waits until the page has shown the answer to the filter its form now holds.
  const settled = () => page.waitForFunction(() => document.body.dataset.loaded === query(), null, { timeout: 30000 });
  const count = (n) => `${n.toLocaleString("en")} events`;

  // Two refused bodies, kept with their reason (collector_test has every kind of refusal).
  const noKind = JSON.stringify({ xid: { cid: "c", did: "d", sid: "s" }, sdk: { type: "production", version: "0.9.0", common_log_version: "1.2.0" },
                                  action: { type: "event", name: "no-kind" } });
  for (const body of [noKind, "{not json"]) assert.equal(await api("/sdk/track", body), 400);
  await page.reload();
  await settled();
  assert.equal(await text("count"), count(generated));
  assert.equal(await text("refused-count"), "2 refused");
  // One page of rows, not the store: the newest first, refused ones among them and marked.
  const newest = await api("/api/events?status=all&limit=200");
  assert.deepEqual(await rowIds(), newest.events.map((e) => e.id));
  const refusedRows = page.locator("tbody#events tr.refused");
  assert.equal(await refusedRows.count(), 2);
  await refusedRows.nth(1).click();
  assert.match(await text("detail"), /^Refused: key not found at action\.kind[^]*"name":"no-kind"/);

  // Local times, the zone named: Seoul is nine hours ahead of UTC all year.
  assert.match(await text("timezone"), /Asia\/Seoul \(UTC\+09:00\)/);
  const seoul = new Date(Date.parse(newest.events[5].receivedAt) + 9 * 3600000).toISOString();
  assert.equal((await column(1))[5], seoul.replace("T", " ").replace("Z", ""));
  // Per-type counts and the per-minute chart agree with the store; its bars stack by type, each
  // in that type's legend colour.
  const stats = await api("/api/stats?status=all");
  const legend = await page.locator("[data-testid=type-counts] li").evaluateAll((lis) => Object.fromEntries(
      lis.map((li) => [li.dataset.type, Number(li.querySelector(".n").textContent.replace(/,/g, ""))])));
  assert.deepEqual(legend, { ...Object.fromEntries(stats.types.map((s) => [s.type, s.count])), refused: 2 });
  assert.equal(sum(await bars()), inLastHour(stats));
  // Each bar stacks one segment per type the store counts in its minute, in the store's order, in
  // that type's legend colour (asked again if the minute turned between the page's counts and these).
  await waitFor("bars stacked by type in the legend's colours", async () => {
    const s = await api("/api/stats?status=all");
    const want = Array(60).fill("");
    for (const m of s.minutes) want[(Date.parse(m.minute + "Z") - Date.parse(s.since + "Z")) / 60000] += `${m.refused ? "refused" : m.type} `;
    const seen = await page.evaluate(() => {
      const types = Object.fromEntries([...document.querySelectorAll("#legend li")].map(
          (li) => [getComputedStyle(li.querySelector(".swatch")).backgroundColor, li.dataset.type]));
      // The last rect of a bar is its transparent hover target.
      return [...document.querySelectorAll("#chart g.bar")].map((g) => [...g.querySelectorAll("rect:not(:last-child)")]
          .map((r) => `${types[getComputedStyle(r).fill]} `).join(""));
    });
    // The made-up hour fills the chart, with five types at least.
    return JSON.stringify(seen) === JSON.stringify(want) && want.filter(Boolean).length >= 55 && new Set(want.join("").split(" ")).size >= 6;
  });

  // Live: the demo session runs while the page is open (its polls run in the browser's own
  // process); its events show up on top without the rows already there being drawn again, and
  // the chart and counts follow.
  await page.evaluate(() => { document.querySelector("tbody#events tr").dataset.mark = "kept"; });
  const session = spawnSync(env.ZELVANOR_SHOP_SESSION, [base, certificate, join(dataDir, "app")],
                            { encoding: "utf8", timeout: 60000, killSignal: "SIGKILL" });
  assert.equal(session.status, 0, `shop_session failed:\n${session.stdout}${session.stderr}`);
  const total = generated + sessionActions.length;
  await waitFor("the session's events", async () => (await text("count")) === count(total));
  const top = (await rows.evaluateAll((trs) => trs.map((tr) => `${tr.children[2].textContent}/${tr.children[3].textContent}`)))
      .slice(0, sessionActions.length);
  assert.deepEqual([...top].sort(), [...sessionActions].sort());
  assert.equal(await rows.nth(sessionActions.length).getAttribute("data-mark"), "kept");
  await waitFor("the chart to count them", async () => sum(await bars()) === inLastHour(await api("/api/stats?status=all")));
  // A click shows the event's full JSON: the purchase as the app described it.
  await rows.nth(top.indexOf("ecommerce/purchase")).click();
  const detail = JSON.parse(await text("detail"));
  assert.deepEqual([detail.action.name, detail.page.id, detail.id.app_user_id, detail.domain.purchase.order_id],
                   ["purchase", "checkout", "shopper-1042", "order-58213"]);
  assert.equal(await rows.nth(top.indexOf("ecommerce/purchase")).getAttribute("class"), "selected");

  // Search text, answered by the collector; nothing matching shows the empty list.
  await page.fill("[data-testid=search]", "user-00041");
  await settled();
  assert.equal(await text("count"), count((await api("/api/stats?status=all&q=user-00041")).total));
  assert.match(page.url(), /[?&]q=user-00041/);
  await page.fill("[data-testid=search]", "matches-nothing-at-all");
  await settled();
  assert.ok(await page.isVisible("text=No events yet"));

  // Each filter from a shared address: the form shows it, the count is the collector's for it and
  // below the whole store's, and every row carries the value. A tap is not one type's: the kind
  // filter is not the type filter under another name. Nothing arrives meanwhile, so the page
  // holds exactly one page of rows (a poll started while the page loaded used to add more).
  // Each list answer comes 1.2 s late, so that a poll (every second) falls into every page load;
  // the rows are counted once a poll after the load has been answered.
  const everything = await api("/api/stats?status=all");
  await page.route(/\/api\/events/, (route) => setTimeout(() => route.continue().catch(() => {}), 1200));
  for (const [name, value, columnIndex] of [["type", "video_meeting", 2], ["name", "purchase", 3], ["kind", "tap", 4],
                                            ["page", "checkout", 5], ["cid", "cid-00000", 6], ["user", "user-00007", 7]]) {
    await page.goto(`${base}/?${name}=${value}`);
    await settled();
    await page.waitForResponse((response) => response.url().includes("order=asc"));  // a poll's
    await page.waitForFunction(() => !polling);
    assert.equal(await page.inputValue(`[data-testid=${name}-filter]`), value, name);
    const counted = await api(`/api/stats?status=all&${name}=${value}`);
    const n = counted.total - counted.refused;
    assert.ok(n > 0 && n < everything.total - everything.refused, `${name}=${value} matches ${n}`);
    assert.match(await text("count"), new RegExp(`^${count(n)}`), name);
    const values = await column(columnIndex);
    assert.equal(values.length, Math.min(n, 200), name);
    assert.ok(values.every((v) => v === value), `every row has ${name} ${value}`);
    if (name === "kind") assert.ok(counted.types.length >= 2, "taps of more than one type");
  }
  await page.unroute(/\/api\/events/);
  // The type choices are every type stored, not only the one the address names.
  assert.deepEqual(await page.locator("[data-testid=type-filter] option").evaluateAll((os) => os.map((o) => o.value)),
                   ["", ...everything.types.map((s) => s.type).sort()]);

  // A busy device's sessions by cid, did and sid: its newest events (1000 at most), oldest of them
  // first, each after the first with the time since the one before.
  await page.goto(`${base}/?cid=cid-00000`);
  await settled();
  await rows.first().click();
  const sid = JSON.parse(await text("detail")).xid.sid;
  for (const [key, value] of [["cid", "cid-00000"], ["did", "did-00000"], ["sid", sid]]) {
    await page.click(`[data-testid=session-${key}]`);
    await waitFor(`the ${key} session`, async () => (await page.textContent("#session-title")).startsWith(`${key} ${value}:`));
    const events = (await api(`/api/events?${key}=${value}&limit=1000`)).events.reverse();
    if (key !== "sid") assert.equal(events.length, 1000, `device 0 has more than 1000 events (${key})`);
    const shown = await page.locator("#session-events tr").evaluateAll((trs) => trs.map((tr) => [Number(tr.dataset.id), tr.children[1].textContent]));
    assert.deepEqual(shown.map(([id]) => id), events.map((e) => e.id));
    assert.ok(shown.every(([, gap], i) => (i === 0 ? gap === "" : /^\+\d/.test(gap))), `gaps in the ${key} session`);
    assert.match(await page.textContent("#session-title"),
                 new RegExp(`^${key} ${value}: ${events.length}${events.length === 1000 ? " \\(the newest\\)" : ""} events`));
    assert.match(page.url(), new RegExp(`session=${key}%3A${value}`));
  }
  // Clear empties the form and closes the session, in the page and in its address.
  await page.click("#clear");
  await settled();
  assert.ok(await page.isHidden("[data-testid=session]"), "the session panel closed");
  assert.equal(new URL(page.url()).search, "");
  assert.equal(await text("count"), count(total));

  // Only refused ones; then export of one type, everything it matches and not only the rows on
  // the page, oldest first.
  await page.selectOption("[data-testid=status-filter]", "refused");
  await settled();
  assert.deepEqual(await column(2), ["refused", "refused"]);
  await page.selectOption("[data-testid=status-filter]", "all");
  await page.selectOption("[data-testid=type-filter]", "video_meeting");
  await settled();
  const videoCount = (await api("/api/stats?status=all&type=video_meeting")).total;
  assert.ok(videoCount > 200);
  const exported = (link) => page.evaluate(async (id) => (await fetch(document.getElementById(id).href)).text(), link);
  const lines = (await exported("export-ndjson")).trimEnd().split("\n").map((line) => JSON.parse(line));
  assert.equal(lines.length, videoCount);
  assert.ok(lines.every((e, i) => e.record.action.type === "video_meeting" && (i === 0 || lines[i - 1].id < e.id)), "oldest first");
  assert.equal((await exported("export-csv")).trimEnd().split("\r\n").length, videoCount + 1);

  // The rows stay bounded when reading far back; live updates pause until the reader returns.
  await page.selectOption("[data-testid=type-filter]", "");
  await settled();
  for (let i = 0; i < 12; ++i) {
    const before = (await rowIds()).at(-1);
    await page.click("[data-testid=older]");
    await waitFor("an older page", async () => (await rowIds()).at(-1) < before);
  }
  assert.equal((await rowIds()).length, 2000);
  assert.ok(await page.isVisible("#paused"));
  await page.evaluate(() => delete document.body.dataset.loaded);  // the filter stays the same
  await page.click("#newest");
  await settled();
  assert.equal((await rowIds()).length, 200);

  // The JSON view's copy button puts exactly what is shown on the clipboard.
  await page.locator("tbody#events tr:not(.refused)").nth(10).click();
  await page.click("[data-testid=copy]");
  await page.getByText("Copied").waitFor();
  assert.equal(await page.evaluate(() => navigator.clipboard.readText()), await text("detail"));
  mkdirSync(artifactDir, { recursive: true });
  await page.evaluate(() => { window.scrollTo(0, 0); document.getElementById("table-box").scrollTop = 0; });
  await page.screenshot({ path: join(artifactDir, "viewer.png") });
});
