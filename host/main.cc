// qs-host: serves the plug-in module to browsers on loopback, or runs one
// command through it ("qs-host call").
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <boost/program_options.hpp>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "host/activation.h"
#include "host/journal.h"
#include "host/module.h"
#include "host/server.h"
#include "host/state_folder.h"

namespace po = boost::program_options;

namespace {

constexpr char kModuleFile[] = "libFVASManager.so";

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

// "A,B": two ports tried in turn.
bool ParsePair(const std::string& text, std::vector<int>* out) {
  int first = -1, second = -1;
  char comma = 0, extra = 0;
  if (sscanf(text.c_str(), "%d%c%d%c", &first, &comma, &second, &extra) != 3 || comma != ',' || first < 0 ||
      first > 65535 || second < 0 || second > 65535) {
    return false;
  }
  *out = {first, second};
  return true;
}

int Fail(const std::string& message) {
  qs_host::Say(qs_host::Priority::kError, "qs-host: " + message);
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

struct CommandLine {
  bool help = false;
  bool version = false;
  bool allowRoot = false;
  bool call = false;
  std::string module;
  std::string url = "/kxp/";
  bool noUserAgent = false;
  std::string command;
  std::string ports, tlsPorts;
  qs_host::ServerOptions server;
};

po::options_description ServeOptions(CommandLine& line) {
  qs_host::ServerOptions& s = line.server;
  po::options_description options("options");
  options.add_options()
      ("help,h", po::bool_switch(&line.help), "print this help and exit")
      ("version", po::bool_switch(&line.version), "print the version and exit")
      ("allow-root", po::bool_switch(&line.allowRoot),
       "run even as root (the service is meant to run as the desktop user)")
      ("module", po::value(&line.module)->value_name("PATH"),
       "the module library (default: libFVASManager.so beside qs-host, else ../FVASManager/libFVASManager.so)")
      ("port", po::value(&s.port)->value_name("N"),
       "plain HTTP/WebSocket port (0: any free port); default: the module's pair, the second when the first is "
       "taken")
      ("ports", po::value(&line.ports)->value_name("A,B"), "another plain pair to try in turn")
      ("tls-port", po::value(&s.tlsPort)->value_name("N"),
       "HTTPS/WSS port (0: any free port); default: the module's TLS pair, or any free port with --port 0")
      ("tls-ports", po::value(&line.tlsPorts)->value_name("A,B"), "another TLS pair to try in turn")
      ("threads", po::value(&s.threads)->value_name("N"), "worker threads (default: one per core, 2 to 8)")
      ("allow-host", po::value(&s.allowHosts)->composing()->value_name("NAME"),
       "also serve requests whose Host names NAME (repeatable; for a proxy in front of the service)")
      ("allow-origin", po::value(&s.allowOrigins)->composing()->value_name("ORIGIN"),
       "also serve pages of ORIGIN (e.g. https://app.example) while the module's EnableCORSAll is off "
       "(repeatable)")
      ("head-timeout", po::value(&s.limits.headSeconds)->value_name("SECONDS"),
       "time a client has to send a whole request head (default 30)")
      ("idle-timeout", po::value(&s.limits.idleSeconds)->value_name("SECONDS"),
       "time an idle connection is kept (default 60)")
      ("max-connections", po::value(&s.limits.maxConnections)->value_name("N"),
       "connections open at once; at the cap the longest idle one is closed (default 512)")
      ("body-budget", po::value(&s.limits.bodyBudgetMiB)->value_name("MIB"),
       ("request bodies and WebSocket messages held at once, all connections together; a request over it is "
        "answered 503 (default " + std::to_string(qs_host::Limits{}.bodyBudgetMiB) + ")").c_str())
      ("max-records", po::value(&s.limits.maxRecords)->value_name("N"),
       ("image records stored at once; a new GUID beyond them is answered 507 (default " +
        std::to_string(qs_host::Limits{}.maxRecords) + ")").c_str())
      ("bench-route", po::bool_switch(&s.benchRoute),
       "also answer /host/bench with a fixed body, without the module (the baseline of the load figure)");
  return options;
}

po::options_description CallOptions(CommandLine& line) {
  po::options_description options("call options");
  options.add_options()
      ("url", po::value(&line.url)->value_name("PATH"), "the request's URL (default /kxp/)")
      ("no-user-agent", po::bool_switch(&line.noUserAgent), "call as a client without a User-Agent");
  return options;
}

void PrintUsage(std::ostream& out, const po::options_description& serve, const po::options_description& call) {
  out << "usage: qs-host [options]                  serve the module on the loopback\n"
         "       qs-host call [--module PATH] [--allow-root] [--url PATH] [--no-user-agent] 'JSON'\n"
         "                                        run one command and print the answer\n\n"
      << serve << "\n" << call;
}

// Parses the command line; false (with a message on standard error) when it
// is not understood.
bool Parse(int argc, char** argv, CommandLine* line) {
  po::options_description serve = ServeOptions(*line);
  po::options_description call = CallOptions(*line);
  std::vector<std::string> args(argv + 1, argv + argc);
  line->call = !args.empty() && args[0] == "call";
  if (line->call) args.erase(args.begin());
  try {
    po::variables_map values;
    if (line->call) {
      po::options_description all;
      all.add_options()("module", po::value(&line->module))("allow-root", po::bool_switch(&line->allowRoot));
      all.add(call).add_options()("command", po::value(&line->command));
      po::positional_options_description positional;
      positional.add("command", 1);
      po::store(po::command_line_parser(args).options(all).positional(positional).run(), values);
    } else {
      po::store(po::command_line_parser(args).options(serve).run(), values);
    }
    po::notify(values);
    if (line->call && line->command.empty()) throw po::error("call needs a JSON command");
  } catch (const po::error& e) {
    PrintUsage(std::cerr, serve, call);
    std::cerr << "qs-host: " << e.what() << std::endl;
    return false;
  }
  qs_host::ServerOptions& s = line->server;
  const char* bad = nullptr;
  if (s.port < -1 || s.port > 65535) bad = "--port needs a port number";
  if (s.tlsPort < -1 || s.tlsPort > 65535) bad = "--tls-port needs a port number";
  if (!line->ports.empty() && !ParsePair(line->ports, &s.portPair)) bad = "--ports needs two ports: A,B";
  if (!line->tlsPorts.empty() && !ParsePair(line->tlsPorts, &s.tlsPortPair)) bad = "--tls-ports needs two ports: A,B";
  if (s.threads < 1 || s.threads > 64) bad = "--threads needs 1 to 64";
  if (s.limits.headSeconds < 1 || s.limits.idleSeconds < 1) bad = "time-outs are whole seconds, at least 1";
  if (s.limits.maxConnections < 1) bad = "--max-connections needs at least 1";
  if (s.limits.bodyBudgetMiB < 1 || s.limits.bodyBudgetMiB > 65536) bad = "--body-budget needs 1 to 65536 (MiB)";
  if (s.limits.maxRecords < 1) bad = "--max-records needs at least 1";
  if (bad != nullptr) {
    std::cerr << "qs-host: " << bad << "\n";
    return false;
  }
  if (line->help) PrintUsage(std::cout, serve, call);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  CommandLine line;
  line.server.threads = static_cast<int>(std::min(8u, std::max(2u, std::thread::hardware_concurrency())));
  if (!Parse(argc, argv, &line)) return 1;
  if (line.help) return 0;
  if (line.version) {
    std::cout << "qs-host " << QS_VERSION << std::endl;
    return 0;
  }

  if (geteuid() == 0 && !line.allowRoot) {
    return Fail("refusing to run as root: the service runs as the desktop user (--allow-root overrides)");
  }

  const std::string exe = ExePath();
  line.server.exeFolder = FolderOf(exe);
  // An installed qs-host runs from the user's state folder (state_folder.h).
  std::string relocated;
  std::string error;
  if (!qs_host::PrepareStateFolder(line.server.exeFolder, line.server.exeFolder + kModuleFile, &relocated, &error)) {
    return Fail(error);
  }
  if (!relocated.empty()) {
    execv(relocated.c_str(), argv);
    return Fail("cannot start " + relocated + ": " + strerror(errno));
  }
  if (line.module.empty()) line.module = DefaultModulePath(line.server.exeFolder);
  if (!line.call && !qs_host::TakeActivatedSockets(&line.server.inherited, &error)) return Fail(error);

  qs_host::Module module;
  if (!module.Load(line.module, &error)) return Fail(error);

  if (line.call) return RunCall(module, exe, line.url, !line.noUserAgent, line.command);

  // A peer that goes away mid-write must not end the process.
  std::signal(SIGPIPE, SIG_IGN);
  module.DoAction(0, exe, Seed());
  int signal = 0;
  {
    qs_host::Server server(module, line.server);
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
