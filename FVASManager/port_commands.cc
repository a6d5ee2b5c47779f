// Port discovery: the GetPorts command and the user lookups behind it.
#include <cstdio>

#include "FVASManager/ManagerClient.h"
#include "FVASManager/http_param_request.h"
#include "FVASManager/messages.h"
#include "environment/log.h"
#include "environment/port_registry.h"
#include "environment/user_session.h"
#include "json_command/json_command.h"

HttpParamRequest* ManagerClient::GetPorts(HttpParamRequest* pParam) {
  std::vector<Json::Value*>* parameters = pParam->GetParamStack();
  if (pParam->GetParamCount() < 1 || parameters->empty()) {
    // Both numbers are the constant 1, whatever was sent.
    LogErr("Invalidate parameter count. Need %d parameter, %d parameter actually.", 1, 1);
    return pParam->GetBOOLResultStruct(false, nullptr, 0, kErrInvalidParameterCount, kMsgInvalidParameterCount);
  }
  std::string userKey;
  if (!JsonCommand::ConvertString((*parameters)[0], &userKey)) userKey.clear();

  std::string userSid;
  {
    // An unknown key is entered with an empty SID, as a lookup that inserts.
    std::lock_guard<std::mutex> hold(m_tablesLock);
    userSid = m_userKeyMap[userKey];
  }
  std::string error;
  PortMap ports = GetCurrentUserModulePorts(userSid, error);
  if (!error.empty()) return pParam->GetBOOLResultStruct(false, nullptr, 0, kErrUserSidEmpty, error);

  std::string json = PortMapToJson(ports);
  pParam->AddJsonStringResultParam(json, false, 0, kEmptyText);
  return pParam;
}

std::string ManagerClient::GetUserSIDBySock(int socket) {
  std::string userSid;
  unsigned int sessionId = 0;
  GetUserInfo(socket, userSid, sessionId);
  LogDebug("User=%s, sock=%d, session=%d", userSid.c_str(), socket, static_cast<int>(sessionId));
  std::lock_guard<std::mutex> hold(m_tablesLock);
  m_userMap[userSid].sessionId = sessionId;
  return userSid;
}

ManagerClient::PortMap ManagerClient::GetCurrentUserModulePorts(const std::string& userSid, std::string& error) {
  PortMap ports;
  LogDebug("GetCurrentUserModulePorts user=%s", userSid.c_str());
  if (userSid.empty()) error = kMsgUserSidEmpty;
  return ports;
}

ManagerClient::PortMap ManagerClient::GetAllListenPorts(const std::string& userSid) {
  PortMap ports;
  for (const char* prefix : kModulePrefixes) {
    SPorts entry;
    entry.port = GetPort(userSid, prefix, false, false);
    entry.sslPort = GetPort(userSid, prefix, false, true);
    LogDebug("port:%d--%d, %s", entry.port, entry.sslPort, prefix);
    ports[prefix] = entry;
  }
  return ports;
}

std::string ManagerClient::PortMapToJson(const PortMap& ports) {
  std::string json = "{";
  char number[15];
  for (auto it = ports.begin(); it != ports.end(); ++it) {
    if (it != ports.begin()) json += ",";
    json += "\"" + it->first + "\":";
    json += "{\"port\":";
    snprintf(number, sizeof(number), "%d", it->second.port);
    json += number;
    json += ",\"sslPort\":";
    snprintf(number, sizeof(number), "%d", it->second.sslPort);
    json += number;
    json += "}";
  }
  json += "}";
  return json;
}
