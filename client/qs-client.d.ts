// Types of qs-client.js, the web page's client of the local device service.

export type QsErrorCode =
  | "permission-denied" // the browser or the user refused access to the loopback
  | "service-not-running" // nothing that is the service answered on any port
  | "origin-refused" // the service answered 403 to this page's origin
  | "command-error" // the module (or qs-host) answered with an error code
  | "timeout"
  | "closed" // the session, or its connection, closed before the answer came
  | "aborted";

export class QsError extends Error {
  readonly name: "QsError";
  readonly code: QsErrorCode;
  /** command-error: the module's negative code (e.g. -2205, -2408), or the HTTP status of a refusal by qs-host (e.g. 413). */
  readonly exception?: number;
  readonly description?: string;
  /** command-error from the module: its whole result document. */
  readonly answer?: ResultDocument;
}

export interface ConnectOptions {
  /** Plain HTTP/WebSocket ports, tried at once. Default [18625, 18993]. */
  ports?: number[];
  /** TLS ports. Default [18626, 18994]. */
  tlsPorts?: number[];
  /** "auto" (default): the TLS pair first, then the plain one, on an https page; only the plain pair otherwise. */
  secure?: "auto" | boolean;
  /** Default time-out of each call, in milliseconds (10000). */
  timeoutMs?: number;
  /** Aborts discovery; once connected, closes the session. */
  signal?: AbortSignal;
}

export interface CallOptions {
  timeoutMs?: number;
  signal?: AbortSignal;
}

/** The module's answer. `result` begins with the call's own parameters, followed by the command's values. */
export interface ResultDocument {
  id: string;
  cmdId: string;
  method?: string;
  event?: string;
  result: unknown[];
  exception?: number;
  description?: string;
  /** Binary data the module sent with the answer, if any. */
  data?: Uint8Array | null;
  [key: string]: unknown;
}

export interface VersionInfo {
  /** "14, 3, 3, 1212" */
  protocolVersion: string;
  /** "Quintaris Service Manager Module" */
  moduleName: string;
  /** The key of this desktop user, for getPorts(). */
  userKey: string;
  enhancedMode: boolean;
  /** Always "32". */
  reserved: string;
}

export interface QsVersion {
  /** The installed service version ("0" when not configured). */
  version: string;
  /** "Quintaris Service" */
  name: string;
}

export interface Ports {
  port: number;
  sslPort: number;
}

export interface Session {
  /** The base URL that answered, e.g. "http://127.0.0.1:18625/". */
  readonly url: string;
  /** "websocket", or "http" while no WebSocket is open. */
  readonly transport: "websocket" | "http";
  versionInfo(options?: CallOptions): Promise<VersionInfo>;
  qsVersion(options?: CallOptions): Promise<QsVersion>;
  /** Ports by module prefix ("kxp", ...); an unknown key fails with command-error -2408. */
  getPorts(userKey: string, options?: CallOptions): Promise<Record<string, Ports>>;
  call(method: string, params?: unknown[], options?: CallOptions): Promise<ResultDocument>;
  /** The whole 2052-byte record, or null when none is stored under the GUID. */
  getImageRecord(guid: string, options?: CallOptions): Promise<Uint8Array | null>;
  /** At most 2052 bytes (the rest of the record is zero); an empty record deletes. */
  setImageRecord(guid: string, bytes: Uint8Array, options?: CallOptions): Promise<void>;
  deleteImageRecord(guid: string, options?: CallOptions): Promise<void>;
  /** Closes the WebSocket; pending calls are rejected with "closed". */
  close(): void;
}

export function connect(options?: ConnectOptions): Promise<Session>;
