// The host's own messages. They go to standard error, one whole line at a
// time even when threads print; when standard error is the systemd journal
// (JOURNAL_STREAM names it), each line carries the journal's "<N>" priority
// prefix so that `journalctl --user -u qs-host` shows errors as errors.
#pragma once

#include <string>

namespace qs_host {

enum class Priority { kError = 3, kWarning = 4, kNotice = 5, kInfo = 6 };

void Say(Priority priority, const std::string& line);
// An informational line.
inline void Say(const std::string& line) { Say(Priority::kInfo, line); }

}  // namespace qs_host
