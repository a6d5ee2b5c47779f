// One browser command in flight: HttpParamRequest carries the parsed command's
// identity and parameters and the connection to answer on, collects the result
// a command handler builds, and sends the finished result document back
// through the host's callback. HttpParamResponse holds the request body and
// the result document text.
//
// A request lives for one command: the router creates it, hands it to the
// command table and deletes it afterwards. It is used by one thread at a time.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "FVASManager/host_callbacks.h"

class HttpParamResponse {
 public:
  // With `own` true the response takes `data` (allocated with new[]) and
  // frees it with delete[]; with `own` false it only refers to it and the
  // caller keeps it alive. The length is stored as a 32-bit number.
  HttpParamResponse(unsigned char const* data, long length, bool own);
  virtual ~HttpParamResponse();
  HttpParamResponse(const HttpParamResponse&) = delete;
  HttpParamResponse& operator=(const HttpParamResponse&) = delete;

  void SetJsonResult(std::string result);
  // The result document; "" until a result is built.
  std::string GetJsonResult();
  unsigned char* GetData();
  int GetDataLen();

 private:
  std::string m_jsonResult;
  unsigned char* m_pData;
  int m_nDataLen;
  bool m_bOwnData;
};

class HttpParamRequest {
 public:
  // Stores the connection, command text and host callbacks, stamps the
  // current tick count as both receive and last time, creates the response
  // around the body, and parses `cmd`: client id, command id, function name,
  // command type, parameter count and version are taken from it, and a copy
  // of every parameter is put on the parameter stack. An unparsable command
  // leaves them all empty (no parameters, command type 3).
  HttpParamRequest(int connection, void* handle, std::string const& cmd, int browserType, int socket,
                   std::string const& domain, SendBackWrapper sendBackWrapper, SendBackCallback callback,
                   HostGetDataCallback get1, HostSetDataCallback set, HostGetDataCallback get2,
                   unsigned char const* body, long bodyLen, bool ownBody);
  // Frees the response (and with it an owned body), every value on the
  // parameter stack and the result data.
  virtual ~HttpParamRequest();
  HttpParamRequest(const HttpParamRequest&) = delete;
  HttpParamRequest& operator=(const HttpParamRequest&) = delete;

  // ---- Accessors ------------------------------------------------------------

  int GetBowserType();
  HttpParamResponse* GetHttpParamResponse();
  std::string GetFunName();
  unsigned int GetRecTime();
  // The stored last-time tick; the current tick count replaces it.
  unsigned int GetLastTime();
  std::string GetClientId();
  std::string GetCmdId();
  int GetCommandType();
  int GetParamCount();
  // The command's parameters, followed by the values the result builders
  // appended. The request owns the values.
  std::vector<Json::Value*>* GetParamStack();
  std::string GetCMDString();
  std::string GetDomain();
  std::string GetVersion();
  // The host's socket number (not the connection index).
  int GetSocket();
  HostGetDataCallback GetHostGetCallback1();
  HostSetDataCallback GetHostSetCallback();
  HostGetDataCallback GetHostGetCallback2();
  // The binary result to be sent with the document; null when there is none.
  unsigned char* GetResultData();
  int GetResultDataLen();

  // ---- Answer primitives ----------------------------------------------------

  // wrapper(callback, connection, handle, text, data, dataLen, extra) widened
  // to int; 0 without a wrapper.
  int Sendback(char const* text, void const* data, unsigned int dataLen, char const* extra);
  int Sendback(char const* text);

  // ---- Result builders ------------------------------------------------------
  // Each build encodes the whole parameter stack as it is at that moment
  // (JsonCommand::Encode, short form) and stores the document at once,
  // replacing the one stored before; values accumulate on the stack.

  // Appends `value`; when errorCode is 0 and `description` is not empty also
  // appends `description` and the module name. Replaces the result data by a
  // copy of `data` (none when data is null or dataLen negative). Encodes as a
  // method result with `description`, or "Successful" for code 0 and no
  // description. For T = bool, int and std::string.
  template <typename T>
  HttpParamRequest* GetResultStruct(T value, unsigned char const* data, int dataLen, int errorCode,
                                    std::string const& description);
  // GetResultStruct<bool>(value != 0, ...).
  HttpParamRequest* GetBOOLResultStruct(signed char value, unsigned char const* data, int dataLen, int errorCode,
                                        std::string const& description);
  // GetResultStruct<int> of the value narrowed to 32 bits.
  HttpParamRequest* GetResultStruct(long value, unsigned char const* data, int dataLen, int errorCode,
                                    std::string const& description);
  HttpParamRequest* GetStringResultStruct(std::string value, unsigned char const* data, int dataLen, int errorCode,
                                          std::string const& description);
  // Appends `value` and encodes with the given event flag, code and
  // description as they are. Returns true. For T = std::string.
  template <typename T>
  bool AddResultParam(T value, bool isEvent, int errorCode, std::string const& description);
  bool AddStringResultParam(std::string value, bool isEvent, int errorCode, std::string const& description);
  // Parses `json` (comments kept, so they reappear in the document) and
  // appends the parsed value, then encodes as AddResultParam does. A text the
  // parser refuses or throws on gives false and leaves the result unchanged.
  bool AddJsonStringResultParam(std::string& json, bool isEvent, int errorCode, std::string const& description);
  // Stores `doc` as the result document unchanged.
  HttpParamRequest* GetResultStructByJsonString(std::string doc);

  // Sends the stored result document. Without a host callback or with
  // connection 0 nothing is sent: the error line "Invalid send back handle.
  // Function must be call in wesocket!" and 0. A command without client id is
  // still answered after the debug line "Invalid json command format. cmd =
  // [%s][%d]." The command id goes in as the last member: ",\n\t\"cmdId\" :
  // \"<cmdId>\"" (formatted into 1024 bytes, so a very long id is cut) is
  // inserted at the last "\n" at or before the last "}"; a document without
  // them is sent unchanged. Logs "result json = [%s]." (debug), sends the
  // document with the result data, then frees the result data. Returns the
  // send result.
  int SendBackResult();

 private:
  // Encodes the whole stack as a short-form result and stores the document.
  void EncodeResult(bool isEvent, int errorCode, const std::string& description);
  void FreeResultData();

  HostGetDataCallback m_pfnHostGet1;
  HostSetDataCallback m_pfnHostSet;
  HostGetDataCallback m_pfnHostGet2;
  int m_nConnection;
  void* m_pHandle;
  std::string m_strCmd;
  int m_nBrowserType;
  int m_nSocket;
  std::string m_strDomain;
  std::string m_strClientId;
  std::string m_strCmdId;
  std::string m_strFunName;
  int m_nCommandType;
  int m_nParamCount;
  std::vector<Json::Value*> m_paramStack;
  unsigned char* m_pResultData;
  int m_nResultDataLen;
  SendBackWrapper m_pfnSendBack;
  SendBackCallback m_pfnCallback;
  unsigned int m_dwRecTime;
  unsigned int m_dwLastTime;
  HttpParamResponse* m_pResponse;
  std::string m_strVersion;
};

extern template HttpParamRequest* HttpParamRequest::GetResultStruct<bool>(bool, unsigned char const*, int, int,
                                                                          std::string const&);
extern template HttpParamRequest* HttpParamRequest::GetResultStruct<int>(int, unsigned char const*, int, int,
                                                                         std::string const&);
extern template HttpParamRequest* HttpParamRequest::GetResultStruct<std::string>(std::string, unsigned char const*,
                                                                                 int, int, std::string const&);
extern template bool HttpParamRequest::AddResultParam<std::string>(std::string, bool, int, std::string const&);
