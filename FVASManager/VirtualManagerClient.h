// VirtualManagerClient: the module's single router. It turns each host
// request into one JSON command, runs it through ManagerClient, keeps the time
// of the last activity (from which the host's wait timeout follows), and owns
// the image map store.
//
// The singleton pointer is guarded by gMClientLock (reader for the fast path,
// writer for creation and deletion, double-checked). The activity time and the
// image map have reader-writer locks of their own; none is held while a
// command runs, so commands from several host threads run at once.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <string>

#include "FVASManager/host_callbacks.h"
#include "platform/rwlock.h"

class HttpParamRequest;
class ManagerClient;

// One record of the image map: opaque to the module, which only zero-fills and
// copies it. A stored record is always the full 2052 bytes.
struct UploadDataStruct {
  char first[1024];
  char second[1024];
  uint32_t value;
};
static_assert(sizeof(UploadDataStruct) == 2052, "an image map record is 2052 bytes");

extern CReaderWriterLock gMClientLock;

class VirtualManagerClient {
 public:
  static VirtualManagerClient* GetInstance();
  static void DeleteInstance();
  virtual ~VirtualManagerClient();
  VirtualManagerClient(const VirtualManagerClient&) = delete;
  VirtualManagerClient& operator=(const VirtualManagerClient&) = delete;

  // Routes one host request by its URL:
  //  - containing "/LoadZipFromBytes": an upload, wrapped into the command
  //    {"id":"1","method":"LoadZipFromBytes","parameter":[<type>,"<qsver>"]}
  //    with the body kept; the type is the one character at (position of
  //    "?type=" + 6) computed in 32 bits, so without "?type=" it is the
  //    character at index 5 (taken with the bounds-checked substr, which
  //    would raise std::out_of_range for a start past the end);
  //  - containing "/CheckUpdateFile": the request's last two characters are
  //    replaced by "\"<qsver>\"]}" (no comma is inserted); no body;
  //  - beginning "/kxp/": the request up to its first "\r\n\r\n" is the
  //    command and what follows the separator is the body (none without one);
  //  - anything else, or an empty command: "Invalid command" is sent back.
  // The router owns `body` (a new[] block, possibly null). The result is the
  // send result.
  BOOL DistributeHttpCommand(int connection, void* handle, std::string const& url, std::string const& request,
                             int browserType, SendBackCallback sendBack, int socket, std::string const& domain,
                             unsigned char const* body, long bodyLen, HostGetDataCallback get1,
                             HostSetDataCallback set, HostGetDataCallback get2);
  // Runs one parsed request, marking the activity time 0 while it runs and
  // the time of its end afterwards.
  BOOL DistributeCommand(HttpParamRequest* request);
  // The text between "qsver=" and the next "&"; empty when either is missing
  // (a trailing "qsver=..." gives an empty version).
  std::string GetQSVersionFromRequestString(std::string const& url);
  // Everything after "GUID=" when the URL contains `marker`, else "".
  std::string GetGUID(char const* url, char const* marker);
  // 1 while a command runs or within 30 s of the last activity, 100 after.
  int GetWaitTimeout();
  // Records now as the time of the last activity.
  void ResetTimeout();

  // ---- The image map store ---------------------------------------------------

  // Stores (or, with null data, deletes) the 2052-byte record of the GUID in
  // ".../SetEncryptedImageMap?...GUID=<guid>"; the part not supplied is zero.
  // False without a GUID. A length above 2052 stops the process: the copy is
  // checked, never silently cut.
  bool SetImage(char const* url, void const* data, unsigned int length);
  // Copies the record of the GUID in ".../GetEncryptedImageMap?...GUID=<guid>"
  // into `buffer` (which must hold 2052 bytes; null asks only for the size)
  // and sets *length to 2052. False, nothing written, when it is not stored.
  bool GetImage(char const* url, void* buffer, unsigned int* length);

  ManagerClient* GetManagerClient() const { return m_pManagerClient; }

 private:
  VirtualManagerClient();

  static VirtualManagerClient* m_pVirtualManagerClient;

  time_t m_lastCommandTime = 0;
  CReaderWriterLock m_timeLock;
  ManagerClient* m_pManagerClient = nullptr;
  std::map<std::string, UploadDataStruct> m_imageMap;
  CReaderWriterLock m_imageLock;
};
