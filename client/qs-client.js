// The web page's side of the local device service: finds the service on this
// computer's loopback, opens one WebSocket to its management module and
// matches every answer to its call. One self-contained ES module, no
// dependencies; qs-host serves this same file at /client/qs-client.js.

const ALIAS = "kxp";
const SERVICE_NAME = "Quintaris Service"; // the second value of a QSVersion answer
const LOOPBACK = "127.0.0.1";
const PROBE_MS = 2000; // discovery: the wait for one port's answer
const CALL_MS = 10000; // default time-out of one call
const HOLD_MS = 15; // how long an answer waits for a binary frame that follows it
const RETRY_MIN_MS = 100;
const RETRY_MAX_MS = 30000;

export class QsError extends Error {
  constructor(code, message, details) {
    super(message);
    this.name = "QsError";
    this.code = code;
    Object.assign(this, details);
  }
}

const abortedError = () => new QsError("aborted", "The call was aborted.");

// fetch to the loopback, given up after `ms` or when `signal` aborts.
function fetchWithin(url, init, ms, signal) {
  const control = new AbortController();
  const timer = setTimeout(() => control.abort("timeout"), ms);
  const stop = () => control.abort("aborted");
  if (signal) signal.addEventListener("abort", stop);
  // targetAddressSpace declares the loopback to Local Network Access; a text
  // body and no custom header keep the request simple (no preflight).
  return fetch(url, { ...init, targetAddressSpace: "loopback", credentials: "omit", cache: "no-store", signal: control.signal })
    .catch((error) => {
      if (control.signal.aborted) {
        throw control.signal.reason === "timeout" ? new QsError("timeout", `No answer from ${url} within ${ms} ms.`) : abortedError();
      }
      throw error;
    })
    .finally(() => {
      clearTimeout(timer);
      if (signal) signal.removeEventListener("abort", stop);
    });
}

// "found", "refused" (a readable 403: this origin is not allowed), "other"
// (something that is not the service) or "failed" (no answer at all).
async function probe(base, signal) {
  try {
    const body = JSON.stringify({ id: "connect", cmdId: "connect", method: "QSVersion" });
    const response = await fetchWithin(base + ALIAS + "/", { method: "POST", body }, PROBE_MS, signal);
    if (response.status === 403) return "refused";
    const answer = response.ok ? JSON.parse(await response.text()) : null;
    return answer && Array.isArray(answer.result) && answer.result[1] === SERVICE_NAME ? "found" : "other";
  } catch (error) {
    if (error instanceof QsError && error.code === "aborted") throw error;
    return "failed";
  }
}

// After a failed first contact: "denied" when the browser (or the user)
// refused loopback access; a closed port leaves the state as it was.
async function loopbackPermission() {
  for (const name of ["loopback-network", "local-network-access"]) {
    try {
      return (await navigator.permissions.query({ name })).state;
    } catch {
      // not known to this browser; try the older name
    }
  }
  return "";
}

// The first base URL of `ports` whose answer identifies the service (all
// ports asked at once), or the outcomes of all of them.
function discover(scheme, ports, signal) {
  const bases = ports.map((port) => `${scheme}://${LOOPBACK}:${port}/`);
  return new Promise((resolve, reject) => {
    const outcomes = [];
    let left = bases.length;
    if (!left) resolve({ outcomes });
    bases.forEach((base, i) =>
      probe(base, signal).then((outcome) => {
        outcomes[i] = outcome;
        if (outcome === "found") resolve({ base });
        if (--left === 0) resolve({ outcomes });
      }, reject));
  });
}

export async function connect(options = {}) {
  const { ports = [18625, 18993], tlsPorts = [18626, 18994], secure = "auto", timeoutMs = CALL_MS, signal } = options;
  if (signal && signal.aborted) throw abortedError();
  const pageIsHttps = globalThis.location && location.protocol === "https:";
  const pairs = secure === true ? [["https", tlsPorts]]
    : secure === false || !pageIsHttps ? [["http", ports]]
      : [["https", tlsPorts], ["http", ports]];
  const seen = [];
  for (const [scheme, list] of pairs) {
    const { base, outcomes } = await discover(scheme, list, signal);
    if (base) {
      const session = new Session(base, timeoutMs);
      if (signal) signal.addEventListener("abort", () => session.close(), { once: true });
      await session._open();
      return session;
    }
    seen.push(...outcomes);
  }
  const where = pairs.map(([scheme, list]) => `${scheme} ${list.join("/")}`).join(", ");
  if (seen.includes("refused")) {
    throw new QsError("origin-refused", `The local device service refuses this page's origin (${globalThis.location ? location.origin : "none"}). ` +
      "Its setting EnableCORSAll is off and this origin is not among the allowed ones (qs-host --allow-origin).");
  }
  if (seen.includes("failed") && (await loopbackPermission()) === "denied") {
    throw new QsError("permission-denied", "The browser did not let this page reach services on this computer (Local Network Access). " +
      (globalThis.isSecureContext === false ? "A page served over plain http cannot be allowed: serve it over https."
        : "Allow \"local network access\" for this site in the browser's site settings, then try again."));
  }
  throw new QsError("service-not-running", `The local device service is not running on this computer (nothing answered on 127.0.0.1, ${where}).`);
}

// Splits an HTTP answer that carries data: the text, a blank line, the data.
function splitAnswer(bytes) {
  for (let i = 0; i + 3 < bytes.length; i++) {
    if (bytes[i] === 13 && bytes[i + 1] === 10 && bytes[i + 2] === 13 && bytes[i + 3] === 10) {
      return [new TextDecoder().decode(bytes.subarray(0, i)), bytes.slice(i + 4)];
    }
  }
  return [new TextDecoder().decode(bytes), null];
}

class Session {
  #socket = null;
  #opening = null;
  #retryAt = 0;
  #failures = 0;
  #pending = new Map();
  #held = null; // an answer waiting for a binary frame that may follow it
  #heldTimer = 0;
  #next = 0;
  #closed = false;
  #timeoutMs;

  constructor(url, timeoutMs) {
    this.url = url;
    this.#timeoutMs = timeoutMs;
  }

  get transport() {
    return this.#socket ? "websocket" : "http";
  }

  async versionInfo(options) {
    const [protocolVersion, moduleName, userKey, enhanced, reserved] = (await this.call("VersionInfo", [], options)).result;
    return { protocolVersion, moduleName, userKey, enhancedMode: enhanced === "true", reserved };
  }

  async qsVersion(options) {
    const [version, name] = (await this.call("QSVersion", [], options)).result;
    return { version, name };
  }

  // The answer's values begin with the parameters of the call: the key, then
  // the ports by module prefix.
  async getPorts(userKey, options) {
    return (await this.call("GetPorts", [String(userKey)], options)).result[1] || {};
  }

  call(method, params = [], options = {}) {
    const { timeoutMs = this.#timeoutMs, signal } = options;
    if (this.#closed) return Promise.reject(new QsError("closed", "The session is closed."));
    if (signal && signal.aborted) return Promise.reject(abortedError());
    // Letters, digits and "-" only: the module puts the cmdId into its answer as it stands.
    const cmdId = `q${(++this.#next).toString(36)}-${Math.random().toString(36).slice(2, 8)}`;
    const command = { id: cmdId, cmdId, method };
    if (params.length) command.parameter = params;
    const text = JSON.stringify(command);
    return new Promise((resolve, reject) => {
      const control = new AbortController();
      const entry = { resolve, reject, socket: null };
      const onAbort = () => entry.settle(null, abortedError());
      const timer = setTimeout(() => entry.settle(null, new QsError("timeout", `No answer to ${method} within ${timeoutMs} ms.`)), timeoutMs);
      if (signal) signal.addEventListener("abort", onAbort);
      entry.settle = (answer, error) => {
        if (!this.#pending.delete(cmdId)) return;
        clearTimeout(timer);
        if (signal) signal.removeEventListener("abort", onAbort);
        control.abort();
        if (error) return reject(error);
        if (answer.exception) {
          return reject(new QsError("command-error", `${method}: ${answer.description} (${answer.exception})`,
            { exception: answer.exception, description: answer.description, answer }));
        }
        resolve({ ...answer, result: answer.result || [] });
      };
      this.#pending.set(cmdId, entry);
      this._open().then((socket) => {
        if (!this.#pending.has(cmdId)) return;
        if (socket && socket.readyState !== 1) return entry.settle(null, new QsError("closed", "The connection closed."));
        if (socket) {
          entry.socket = socket;
          return socket.send(text);
        }
        this.#post(text, timeoutMs, control.signal).then(
          ([answerText, data]) => {
            try {
              entry.settle({ ...JSON.parse(answerText), data });
            } catch {
              entry.settle(null, new QsError("command-error", `${method}: ${answerText}`, { exception: 0, description: answerText }));
            }
          },
          (error) => entry.settle(null, error));
      });
    });
  }

  async getImageRecord(guid, options) {
    const response = await this.#request("GET", "GetEncryptedImageMap", guid, undefined, options, true);
    return response ? new Uint8Array(await response.arrayBuffer()) : null;
  }

  // An empty record deletes; a record holds at most 2052 bytes (the rest is zero).
  async setImageRecord(guid, bytes, options) {
    await this.#request("POST", "SetEncryptedImageMap", guid, bytes, options);
  }

  async deleteImageRecord(guid, options) {
    await this.#request("POST", "SetEncryptedImageMap", guid, new Uint8Array(0), options);
  }

  close() {
    if (this.#closed) return;
    this.#closed = true;
    const socket = this.#socket;
    this.#socket = null;
    if (socket) socket.close(1000);
    this.#rejectPending(null, "The session was closed.");
  }

  // The WebSocket, opened when there is none; null where none can be opened
  // (calls then go over HTTP POST). After a failure the next attempt waits
  // a jittered, exponentially growing time.
  _open() {
    if (this.#socket || this.#closed) return Promise.resolve(this.#socket);
    if (this.#opening) return this.#opening;
    if (Date.now() < this.#retryAt) return Promise.resolve(null);
    this.#opening = new Promise((resolve) => {
      let socket;
      try {
        socket = new WebSocket(this.url.replace(/^http/, "ws") + ALIAS + "/");
      } catch {
        return resolve(null);
      }
      socket.binaryType = "arraybuffer";
      const timer = setTimeout(() => socket.close(), PROBE_MS);
      socket.onopen = () => {
        clearTimeout(timer);
        if (this.#closed) return socket.close(1000), resolve(null);
        this.#failures = 0;
        this.#socket = socket;
        socket.onmessage = (event) => this.#onMessage(event.data);
        socket.onclose = () => this.#onClose(socket);
        resolve(socket);
      };
      socket.onclose = () => {
        clearTimeout(timer);
        const wait = Math.min(RETRY_MAX_MS, RETRY_MIN_MS * 2 ** this.#failures++);
        this.#retryAt = Date.now() + wait * (0.5 + Math.random() / 2);
        resolve(null);
      };
    }).finally(() => {
      this.#opening = null;
    });
    return this.#opening;
  }

  #onMessage(data) {
    if (typeof data !== "string") {
      const held = this.#release();
      if (held) this.#deliver(held, new Uint8Array(data));
      return;
    }
    const earlier = this.#release();
    if (earlier) this.#deliver(earlier, null);
    try {
      this.#held = JSON.parse(data);
    } catch {
      return; // not a result document: nothing to match it to
    }
    this.#heldTimer = setTimeout(() => this.#deliver(this.#release(), null), HOLD_MS);
  }

  #release() {
    const held = this.#held;
    this.#held = null;
    clearTimeout(this.#heldTimer);
    return held;
  }

  #deliver(answer, data) {
    const entry = answer && this.#pending.get(answer.cmdId);
    if (entry) entry.settle({ ...answer, data });
  }

  // No silent replay: what was sent on a socket that closed is rejected.
  #onClose(socket) {
    if (socket !== this.#socket) return;
    this.#socket = null;
    const held = this.#release();
    if (held) this.#deliver(held, null);
    this.#rejectPending(socket, "The connection to the local device service closed before the answer came.");
  }

  #rejectPending(socket, message) {
    for (const entry of [...this.#pending.values()]) {
      if (!socket || entry.socket === socket) entry.settle(null, new QsError("closed", message));
    }
  }

  async #post(text, ms, signal) {
    const response = await this.#fetch(this.url + ALIAS + "/", { method: "POST", body: text }, ms, signal);
    return splitAnswer(new Uint8Array(await response.arrayBuffer()));
  }

  async #request(method, route, guid, body, options = {}, missingIsNull = false) {
    if (this.#closed) throw new QsError("closed", "The session is closed.");
    const url = `${this.url}${ALIAS}/${route}?GUID=${encodeURIComponent(guid)}`;
    const response = await this.#fetch(url, { method, body }, options.timeoutMs || this.#timeoutMs, options.signal);
    if (missingIsNull && response.status === 404) return null;
    return response;
  }

  // One HTTP request to the service; every failure as a QsError. A refusal
  // of qs-host itself (413: more than a record holds) is a command-error
  // whose exception is the HTTP status.
  async #fetch(url, init, ms, signal) {
    let response;
    try {
      response = await fetchWithin(url, init, ms, signal);
    } catch (error) {
      if (error instanceof QsError) throw error;
      throw new QsError("service-not-running", `The local device service did not answer at ${this.url}.`);
    }
    if (response.status === 403) throw new QsError("origin-refused", "The local device service refuses this page's origin.");
    if (response.status >= 400 && response.status !== 404) {
      const description = (await response.text()).trim();
      throw new QsError("command-error", `${description} (${response.status})`, { exception: response.status, description });
    }
    return response;
  }
}
