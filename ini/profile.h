// Keyed access to INI files with the Win32 profile-string signatures.
//
// Every call sees the file as it is on disk now: edits by another process or
// by hand are seen by the very next call. Parsed documents are kept between
// calls, but only while a stat of the file shows the same file unchanged (see
// profile_cache.h). Locking between callers is the callers' business.
#pragma once

// Copies the value of `key` in `section` (names matched case-blind), or
// `defaultValue` when the section or key is missing, with the bounded copy
// lstrcpyn(buffer, value, size - 1): at most size - 2 characters arrive and
// the buffer's last byte is not written. Returns the length of the whole
// value, not of what was copied. A file that cannot be read (missing, a
// folder, a FIFO, no permission, a dangling link) reads as empty, at once.
// Null texts read as empty; a null buffer or a size below 2 copies nothing.
unsigned int GetPrivateProfileStringA(const char* section, const char* key, const char* defaultValue, char* buffer,
                                      unsigned int size, const char* fileName);

// Loads the file, sets the key (creating section and key as needed; existing
// names keep their stored spelling) and rewrites the whole file in the
// document's own format: comments and unrecognised lines are dropped. Always
// true, also when the file could not be written. A missing file is created
// (when its folder exists); a path that names something that cannot be read
// (a folder, a FIFO, a file without read permission, a dangling link) is left
// untouched.
bool WritePrivateProfileStringA(const char* section, const char* key, const char* value, const char* fileName);
