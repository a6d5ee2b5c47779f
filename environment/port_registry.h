// The port registry: the loopback ports of the service and its per-user
// processes. The module records and reports ports; it opens no sockets and
// chooses no ports itself.
//
// Two stores:
//  - per-user ports in the user configuration file, section = the user's SID
//    (always "" here, written "[]"), keys "<name>", "<name>_ssl", "<name>_def",
//    "<name>_ssl_def" for the prefixes "kxp", "fvt", "kxs";
//  - named port lists in section "QS" of the system configuration file: a
//    count under "SSLPort" (secure) or "Port" (plain), and the entries
//    "<base>_mn_<i>" (name) and "<base>_mp_<i>" (port).
// Missing files, sections and keys read as 0 or as an empty list.
#pragma once

#include <map>
#include <string>
#include <vector>

// The entries this process has set with SetSSLPort / SetNoSSLPort, ordered by
// name (plain byte order). They start empty and are never loaded from the
// file. No lock of their own: the setters are meant for one thread.
extern std::map<std::string, int> g_mapSSLPortInMem;
extern std::map<std::string, int> g_mapNoSSLPortInMem;

// ---- Per-user ports (user configuration file) -------------------------------------

// Reads key name (+ "_ssl" when bSSL, + "_def" when bDefault) in `section`,
// default "0", as a base-10 number (0 when empty).
int GetPort(const std::string& section, const std::string& name, bool bDefault, bool bSSL);
// Writes key name (+ "_ssl" when bSSL) = the decimal port into `section`, and
// with bDefault also key + "_def" = the same. No lock and no service-process
// test: a per-user process writes its own ports.
void SavePort(const std::string& section, const std::string& name, bool bDefault, bool bSSL, int port);

// The secure ports of the calling user, in the order "kxp", "fvt", "kxs"
// (keys "<prefix>_ssl" in the user's section), zeros left out. Empty unless
// the program mode is the per-user process mode (3).
std::vector<int> ReadUserSSLPort();

// ---- Named port lists (system configuration file, section "QS") -------------------

// Reads the list under `base` under the reader lock of g_csWriteLog. With
// bUseCount, exactly the first <base> entries (none when the count is 0 or
// less); without, up to 10 entries whatever the count says, so entries left
// over from an earlier, longer list are seen. Either way reading stops at the
// first empty name, and a later duplicate name replaces the earlier port.
std::map<std::string, int> ReadPort(const std::string& base, bool bUseCount);
// ReadPort("SSLPort", bUseCount).
std::map<std::string, int> ReadSSLPort(bool bUseCount);
// ReadPort("Port", bUseCount).
std::map<std::string, int> ReadNoSSLPort(bool bUseCount);
// The port of `name` in the file's list, 0 when absent (the in-memory maps are
// not consulted).
int GetSSLPort(const std::string& name, bool bUseCount);
int GetNoSSLPort(const std::string& name, bool bUseCount);

// Sets `name` to `port` in the in-memory map and writes the whole map as the
// list "SSLPort" or "Port".
void SetSSLPort(int port, const std::string& name);
void SetNoSSLPort(int port, const std::string& name);
// Under the writer lock of g_csWriteLog, writes the entries in map order as
// "<base>_mn_<i>" / "<base>_mp_<i>", then "<base>" = their number; an empty
// map writes nothing. Only the service process writes (the configuration
// store drops other processes' writes). Entries at higher indices from an
// earlier, longer list stay in the file.
void SavePort(const std::map<std::string, int>& ports, const std::string& base);

// ---- Port text search ------------------------------------------------------------

// True when the decimal text of `port` occurs in the file's bytes up to its
// first 0 byte: a plain substring test, so 8625 is found in "18625". False
// when the path does not name a regular file that can be read (a FIFO is
// never waited on).
bool PortIsUsed(const std::string& fileName, int port);
// Always false: nothing here probes the network.
bool PortIsUsed(int port);
