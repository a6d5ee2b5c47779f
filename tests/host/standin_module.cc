// A stand-in module for the host's tests: the same exports as the real
// module, with behaviour the real one cannot be made to show (raising
// through DistributeCommand, answering with binary data, twice, late, from
// another thread, or not at all). It echoes what the host passed in, so the
// tests see exactly what reached the module, and writes what happened to
// "standin.log" in its work folder (the executable's folder, as the real
// module does).
//
// Built with QS_STANDIN_PARTIAL, DistributeCommand and GetImage are left out:
// a module the host must refuse to start with.
#include <limits.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FVASManager/host_callbacks.h"

namespace {

std::mutex g_lock;
std::condition_variable g_changed;
std::vector<std::thread> g_threads;
[[maybe_unused]] bool g_nextCallStarted = false;
[[maybe_unused]] bool g_lateSent = false;

std::string WorkFile(const char* name) {
  char path[PATH_MAX + 1] = {};
  const ssize_t length = readlink("/proc/self/exe", path, PATH_MAX);
  const std::string exe(path, length > 0 ? static_cast<size_t>(length) : 0);
  return exe.substr(0, exe.rfind('/') + 1) + name;
}

void Log(const std::string& line) {
  static std::mutex logLock;
  std::lock_guard<std::mutex> hold(logLock);
  if (FILE* file = fopen(WorkFile("standin.log").c_str(), "a")) {
    fprintf(file, "%s\n", line.c_str());
    fclose(file);
  }
}

[[maybe_unused]] std::string Hex(const unsigned char* bytes, unsigned int length) {
  std::string text = bytes == nullptr ? "-" : "";
  char pair[3];
  for (unsigned int i = 0; bytes != nullptr && i < length; ++i) text.append(pair, snprintf(pair, 3, "%02x", bytes[i]));
  return text;
}

}  // namespace

extern "C" {

int DoAction(int action, char const*, char const*, int) {
  if (action == 3) {
    // Answers still travelling on threads of this module end first.
    std::unique_lock<std::mutex> hold(g_lock);
    std::vector<std::thread> threads = std::exchange(g_threads, {});
    hold.unlock();
    for (auto& thread : threads) thread.join();
  }
  Log("DoAction " + std::to_string(action));
  return action == 0 || action == 2 || action == 3 || action == 4 ? 1 : 0;
}

#ifndef QS_STANDIN_PARTIAL
int DistributeCommand(int connection, void* handle, int reject, char const* url, char const* request,
                      unsigned char const* body, unsigned int bodyLen, int browserType, SendBackCallback sendBack,
                      int socket, char const* domain, HostGetDataCallback, HostSetDataCallback,
                      HostGetDataCallback) {
  if (reject != 0) return 0;
  const std::string command(request);
  Log("DistributeCommand begin " + command);
  struct End {
    std::string command;
    ~End() { Log("DistributeCommand end " + command); }
  } end{command};

  if (command == "throw") throw std::out_of_range("basic_string::substr");
  if (command == "silent") return 0;
  if (command == "data") {
    const unsigned char data[] = {0x00, 0x01, 0x02, 0xFF};
    return sendBack(connection, handle, "with data", data, sizeof(data), nullptr);
  }
  if (command == "twice") {
    sendBack(connection, handle, "first", nullptr, 0, nullptr);
    return sendBack(connection, handle, "second", nullptr, 0, nullptr);
  }
  if (command == "slow") {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    return sendBack(connection, handle, "slow", nullptr, 0, nullptr);
  }
  if (command == "later") {
    // Answers from a thread of its own, once the next call has begun, with
    // the connection index and handle of this call.
    std::lock_guard<std::mutex> hold(g_lock);
    g_nextCallStarted = false;
    g_lateSent = false;
    g_threads.emplace_back([connection, handle, sendBack] {
      {
        std::unique_lock<std::mutex> wait(g_lock);
        g_changed.wait_for(wait, std::chrono::seconds(10), [] { return g_nextCallStarted; });
      }
      sendBack(connection, handle, "later", nullptr, 0, nullptr);
      std::lock_guard<std::mutex> done(g_lock);
      g_lateSent = true;
      g_changed.notify_all();
    });
    return 1;
  }
  if (command == "after-late") {
    std::unique_lock<std::mutex> wait(g_lock);
    g_nextCallStarted = true;
    g_changed.notify_all();
    g_changed.wait_for(wait, std::chrono::seconds(10), [] { return g_lateSent; });
    wait.unlock();
    return sendBack(connection, handle, "after-late", nullptr, 0, nullptr);
  }

  sockaddr_storage address{};
  socklen_t size = sizeof(address);
  const bool isSocket = getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  const std::string echo = "connection=" + std::to_string(connection) + "|url=" + url + "|request=" + command +
                           "|body=" + Hex(body, bodyLen) + "|browser=" + std::to_string(browserType) +
                           "|domain=" + domain + "|socket=" + (isSocket ? "yes" : "no");
  return sendBack(connection, handle, echo.c_str(), nullptr, 0, nullptr);
}
#endif

int GetWaitTimeout() { return 100; }

int GetAlias(char* alias) {
  if (alias != nullptr) memcpy(alias, "tst", 4);
  return 4;
}

int GetVersionDesc(char* buffer) {
  static const char kTag[] = "standin_1";
  if (buffer != nullptr) memcpy(buffer, kTag, sizeof(kTag));
  return sizeof(kTag);
}

int GetPorts(bool alternate, int* ports) {
  // The pair the test asks for, or any free port.
  const char* pair = alternate ? nullptr : getenv("QS_STANDIN_PORTS");
  if (ports != nullptr && (pair == nullptr || sscanf(pair, "%d,%d", &ports[0], &ports[1]) != 2)) ports[0] = ports[1] = 0;
  return 2;
}

// No image store: the host's image routes are tested with the real module.
#ifndef QS_STANDIN_PARTIAL
int GetImage(char const*, void*, unsigned int*) { return 0; }
#endif
int SetImage(char const*, void const*, unsigned int) { return 0; }

void CloseWebSocket() { Log("CloseWebSocket"); }

int Reserved() { return 0; }

}  // extern "C"

// The configuration switch the host asks for, exported by its C++ name as
// the real module's base library does.
bool GetEnableCORSAll() { return true; }
