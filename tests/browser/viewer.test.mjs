// The collector's event viewer in headless Chromium: a collector started here, the demo's shop
// session run against it while the page is open, and the page checked as a person would use it.
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

async function waitFor(what, check, timeoutMs = 10000) {
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
async function startCollector(t) {
  const dataDir = mkdtempSync(join(tmpdir(), "zelvanor-viewer-"));
  const portFile = join(dataDir, "port");
  const collector = spawn(collectorBinary, ["--data-dir", join(dataDir, "collector"), "--port-file", portFile],
                          { stdio: ["ignore", "ignore", "inherit"] });
  t.after(() => {
    collector.kill("SIGTERM");
    rmSync(dataDir, { recursive: true, force: true });
  });
  await waitFor("the collector's port", () => existsSync(portFile));
  const port = Number(readFileSync(portFile, "utf8").trim());
  return { dataDir, port, base: `https://127.0.0.1:${port}`, ca: readFileSync(join(dataDir, "collector", "cert.pem")) };
}

async function openViewer(t, base) {
  // The collector's certificate is self-signed and this browser profile has no way to trust it;
  // skipping the check is confined to this loopback test.
  const browser = await chromium.launch({ executablePath: chromiumBinary, headless: true, args: ["--no-sandbox"] });
  t.after(() => browser.close());
  const context = await browser.newContext({ ignoreHTTPSErrors: true, viewport: { width: 1400, height: 900 } });
  const page = await context.newPage();
  await page.goto(base + "/");
  return page;
}

test("the viewer lists the demo session newest first, live, filters by type and shows the JSON", async (t) => {
  assert.ok(collectorBinary, "ZELVANOR_COLLECTOR names the collector binary");
  assert.ok(shopSessionBinary, "ZELVANOR_SHOP_SESSION names the shop_session example");
  const { dataDir, base } = await startCollector(t);
  const page = await openViewer(t, base);
  await page.getByText("No events yet").waitFor({ timeout: 10000 });

  // The session runs while the page is open: its events show up without a reload.
  const session = await run(shopSessionBinary, [base, join(dataDir, "collector", "cert.pem"), join(dataDir, "app")], 60000);
  assert.equal(session.code, 0, `shop_session failed:\n${session.output}`);
  const total = sessionActions.length + appActions.length;
  const rows = page.locator("tbody#events tr");
  await rows.nth(total - 1).waitFor({ timeout: 10000 });
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
    assert.deepEqual(await shown(), listed.filter((r) => r.action.startsWith(type + "/")));
    assert.equal((await shown()).length, count);
    assert.equal(await page.textContent("[data-testid=count]"), `${count} events of type ${type}`);
  }
  await page.selectOption("[data-testid=type-filter]", "");
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
  assert.ok(detail.xid.cid && detail.xid.did && detail.xid.sid, "the identity triple is there");
  assert.equal(await rows.filter({ hasText: "purchase" }).getAttribute("class"), "selected");

  mkdirSync(artifactDir, { recursive: true });
  await page.screenshot({ path: join(artifactDir, "viewer.png"), fullPage: true });
});

// Posts `count` small records, a few at a time over kept-alive connections.
async function postRecords(port, ca, count) {
  const agent = new Agent({ keepAlive: true, maxSockets: 4, ca });
  const postOne = (i) => new Promise((resolve, reject) => {
    const body = JSON.stringify({
      xid: { cid: "cid-bulk", did: "did-bulk", sid: "sid-bulk" },
      sdk: { type: "production", version: "0.9.0", common_log_version: "1.2.0" },
      action: { type: "event", name: `bulk-${i}`, kind: "tap" },
    });
    const req = request({ host: "127.0.0.1", port, path: "/sdk/track", method: "POST", agent,
                          headers: { "Content-Type": "application/json" } }, (res) => {
      let text = "";
      res.on("data", (chunk) => (text += chunk));
      res.on("end", () => (text === "ok" ? resolve() : reject(new Error(`record ${i}: ${text}`))));
    });
    req.on("error", reject);
    req.end(body);
  });
  let next = 0;
  const worker = async () => { while (next < count) await postOne(next++); };
  await Promise.all([worker(), worker(), worker(), worker()]);
  agent.destroy();
}

test("the viewer catches up with more events than one answer of the API holds", async (t) => {
  // The API answers at most 5000 events a request; a viewer that asked once for the newest would
  // never show the oldest of these.
  const count = 5000 + 37;
  const { port, ca, base } = await startCollector(t);
  await postRecords(port, ca, count);
  const page = await openViewer(t, base);
  await waitFor(`${count} events in the viewer`,
                async () => (await page.textContent("[data-testid=count]")) === `${count} events`, 30000);
  const names = await page.locator("tbody#events tr").evaluateAll(
      (trs) => trs.map((tr) => tr.children[3].textContent));
  assert.equal(names.length, count);
  assert.equal(new Set(names).size, count, "each event once");
  assert.ok(names.includes("bulk-0") && names.includes(`bulk-${count - 1}`), "the first and the last posted");
});
