// qs-host: serves the plug-in module to browsers on loopback, or runs one
// command through it ("qs-host call").
#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "host/module.h"
#include "host/server.h"

namespace {

constexpr char kModuleFile[] = "libFVASManager.so";

constexpr char kUsage[] =
    "usage: qs-host [options]                 serve the module on 127.0.0.1\n"
    "       qs-host call [options] [--url PATH] [--no-user-agent] 'JSON'\n"
    "                                        run one command and print the answer\n"
    "options:\n"
    "  --module PATH       the module library (default: libFVASManager.so beside qs-host,\n"
    "                      else ../FVASManager/libFVASManager.so)\n"
    "  --port N            plain HTTP/WebSocket port (0: any free port); default: the\n"
    "                      module's pair, the second when the first is taken\n"
    "  --ports A,B         another plain pair to try in turn\n"
    "  --tls-port N        HTTPS/WSS port (0: any free port); default: the module's TLS\n"
    "                      pair, or any free port with --port 0\n"
    "  --tls-ports A,B     another TLS pair to try in turn\n"
    "  --threads N         worker threads (default: one per core, 2 to 8)\n"
    "  --bench-route       also answer /host/bench with a fixed body, without the module\n"
    "                      (the baseline of the load figure)\n";

std::string ExePath() {
  char buffer[PATH_MAX + 1] = {};
  const ssize_t length = readlink("/proc/self/exe", buffer, PATH_MAX);
  return length > 0 ? std::string(buffer, static_cast<size_t>(length)) : std::string();
}

std::string FolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string("./") : path.substr(0, slash + 1);
}

std::string DefaultModulePath(const std::string& exeFolder) {
  const std::string beside = exeFolder + kModuleFile;
  if (access(beside.c_str(), F_OK) == 0) return beside;
  const std::string built = exeFolder + "../FVASManager/" + kModuleFile;
  if (access(built.c_str(), F_OK) == 0) return built;
  return beside;
}

bool ParseInt(const std::string& text, int low, int high, int* out) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || value < low || value > high) return false;
  *out = static_cast<int>(value);
  return true;
}

bool ParsePair(const std::string& text, std::vector<int>* out) {
  const size_t comma = text.find(',');
  int first = 0;
  int second = 0;
  if (comma == std::string::npos || !ParseInt(text.substr(0, comma), 0, 65535, &first) ||
      !ParseInt(text.substr(comma + 1), 0, 65535, &second)) {
    return false;
  }
  *out = {first, second};
  return true;
}

int Fail(const std::string& message) {
  std::cerr << "qs-host: " << message << std::endl;
  return 1;
}

int Seed() {
  std::random_device device;
  return static_cast<int>(device() & 0x7FFFFFFF);
}

// "call": start-up, one command with a callback that captures the answers,
// release. Connection 1 and a handle of our own, as a browser connection
// would have.
struct Captured {
  std::vector<std::string> texts;
  std::vector<std::string> data;
};
Captured g_captured;
char g_callHandle;

signed char CaptureAnswer(int connection, void* handle, char const* text, void const* data, unsigned int dataLen,
                          char const*) {
  if (connection != 1 || handle != &g_callHandle) return 0;
  g_captured.texts.emplace_back(text != nullptr ? text : "");
  g_captured.data.emplace_back(data != nullptr ? std::string(static_cast<const char*>(data), dataLen) : "");
  return 1;
}

int RunCall(qs_host::Module& module, const std::string& exe, const std::string& url, bool userAgent,
            const std::string& command) {
  module.DoAction(0, exe, Seed());
  int status = 0;
  try {
    module.Distribute(1, &g_callHandle, url, command, nullptr, 0, userAgent ? 1 : 0, &CaptureAnswer, -1, "");
  } catch (const std::exception& e) {
    std::cerr << "qs-host: the module raised: " << e.what() << std::endl;
    status = 1;
  }
  module.DoAction(3, exe, 0);
  for (size_t i = 0; i < g_captured.texts.size(); ++i) {
    std::cout << g_captured.texts[i];
    if (!g_captured.texts[i].empty() && g_captured.texts[i].back() != '\n') std::cout << '\n';
    if (!g_captured.data[i].empty()) std::cout << "[" << g_captured.data[i].size() << " bytes of data]\n";
  }
  std::cout.flush();
  if (g_captured.texts.empty() && status == 0) {
    std::cerr << "qs-host: the module sent no answer" << std::endl;
    status = 1;
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  const bool call = !args.empty() && args[0] == "call";
  if (call) args.erase(args.begin());

  const std::string exe = ExePath();
  qs_host::ServerOptions options;
  options.exeFolder = FolderOf(exe);
  options.threads = static_cast<int>(std::min(8u, std::max(2u, std::thread::hardware_concurrency())));
  std::string modulePath;
  std::string url = "/kxp/";
  bool userAgent = true;
  std::string command;
  bool haveCommand = false;

  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= args.size()) return false;
      *out = args[++i];
      return true;
    };
    std::string text;
    if (arg == "-h" || arg == "--help") {
      std::cout << kUsage;
      return 0;
    } else if (arg == "--module") {
      if (!value(&modulePath)) return Fail("--module needs a path");
    } else if (!call && arg == "--port") {
      if (!value(&text) || !ParseInt(text, 0, 65535, &options.port)) return Fail("--port needs a port number");
    } else if (!call && arg == "--ports") {
      if (!value(&text) || !ParsePair(text, &options.portPair)) return Fail("--ports needs two ports: A,B");
    } else if (!call && arg == "--tls-port") {
      if (!value(&text) || !ParseInt(text, 0, 65535, &options.tlsPort)) return Fail("--tls-port needs a port number");
    } else if (!call && arg == "--tls-ports") {
      if (!value(&text) || !ParsePair(text, &options.tlsPortPair)) return Fail("--tls-ports needs two ports: A,B");
    } else if (!call && arg == "--threads") {
      if (!value(&text) || !ParseInt(text, 1, 64, &options.threads)) return Fail("--threads needs 1 to 64");
    } else if (!call && arg == "--bench-route") {
      options.benchRoute = true;
    } else if (call && arg == "--url") {
      if (!value(&url)) return Fail("--url needs a path");
    } else if (call && arg == "--no-user-agent") {
      userAgent = false;
    } else if (call && !haveCommand && (arg.empty() || arg[0] != '-')) {
      command = arg;
      haveCommand = true;
    } else {
      std::cerr << kUsage;
      return Fail("unknown argument: " + arg);
    }
  }
  if (call && !haveCommand) {
    std::cerr << kUsage;
    return Fail("call needs a JSON command");
  }
  if (modulePath.empty()) modulePath = DefaultModulePath(options.exeFolder);

  qs_host::Module module;
  std::string error;
  if (!module.Load(modulePath, &error)) return Fail(error);

  if (call) return RunCall(module, exe, url, userAgent, command);

  // A peer that goes away mid-write must not end the process.
  std::signal(SIGPIPE, SIG_IGN);
  module.DoAction(0, exe, Seed());
  int signal = 0;
  {
    qs_host::Server server(module, options);
    if (!server.Start(&error)) {
      module.DoAction(3, exe, 0);
      return Fail(error);
    }
    signal = server.Run();
  }
  // Every worker has finished: no command is in flight any more.
  module.CloseWebSockets();
  module.DoAction(3, exe, 0);
  qs_host::Say("qs-host: stopped after signal " + std::to_string(signal) + "; module released (DoAction 3)");
  return 0;
}
