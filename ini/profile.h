// Keyed access to INI files with the Win32 profile-string signatures.
//
// Every call sees the file as it is on disk now: edits by another process or
// by hand are seen by the very next call. Parsed documents are kept between
// calls, but only while a stat of the file shows the same file unchanged (see
// profile_cache.h). Writers of one file exclude each other (see below);
// readers take no lock and see each rewrite whole or not at all.
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
// document's own format: comments and unrecognised lines are dropped. The
// file changes from its old text to its new text in one step, or not at all
// (see platform/regular_file.h). Always true, also when the file could not be
// written (the outcome is errno then; WritePrivateProfileStringChecked tells
// it). A missing file is created when its folder exists; a path that names
// something that cannot be read (a folder, a FIFO, a dangling link) or a
// read-only file is left untouched.
//
// Load, change and rewrite hold the file's lock throughout, so concurrent
// writers of one file, threads or processes, never lose each other's keys:
// a write that lands between another writer's load and its rewrite is kept,
// where plain last-writer-wins would drop it. Callers may still serialise
// among themselves as before; nothing relies on it any more.
bool WritePrivateProfileStringA(const char* section, const char* key, const char* value, const char* fileName);

// The same write, telling its outcome: 0 when the file now holds the new
// text, else the error number of what stopped it (ENOENT: no such folder or
// link target; EISDIR or EINVAL: not a regular file; EACCES: read-only; ENOSPC,
// EDQUOT, EFBIG, EIO...: the new text could not be written), with the file
// unchanged.
int WritePrivateProfileStringChecked(const char* section, const char* key, const char* value, const char* fileName);
