#include "FVASManager/exports.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "FVASManager/VirtualManagerClient.h"
#include "environment/program_info.h"
#include "platform/process_flags.h"
#include "util/util.h"

namespace {

constexpr int kDefaultPorts[2] = {18625, 18993};
constexpr int kDefaultSecurePorts[2] = {18626, 18994};

std::string TextOrEmpty(char const* text) { return text != nullptr ? text : ""; }

}  // namespace

unsigned char* CopyRequestBody(unsigned char const* body, unsigned int bodyLen) {
  if (body == nullptr) return nullptr;
  unsigned char* copy = new unsigned char[bodyLen];
  if (bodyLen != 0) memcpy(copy, body, bodyLen);
  return copy;
}

extern "C" {

int DoAction(int action, char const* exeFile, char const* modulePath, int seed) {
  switch (action) {
    case 4:
      SetProgramMode(WorkModeUserProcess);
      [[fallthrough]];
    case 0:
      InitProgramInfo(true);
      if (modulePath != nullptr) SetModulePath(std::string(modulePath));
      if (exeFile != nullptr) SetExeFile(exeFile);
      SetGlobalSeed(seed);
      return 1;
    case 2:
      return 1;
    case 3:
      VirtualManagerClient::DeleteInstance();
      return 1;
    default:
      return 0;
  }
}

int DistributeCommand(int connection, void* handle, int reject, char const* url, char const* request,
                      unsigned char const* body, unsigned int bodyLen, int browserType, SendBackCallback sendBack,
                      int socket, char const* domain, HostGetDataCallback get1, HostSetDataCallback set,
                      HostGetDataCallback get2) {
  // The copy is made before the reject test and is not freed when the request
  // is rejected.
  unsigned char* bodyCopy = CopyRequestBody(body, bodyLen);
  if (reject != 0) return 0;
  return VirtualManagerClient::GetInstance()->DistributeHttpCommand(
      connection, handle, TextOrEmpty(url), TextOrEmpty(request), browserType, sendBack, socket, TextOrEmpty(domain),
      bodyCopy, bodyCopy != nullptr ? static_cast<long>(bodyLen) : 0, get1, set, get2);
}

int GetWaitTimeout() { return VirtualManagerClient::GetInstance()->GetWaitTimeout(); }

int GetAlias(char* alias) {
  if (alias != nullptr) {
    const uint32_t packed = static_cast<uint32_t>('k') | static_cast<uint32_t>('x') << 8 |
                            static_cast<uint32_t>('p') << 16;
    memcpy(alias, &packed, sizeof(packed));
  }
  return 4;
}

int GetVersionDesc(char* buffer) {
  char version[64];
  snprintf(version, sizeof(version), "%s", kModuleVersion);
  CUtil::RemoveChar(version, ',');
  CUtil::RemoveChar(version, ' ');
  char tag[1024];
  memset(tag, 0, sizeof(tag));
  snprintf(tag, sizeof(tag), "fvasm2_%s", version);
  const int size = static_cast<int>(strlen(tag)) + 1;
  if (buffer != nullptr) memcpy(buffer, tag, static_cast<size_t>(size));
  return size;
}

int GetPorts(bool alternate, int* ports) {
  if (ports != nullptr) {
    const int* pair = alternate ? kDefaultSecurePorts : kDefaultPorts;
    ports[0] = pair[0];
    ports[1] = pair[1];
  }
  return 2;
}

int GetImage(char const* url, void* buffer, unsigned int* length) {
  return VirtualManagerClient::GetInstance()->GetImage(url, buffer, length) ? 1 : 0;
}

int SetImage(char const* url, void const* data, unsigned int length) {
  return VirtualManagerClient::GetInstance()->SetImage(url, data, length) ? 1 : 0;
}

void CloseWebSocket() {}

int Reserved() { return 0; }

}  // extern "C"

signed char SendBack(SendBackCallback callback, int connection, void* handle, char const* text, void const* data,
                     unsigned int dataLen, char const* extra) {
  VirtualManagerClient::GetInstance()->ResetTimeout();
  if (callback == nullptr) return 0;
  return callback(connection, handle, text, data, dataLen, extra);
}
