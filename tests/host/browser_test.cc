// A real browser on the status page: headless Chromium loads it from qs-host,
// the page asks the module over a WebSocket, and the test reads the rendered
// page back through the browser's DevTools protocol (polling in real time, so
// a slow sanitizer build only takes longer). A screenshot of the page is kept
// beside the test binary (status_page.png).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/host/host_client.h"

namespace qs_host_test {
namespace {

std::string FindChromium() {
  if (const char* chosen = getenv("QS_CHROMIUM")) return chosen;
  const char* path = getenv("PATH");
  std::string folders = path != nullptr ? path : "/usr/bin:/bin";
  size_t start = 0;
  while (start <= folders.size()) {
    const size_t end = std::min(folders.find(':', start), folders.size());
    for (const char* name : {"chromium", "chromium-browser"}) {
      const std::string candidate = folders.substr(start, end - start) + "/" + name;
      if (access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    start = end + 1;
  }
  return "";
}

// Headless Chromium with a fresh profile, reachable over DevTools.
class Browser {
 public:
  explicit Browser(const std::string& logFile) : logFile_(logFile) {}
  ~Browser() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  bool Start(const std::string& chromium) {
    std::vector<std::string> args = {chromium,
                                     "--headless",
                                     "--no-sandbox",
                                     "--disable-gpu",
                                     "--no-first-run",
                                     "--disable-background-networking",
                                     "--disable-component-update",
                                     "--disable-sync",
                                     "--disable-dev-shm-usage",
                                     "--hide-scrollbars",
                                     "--remote-debugging-address=127.0.0.1",
                                     "--remote-debugging-port=0",
                                     "--user-data-dir=" + profile_.path(),
                                     "about:blank"};
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, logFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    const int spawned = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
      pid_ = -1;
      return false;
    }
    // The browser writes its DevTools port and path into the profile.
    for (int i = 0; i < 6000; ++i) {
      std::ifstream active(profile_ / "DevToolsActivePort");
      int port = 0;
      std::string path;
      if (active >> port >> path && port > 0 && !path.empty()) return devtools_.Connect(port, path, "");
      std::this_thread::sleep_for(10ms);
    }
    return false;
  }

  // One DevTools command; the "result" member of its reply (null on error).
  Json::Value Call(const std::string& method, const Json::Value& params = Json::Value(Json::objectValue),
                   const std::string& session = "") {
    Json::Value message;
    message["id"] = ++lastId_;
    message["method"] = method;
    message["params"] = params;
    if (!session.empty()) message["sessionId"] = session;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    if (!devtools_.Send(Json::writeString(writer, message))) return Json::Value();
    // Events may come between; the reply carries the command's id.
    for (;;) {
      WsMessage reply = devtools_.Read();
      if (reply.error) return Json::Value();
      Json::Value parsed;
      std::string errors;
      std::istringstream in(reply.payload);
      if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &parsed, &errors)) return Json::Value();
      if (parsed.isMember("id") && parsed["id"].asInt() == lastId_) {
        if (parsed.isMember("error")) ADD_FAILURE() << method << ": " << reply.payload;
        return parsed["result"];
      }
    }
  }

  // Ends the browser; its exit status.
  int Close() {
    Call("Browser.close");
    int status = -1;
    for (int i = 0; i < 3000 && pid_ > 0; ++i) {
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
      std::this_thread::sleep_for(10ms);
    }
    return -1;
  }

 private:
  std::string logFile_;
  qs_test::TempDir profile_;
  pid_t pid_ = -1;
  WsClient devtools_;
  int lastId_ = 0;
};

std::string Base64Decode(const std::string& text) {
  std::string bytes(text.size() / 4 * 3 + 3, '\0');
  const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&bytes[0]),
                                     reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
  if (length < 0) return "";
  size_t padding = 0;
  while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') ++padding;
  bytes.resize(static_cast<size_t>(length) - padding);
  return bytes;
}

// The text of the table cell with id `id`, as rendered: class and content.
std::string Cell(const std::string& dom, const std::string& id) {
  const std::string open = "<td id=\"" + id + "\"";
  const size_t start = dom.find(open);
  if (start == std::string::npos) return "<missing>";
  const size_t end = dom.find("</td>", start);
  return dom.substr(start + open.size(), end - start - open.size());
}

TEST(HostBrowser, StatusPageShowsTheModulesAnswers) {
  const std::string chromium = FindChromium();
  ASSERT_FALSE(chromium.empty()) << "Debian's chromium package is needed (scripts/test.sh installs it)";

  HostProcess host;
  qs_test::WriteFile(host / "QSConfiguration.ini", "[QS]\nQSVersion=5,1,0,7\n");
  ASSERT_TRUE(host.Start()) << host.Output();
  const std::string url = "http://127.0.0.1:" + std::to_string(host.port()) + "/";

  Browser browser(host / "chromium.log");
  ASSERT_TRUE(browser.Start(chromium)) << qs_test::ReadWholeFile(host / "chromium.log");
  Json::Value target;
  target["url"] = url;
  const std::string targetId = browser.Call("Target.createTarget", target)["targetId"].asString();
  ASSERT_FALSE(targetId.empty());
  Json::Value attach;
  attach["targetId"] = targetId;
  attach["flatten"] = true;
  const std::string session = browser.Call("Target.attachToTarget", attach)["sessionId"].asString();
  ASSERT_FALSE(session.empty());

  // The page marks its body when every answer is in (or when it gave up).
  auto evaluate = [&](const std::string& expression) {
    Json::Value params;
    params["expression"] = expression;
    params["returnByValue"] = true;
    return browser.Call("Runtime.evaluate", params, session)["result"]["value"].asString();
  };
  std::string state;
  const auto deadline = std::chrono::steady_clock::now() + kLimit;
  while (std::chrono::steady_clock::now() < deadline) {
    state = evaluate("document.body ? document.body.getAttribute('data-state') : ''");
    if (state == "done" || state == "failed") break;
    std::this_thread::sleep_for(50ms);
  }
  const std::string dom = evaluate("document.documentElement.outerHTML");
  ASSERT_EQ("done", state) << dom;

  EXPECT_NE(std::string::npos,
            dom.find("<p id=\"status\" class=\"ok\">Connected to ws://127.0.0.1:" + std::to_string(host.port()) +
                     "/kxp/ \u2014 the module answered every command.</p>"))
      << dom;
  EXPECT_EQ(" class=\"\">Quintaris Service", Cell(dom, "service"));
  EXPECT_EQ(" class=\"\">5,1,0,7", Cell(dom, "service-version")) << "from the configuration, through the module";
  EXPECT_EQ(" class=\"\">Quintaris Service Manager Module", Cell(dom, "module"));
  EXPECT_EQ(" class=\"\">14, 3, 3, 1212", Cell(dom, "module-version"));
  EXPECT_EQ(" class=\"\">0", Cell(dom, "user-key"));
  EXPECT_EQ(" class=\"\">off", Cell(dom, "enhanced"));
  // GetPorts was asked with the key VersionInfo handed out ("0").
  EXPECT_NE(std::string::npos, dom.find(R"(,"method":"GetPorts","parameter":["0"]})")) << dom;
  EXPECT_EQ(" class=\"note\">none known: User SID is empty. (-2408)", Cell(dom, "ports"));

  // The picture a person would see.
  Json::Value metrics;
  metrics["width"] = 1000;
  metrics["height"] = 900;
  metrics["deviceScaleFactor"] = 1;
  metrics["mobile"] = false;
  browser.Call("Emulation.setDeviceMetricsOverride", metrics, session);
  Json::Value shot;
  shot["format"] = "png";
  const std::string png = Base64Decode(browser.Call("Page.captureScreenshot", shot, session)["data"].asString());
  EXPECT_EQ(0u, png.find("\x89PNG\r\n\x1a\n")) << "a PNG picture";
  EXPECT_GT(png.size(), 20000u) << "a page with text on it, not a blank one";
  std::ofstream(QS_SCREENSHOT_FILE, std::ios::binary) << png;

  EXPECT_EQ(0, browser.Close());
  EXPECT_EQ(0, host.Stop()) << host.Output();
}

}  // namespace
}  // namespace qs_host_test
