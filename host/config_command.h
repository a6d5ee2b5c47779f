// "qs-host config": the settings of the work folder's QSConfiguration.ini, as
// a user sees and changes them.
//
//   qs-host config                  every key: value in force, default, what
//                                   the file holds, when a change takes effect;
//                                   the port registry read-only
//   qs-host config get KEY          the value in force
//   qs-host config set KEY VALUE    checks, writes, reads back, says what
//                                   changed and what makes it take effect
//
// KEY is one of the module's keys of section "QS" (configuration_keys.h,
// names matched without regard to case) or of the host's own section
// "[qs-host]" (settings.h). A refusal (an unknown key, a bad value, a file
// that cannot be written) prints a message and gives exit status 2 with
// nothing written.
#pragma once

#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "host/settings.h"

namespace qs_host {

struct ConfigPlace {
  Profile profile;       // its file: the work folder's QSConfiguration.ini
  std::string folder;    // the work folder, ending in "/"
  std::string exePath;   // this qs-host
};

// Runs the words after "config"; returns the exit status.
int RunConfig(const std::vector<std::string>& words, const ConfigPlace& place, std::ostream& out,
              std::ostream& err);

// The settings in force for the status page: the module's keys as the file
// sets them and the host's as `options` holds them (file and command line).
std::vector<std::pair<std::string, std::string>> SettingsInForce(const Profile& profile,
                                                                 const ServerOptions& options);

// What makes a change read at start-up take effect for a qs-host in
// `folder`: the user unit's restart command when qs-host runs under it.
std::string RestartHint(const std::string& folder, const std::string& exePath);

}  // namespace qs_host
