#include "FVASManager/ManagerClient.h"

#include <errno.h>

#include <cstdio>
#include <cstdlib>

#include "FVASManager/http_param_request.h"
#include "FVASManager/messages.h"
#include "environment/log.h"
#include "platform/system_time.h"

unsigned int GetHashCode(const std::string& text) {
  unsigned int hash = 0;
  for (const char* p = text.c_str(); *p != '\0'; ++p) {
    const int byte = static_cast<signed char>(*p);
    hash = hash + (hash << 5) + static_cast<unsigned int>(byte);
  }
  return hash;
}

ManagerClient::ManagerClient() { AddAllFunctionMap(); }

ManagerClient::~ManagerClient() = default;

void ManagerClient::AddAllFunctionMap() {
  m_functionMap.insert({"VersionInfo", &ManagerClient::VersionInfo});
  m_functionMap.insert({"QSVersion", &ManagerClient::QSVersion});
  m_functionMap.insert({"GetPorts", &ManagerClient::GetPorts});
}

BOOL ManagerClient::Function(HttpParamRequest* pParam) {
  if (pParam == nullptr) {
    // A programming error in every build, reported as a failed assertion.
    fprintf(stderr, "%s: %s:%d: %s: Assertion `%s' failed.\n", program_invocation_short_name,
            "FVASManager/ManagerClient", __LINE__, "BOOL ManagerClient::Function(HttpParamRequest*)",
            "pParam != __null");
    abort();
  }
  LogDebug("2. Before command actually start cost: %ums. id = [%s].", GetTickCount() - pParam->GetRecTime(),
           pParam->GetClientId().c_str());
  pParam->GetLastTime();

  if (pParam->GetBowserType() == 0) {
    pParam->GetResultStruct<bool>(false, nullptr, 0, kErrUnsupportedBrowser, kMsgUnsupportedBrowser);
    return pParam->SendBackResult();
  }

  FunctionInner(pParam);
  unsigned int now = GetTickCount();
  LogDebug("3. Command process cost: %ums. cmd = [%s]. id = [%s].", now - pParam->GetLastTime(),
           pParam->GetFunName().c_str(), pParam->GetClientId().c_str());

  if (pParam->GetHttpParamResponse() == nullptr) {
    LogDebug("No valid value to return. result = NULL.");
    return FALSE;
  }
  BOOL sent = pParam->SendBackResult();
  now = GetTickCount();
  LogDebug("4. Command send back result cost: %ums. id = [%s].\n", now - pParam->GetLastTime(),
           pParam->GetClientId().c_str());
  return sent;
}

HttpParamRequest* ManagerClient::FunctionInner(HttpParamRequest* pParam) {
  const std::string name = pParam->GetFunName();
  auto found = m_functionMap.find(name);
  if (found == m_functionMap.end()) {
    LogErr("Invalid function name: %s.", name.c_str());
    return pParam->GetResultStruct<bool>(false, nullptr, 0, kErrFunctionNotFound, kMsgFunctionNotFound);
  }
  LogDebug("Twain function [%s] begin: ", name.c_str());
  return (this->*(found->second))(pParam);
}

void ManagerClient::SetErrorInfo(int code, const char* text) {
  m_nErrorCode = code;
  snprintf(m_szErrorInfo, sizeof(m_szErrorInfo), "%s", text != nullptr ? text : "");
}

size_t ManagerClient::UserCount() {
  std::lock_guard<std::mutex> hold(m_tablesLock);
  return m_userMap.size();
}

size_t ManagerClient::UserKeyCount() {
  std::lock_guard<std::mutex> hold(m_tablesLock);
  return m_userKeyMap.size();
}

bool ManagerClient::FindUserKey(const std::string& key, std::string* userSid) {
  std::lock_guard<std::mutex> hold(m_tablesLock);
  auto found = m_userKeyMap.find(key);
  if (found == m_userKeyMap.end()) return false;
  if (userSid != nullptr) *userSid = found->second;
  return true;
}
