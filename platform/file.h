// Win32-style file functions over C streams, and directory removal.
//
// A file handle is a FILE*. Several results are deliberately surprising and
// are part of the contract; each is stated at its function.
#pragma once

#include <cstdio>

#include "platform/win_types.h"

constexpr unsigned int GENERIC_READ = 0x80000000;
constexpr unsigned int GENERIC_WRITE = 0x40000000;
constexpr unsigned int FILE_SHARE_READ = 1;
constexpr unsigned int CREATE_ALWAYS = 2;
constexpr unsigned int OPEN_EXISTING = 3;
constexpr unsigned int OPEN_ALWAYS = 4;
constexpr unsigned int FILE_ATTRIBUTE_READONLY = 1;
constexpr unsigned int FILE_ATTRIBUTE_DIRECTORY = 16;
constexpr unsigned int FILE_ATTRIBUTE_NORMAL = 128;
constexpr unsigned int INVALID_FILE_ATTRIBUTES = 0xFFFFFFFF;
constexpr unsigned int FILE_BEGIN = 0;
constexpr unsigned int FILE_CURRENT = 1;
constexpr unsigned int FILE_END = 2;

// Two-step open: first fopen with "r" (disposition 3), "a" (4) or "w" (any
// other), plus "+" with GENERIC_WRITE, plus "b", closed at once (this only
// creates or truncates as the disposition asks); then reopened "r+b" with
// GENERIC_WRITE or "rb" without, at the start. So disposition 2 without the
// write bit truncates the file and then opens it read-only. Null on failure.
FILE* CreateFile(const char* name, unsigned int desiredAccess, unsigned int shareMode, void* security,
                 unsigned int creationDisposition, unsigned int flags, FILE* templateFile);
FILE* QSCreateFile(const char* name, unsigned int desiredAccess, unsigned int shareMode, void* security,
                   unsigned int creationDisposition, unsigned int flags, FILE* templateFile);
// fclose; a null handle counts as success.
bool QSCloseFile(FILE* stream);
bool CloseFile(void* stream);
// The stream's size, low 32 bits; the high part is not written.
unsigned int GetFileSize(void* stream, unsigned int* high);
// fseek(distance, method) and the new ftell; the high distance is ignored.
unsigned int SetFilePointer(void* stream, int distance, int* highDistance, unsigned int moveMethod);
// fwrite; true when every byte was written.
BOOL WriteFile(void* stream, const void* buffer, unsigned int count, unsigned int* written, void* overlapped);
// fread; true unless the stream's error flag is set (a short read at the end
// of the file is success).
BOOL ReadFile(void* stream, void* buffer, unsigned int count, unsigned int* read, void* overlapped);
// Loads the whole file (from its start) into a malloc'ed, zero-terminated
// buffer (freed with free): files below 1 MiB in one read, larger ones in
// 1 MiB pieces. The outputs start as null/0. Returns 1 for a null stream or a
// failed allocation, 0 otherwise.
int ReadFile(void* stream, unsigned char** buffer, int* size);
// Opens (read, existing) and loads. 0 when the file was read or could not be
// opened; 1 when the allocation failed.
int ReadFileByName(const char* path, unsigned char** buffer, int* size);
// Writes the destination only when ReadFileByName returns nonzero with a
// non-empty buffer; when it returns 0 the buffer is freed and 1 is returned
// without writing. With ReadFileByName's result convention a successful read
// therefore leaves the destination unwritten. Fail-if-exists is ignored.
BOOL CopyFile(const char* source, const char* destination, signed char failIfExists);
BOOL DeleteFile(const char* path);
// 0xFFFFFFFF for an empty path or when stat fails, 16 for a directory, 0 for
// anything else (read-only files included).
unsigned int GetFileAttributes(const char* path);
// Does nothing; 1.
BOOL SetFileAttributes(const char* path, unsigned int attributes);
// 0 when the path exists; otherwise mkdir 0777 of the last component.
BOOL CreateDirectory(const char* path, void* security);
// The last-write word receives the modification time in seconds since the
// epoch (not a Win32 file-time count); the others are untouched. Returns 1.
BOOL GetFileTime(char* path, _FILETIME* creation, _FILETIME* lastAccess, _FILETIME* lastWrite);
// Opens the file to every user (mode 0777); the result of chmod.
int ImgChmodForLinux(const char* path);

// Removes files up to and including the first sub-directory it meets (in
// directory-reading order): when a recursive removal succeeds it returns true
// at once, leaving the remaining entries and the directory itself. Otherwise
// the result is whether the emptied directory could be removed.
bool RemoveDir(const char* path);
// Ignores a null, empty or invisible path; unlinks a file, RemoveDirs a folder.
void DeleteFileOrDir(const char* path);
// Scans the parent of `path` and removes (RemoveDir) each sub-directory last
// modified in an earlier year or month, or two or more days earlier in the same
// month, of the current local time; stops at a modification time of 0. Plain
// files stay. 0 when the path has no "/", else 1.
int RemoveUndeletedDir(const char* path);
