#include "FVASManager/http_param_request.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "environment/log.h"
#include "environment/program_info.h"
#include "json_command/json_command.h"
#include "platform/system_time.h"

// ---- HttpParamResponse -------------------------------------------------------

HttpParamResponse::HttpParamResponse(unsigned char const* data, long length, bool own)
    : m_pData(const_cast<unsigned char*>(data)), m_nDataLen(static_cast<int>(length)), m_bOwnData(own) {}

HttpParamResponse::~HttpParamResponse() {
  if (m_bOwnData) delete[] m_pData;
  m_pData = nullptr;
  m_nDataLen = 0;
}

void HttpParamResponse::SetJsonResult(std::string result) { m_jsonResult = std::move(result); }

std::string HttpParamResponse::GetJsonResult() { return m_jsonResult; }

unsigned char* HttpParamResponse::GetData() { return m_pData; }

int HttpParamResponse::GetDataLen() { return m_nDataLen; }

// ---- HttpParamRequest --------------------------------------------------------

HttpParamRequest::HttpParamRequest(int connection, void* handle, std::string const& cmd, int browserType,
                                   int socket, std::string const& domain, SendBackWrapper sendBackWrapper,
                                   SendBackCallback callback, HostGetDataCallback get1, HostSetDataCallback set,
                                   HostGetDataCallback get2, unsigned char const* body, long bodyLen, bool ownBody)
    : m_pfnHostGet1(get1),
      m_pfnHostSet(set),
      m_pfnHostGet2(get2),
      m_nConnection(connection),
      m_pHandle(handle),
      m_strCmd(cmd),
      m_nBrowserType(browserType),
      m_nSocket(socket),
      m_strDomain(domain),
      m_nCommandType(JsonCommand::kNoCommand),
      m_nParamCount(0),
      m_pResultData(nullptr),
      m_nResultDataLen(0),
      m_pfnSendBack(sendBackWrapper),
      m_pfnCallback(callback),
      m_dwRecTime(GetTickCount()),
      m_dwLastTime(m_dwRecTime),
      m_pResponse(new HttpParamResponse(body, bodyLen, ownBody)) {
  JsonCommand command(m_strCmd);
  m_strClientId = command.GetClientID();
  m_strCmdId = command.GetCmdId();
  m_strFunName = command.GetFunctionName();
  m_nCommandType = command.GetCommandType();
  m_nParamCount = command.GetParameterCount();
  m_strVersion = command.GetVersion();
  m_paramStack.reserve(static_cast<size_t>(m_nParamCount));
  for (int i = 0; i < m_nParamCount; ++i) {
    m_paramStack.push_back(command.GetParameter(i));
  }
}

HttpParamRequest::~HttpParamRequest() {
  delete m_pResponse;
  m_pResponse = nullptr;
  for (Json::Value* value : m_paramStack) delete value;
  m_paramStack.clear();
  FreeResultData();
}

int HttpParamRequest::GetBowserType() { return m_nBrowserType; }

HttpParamResponse* HttpParamRequest::GetHttpParamResponse() { return m_pResponse; }

std::string HttpParamRequest::GetFunName() { return m_strFunName; }

unsigned int HttpParamRequest::GetRecTime() { return m_dwRecTime; }

unsigned int HttpParamRequest::GetLastTime() {
  unsigned int last = m_dwLastTime;
  m_dwLastTime = GetTickCount();
  return last;
}

std::string HttpParamRequest::GetClientId() { return m_strClientId; }

std::string HttpParamRequest::GetCmdId() { return m_strCmdId; }

int HttpParamRequest::GetCommandType() { return m_nCommandType; }

int HttpParamRequest::GetParamCount() { return m_nParamCount; }

std::vector<Json::Value*>* HttpParamRequest::GetParamStack() { return &m_paramStack; }

std::string HttpParamRequest::GetCMDString() { return m_strCmd; }

std::string HttpParamRequest::GetDomain() { return m_strDomain; }

std::string HttpParamRequest::GetVersion() { return m_strVersion; }

int HttpParamRequest::GetSocket() { return m_nSocket; }

HostGetDataCallback HttpParamRequest::GetHostGetCallback1() { return m_pfnHostGet1; }

HostSetDataCallback HttpParamRequest::GetHostSetCallback() { return m_pfnHostSet; }

HostGetDataCallback HttpParamRequest::GetHostGetCallback2() { return m_pfnHostGet2; }

unsigned char* HttpParamRequest::GetResultData() { return m_pResultData; }

int HttpParamRequest::GetResultDataLen() { return m_nResultDataLen; }

int HttpParamRequest::Sendback(char const* text, void const* data, unsigned int dataLen, char const* extra) {
  if (m_pfnSendBack == nullptr) return 0;
  return static_cast<int>(m_pfnSendBack(m_pfnCallback, m_nConnection, m_pHandle, text, data, dataLen, extra));
}

int HttpParamRequest::Sendback(char const* text) { return Sendback(text, nullptr, 0, nullptr); }

void HttpParamRequest::FreeResultData() {
  delete[] m_pResultData;
  m_pResultData = nullptr;
  m_nResultDataLen = 0;
}

void HttpParamRequest::EncodeResult(bool isEvent, int errorCode, const std::string& description) {
  m_pResponse->SetJsonResult(
      JsonCommand::Encode(m_strClientId, m_strFunName, m_paramStack, isEvent, errorCode, description));
}

template <typename T>
HttpParamRequest* HttpParamRequest::GetResultStruct(T value, unsigned char const* data, int dataLen, int errorCode,
                                                    std::string const& description) {
  m_paramStack.push_back(new Json::Value(value));
  if (errorCode == 0 && !description.empty()) {
    m_paramStack.push_back(new Json::Value(description));
    m_paramStack.push_back(new Json::Value(kModuleDescription));
  }
  FreeResultData();
  if (data != nullptr && dataLen >= 0) {
    m_pResultData = new unsigned char[static_cast<size_t>(dataLen)];
    if (dataLen > 0) memcpy(m_pResultData, data, static_cast<size_t>(dataLen));
    m_nResultDataLen = dataLen;
  }
  EncodeResult(false, errorCode, errorCode == 0 && description.empty() ? std::string("Successful") : description);
  return this;
}

template HttpParamRequest* HttpParamRequest::GetResultStruct<bool>(bool, unsigned char const*, int, int,
                                                                   std::string const&);
template HttpParamRequest* HttpParamRequest::GetResultStruct<int>(int, unsigned char const*, int, int,
                                                                  std::string const&);
template HttpParamRequest* HttpParamRequest::GetResultStruct<std::string>(std::string, unsigned char const*, int,
                                                                          int, std::string const&);

HttpParamRequest* HttpParamRequest::GetBOOLResultStruct(signed char value, unsigned char const* data, int dataLen,
                                                        int errorCode, std::string const& description) {
  return GetResultStruct<bool>(value != 0, data, dataLen, errorCode, description);
}

HttpParamRequest* HttpParamRequest::GetResultStruct(long value, unsigned char const* data, int dataLen,
                                                    int errorCode, std::string const& description) {
  return GetResultStruct<int>(static_cast<int>(value), data, dataLen, errorCode, description);
}

HttpParamRequest* HttpParamRequest::GetStringResultStruct(std::string value, unsigned char const* data,
                                                          int dataLen, int errorCode,
                                                          std::string const& description) {
  return GetResultStruct<std::string>(std::move(value), data, dataLen, errorCode, description);
}

template <typename T>
bool HttpParamRequest::AddResultParam(T value, bool isEvent, int errorCode, std::string const& description) {
  m_paramStack.push_back(new Json::Value(value));
  EncodeResult(isEvent, errorCode, description);
  return true;
}

template bool HttpParamRequest::AddResultParam<std::string>(std::string, bool, int, std::string const&);

bool HttpParamRequest::AddStringResultParam(std::string value, bool isEvent, int errorCode,
                                            std::string const& description) {
  return AddResultParam<std::string>(std::move(value), isEvent, errorCode, description);
}

bool HttpParamRequest::AddJsonStringResultParam(std::string& json, bool isEvent, int errorCode,
                                                std::string const& description) {
  Json::Value* parsed = new Json::Value();
  if (!JsonCommand::ParseText(json, parsed, true)) {
    delete parsed;
    return false;
  }
  m_paramStack.push_back(parsed);
  EncodeResult(isEvent, errorCode, description);
  return true;
}

HttpParamRequest* HttpParamRequest::GetResultStructByJsonString(std::string doc) {
  m_pResponse->SetJsonResult(std::move(doc));
  return this;
}

int HttpParamRequest::SendBackResult() {
  std::string document = m_pResponse->GetJsonResult();
  if (m_pfnCallback == nullptr || m_nConnection == 0) {
    LogErr("Invalid send back handle. Function must be call in wesocket!");
    return 0;
  }
  if (m_strClientId.empty()) {
    LogDebug("Invalid json command format. cmd = [%s][%d].", m_strCmd.c_str(), m_nConnection);
  }
  size_t brace = document.rfind('}');
  if (brace != std::string::npos) {
    size_t newline = document.rfind('\n', brace);
    if (newline != std::string::npos) {
      char member[1024];
      memset(member, 0, sizeof(member));
      snprintf(member, sizeof(member), ",\n\t\"cmdId\" : \"%s\"", m_strCmdId.c_str());
      document.insert(newline, member);
    }
  }
  LogDebug("result json = [%s].", document.c_str());
  int sent = Sendback(document.c_str(), m_pResultData, static_cast<unsigned int>(m_nResultDataLen), nullptr);
  FreeResultData();
  return sent;
}
