// Where an installed qs-host runs.
//
// The module's work folder (its configuration, logs, cache and certificates)
// is the folder of the running executable, and the installed files are
// read-only and shared by every user. So an installed qs-host - one whose
// folder holds the marker file "installed-version" that the package ships -
// runs from a folder of the user's instead: $XDG_STATE_HOME/quintaris/
// (~/.local/state/quintaris/ by default). That folder gets copies of qs-host
// and the module, refreshed whenever the installed ones change (an upgrade),
// and keeps everything else the user's (QSConfiguration.ini,
// user_config.ini, log/, cert/...). Nothing is ever written beside the
// installed executable. A qs-host anywhere else (a build tree, a copy made
// by hand) runs where it is.
#pragma once

#include <string>

namespace qs_host {

constexpr char kInstalledMarker[] = "installed-version";
// In the state folder: which installation its copies came from.
constexpr char kCopiedMarker[] = "copied-version";

// The user's state folder for qs-host, ending in "/"; "" when neither
// XDG_STATE_HOME nor a home folder is known.
std::string StateFolder();

// For an installed qs-host in `exeFolder` (ending in "/"): brings the state
// folder up to date and returns the path of the qs-host to run there. ""
// when `exeFolder` is not an installed one. False, with the reason in
// *error, when the state folder cannot be made ready.
bool PrepareStateFolder(const std::string& exeFolder, const std::string& moduleFile, std::string* runPath,
                        std::string* error);

}  // namespace qs_host
