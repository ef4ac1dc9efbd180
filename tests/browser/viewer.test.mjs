// The collector's event viewer in headless Chromium: a collector started here, records posted to
// it over HTTPS, and the page checked as a person would use it.
//
//   ZELVANOR_COLLECTOR=path/to/zelvanor-collector [ZELVANOR_ARTIFACT_DIR=dir] node --test viewer.test.mjs
import { test } from "node:test";
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { mkdtempSync, readFileSync, existsSync, mkdirSync, rmSync } from "node:fs";
import { request } from "node:https";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { chromium } from "playwright-core";

const collectorBinary = process.env.ZELVANOR_COLLECTOR;
const chromiumBinary = process.env.ZELVANOR_CHROMIUM || "/usr/bin/chromium";
const artifactDir = process.env.ZELVANOR_ARTIFACT_DIR || tmpdir();

function record(type, name, kind, page) {
  return {
    xid: { cid: "cid-viewer", did: "did-viewer", sid: "sid-viewer" },
    sdk: { type: "production", version: "0.9.0", common_log_version: "1.2.0" },
    action: { type, name, kind },
    page: { id: page, name: page, title: `The ${page} page` },
  };
}

async function waitFor(what, check, timeoutMs = 10000) {
  const deadline = Date.now() + timeoutMs;
  while (Date.now() < deadline) {
    const value = check();
    if (value) return value;
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
  throw new Error(`timed out waiting for ${what}`);
}

function post(port, ca, body) {
  return new Promise((resolve, reject) => {
    const req = request(
      { host: "127.0.0.1", port, path: "/sdk/track", method: "POST", ca,
        headers: { "Content-Type": "application/json" } },
      (res) => {
        let text = "";
        res.on("data", (chunk) => (text += chunk));
        res.on("end", () => resolve(text));
      });
    req.on("error", reject);
    req.end(JSON.stringify(body));
  });
}

test("the viewer lists events newest first, updates live, filters by type and shows the JSON", async (t) => {
  assert.ok(collectorBinary, "ZELVANOR_COLLECTOR names the collector binary");
  const dataDir = mkdtempSync(join(tmpdir(), "zelvanor-viewer-"));
  const portFile = join(dataDir, "port");
  const collector = spawn(collectorBinary, ["--data-dir", join(dataDir, "collector"), "--port-file", portFile],
                          { stdio: ["ignore", "ignore", "inherit"] });
  let browser;
  t.after(async () => {
    if (browser) await browser.close();
    collector.kill("SIGTERM");
    rmSync(dataDir, { recursive: true, force: true });
  });

  await waitFor("the collector's port", () => existsSync(portFile));
  const port = Number(readFileSync(portFile, "utf8").trim());
  const ca = readFileSync(join(dataDir, "collector", "cert.pem"));
  const base = `https://127.0.0.1:${port}`;

  const posted = [
    record("page_view", "home", "view", "home"),
    record("event", "add_to_cart", "click", "product"),
    record("ecommerce", "purchase", "complete", "checkout"),
  ];
  for (const r of posted) assert.equal(await post(port, ca, r), "ok");

  // The collector's certificate is self-signed and this browser profile has no way to trust it;
  // skipping the check is confined to this loopback test.
  browser = await chromium.launch({ executablePath: chromiumBinary, headless: true, args: ["--no-sandbox"] });
  const context = await browser.newContext({ ignoreHTTPSErrors: true, viewport: { width: 1400, height: 800 } });
  const page = await context.newPage();
  await page.goto(base + "/");

  const rows = page.locator("tbody#events tr");
  await rows.nth(2).waitFor({ timeout: 10000 });
  const types = async () => rows.evaluateAll((trs) => trs.map((tr) => tr.dataset.type));
  assert.deepEqual(await types(), ["ecommerce", "event", "page_view"], "newest first");

  // A record that arrives while the page is open shows up on top without a reload.
  const late = record("event", "share", "tap", "product");
  assert.equal(await post(port, ca, late), "ok");
  await rows.nth(3).waitFor({ timeout: 10000 });
  assert.deepEqual(await types(), ["event", "ecommerce", "event", "page_view"]);
  assert.equal(await rows.first().locator("td").nth(3).textContent(), "share");

  // Filtering by action type.
  await page.selectOption("[data-testid=type-filter]", "event");
  assert.deepEqual(await types(), ["event", "event"]);
  assert.match(await page.textContent("[data-testid=count]"), /^2 events of type event$/);
  await page.selectOption("[data-testid=type-filter]", "");
  assert.equal((await types()).length, 4);

  // One event's full JSON on click: what was posted, member for member.
  await rows.filter({ hasText: "purchase" }).click();
  const detail = JSON.parse(await page.textContent("[data-testid=detail]"));
  assert.deepEqual(detail, posted[2]);

  mkdirSync(artifactDir, { recursive: true });
  await page.screenshot({ path: join(artifactDir, "viewer.png"), fullPage: true });
});
