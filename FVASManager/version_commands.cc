// The version commands: QSVersion and VersionInfo.
#include <cstdio>

#include "FVASManager/ManagerClient.h"
#include "FVASManager/http_param_request.h"
#include "FVASManager/messages.h"
#include "environment/configuration.h"
#include "environment/program_info.h"

HttpParamRequest* ManagerClient::QSVersion(HttpParamRequest* pParam) {
  // The command takes no parameters: a request that sends some gets an empty
  // version back rather than an error.
  std::string version = pParam->GetParamCount() == 0 ? GetConfigurationfromInitFile("QSVersion", "0", nullptr) : "";
  pParam->GetStringResultStruct(version, nullptr, 0, 0, kEmptyText);
  pParam->AddStringResultParam(kServiceDisplayName, false, 0, kEmptyText);
  return pParam;
}

HttpParamRequest* ManagerClient::VersionInfo(HttpParamRequest* pParam) {
  const bool legacy = pParam->GetVersion() == kLegacyVersionTag;
  pParam->GetStringResultStruct(legacy ? kLegacyProtocolVersion : kModuleVersion, nullptr, 0, 0, kEmptyText);
  pParam->AddStringResultParam(kModuleDescription, false, 0, kEmptyText);

  const std::string userSid = GetUserSIDBySock(pParam->GetSocket());
  char userKey[32];
  snprintf(userKey, sizeof(userKey), "%u", GetHashCode(userSid));
  {
    std::lock_guard<std::mutex> hold(m_tablesLock);
    m_userKeyMap[userKey] = userSid;
  }
  pParam->AddStringResultParam(userKey, false, 0, kEmptyText);

  if (!legacy && CheckEnhancedModeEnabled()) {
    pParam->AddStringResultParam("true", false, 0, kEmptyText);
    std::string ignored;
    GetCurrentUserModulePorts(userSid, ignored);
  } else {
    pParam->AddStringResultParam("false", false, 0, kEmptyText);
  }
  pParam->AddStringResultParam("32", false, 0, kEmptyText);
  return pParam;
}

bool ManagerClient::CheckEnhancedModeEnabled() {
  if (GetProgramMode() != WorkModeService) return false;
  return GetEnableMultipleUserEnhancedMode();
}

bool ManagerClient::CloseUserProcess(const std::string& userSid) { return SetUserProcessExitFlag(userSid, true); }
