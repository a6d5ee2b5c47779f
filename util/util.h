// CUtil: the module's class of static helpers for C strings, numbers,
// hexadecimal, image signatures, wide text, versions, identifiers, host names
// and files.
//
// Unless stated, functions work on zero-terminated byte strings in caller
// buffers; positions are signed 32-bit and "not found" is -1. Memory handed
// out (SplitString fields, UTF8ToAscii, LoadFileToMemoryInner,
// ConvertUTF8toUnicode) is tracked global memory: free it with GlobalFree.
// Several results are deliberately surprising; each is stated at its member.
#pragma once

#include <string>

#include "platform/win_types.h"

class CUtil {
 public:
  // ---- Text ---------------------------------------------------------------

  // Replaces every `from` by `to` in place.
  static void ReplaceChar(char* text, char from, char to);
  // The number of separators, plus 1 unless the last separator is the final
  // character; 0 for an empty text.
  static unsigned int GetStringCount(const char* text, char separator);
  // Splits into GetStringCount fields, each a zero-filled global block of its
  // length + 1. A trailing separator makes no empty last field; consecutive
  // separators make empty fields. On an allocation failure everything made so
  // far is freed, the outputs become null/0 and false is returned.
  static bool SplitString(const char* text, char separator, char*** fields, unsigned int* count);
  // Frees every non-null field, then the array.
  static void FreeSplitStringRet(char** fields, unsigned int count);
  // See the free TrimRight; the one-argument form trims spaces.
  static int TrimRight(char* text, char character);
  static int TrimRight(char* text);
  // Drops leading and trailing spaces and tabs in place; inner runs stay.
  static void Trim(char* text);
  // The first index >= start holding `character`, or -1 (also when start is not
  // below the length).
  static int Find(const char* text, char character, int start);
  // Copies min(length - start, count) characters to `out` and terminates it
  // (empty when that is below 1).
  static void SubString(const char* text, int start, int count, char* out);
  static int ReverseFindChar(const char* text, char character);
  // The first match of `pattern` inside [from, to), or -1 (also for an empty
  // pattern or from >= to). Without case sensitivity only A-Z fold to a-z.
  // After a partial match fails, matching restarts at the mismatching
  // character itself, so an occurrence overlapping the failed attempt is
  // missed ("aab" is not found in "aaab").
  static int GetStringPos(const char* text, const char* pattern, long from, unsigned int to,
                          signed char caseSensitive);
  static int GetStringPos(const char* text, const char* pattern, signed char caseSensitive);
  // Counts the searches for "\r\n\r\n" (see the definition for the exact rule).
  static int CountLine(const char* text);
  // Removes every occurrence in place; returns the length before removal.
  static int RemoveChar(char* text, char character);
  // Replaces every occurrence left to right, resuming after each replacement;
  // nothing happens when search and replacement are equal.
  static void find_and_replace(std::string& text, const std::string& search, const std::string& replacement);
  static void find_and_replace(std::wstring& text, const std::wstring& search,
                               const std::wstring& replacement);
  // "+" becomes a space and "%XY" the byte 16*X + Y with unvalidated digits;
  // `destination` must be as long as `source`. Null arguments are ignored.
  static void UrlDecode(const char* source, char* destination);
  // True when the first `length` bytes are all digits (true below 1, false
  // for null).
  static bool AllIsNumber(const unsigned char* bytes, int length);
  // The first decimal digit among the first `length` characters, or -1.
  static int FindFirstNumPos(const char* text, int length);
  // Cuts the file name off a path (after the last separator).
  static void TrimWindowsFileName(char* path);

  // ---- Numbers, hexadecimal, bytes ------------------------------------------

  // Reads a decimal number in two passes (see the definition): "-12" is -12,
  // "--12" is 0, "12x" is 12, "x12" is 0. Null or length below 1 is 0.
  static long atol(const char* text, int length);
  static long atol(const char* text);
  static double atof(const char* text);
  // "1"-"9" and "A"-"F" only: "0" and lower-case digits decode as 0.
  static unsigned char ConvertHexToBinary(char character);
  // Upper-case digit of 1-15; "0" for 0 and anything above 15.
  static char ConvertBinaryToHex(unsigned char value);
  // length / 2 bytes (the count alone when `out` is null); null text gives 0.
  static int ConvertHexStrToBinaryArray(const char* text, unsigned char* out);
  // 2 x count + 1 (the size alone when `out` is null); null input gives 0.
  static int ConvertBinaryArrayToHexStr(const unsigned char* bytes, int count, char* out);
  // True when the first `count` bytes are equal (true below 1).
  static bool CompareMemory(const void* a, const void* b, int count);
  // 0 BMP, 1 JPEG, 2 TIFF, 3 PNG, 4 PDF, 6 GIF; -1 when unknown or shorter than
  // 4 bytes (GIF needs 6).
  static int GetSupportedImageType(const unsigned char* bytes, unsigned int length);

  // ---- System -------------------------------------------------------------

  // The local time with wDayOfWeek 0 and wMilliseconds 0.
  static _SYSTEMTIME GetLocalTime();
  // 0 for 0, otherwise -3000 - code.
  static long TransferSystemErrorCodeToFolivantErrorCode(unsigned int systemError);
  static bool IsWow64();
  // Joins the handle's thread; the timeout is ignored. The one-argument and
  // array forms do nothing.
  static void WaitForThreadDone(void* thread, unsigned int timeoutMs);
  static void WaitForThreadDone(void* thread);
  static void WaitForThreadDone(void** threads, int count, unsigned int timeoutMs);

  // ---- Wide and UTF-8 text (wchar_t is UTF-32 here) ------------------------

  // A copy in a new global block (flags 0), zero-terminated.
  static char* UTF8ToAscii(const char* text);
  // Returns its argument unchanged.
  static const char* AsciiToUTF8(const char* text);
  static void UnicodeToUTF8(const wchar_t* wide, std::string& out);
  static void UTF8toUnicode(const char* text, int length, std::wstring& out);
  static void UTF8toUnicode(const char* text, std::wstring& out);
  // The wide text in a zero-filled global block of length x 3 wide characters.
  static wchar_t* ConvertUTF8toUnicode(const char* text, int length);

  // ---- Versions, identifiers, host names ------------------------------------

  // Ten characters MMmmpp + bbbb from a compact version, read by its length
  // (7: M m p bbbb ... 10+: first six and last four). Six or fewer characters:
  // empty and false. `out` holds 11 characters.
  static bool NormalizeVersion(const char* input, char* out);
  // Zeroes 1024 characters of `out` and writes 32 lower-case hexadecimal
  // digits; returns 32.
  static int CreateUUID(char* out);
  // Label by label: "xn--" + Punycode for labels with non-ASCII characters,
  // ASCII labels unchanged, no name preparation. With `out`, the length
  // written (zero-terminated); with null `out`, the size needed including the
  // terminator; 0 on any failure (null host, empty label, unencodable label).
  static unsigned int IdnToAscii(const char* host, char* out);

  // ---- Files and folders -----------------------------------------------------

  // Makes every directory before the last "/" (the rest is a file name).
  static bool CreateDirectory(const char* path);
  static bool DeleteDirectory(const char* path, signed char deleteItself);
  // Copies files (and, when recursive, folders). The copy goes through
  // CopyFile, which writes the destination only when its read reports an
  // allocation failure; see CopyFile.
  static bool CopyDirectoryFiles(const char* source, const char* destination, signed char recursive);
  static bool RemoveFileReadOnlyAttribute(const char* path);
  // -3002 (file asked, missing), -3003 (folder asked, missing), -2418 (file
  // asked, is a folder), -1017 (folder asked, is not one), else 0.
  static long FileFolderExists(const char* path, signed char isFile, signed char unused);
  // Error 16 (cannot open or read) or 2 (out of memory).
  static unsigned char* LoadFileToMemoryInner(const char* path, unsigned int* size, long* error);
  // 0, 16 (cannot open or write) or 22 (read-only attribute kept).
  static long SaveDataToFileInner(const char* path, const unsigned char* data, unsigned int length,
                                  unsigned int offset);
  // The full path of the running executable.
  static void GetModulePath(char* out);
  // The executable's folder with a trailing "/" (empty without a separator).
  static void GetDllPath(char* out);
  // Returns 0 and writes nothing (the name is spelled so).
  static int GetAppliationFolder(char* out, int flag);
  // "/Quintaris/", from the empty application folder.
  static void GetResourcePath(char* out);
  // Kept for the shared interface; they do nothing.
  static void GetFileTime(const char* path, _FILETIME* creation, _FILETIME* lastAccess, _FILETIME* lastWrite);
  static unsigned int GetFileSize(const char* path);  // 0
  static void RemoveAllImageFilesInDir(const char* folder);
  static int ReadFileByName(const char* path, unsigned char** buffer, int* size);  // 0
  static int ReadFile(void* stream, unsigned char** buffer, int* size);            // 0
};
