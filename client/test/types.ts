// Compiled (never run) by `npm run check`: the declarations as a page uses them.
import { connect, QsError, type Session } from "../qs-client.js";

async function page(): Promise<string> {
  try {
    const session: Session = await connect({ ports: [18625], secure: "auto", signal: AbortSignal.timeout(5000) });
    const { userKey, enhancedMode } = await session.versionInfo();
    const ports: number = (await session.getPorts(userKey)).kxp.sslPort;
    const record: Uint8Array | null = await session.getImageRecord("g", { timeoutMs: 100 });
    await session.setImageRecord("g", new Uint8Array(4));
    const answer = await session.call("QSVersion", [], { timeoutMs: 1 });
    session.close();
    return `${enhancedMode} ${ports} ${record?.length} ${answer.cmdId} ${session.url}`;
  } catch (error) {
    if (error instanceof QsError && error.code === "command-error") return `${error.exception}`;
    return error instanceof QsError ? error.code : "?";
  }
}
page();
