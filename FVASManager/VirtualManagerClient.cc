#include "FVASManager/VirtualManagerClient.h"

#include <assert.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "FVASManager/ManagerClient.h"
#include "FVASManager/exports.h"
#include "FVASManager/http_param_request.h"
#include "environment/log.h"
#include "environment/user_session.h"
#include "util/util.h"

CReaderWriterLock gMClientLock;
VirtualManagerClient* VirtualManagerClient::m_pVirtualManagerClient = nullptr;

namespace {

constexpr char kInvalidCommand[] = "Invalid command";
constexpr char kGetImageMarker[] = "/GetEncryptedImageMap?";
constexpr char kSetImageMarker[] = "/SetEncryptedImageMap?";

// A copy bounded by its destination: a count above it is a fatal error that
// stops the process rather than a silent cut.
void CheckedCopy(void* destination, size_t destinationSize, const void* source, size_t count) {
  if (count > destinationSize) {
    fprintf(stderr, "image map record of %zu bytes exceeds its %zu-byte store\n", count, destinationSize);
    abort();
  }
  if (count != 0) memcpy(destination, source, count);
}

}  // namespace

VirtualManagerClient* VirtualManagerClient::GetInstance() {
  gMClientLock.AcquireReaderLock(0x7FFFFFFF);
  VirtualManagerClient* instance = m_pVirtualManagerClient;
  gMClientLock.ReleaseReaderLock();
  if (instance != nullptr) return instance;

  gMClientLock.AcquireWriterLock(0x7FFFFFFF);
  if (m_pVirtualManagerClient == nullptr) m_pVirtualManagerClient = new VirtualManagerClient;
  instance = m_pVirtualManagerClient;
  gMClientLock.ReleaseWriterLock();
  return instance;
}

void VirtualManagerClient::DeleteInstance() {
  gMClientLock.AcquireWriterLock(0x7FFFFFFF);
  if (m_pVirtualManagerClient != nullptr) {
    delete m_pVirtualManagerClient;
    m_pVirtualManagerClient = nullptr;
  }
  gMClientLock.ReleaseWriterLock();
}

VirtualManagerClient::VirtualManagerClient() : m_pManagerClient(new ManagerClient) {}

VirtualManagerClient::~VirtualManagerClient() {
  delete m_pManagerClient;
  m_pManagerClient = nullptr;
}

BOOL VirtualManagerClient::DistributeHttpCommand(int connection, void* handle, std::string const& url,
                                                 std::string const& request, int browserType,
                                                 SendBackCallback sendBack, int socket, std::string const& domain,
                                                 unsigned char const* body, long bodyLen, HostGetDataCallback get1,
                                                 HostSetDataCallback set, HostGetDataCallback get2) {
  // The router owns the body copy: whatever is not handed to the request is
  // freed here, also when a short upload URL raises.
  std::unique_ptr<unsigned char[]> ownedBody(const_cast<unsigned char*>(body));
  long ownedLength = body != nullptr ? bodyLen : 0;
  auto dropBody = [&] {
    ownedBody.reset();
    ownedLength = 0;
  };
  std::string cmd;

  if (url.find("/LoadZipFromBytes") != std::string::npos) {
    // The start is computed in 32 bits on purpose: without "?type=" the
    // position wraps to 5.
    const unsigned int start = static_cast<unsigned int>(url.find("?type=")) + 6u;
    const std::string type = url.substr(start, 1);
    const std::string version = GetQSVersionFromRequestString(url);
    cmd = "{\"id\":\"1\",\"method\":\"LoadZipFromBytes\",\"parameter\":[" + type + ",\"" + version + "\"]}";
  } else if (url.find("/CheckUpdateFile") != std::string::npos) {
    cmd = request.substr(0, request.size() >= 2 ? request.size() - 2 : 0);
    cmd += "\"";
    cmd += GetQSVersionFromRequestString(url);
    cmd += "\"]}";
    dropBody();
  } else if (url.rfind("/kxp/", 0) == 0) {
    const int separator = CUtil::GetStringPos(request.c_str(), "\r\n\r\n", 1);
    dropBody();
    if (separator < 0) {
      cmd = request;
    } else {
      cmd = request.substr(0, static_cast<size_t>(separator));
      const long remaining = static_cast<long>(request.length()) - 4 - separator;
      if (remaining > 0) {
        unsigned char* httpBody = new (std::nothrow) unsigned char[static_cast<size_t>(remaining)];
        if (httpBody == nullptr) {
          LogErr("KXP_http_body, Websocket callback http not enough memory for %d.", static_cast<int>(remaining));
        } else {
          memcpy(httpBody, request.data() + separator + 4, static_cast<size_t>(remaining));
          ownedBody.reset(httpBody);
          ownedLength = remaining;
        }
      }
    }
  } else {
    dropBody();
  }

  if (cmd.empty()) return SendBack(sendBack, connection, handle, kInvalidCommand, nullptr, 0, nullptr);

  cmd = DealWithMacHomeDir(cmd);
  HttpParamRequest* httpRequest = new HttpParamRequest(connection, handle, cmd, browserType, socket, domain, SendBack,
                                                       sendBack, get1, set, get2, ownedBody.release(), ownedLength,
                                                       true);
  LogDebug("Url encode json command succeed. Processing...");
  LogDebug("cmd = [%s]", cmd.c_str());
  BOOL result = DistributeCommand(httpRequest);
  delete httpRequest;
  return result;
}

BOOL VirtualManagerClient::DistributeCommand(HttpParamRequest* request) {
  assert(request != nullptr);
  if (request == nullptr) return FALSE;
  m_timeLock.AcquireWriterLock(0x7FFFFFFF);
  m_lastCommandTime = 0;
  m_timeLock.ReleaseWriterLock();

  LogDebug("Receive Command: %s", request->GetCMDString().c_str());
  BOOL result = static_cast<BOOL>(m_pManagerClient->Function(request));

  m_timeLock.AcquireWriterLock(0x7FFFFFFF);
  m_lastCommandTime = time(nullptr);
  m_timeLock.ReleaseWriterLock();
  return result;
}

std::string VirtualManagerClient::GetQSVersionFromRequestString(std::string const& url) {
  const unsigned int found = static_cast<unsigned int>(url.find("qsver="));
  if (found == static_cast<unsigned int>(std::string::npos)) return "";
  const std::string::size_type ampersand = url.find("&", found + 1);
  if (ampersand == std::string::npos) return "";
  const std::string::size_type start = found + 6;
  return ampersand > start ? url.substr(start, ampersand - start) : "";
}

std::string VirtualManagerClient::GetGUID(char const* url, char const* marker) {
  if (url == nullptr || marker == nullptr) return "";
  const std::string text(url);
  if (text.find(marker) == std::string::npos) return "";
  const std::string::size_type found = text.find("GUID=");
  return found == std::string::npos ? "" : text.substr(found + 5);
}

int VirtualManagerClient::GetWaitTimeout() {
  m_timeLock.AcquireReaderLock(0x7FFFFFFF);
  const time_t now = time(nullptr);
  int timeout = 1;
  if (m_lastCommandTime != 0 && now - m_lastCommandTime > 30) timeout = 100;
  m_timeLock.ReleaseReaderLock();
  return timeout;
}

void VirtualManagerClient::ResetTimeout() {
  m_timeLock.AcquireWriterLock(0x7FFFFFFF);
  m_lastCommandTime = time(nullptr);
  m_timeLock.ReleaseWriterLock();
}

bool VirtualManagerClient::SetImage(char const* url, void const* data, unsigned int length) {
  const std::string guid = GetGUID(url, kSetImageMarker);
  if (guid.empty()) return false;
  if (data == nullptr) {
    m_imageLock.AcquireWriterLock(0x7FFFFFFF);
    m_imageMap.erase(guid);
    m_imageLock.ReleaseWriterLock();
    return true;
  }
  UploadDataStruct record;
  memset(&record, 0, sizeof(record));
  CheckedCopy(&record, sizeof(record), data, length);
  m_imageLock.AcquireWriterLock(0x7FFFFFFF);
  m_imageMap[guid] = record;
  m_imageLock.ReleaseWriterLock();
  return true;
}

bool VirtualManagerClient::GetImage(char const* url, void* buffer, unsigned int* length) {
  const std::string guid = GetGUID(url, kGetImageMarker);
  if (guid.empty()) return false;
  UploadDataStruct record;
  m_imageLock.AcquireReaderLock(0x7FFFFFFF);
  auto found = m_imageMap.find(guid);
  const bool present = found != m_imageMap.end();
  if (present) record = found->second;
  m_imageLock.ReleaseReaderLock();
  if (!present) return false;
  if (length != nullptr) *length = sizeof(UploadDataStruct);
  if (buffer != nullptr) memcpy(buffer, &record, sizeof(record));
  return true;
}
