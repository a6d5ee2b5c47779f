// The browser client in Debian's Chromium (driven by playwright-core) against
// real qs-host processes, each in a folder of its own. One row per scenario:
//   node test/scenarios.test.js [QS_HOST MODULE [SCENARIO]]
// (QS_HOST and MODULE default to the default build; no SCENARIO runs all.)
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import fs from "node:fs";
import { createServer } from "node:http";
import os from "node:os";
import path from "node:path";
import { test } from "node:test";
import { fileURLToPath } from "node:url";
import { chromium } from "playwright-core";

const here = path.dirname(fileURLToPath(import.meta.url));
const build = path.join(here, "../../build/default");
const [QS_HOST = `${build}/host/qs-host`, MODULE = `${build}/FVASManager/libFVASManager.so`, ONLY] = process.argv.slice(2);
const CLIENT = fs.readFileSync(path.join(here, "../qs-client.js"));
const FLAGS = ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
  "--disable-component-update", "--disable-sync", "--host-resolver-rules=MAP evil.test 127.0.0.1"];
const DEBUG_LOG = "[QS]\nLogLevel=14\n"; // the module logs "Receive Command" for every command it is given
const REACHED = "Receive Command";

// qs-host and the module copied into a fresh folder (the module's work folder).
async function startHost({ args = ["--port", "0"], config = DEBUG_LOG } = {}) {
  const folder = fs.mkdtempSync(path.join(os.tmpdir(), "qs_client_"));
  fs.copyFileSync(QS_HOST, `${folder}/qs-host`);
  fs.copyFileSync(MODULE, `${folder}/libFVASManager.so`);
  fs.writeFileSync(`${folder}/QSConfiguration.ini`, config);
  const root = process.getuid() === 0 ? ["--allow-root"] : [];
  const env = { ...process.env, TSAN_OPTIONS: `${process.env.TSAN_OPTIONS || ""}:intercept_tls_get_addr=0` };
  const child = spawn(`${folder}/qs-host`, [...args, ...root], { env, stdio: ["ignore", "pipe", "pipe"] });
  const exited = new Promise((resolve) => child.on("exit", (code, signal) => resolve(code ?? signal)));
  let output = "";
  const port = await new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error(`qs-host did not start:\n${output}`)), 60000);
    const read = (chunk) => {
      output += chunk;
      if (output.includes("qs-host: Ctrl-C")) resolve(Number(/listening on http:\/\/127\.0\.0\.1:(\d+)\//.exec(output)[1]));
    };
    child.stdout.on("data", read);
    child.stderr.on("data", read);
    exited.then((code) => reject(new Error(`qs-host exited (${code}):\n${output}`)));
    exited.then(() => clearTimeout(timer));
  }).catch((error) => (child.kill("SIGKILL"), Promise.reject(error)));
  return {
    child, port, exited,
    log: () => (fs.existsSync(`${folder}/log/qss.log`) ? fs.readFileSync(`${folder}/log/qss.log`, "latin1") : ""),
    async stop(expected = 0) {
      if (child.exitCode === null && child.signalCode === null) child.kill("SIGTERM");
      assert.equal(await exited, expected, output);
      fs.rmSync(folder, { recursive: true, force: true });
    },
  };
}

function listen(handler, port = 0) {
  const server = createServer(handler);
  return new Promise((resolve, reject) => {
    server.on("error", reject);
    server.listen(port, "127.0.0.1", () => resolve(server));
  });
}

const freePort = async () => {
  const server = await listen(() => {});
  const { port } = server.address();
  await new Promise((resolve) => server.close(resolve));
  return port;
};

// The page a web developer writes: it imports the client; `outcome` turns a
// call into what the test compares (its value, or its error code, and its time).
const PAGE = `<!DOCTYPE html><meta charset="utf-8"><title>page</title><script type="module">
import * as qs from "/qs-client.js";
window.qs = qs;
window.outcome = async (promise) => {
  const start = performance.now();
  try {
    const value = await promise;
    return { value: value instanceof Uint8Array ? Array.from(value) : value, ms: performance.now() - start };
  } catch (error) {
    return { code: error.code, exception: error.exception, message: error.message, ms: performance.now() - start };
  }
};
</script>`;

async function servePages() {
  return listen((request, response) => {
    const script = request.url === "/qs-client.js";
    response.writeHead(200, { "Content-Type": script ? "text/javascript" : "text/html" });
    response.end(script ? CLIENT : PAGE);
  });
}

// A page of `origin` in a browser context of its own, with the client loaded.
async function open(browser, origin, permissions = []) {
  const context = await browser.newContext();
  if (permissions.length) await context.grantPermissions(permissions);
  const page = await context.newPage();
  await page.goto(`${origin}/`);
  await page.waitForFunction(() => window.outcome);
  return page;
}

const scenarios = {
  async loopback({ browser, pageOrigin }) {
    const host = await startHost();
    const closed = await freePort();
    try {
      const page = await open(browser, pageOrigin);
      const seen = await page.evaluate(async ({ port, closed }) => {
        const session = await qs.connect({ ports: [closed, port] });
        const info = await session.versionInfo();
        const bytes = Uint8Array.from([0, 13, 10, 13, 10, 255, 1]);
        const full = Uint8Array.from({ length: 2052 }, (_, i) => i * 7);
        const records = [];
        for (const [guid, record] of [["rec-1", bytes], ["rec-1", full], ["rec-2", bytes]]) {
          await session.setImageRecord(guid, record);
          records.push(await outcome(session.getImageRecord(guid)));
        }
        await session.deleteImageRecord("rec-2");
        const many = await Promise.all(Array.from({ length: 200 }, (_, i) => session.call("QSVersion", [`p${i}`])));
        return {
          url: session.url, info, transport: session.transport,
          version: await outcome(session.qsVersion()),
          ports: await outcome(session.getPorts(info.userKey)),
          unknownMethod: await outcome(session.call("versioninfo")),
          noKey: await outcome(session.call("GetPorts")),
          records, deleted: await outcome(session.getImageRecord("rec-2")),
          missing: await outcome(session.getImageRecord("never-stored")),
          tooLong: await outcome(session.setImageRecord("rec-3", new Uint8Array(2053))),
          many: many.map((answer) => [answer.cmdId, ...answer.result]),
        };
      }, { port: host.port, closed });
      assert.equal(seen.url, `http://127.0.0.1:${host.port}/`);
      assert.equal(seen.transport, "websocket");
      assert.deepEqual({ ...seen.info, userKey: typeof seen.info.userKey },
        { protocolVersion: "14, 3, 3, 1212", moduleName: "Quintaris Service Manager Module", userKey: "string",
          enhancedMode: false, reserved: "32" });
      assert.deepEqual(seen.version.value, { version: "0", name: "Quintaris Service" });
      // A user the platform resolves has no ports registered here; one it cannot resolve has no key.
      assert.ok(seen.ports.value ? JSON.stringify(seen.ports.value) === "{}" : seen.ports.exception === -2408,
        JSON.stringify(seen.ports));
      assert.deepEqual([seen.unknownMethod.code, seen.unknownMethod.exception], ["command-error", -2200]);
      assert.deepEqual([seen.noKey.code, seen.noKey.exception], ["command-error", -2202]);
      assert.match(seen.noKey.message, /Invalid parameter count\. \(-2202\)/);
      const padded = (bytes) => [...bytes, ...Array(2052 - bytes.length).fill(0)];
      assert.deepEqual(seen.records.map((r) => r.value), [padded([0, 13, 10, 13, 10, 255, 1]),
        Array.from({ length: 2052 }, (_, i) => (i * 7) & 255), padded([0, 13, 10, 13, 10, 255, 1])]);
      assert.deepEqual([seen.deleted.value, seen.missing.value], [null, null]);
      assert.deepEqual([seen.tooLong.code, seen.tooLong.exception], ["command-error", 413]);
      assert.equal(new Set(seen.many.map(([cmdId]) => cmdId)).size, 200);
      seen.many.forEach(([, key, version, name], i) => assert.deepEqual([key, version, name], [`p${i}`, "", "Quintaris Service"]));
    } finally {
      await host.stop();
    }
  },

  async "public-denied"({ browser, publicOrigin }) {
    const host = await startHost();
    try {
      const page = await open(browser, publicOrigin);
      const seen = await page.evaluate((port) => outcome(qs.connect({ ports: [port] })), host.port);
      assert.equal(seen.code, "permission-denied", JSON.stringify(seen));
      assert.ok(seen.ms < 2000, `${seen.ms} ms`);
      assert.ok(!host.log().includes(REACHED), "the module was reached");
    } finally {
      await host.stop();
    }
  },

  async "public-granted"({ browser, publicOrigin }) {
    const host = await startHost();
    try {
      const page = await open(browser, publicOrigin, ["local-network-access"]);
      const seen = await page.evaluate(async (port) => {
        const session = await qs.connect({ ports: [port] });
        await session.setImageRecord("pub", Uint8Array.of(9));
        const record = await session.getImageRecord("pub");
        return { info: await session.versionInfo(), transport: session.transport, first: record[0] };
      }, host.port);
      assert.deepEqual([seen.info.moduleName, seen.transport, seen.first], ["Quintaris Service Manager Module", "websocket", 9]);
      assert.ok(host.log().includes(REACHED));
    } finally {
      await host.stop();
    }
  },

  // The module's first port held by another program: qs-host takes the second, and so does the client.
  async "foreign-18625"({ browser, pageOrigin }) {
    let asked = 0;
    const foreign = await listen((request, response) => {
      asked++;
      response.writeHead(200, { "Access-Control-Allow-Origin": "*", "Content-Type": "application/json" });
      response.end('{"id":"connect","cmdId":"connect","result":["1","Another Service"]}');
    }, 18625);
    const host = await startHost({ args: [] });
    try {
      assert.equal(host.port, 18993);
      const page = await open(browser, pageOrigin);
      const seen = await page.evaluate(async () => {
        const session = await qs.connect();
        return { url: session.url, version: await session.qsVersion() };
      });
      assert.deepEqual(seen, { url: "http://127.0.0.1:18993/", version: { version: "0", name: "Quintaris Service" } });
      assert.equal(asked, 1);
    } finally {
      await host.stop();
      foreign.close();
    }
  },

  async "no-service"({ browser, pageOrigin }) {
    const page = await open(browser, pageOrigin);
    const seen = await page.evaluate(() => outcome(qs.connect()));
    assert.equal(seen.code, "service-not-running", JSON.stringify(seen));
    assert.ok(seen.ms < 1000, `${seen.ms} ms`);
  },

  // The service stopped mid-session (SIGSTOP, calls sent, SIGKILL) and started again on its port.
  async restart({ browser, pageOrigin }) {
    const port = await freePort();
    let host = await startHost({ args: ["--port", String(port)] });
    try {
      const page = await open(browser, pageOrigin);
      await page.evaluate(async (port) => {
        window.session = await qs.connect({ ports: [port] });
        await session.qsVersion();
      }, port);
      host.child.kill("SIGSTOP");
      const waited = await page.evaluate(async () => {
        window.pending = [1, 2, 3].map((i) => outcome(session.call("QSVersion", [`x${i}`])));
        const abort = new AbortController();
        const aborted = outcome(session.call("QSVersion", [], { signal: abort.signal }));
        abort.abort();
        return [await outcome(session.qsVersion({ timeoutMs: 300 })), await aborted].map((o) => o.code);
      });
      assert.deepEqual(waited, ["timeout", "aborted"]);
      host.child.kill("SIGKILL");
      await host.exited;
      const down = await page.evaluate(async () => [...await Promise.all(pending), await outcome(session.qsVersion())].map((o) => o.code));
      assert.deepEqual(down, ["closed", "closed", "closed", "service-not-running"]);
      host = await startHost({ args: ["--port", String(port)] });
      await new Promise((resolve) => setTimeout(resolve, 250)); // past the first back-off
      const again = await page.evaluate(async () => ({ answer: await outcome(session.qsVersion()), transport: session.transport }));
      assert.deepEqual(again.answer.value, { version: "0", name: "Quintaris Service" });
      assert.equal(again.transport, "websocket");
    } finally {
      host.child.kill("SIGCONT");
      await host.stop(host.child.signalCode === "SIGKILL" ? "SIGKILL" : 0);
    }
  },

  // CORS for all origins off: a foreign page learns it is refused; a loopback page is served.
  async "origin-refused"({ browser, pageOrigin }) {
    const host = await startHost({ config: `${DEBUG_LOG}EnableCORSAll=FALSE\n` });
    try {
      const foreign = await open(browser, pageOrigin.replace("127.0.0.1", "evil.test"));
      const refused = await foreign.evaluate((port) => outcome(qs.connect({ ports: [port] })), host.port);
      assert.equal(refused.code, "origin-refused", JSON.stringify(refused));
      assert.ok(!host.log().includes(REACHED), "the module was reached");
      const local = await open(browser, pageOrigin);
      const served = await local.evaluate(async (port) => (await (await qs.connect({ ports: [port] })).qsVersion()).name, host.port);
      assert.equal(served, "Quintaris Service");
      assert.ok(host.log().includes(REACHED));
    } finally {
      await host.stop();
    }
  },

  // qs-host's own page, through the client it serves.
  async "status-page"({ browser }) {
    const host = await startHost({ args: ["--port", "0", "--allow-origin", "http://app.test:8000"],
      config: "[QS]\nEnableCORSAll=FALSE\n" });
    try {
      const served = await fetch(`http://127.0.0.1:${host.port}/client/qs-client.js`);
      assert.equal(served.headers.get("content-type"), "text/javascript; charset=utf-8");
      assert.ok(Buffer.from(await served.arrayBuffer()).equals(CLIENT), "qs-host serves another client");
      const page = await (await browser.newContext()).newPage();
      await page.goto(`http://127.0.0.1:${host.port}/`);
      await page.waitForSelector("body[data-state=done], body[data-state=failed]", { timeout: 60000 });
      const cells = await page.evaluate(() => ["status", "module-version", "service", "policy-cors", "policy-origins"]
        .map((id) => document.getElementById(id).textContent));
      assert.match(cells[0], /the module answered every command/);
      assert.deepEqual(cells.slice(1, 4), ["14, 3, 3, 1212", "Quintaris Service", "off"]);
      assert.match(cells[4], /http:\/\/app\.test:8000/);
    } finally {
      await host.stop();
    }
  },
};

for (const [name, run] of Object.entries(scenarios)) {
  test(name, { skip: ONLY !== undefined && ONLY !== name }, async () => {
    const pages = await servePages();
    const pagePort = pages.address().port;
    // A second server on its own port, which the browser counts as a public address.
    const publicPages = await servePages();
    const publicPort = publicPages.address().port;
    const browser = await chromium.launch({
      executablePath: "/usr/bin/chromium",
      args: [...FLAGS, `--ip-address-space-overrides=127.0.0.1:${publicPort}=public`],
    });
    try {
      await run({ browser, pageOrigin: `http://127.0.0.1:${pagePort}`, publicOrigin: `http://127.0.0.1:${publicPort}` });
    } finally {
      await browser.close();
      pages.close();
      publicPages.close();
    }
  });
}
