// The update package pipeline: uploaded ZIP packages are saved, unpacked,
// copied, validated, and the updater is started.
#include <spawn.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "FVASManager/Compress.h"
#include "FVASManager/ManagerClient.h"
#include "FVASManager/http_param_request.h"
#include "FVASManager/messages.h"
#include "environment/configuration.h"
#include "environment/log.h"
#include "environment/program_info.h"
#include "json_command/json_command.h"
#include "platform/file.h"
#include "platform/format.h"
#include "platform/system_time.h"
#include "util/util.h"
#include "util/win_string.h"

namespace {

constexpr char kValidationFolderName[] = "QuintarisService";

// Formats into the module's usual 1024-byte path buffer; longer texts are cut.
template <typename... Args>
std::string Format(const char* format, Args... args) {
  char text[1024];
  memset(text, 0, sizeof(text));
  if (snprintf(text, sizeof(text), format, args...) >= static_cast<int>(sizeof(text))) text[sizeof(text) - 1] = '\0';
  return text;
}

std::string ModuleFolder() {
  char folder[1024];
  CUtil::GetDllPath(folder);
  return folder;
}

// Deletes a folder tree (when present) and makes it again; a failure to make
// it is only logged, and surfaces later as an unpacking failure.
void RecreateFolder(const std::string& folder) {
  CUtil::DeleteDirectory(folder.c_str(), 1);
  if (!CUtil::CreateDirectory(folder.c_str())) {
    LogErr("Failed to create dir %s, %d", folder.c_str(), static_cast<int>(GetLastError()));
  }
}

// The search pattern "<folder>\\*.*" that the package checks prepare; no
// signature or file is examined with it on this platform.
std::string SearchPattern(const std::string& folder) {
  char path[1024];
  lstrcpyn(path, folder.c_str(), sizeof(path));
  CUtil::TrimRight(path, '\\');
  char pattern[1024];
  memset(pattern, 0, sizeof(pattern));
  if (snprintf(pattern, sizeof(pattern), "%s\\*.*", path) >= static_cast<int>(sizeof(pattern))) pattern[1023] = '\0';
  return pattern;
}

std::string JoinError(const char* what, const char* description, unsigned int error) {
  return Format("%s %s %d", what, description, static_cast<int>(error));
}

}  // namespace

HttpParamRequest* ManagerClient::AnswerUpdateInProgress(HttpParamRequest* pParam) {
  const std::string text = Format("%s %s", kServiceDisplayName, kMsgIsUpdating);
  SetErrorInfo(kErrIsUpdating, text.c_str());
  LogErr("%s", text.c_str());
  return pParam->GetBOOLResultStruct(false, nullptr, 0, kErrIsUpdating, text);
}

bool ManagerClient::CheckIfUpdate() { return GetConfigurationfromInitFile("IfUpdate", "0", nullptr) == "1"; }

bool ManagerClient::CheckIfAlreadyNewVersion(const std::string& version) {
  if (version.empty()) return false;
  std::string installed = GetConfigurationfromInitFile("QSVersion", "0", nullptr);
  CUtil::RemoveChar(&installed[0], ',');
  installed.resize(strlen(installed.c_str()));
  CUtil::RemoveChar(&installed[0], ' ');
  installed.resize(strlen(installed.c_str()));
  const int installedNumber = static_cast<int>(strtol(installed.c_str(), nullptr, 10));
  const int candidate = static_cast<int>(strtol(version.c_str(), nullptr, 10));
  return installedNumber >= candidate;
}

bool ManagerClient::ValidSigned(const std::string& folder) {
  SearchPattern(folder);
  return true;
}

bool ManagerClient::ValidFileName(const std::string& folder, const std::string&) {
  SearchPattern(folder);
  return false;
}

bool ManagerClient::ValidFiles(const std::string& folder) {
  const bool valid = ValidSigned(folder);
  if (!valid) {
    SetErrorInfo(kErrSignatureFailed, kMsgSignatureFailed);
    LogErr("%s", kMsgSignatureFailed);
  }
  return valid;
}

bool ManagerClient::CheckIfValid(const std::string& package) {
  const std::string folder = Format("%s%s%s", GetCachePath().c_str(), kValidationFolderName, "/");
  RecreateFolder(folder);
  Compress compress;
  if (!compress.Unzip(package.c_str(), folder.c_str())) {
    const unsigned int error = GetLastError();
    const std::string text = JoinError(kMsgUnzipFailed, compress.GetErrorDescription(), error);
    SetErrorInfo(kErrUnzipFailed, text.c_str());
    LogErr("%s", text.c_str());
    CUtil::DeleteDirectory(folder.c_str(), 1);
    return false;
  }
  if (ValidFiles(folder)) return true;
  CUtil::DeleteDirectory(folder.c_str(), 1);
  return false;
}

int ManagerClient::StartUpdateProgress(const std::string& program) {
  const std::string workPath = GetWorkPath();
  LogDebug("Create update process begin: %s", program.c_str());
  // Opened to every user before it starts (done directly, not through a
  // shell, so the path is never parsed as shell text).
  chmod(program.c_str(), 0777);

  std::string programArgument = program;
  std::string workArgument = workPath;
  char* const arguments[] = {&programArgument[0], &workArgument[0], nullptr};
  char* const emptyEnvironment[] = {nullptr};
  pid_t child = 0;
  const int error = posix_spawnp(&child, program.c_str(), nullptr, nullptr, arguments, emptyEnvironment);
  if (error != 0) {
    LogDebug("Create update process failed %d", error);
    SetConfigurationToInitFile("IfUpdate", std::string("0"), nullptr);
    SetErrorInfo(kErrCreateUpdateFailed, kMsgCreateUpdateFailed);
    LogErr("%s", kMsgCreateUpdateFailed);
    return error;
  }
  LogInfo("Create Update process succeed.");
  return 0;
}

bool ManagerClient::UpdateServieInner(const std::string& program) { return StartUpdateProgress(program) == 0; }

HttpParamRequest* ManagerClient::LoadZipFromBytes(HttpParamRequest* pParam) {
  SetErrorInfo(0, kEmptyText);
  HttpParamResponse* response = pParam->GetHttpParamResponse();
  const unsigned char* data = response != nullptr ? response->GetData() : nullptr;
  const unsigned int length = response != nullptr ? static_cast<unsigned int>(response->GetDataLen()) : 0;

  std::vector<Json::Value*>& parameters = *pParam->GetParamStack();
  int type = 0;
  std::string version;
  const bool converted = pParam->GetParamCount() >= 2 && JsonCommand::ConvertInt(parameters[0], &type) &&
                         JsonCommand::GetUTF8String(parameters[1], &version);
  if (!converted) {
    type = 0;
    version.clear();
  }

  const std::string cachePath = GetCachePath();
  std::string destination = ModuleFolder();
  std::string versionFolder;
  if (type == 1) {
    if (CheckIfUpdate()) return AnswerUpdateInProgress(pParam);
    if (CheckIfAlreadyNewVersion(version)) return pParam->GetBOOLResultStruct(true, nullptr, 0, 0, kEmptyText);
    versionFolder = Format("%sUpdate_%s%s", cachePath.c_str(), version.c_str(), "/");
    destination = versionFolder;
    RecreateFolder(versionFolder);
  }

  const std::string zipPath = Format("%smodule_%d.zip", cachePath.c_str(), static_cast<int>(GetTickCount()));
  DeleteFile(zipPath.c_str());
  const std::string unpackFolder =
      Format("%sUnzip_%d%s", cachePath.c_str(), static_cast<int>(GetTickCount()), "/");
  RecreateFolder(unpackFolder);

  const long saved = CUtil::SaveDataToFileInner(zipPath.c_str(), data, length, 0);
  if (saved != 0) {
    LogErr("Failed to SaveFile file %s, %d, %d", zipPath.c_str(), static_cast<int>(saved),
           static_cast<int>(GetLastError()));
  }

  bool outcome = false;
  Compress compress;
  if (compress.Unzip(zipPath.c_str(), unpackFolder.c_str())) {
    outcome = CUtil::CopyDirectoryFiles(unpackFolder.c_str(), destination.c_str(), 1);
    if (!outcome) {
      const unsigned int error = GetLastError();
      const std::string text = JoinError(kMsgCopyDirFailed, compress.GetErrorDescription(), error);
      SetErrorInfo(kErrCopyDirFailed, text.c_str());
      LogErr("%s", text.c_str());
    }
  } else {
    const unsigned int error = GetLastError();
    const std::string text = JoinError(kMsgUnzipFailed, compress.GetErrorDescription(), error);
    SetErrorInfo(kErrUnzipFailed, text.c_str());
    LogErr("%s", text.c_str());
  }

  DeleteFile(zipPath.c_str());
  CUtil::DeleteDirectory(unpackFolder.c_str(), 1);

  if (type == 1) {
    if (outcome) {
      const std::string package = Format("%sService_%s.zip", versionFolder.c_str(), version.c_str());
      if (CheckIfValid(package)) {
        const std::string program =
            Format("%s%s%sQSUpdate", cachePath.c_str(), kValidationFolderName, "/");
        outcome = UpdateServieInner(program);
      } else {
        outcome = false;
      }
    }
    // The service package now lies unpacked in the validation folder, which
    // stays; the upload's own folders go.
    CUtil::DeleteDirectory(unpackFolder.c_str(), 1);
    CUtil::DeleteDirectory(versionFolder.c_str(), 1);
  }
  return pParam->GetBOOLResultStruct(outcome, nullptr, 0, m_nErrorCode, m_szErrorInfo);
}

HttpParamRequest* ManagerClient::CheckUpdateFile(HttpParamRequest* pParam) {
  SetErrorInfo(0, kEmptyText);
  std::string version;
  std::vector<Json::Value*>& parameters = *pParam->GetParamStack();
  if (pParam->GetParamCount() >= 1 && parameters[0]->type() == Json::stringValue) {
    JsonCommand::GetUTF8String(parameters[0], &version);
  }

  if (CheckIfUpdate()) return AnswerUpdateInProgress(pParam);
  if (CheckIfAlreadyNewVersion(version)) return pParam->GetBOOLResultStruct(true, nullptr, 0, 0, kEmptyText);

  const std::string package = Format("%sService_%s.zip", ModuleFolder().c_str(), version.c_str());
  const bool valid = CheckIfValid(package);
  DeleteFile(package.c_str());
  if (!valid) return pParam->GetBOOLResultStruct(false, nullptr, 0, m_nErrorCode, m_szErrorInfo);
  const bool started =
      UpdateServieInner(Format("%s%s%sQSUpdate", GetCachePath().c_str(), kValidationFolderName, "/"));
  return pParam->GetBOOLResultStruct(started, nullptr, 0, m_nErrorCode, m_szErrorInfo);
}
