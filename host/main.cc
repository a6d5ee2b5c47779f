// qs-host: serves the plug-in module to browsers on loopback, runs one
// command through it ("qs-host call"), or shows and changes the settings of
// its work folder ("qs-host config").
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

#include "environment/configuration_keys.h"
#include "host/activation.h"
#include "host/config_command.h"
#include "host/journal.h"
#include "host/module.h"
#include "host/server.h"
#include "host/settings.h"
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

// What was asked: the server (no word), "call" or "config".
enum class Subcommand { kServe, kCall, kConfig };

struct CommandLine {
  bool help = false;
  bool version = false;
  bool allowRoot = false;
  Subcommand subcommand = Subcommand::kServe;
  std::string module;
  std::string url = "/kxp/";
  bool noUserAgent = false;
  std::string command;                  // call
  std::vector<std::string> configWords;  // config
  std::string ports, tlsPorts;
  qs_host::ServerOptions server;
  // The host settings given as options, applied over the file's.
  std::vector<std::pair<const qs_host::HostSetting*, std::vector<std::string>>> settings;
};

po::options_description CommonOptions(CommandLine& line) {
  po::options_description options("options of every form");
  options.add_options()
      ("help,h", po::bool_switch(&line.help), "print this help and exit")
      ("version", po::bool_switch(&line.version), "print the version and exit")
      ("allow-root", po::bool_switch(&line.allowRoot),
       "run even as root (the service is meant to run as the desktop user)")
      ("module", po::value(&line.module)->value_name("PATH"),
       "the module library (default: libFVASManager.so beside qs-host, else ../FVASManager/libFVASManager.so)");
  return options;
}

po::options_description ServeOptions(CommandLine& line) {
  qs_host::ServerOptions& s = line.server;
  po::options_description options("server options (the host settings also in [qs-host] of QSConfiguration.ini)");
  options.add_options()
      ("port", po::value(&s.port)->value_name("N"),
       "plain HTTP/WebSocket port (0: any free port); default: the module's pair, the second when the first is "
       "taken")
      ("ports", po::value(&line.ports)->value_name("A,B"), "another plain pair to try in turn")
      ("tls-port", po::value(&s.tlsPort)->value_name("N"),
       "HTTPS/WSS port (0: any free port); default: the module's TLS pair, or any free port with --port 0")
      ("tls-ports", po::value(&line.tlsPorts)->value_name("A,B"), "another TLS pair to try in turn")
      ("threads", po::value(&s.threads)->value_name("N"), "worker threads (default: one per core, 2 to 8)")
      ("bench-route", po::bool_switch(&s.benchRoute),
       "also answer /host/bench with a fixed body, without the module (the baseline of the load figure)");
  for (const qs_host::HostSetting& setting : qs_host::kHostSettings) {
    const std::string help =
        std::string(setting.help) +
        (setting.list != nullptr ? " (repeatable)" : " (default " + std::to_string(setting.get(qs_host::Limits())) + ")");
    auto* value = po::value<std::vector<std::string>>()->value_name(setting.valueName);
    if (setting.list != nullptr) value->composing();
    options.add_options()(setting.name, value, help.c_str());
  }
  return options;
}

po::options_description CallOptions(CommandLine& line) {
  po::options_description options("call options");
  options.add_options()
      ("url", po::value(&line.url)->value_name("PATH"), "the request's URL (default /kxp/)")
      ("no-user-agent", po::bool_switch(&line.noUserAgent), "call as a client without a User-Agent");
  return options;
}

void PrintUsage(std::ostream& out, const po::options_description& common, const po::options_description& serve,
                const po::options_description& call) {
  out << "usage: qs-host [options]                  serve the module on the loopback\n"
         "       qs-host [options] call [options] 'JSON'\n"
         "                                        run one command and print the answer\n"
         "       qs-host config [get KEY | set KEY VALUE]\n"
         "                                        list, read or change the settings of QSConfiguration.ini\n"
         "Options may come before or after the word; one that does not apply to it is refused.\n\n"
      << common << "\n" << serve << "\n" << call << std::endl;
}

// Parses the command line; false (with a message on standard error) when it
// is not understood: the caller exits with status 2.
bool Parse(int argc, char** argv, CommandLine* line) {
  po::options_description common = CommonOptions(*line);
  po::options_description serve = ServeOptions(*line);
  po::options_description call = CallOptions(*line);
  std::vector<std::string> words;
  po::options_description all;
  all.add(common).add(serve).add(call).add_options()("word", po::value(&words)->composing());
  po::positional_options_description positional;
  positional.add("word", -1);
  try {
    po::variables_map values;
    po::store(po::command_line_parser(std::vector<std::string>(argv + 1, argv + argc))
                  .options(all).positional(positional).run(), values);
    po::notify(values);
    if (!words.empty()) {
      if (words[0] == "call") {
        line->subcommand = Subcommand::kCall;
        if (words.size() != 2) throw po::error("call needs one JSON command");
        line->command = words[1];
      } else if (words[0] == "config") {
        line->subcommand = Subcommand::kConfig;
        line->configWords.assign(words.begin() + 1, words.end());
      } else {
        throw po::error("unknown word \"" + words[0] + "\" (the forms are: no word, call, config)");
      }
    }
    // An option applies to the server, to call, or to every form.
    const char* form = line->subcommand == Subcommand::kCall ? "call" : line->subcommand == Subcommand::kConfig
                                                                           ? "config" : "the server";
    for (const auto& given : values) {
      if (given.second.defaulted() || given.first == "word" || common.find_nothrow(given.first, false) != nullptr) {
        continue;
      }
      const bool forServer = serve.find_nothrow(given.first, false) != nullptr;
      if (line->subcommand != (forServer ? Subcommand::kServe : Subcommand::kCall)) {
        throw po::error("--" + given.first + " does not apply to " + form);
      }
      if (const qs_host::HostSetting* setting = qs_host::FindHostSetting(given.first)) {
        line->settings.emplace_back(setting, given.second.as<std::vector<std::string>>());
      }
    }
  } catch (const po::error& e) {
    std::cerr << "qs-host: " << e.what() << "\n(qs-host --help lists the forms and options)" << std::endl;
    return false;
  }
  qs_host::ServerOptions& s = line->server;
  const char* bad = nullptr;
  if (s.port < -1 || s.port > 65535) bad = "--port needs a port number";
  if (s.tlsPort < -1 || s.tlsPort > 65535) bad = "--tls-port needs a port number";
  if (!line->ports.empty() && !ParsePair(line->ports, &s.portPair)) bad = "--ports needs two ports: A,B";
  if (!line->tlsPorts.empty() && !ParsePair(line->tlsPorts, &s.tlsPortPair)) bad = "--tls-ports needs two ports: A,B";
  if (s.threads < 1 || s.threads > 64) bad = "--threads needs 1 to 64";
  if (bad != nullptr) {
    std::cerr << "qs-host: " << bad << "\n";
    return false;
  }
  // Checked now, applied over the file's values once the file is known.
  for (const auto& [setting, texts] : line->settings) {
    qs_host::ServerOptions scratch;
    std::string why;
    for (const std::string& text : texts) {
      if (!qs_host::ApplyHostSetting(*setting, text, &scratch, &why)) {
        std::cerr << "qs-host: --" << setting->name << ": " << why << "\n";
        return false;
      }
    }
  }
  if (line->help) PrintUsage(std::cout, common, serve, call);
  return true;
}

// The host settings: the file's [qs-host] keys, then the command line's.
bool ApplySettings(const CommandLine& line, const qs_host::Profile& profile, qs_host::ServerOptions* options,
                   std::string* error) {
  if (profile.usable() && !qs_host::ReadHostSettings(profile, options, error)) return false;
  for (const auto& [setting, texts] : line.settings) {
    if (setting->list != nullptr) (options->*setting->list).clear();
    for (const std::string& text : texts) {
      qs_host::ServerOptions one;
      qs_host::ApplyHostSetting(*setting, text, &one, error);
      if (setting->list == nullptr) {
        setting->set(options->limits, setting->get(one.limits));
      } else {
        for (std::string& item : one.*setting->list) (options->*setting->list).push_back(std::move(item));
      }
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  CommandLine line;
  line.server.threads = static_cast<int>(std::min(8u, std::max(2u, std::thread::hardware_concurrency())));
  // A command line that is not understood, or an option that does not apply
  // to what was asked, is refused with status 2.
  if (!Parse(argc, argv, &line)) return 2;
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
  const bool serve = line.subcommand == Subcommand::kServe;
  if (serve && !qs_host::TakeActivatedSockets(&line.server.inherited, &error)) return Fail(error);

  qs_host::Module module;
  if (!module.Load(line.module, &error)) return Fail(error);

  if (line.subcommand == Subcommand::kCall) return RunCall(module, exe, line.url, !line.noUserAgent, line.command);

  // The module's configuration file, read and written through the module's
  // own profile functions.
  const qs_host::Profile profile{module.ProfileRead(), module.ProfileWrite(),
                                 line.server.exeFolder + kSystemConfigurationFile};
  if (line.subcommand == Subcommand::kConfig) {
    if (!profile.usable()) return Fail("the module " + module.path() + " has no profile functions to read settings");
    return qs_host::RunConfig(line.configWords, {profile, line.server.exeFolder, exe}, std::cout, std::cerr);
  }
  if (!ApplySettings(line, profile, &line.server, &error)) {
    qs_host::Say(qs_host::Priority::kError, "qs-host: " + error);
    return 2;
  }
  if (profile.usable()) line.server.settingsShown = qs_host::SettingsInForce(profile, line.server);

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
