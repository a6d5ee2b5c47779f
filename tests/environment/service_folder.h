// Points the service environment's files at a fresh folder for one test and
// restores them afterwards: the system configuration file, the user
// configuration file and both log files.
#pragma once

#include <string>
#include <tuple>

#include "environment/log.h"
#include "environment/program_info.h"
#include "platform/process_flags.h"
#include "tests/common/temp_dir.h"
#include "util/win_string.h"

namespace qs_test {

class ServiceFolder {
 public:
  explicit ServiceFolder(const std::string& configuration = "") {
    std::tie(g_work_path, g_init_file, g_user_config_file, g_log_file, g_logs_file) = std::make_tuple(
        dir_.path() + "/", dir_ / "QSConfiguration.ini", dir_ / "user_config.ini", dir_ / "qss.log", dir_ / "qsu.log");
    lstrcpyn(g_szIniFile, g_init_file.c_str(), sizeof(g_szIniFile));
    if (!configuration.empty()) WriteFile(g_init_file, configuration);
  }
  ~ServiceFolder() {
    std::tie(g_work_path, g_init_file, g_user_config_file, g_log_file, g_logs_file) = saved_;
    lstrcpyn(g_szIniFile, savedIni_.c_str(), sizeof(g_szIniFile));
    SetIfServiceProcess(savedService_);
    SetIfScanningProcess(savedScanning_);
    ChangeLogLevel(0);
  }
  ServiceFolder(const ServiceFolder&) = delete;
  ServiceFolder& operator=(const ServiceFolder&) = delete;

  const TempDir& dir() const { return dir_; }
  std::string ServiceLog() const { return ReadWholeFile(g_log_file); }
  std::string ScanningLog() const { return ReadWholeFile(g_logs_file); }
  std::string Configuration() const { return ReadWholeFile(g_init_file); }
  void SetConfiguration(const std::string& text) const { WriteFile(g_init_file, text); }

 private:
  const std::tuple<std::string, std::string, std::string, std::string, std::string> saved_{
      g_work_path, g_init_file, g_user_config_file, g_log_file, g_logs_file};
  const std::string savedIni_ = g_szIniFile;
  const bool savedService_ = GetIfServiceProcess(), savedScanning_ = GetIfScanningProcess();
  TempDir dir_;
};

}  // namespace qs_test
