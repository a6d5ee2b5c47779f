// Process information: the login user, the resident set size, /proc line
// parsing and the (deliberately unreliable) self-kill.
#pragma once

// getlogin_r into a zeroed 1024-byte buffer; on success the name is copied into
// `out` (which must hold it); on failure "getlogin_r failed." is written with
// puts and `out` is left unchanged.
void GetLoginUser(char* out);

// The resident set size (the "VmRSS:" line of /proc/self/status, kB shifted
// left by 10), in unsigned 32 bits; 0 when the file or the line is missing.
// The name is kept although it reports the resident, not the virtual, size.
unsigned int GetCurrentProcessVirtualMemSize();

// The same scan over any status file, for callers that read another process.
unsigned int GetVmRssFromStatusFile(const char* path);

// Skips to the first decimal digit and returns strtol(..., 10) of what follows.
// It also cuts the line at index (strlen(line) - 3) counted from that digit,
// meant to drop a trailing unit; the cut is made only where it falls inside the
// text (the number parses the same either way). No digit gives 0.
int parseLine(char* line);
int parseLineLinux(char* line);

// Issues the raw tgkill system call with (getpid(), 9) and no third argument.
// The 9 lands in the thread-id position, so this does not reliably end the
// process; nothing may count on it doing so.
void TerminateProcess(void* process, int exitCode);
