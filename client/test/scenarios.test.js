// The browser client in Debian's Chromium (driven by playwright-core) against
// real qs-host processes, each in a folder of its own. One row per scenario:
//   node test/scenarios.test.js [QS_HOST MODULE [SCENARIO]]
// (QS_HOST and MODULE default to the default build; no SCENARIO runs all.)
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import fs from "node:fs";
import { createServer } from "node:http";
import os from "node:os";
import { test } from "node:test";
import { chromium } from "playwright-core";

const build = new URL("../../build/default/", import.meta.url).pathname;
const [QS_HOST = `${build}host/qs-host`, MODULE = `${build}FVASManager/libFVASManager.so`, ONLY] = process.argv.slice(2);
const CLIENT = fs.readFileSync(new URL("../qs-client.js", import.meta.url));
const FLAGS = ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
  "--disable-component-update", "--disable-sync", "--host-resolver-rules=MAP evil.test 127.0.0.1"];
const DEBUG_LOG = "[QS]\nLogLevel=14\n"; // the module logs "Receive Command" for every command it is given
const SERVICE = { version: "0", name: "Quintaris Service" };

// qs-host and the module copied into a fresh folder (the module's work folder).
async function startHost({ args = ["--port", "0"], config = DEBUG_LOG } = {}) {
  const folder = fs.mkdtempSync(`${os.tmpdir()}/qs_client_`);
  fs.copyFileSync(QS_HOST, `${folder}/qs-host`);
  fs.copyFileSync(MODULE, `${folder}/libFVASManager.so`);
  fs.writeFileSync(`${folder}/QSConfiguration.ini`, config);
  const env = { ...process.env, TSAN_OPTIONS: `${process.env.TSAN_OPTIONS || ""}:intercept_tls_get_addr=0` };
  const child = spawn(`${folder}/qs-host`, [...args, ...(process.getuid() === 0 ? ["--allow-root"] : [])], { env });
  const exited = new Promise((resolve) => child.on("exit", (code, signal) => resolve(code ?? signal)));
  let output = "";
  const unready = setTimeout(() => child.kill("SIGKILL"), 60000); // a qs-host that never gets ready goes
  const port = await new Promise((resolve, reject) => {
    const read = (chunk) => {
      output += chunk;
      if (!output.includes("qs-host: Ctrl-C")) return;
      clearTimeout(unready);
      resolve(Number(/listening on http:\/\/127\.0\.0\.1:(\d+)\//.exec(output)[1]));
    };
    [child.stdout, child.stderr].forEach((stream) => stream.on("data", read));
    exited.then((code) => reject(new Error(`qs-host exited (${code}):\n${output}`)));
  });
  return {
    child, port, exited,
    reached: () => fs.existsSync(`${folder}/log/qss.log`) && fs.readFileSync(`${folder}/log/qss.log`, "latin1").includes("Receive Command"),
    expected: 0, // what stop() expects of the exit
    async stop() {
      child.kill("SIGCONT"); // none of these has an effect once it has exited
      child.kill("SIGTERM");
      assert.equal(await exited, this.expected, output);
      fs.rmSync(folder, { recursive: true, force: true });
    },
  };
}

const listen = (handler, port = 0) => new Promise((resolve, reject) => {
  const server = createServer(handler).on("error", reject).listen(port, "127.0.0.1", () => resolve(server));
});

const freePort = () => listen(() => {}).then((server) => new Promise((resolve) => server.close(resolve.bind(null, server.address().port))));

// The page a web developer writes: it imports the client; `outcome` turns a
// call into what the test compares (its value, or its error code, and its time).
const PAGE = `<!DOCTYPE html><meta charset="utf-8"><title>page</title><script type="module">
import * as qs from "/qs-client.js";
window.qs = qs;
window.outcome = (promise, start = performance.now()) => promise.then(
  (value) => ({ value: value instanceof Uint8Array ? Array.from(value) : value, ms: performance.now() - start }),
  ({ code, exception, message }) => ({ code, exception, message, ms: performance.now() - start }));
</script>`;

const servePages = () => listen((request, response) => {
  const script = request.url === "/qs-client.js";
  response.writeHead(200, { "Content-Type": script ? "text/javascript" : "text/html" });
  response.end(script ? CLIENT : PAGE);
});

// A page of `origin` in a browser context of its own, with the client loaded.
async function open(browser, origin, permissions = []) {
  const context = await browser.newContext();
  if (permissions.length) await context.grantPermissions(permissions); // it denies all others
  const page = await context.newPage();
  await page.goto(`${origin}/`);
  await page.waitForFunction(() => window.outcome);
  return page;
}

const scenarios = {
  // Discovery past a closed port, every command, image records with binary bodies, 200 calls at once.
  async loopback({ browser, pageOrigin, start }) {
    const host = await start();
    const seen = await (await open(browser, pageOrigin)).evaluate(async (ports) => {
      const session = await qs.connect({ ports });
      const info = await session.versionInfo();
      const records = [];
      for (const [guid, record] of [["r1", [0, 13, 10, 13, 10, 255, 1]], ["r1", Array.from({ length: 2052 }, (_, i) => i * 7)], ["r2", [5]]]) {
        await session.setImageRecord(guid, Uint8Array.from(record));
        records.push((await outcome(session.getImageRecord(guid))).value);
      }
      await session.deleteImageRecord("r2");
      const many = await Promise.all(Array.from({ length: 200 }, (_, i) => session.call("QSVersion", [`p${i}`])));
      return {
        url: session.url, info, transport: session.transport, records,
        answers: await Promise.all([session.qsVersion(), session.getPorts(info.userKey), session.call("versioninfo"),
          session.call("GetPorts"), session.getImageRecord("r2"), session.setImageRecord("r3", new Uint8Array(2053))].map(outcome)),
        many: many.map((answer) => [answer.cmdId, ...answer.result]),
      };
    }, [await freePort(), host.port]);
    assert.deepEqual([seen.url, seen.transport], [`http://127.0.0.1:${host.port}/`, "websocket"]);
    assert.deepEqual({ ...seen.info, userKey: typeof seen.info.userKey }, { protocolVersion: "14, 3, 3, 1212",
      moduleName: "Quintaris Service Manager Module", userKey: "string", enhancedMode: false, reserved: "32" });
    const [version, ports, unknown, noKey, deleted, tooLong] = seen.answers;
    assert.deepEqual(version.value, SERVICE);
    // A user the platform resolves has no ports registered here; one it cannot resolve has no key.
    assert.ok(ports.value ? JSON.stringify(ports.value) === "{}" : ports.exception === -2408, JSON.stringify(ports));
    assert.deepEqual([unknown, noKey, tooLong].map((o) => [o.code, o.exception]),
      [["command-error", -2200], ["command-error", -2202], ["command-error", 413]]);
    assert.equal(noKey.message, "GetPorts: Invalid parameter count. (-2202)");
    const padded = (bytes) => [...bytes, ...Array(2052 - bytes.length).fill(0)];
    assert.deepEqual([...seen.records, deleted.value], [padded([0, 13, 10, 13, 10, 255, 1]),
      Array.from({ length: 2052 }, (_, i) => (i * 7) & 255), padded([5]), null]);
    assert.equal(new Set(seen.many.map(([cmdId]) => cmdId)).size, 200);
    seen.many.forEach(([, key, version, name], i) => assert.deepEqual([key, version, name], [`p${i}`, "", SERVICE.name]));
    const overHttp = await (await open(browser, pageOrigin)).evaluate(async (port) => {
      window.WebSocket = function () { throw new Error("no WebSocket on this page"); };
      const session = await qs.connect({ ports: [port] });
      return [session.transport, (await session.qsVersion()).name, (await outcome(session.call("NoSuch"))).exception];
    }, host.port);
    assert.deepEqual(overHttp, ["http", SERVICE.name, -2200]);
  },

  // A page on a public address: refused without the user's permission (the module never reached), served with it.
  async public({ browser, publicOrigin, note, start }) {
    const host = await start();
    const connect = (port) => outcome(qs.connect({ ports: [port] }).then((session) => session.versionInfo()));
    const denied = await (await open(browser, publicOrigin)).evaluate(connect, host.port);
    note(`permission-denied after ${Math.round(denied.ms)} ms`);
    assert.deepEqual([denied.code, denied.ms < 2000, host.reached()], ["permission-denied", true, false], JSON.stringify(denied));
    const granted = await (await open(browser, publicOrigin, ["local-network-access"])).evaluate(async (port) => {
      const session = await qs.connect({ ports: [port] });
      await session.setImageRecord("pub", Uint8Array.of(9));
      return [(await session.versionInfo()).moduleName, session.transport, (await session.getImageRecord("pub"))[0]];
    }, host.port);
    assert.deepEqual(granted, ["Quintaris Service Manager Module", "websocket", 9]);
    assert.ok(host.reached());
  },

  // The module's first port held by another program: qs-host takes the second, and so does the client.
  async "foreign-18625"({ browser, pageOrigin, start, serve }) {
    let asked = 0;
    await serve((request, response) => {
      asked++;
      response.writeHead(200, { "Access-Control-Allow-Origin": "*", "Content-Type": "application/json" });
      response.end('{"id":"connect","cmdId":"connect","result":["1","Another Service"]}');
    }, 18625);
    const host = await start({ args: [] });
    const session = await (await open(browser, pageOrigin)).evaluateHandle(() => qs.connect());
    const seen = await session.evaluate(async (session) => [session.url, await session.qsVersion()]);
    assert.deepEqual([host.port, asked, ...seen], [18993, 1, "http://127.0.0.1:18993/", SERVICE]);
  },

  async "no-service"({ browser, pageOrigin, note }) {
    for (const port of [18625, 18993]) (await listen(() => {}, port)).close(); // EADDRINUSE: the pair is not free
    const seen = await (await open(browser, pageOrigin)).evaluate(() => outcome(qs.connect()));
    note(`service-not-running after ${Math.round(seen.ms)} ms`);
    assert.deepEqual([seen.code, seen.ms < 1000], ["service-not-running", true], JSON.stringify(seen));
  },

  // The service stopped mid-session (SIGSTOP, calls sent, SIGKILL) and started again on its port.
  async restart({ browser, pageOrigin, start }) {
    const port = await freePort();
    const host = await start({ args: ["--port", String(port)] });
    const page = await open(browser, pageOrigin);
    await page.evaluate(async (port) => { window.session = await qs.connect({ ports: [port] }); await session.qsVersion(); }, port);
    host.child.kill("SIGSTOP");
    const state = () => fs.readFileSync(`/proc/${host.child.pid}/stat`, "latin1").split(") ")[1][0];
    while (state() !== "T") await new Promise((resolve) => setTimeout(resolve, 10)); // until every thread has stopped
    const waited = await page.evaluate(async () => {
      window.pending = [1, 2, 3].map((i) => outcome(session.call("QSVersion", [`x${i}`])));
      const abort = new AbortController();
      const aborted = outcome(session.call("QSVersion", [], { signal: abort.signal }));
      abort.abort();
      return [await outcome(session.qsVersion({ timeoutMs: 300 })), await aborted].map((o) => o.code);
    });
    assert.deepEqual(waited, ["timeout", "aborted"]);
    host.expected = "SIGKILL";
    host.child.kill("SIGKILL");
    await host.exited;
    const down = await page.evaluate(async () => [...await Promise.all(pending), await outcome(session.qsVersion())]);
    assert.deepEqual(down.map((o) => o.code), ["closed", "closed", "closed", "service-not-running"], JSON.stringify(down));
    await start({ args: ["--port", String(port)] });
    await new Promise((resolve) => setTimeout(resolve, 250)); // past the first back-off
    const again = await page.evaluate(async () => [(await outcome(session.qsVersion())).value, session.transport]);
    assert.deepEqual(again, [SERVICE, "websocket"]);
  },

  // CORS for all origins off: a foreign page learns it is refused; a loopback page is served.
  async "origin-refused"({ browser, pageOrigin, start }) {
    const host = await start({ config: `${DEBUG_LOG}EnableCORSAll=FALSE\n` });
    const connect = async (port) => outcome(qs.connect({ ports: [port] }).then((session) => session.qsVersion()));
    const refused = await (await open(browser, pageOrigin.replace("127.0.0.1", "evil.test"))).evaluate(connect, host.port);
    assert.deepEqual([refused.code, host.reached()], ["origin-refused", false], JSON.stringify(refused));
    const served = await (await open(browser, pageOrigin)).evaluate(connect, host.port);
    assert.deepEqual([served.value, host.reached()], [SERVICE, true]);
  },

  // qs-host's own page, through the client it serves.
  async "status-page"({ browser, start }) {
    const host = await start({ args: ["--port", "0", "--allow-origin", "http://app.test:8000"], config: "[QS]\nEnableCORSAll=FALSE\n" });
    const served = await fetch(`http://127.0.0.1:${host.port}/client/qs-client.js`);
    assert.equal(served.headers.get("content-type"), "text/javascript; charset=utf-8");
    assert.ok(Buffer.from(await served.arrayBuffer()).equals(CLIENT), "qs-host serves another client");
    const page = await (await browser.newContext()).newPage();
    await page.goto(`http://127.0.0.1:${host.port}/`);
    await page.waitForSelector("body[data-state=done], body[data-state=failed]", { timeout: 60000 });
    const cells = await page.evaluate(() => ["status", "module-version", "service", "policy-cors", "policy-origins"]
      .map((id) => document.getElementById(id).textContent));
    assert.deepEqual(cells.slice(1, 4), ["14, 3, 3, 1212", SERVICE.name, "off"]);
    assert.ok(/the module answered every command/.test(cells[0]) && /http:\/\/app\.test:8000/.test(cells[4]), cells.join("|"));
  },
};

for (const [name, run] of Object.entries(scenarios)) {
  test(name, { skip: ONLY !== undefined && ONLY !== name }, async (t) => {
    const servers = await Promise.all([servePages(), servePages()]);
    const [pageOrigin, publicOrigin] = servers.map((server) => `http://127.0.0.1:${server.address().port}`);
    // The second page server's port counts as a public address.
    const override = `--ip-address-space-overrides=${publicOrigin.slice(7)}=public`;
    const browser = await chromium.launch({ executablePath: "/usr/bin/chromium", args: [...FLAGS, override] });
    const hosts = []; // every qs-host and server a scenario starts is stopped on every path
    const start = async (options) => hosts[hosts.push(await startHost(options)) - 1];
    const serve = async (handler, port) => servers[servers.push(await listen(handler, port)) - 1];
    try {
      await run({ browser, pageOrigin, publicOrigin, start, serve, note: (text) => t.diagnostic(text) });
    } finally {
      await browser.close();
      servers.forEach((server) => server.close());
      const failed = (await Promise.allSettled(hosts.map((host) => host.stop()))).find((r) => r.status === "rejected");
      if (failed) throw failed.reason;
    }
  });
}
