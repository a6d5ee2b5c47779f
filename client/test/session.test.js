// The session's matching of answers, without a browser: a stand-in WebSocket
// that the test answers frame by frame, and a fetch that is the service.
import assert from "node:assert/strict";
import { test } from "node:test";

class StandInSocket {
  constructor() {
    this.sent = [];
    StandInSocket.last = this;
    setTimeout(() => ((this.readyState = 1), this.onopen()));
  }
  send(text) { this.sent.push(JSON.parse(text).cmdId); }
  frames(...frames) { frames.forEach((data) => this.onmessage({ data: typeof data === "string" ? data : Uint8Array.from(data).buffer })); }
}
globalThis.WebSocket = StandInSocket;
globalThis.fetch = async () => new Response('{"result":["0","Quintaris Service"]}');
const { connect } = await import("../qs-client.js");

test("a binary frame goes with the answer before it; answers for no call are dropped", async () => {
  const session = await connect({ ports: [1] });
  const calls = Promise.allSettled(["A", "B", "C", "D"].map((method) => session.call(method)));
  await new Promise(setImmediate);
  const [a, b, c, d] = StandInSocket.last.sent;
  const answer = (cmdId, more) => JSON.stringify({ cmdId, result: [cmdId], ...more });
  StandInSocket.last.frames(answer("nobody"), [7], answer(b), [1, 2], answer(a), "not JSON", [8], answer(d),
    answer(c, { exception: -2408, description: "User SID is empty." }), [3]);
  const [ra, rb, rc, rd] = await calls;
  assert.deepEqual([ra, rb, rd].map(({ value }) => [value.result[0], value.data && [...value.data]]), [[a, null], [b, [1, 2]], [d, null]]);
  assert.deepEqual([rc.reason.code, rc.reason.message, [...rc.reason.answer.data]], ["command-error", "C: User SID is empty. (-2408)", [3]]);
});
