#include "host/status_page.h"

#include <vector>

namespace qs_host {

namespace {

// Plain HTML and JavaScript, no build step; the commands go through the browser
// client. They go out one after the other, because GetPorts needs the user key
// that VersionInfo hands out.
constexpr char kPage[] = R"page(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<title>Local device service</title>
<style>
  body { font-family: system-ui, sans-serif; margin: 2em auto; max-width: 46em; padding: 0 1em; color: #1f2328; }
  h1 { font-size: 1.5em; margin-bottom: .2em; }
  #status { margin: .2em 0 1.2em; color: #59636e; }
  #status.ok { color: #1a7f37; }
  #status.failed { color: #b3261e; }
  table { border-collapse: collapse; width: 100%; }
  th, td { text-align: left; padding: .45em .8em; border-bottom: 1px solid #d1d9e0; vertical-align: top; }
  th { width: 16em; font-weight: 600; color: #393f46; }
  td.error { color: #b3261e; }
  td.note { color: #9a6700; }
  h2 { font-size: 1.1em; margin-top: 2em; }
  pre { background: #f6f8fa; border: 1px solid #d1d9e0; padding: .8em; overflow: auto; font-size: .8em; }
</style>
</head>
<body data-state="connecting" data-alias="@ALIAS@">
<h1>Local device service</h1>
<p id="status">Connecting&hellip;</p>
<table>
  <tr><th>Service</th><td id="service">&hellip;</td></tr>
  <tr><th>Installed service version</th><td id="service-version">&hellip;</td></tr>
  <tr><th>Module</th><td id="module">&hellip;</td></tr>
  <tr><th>Module protocol version</th><td id="module-version">&hellip;</td></tr>
  <tr><th>User key</th><td id="user-key">&hellip;</td></tr>
  <tr><th>Enhanced multi-user mode</th><td id="enhanced">&hellip;</td></tr>
  <tr><th>Ports of this user</th><td id="ports">&hellip;</td></tr>
</table>
<h2>What this service accepts</h2>
<table id="policy">
@POLICY@
</table>
<h2>Settings in force</h2>
<p>Change them with <code>qs-host config set KEY VALUE</code>, then restart the service.</p>
<table id="settings">
@SETTINGS@
</table>
<h2>Commands and answers</h2>
<pre id="log"></pre>
<script type="module">
import { connect } from "/client/qs-client.js";

// kind: "" for a value, "note" for an answer that carries a module code,
// "error" for no usable answer.
function show(id, text, kind) {
  const cell = document.getElementById(id);
  cell.textContent = text;
  cell.className = kind || "";
}
function status(text, state) {
  const line = document.getElementById("status");
  line.textContent = text;
  line.className = state === "done" ? "ok" : (state === "failed" ? "failed" : "");
  document.body.setAttribute("data-state", state);
}
function log(text) {
  document.getElementById("log").textContent += text + "\n";
}
// A module code is shown where its answer belongs; anything else ends the page's run.
async function ask(name, run, onError) {
  try {
    const answer = await run();
    log(name + " \u2192 " + JSON.stringify(answer));
    return answer;
  } catch (error) {
    if (error.code !== "command-error") throw error;
    log(name + " \u2192 " + error.message);
    onError(error.description + " (" + error.exception + ")");
    return null;
  }
}

async function run() {
  const port = Number(location.port) || (location.protocol === "https:" ? 443 : 80);
  const session = await connect({ ports: [port], tlsPorts: [port], timeoutMs: 20000 });
  status("Connected to " + session.url + ", asking the module\u2026", "asking");
  const info = await ask("VersionInfo", () => session.versionInfo(), (error) => {
    show("module", error, "error");
    show("module-version", "-");
  });
  if (info) {
    show("module", info.moduleName);
    show("module-version", info.protocolVersion);
    show("user-key", info.userKey);
    show("enhanced", info.enhancedMode ? "on" : "off");
  }
  const version = await ask("QSVersion", () => session.qsVersion(), (error) => show("service", error, "error"));
  if (version) {
    show("service", version.name);
    show("service-version", version.version);
  }
  const ports = await ask("GetPorts", () => session.getPorts(info ? info.userKey : ""),
                          (error) => show("ports", "none known: " + error, "note"));
  if (ports) {
    const names = Object.keys(ports);
    show("ports", names.length === 0 ? "none registered" : names.map((name) =>
      name + ": " + ports[name].port + " (TLS " + ports[name].sslPort + ")").join(", "));
  }
  status("Connected to " + session.url + " \u2014 the module answered every command.", "done");
  session.close();
}

run().catch((error) => status(error.message, "failed"));
</script>
</body>
</html>
)page";

std::string Escaped(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

std::string Row(const char* id, const char* name, const std::string& value) {
  return std::string("  <tr><th>") + name + "</th><td id=\"" + id + "\">" + Escaped(value) + "</td></tr>\n";
}

std::string List(const std::string& fixed, const std::vector<std::string>& extra) {
  std::string text = fixed;
  for (const std::string& item : extra) text += ", " + item;
  return text;
}

void Fill(std::string* page, const std::string& marker, const std::string& text) {
  const size_t at = page->find(marker);
  if (at != std::string::npos) page->replace(at, marker.size(), text);
}

}  // namespace

std::string StatusPage(const std::string& alias, const RequestPolicy& policy, const Limits& limits,
                       const std::vector<std::pair<std::string, std::string>>& settings) {
  // The alias goes into a script string: only plain characters are kept.
  std::string safe;
  for (char c : alias) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-') {
      safe += c;
    }
  }
  std::string rows;
  rows += Row("policy-cors", "CORS for all origins", policy.corsForAll() ? "on" : "off");
  rows += Row("policy-hosts", "Host names served", List("127.0.0.1, localhost, [::1]", policy.extraHosts()));
  rows += Row("policy-origins", "Origins served",
              policy.corsForAll() ? std::string("any") : List("the loopback's (http and https, any port)",
                                                               policy.extraOrigins()));
  rows += Row("policy-limits", "Limits",
              "request head " + std::to_string(limits.headSeconds) + " s, idle connection " +
                  std::to_string(limits.idleSeconds) + " s, " + std::to_string(limits.maxConnections) +
                  " connections, header section " + std::to_string(limits.headerBytes / 1024) + " KiB, bodies " +
                  std::to_string(limits.bodyBudgetMiB) + " MiB at once, " + std::to_string(limits.maxRecords) +
                  " image records (GUID at most " + std::to_string(kMaxGuidBytes) + " bytes)");
  rows += Row("policy-bodies", "Body limits",
              "commands " + std::to_string(kCommandBodyLimit / 1024) + " KiB, package uploads " +
                  std::to_string(kUploadBodyLimit / 1024) + " KiB, image records " +
                  std::to_string(kImageBodyLimit) + " bytes");
  std::string shown;
  for (const auto& setting : settings) {
    shown += "  <tr><th>" + Escaped(setting.first) + "</th><td>" + Escaped(setting.second) + "</td></tr>\n";
  }
  std::string page(kPage);
  Fill(&page, "@ALIAS@", safe);
  Fill(&page, "@POLICY@", rows);
  Fill(&page, "@SETTINGS@", shown);
  return page;
}

}  // namespace qs_host
