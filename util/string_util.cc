// CUtil's text members.
#include <cstring>
#include <string>

#include "platform/global_memory.h"
#include "util/util.h"
#include "util/win_string.h"

namespace {

char FoldAsciiUpper(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

bool SameChar(char a, char b, bool caseSensitive) {
  return caseSensitive ? a == b : FoldAsciiUpper(a) == FoldAsciiUpper(b);
}

// The value of one URL-escape digit: digits as themselves, anything above '@'
// with bit 5 cleared minus 55 (so both cases of A-F work); nothing validated.
int EscapeDigit(char c) {
  unsigned char u = static_cast<unsigned char>(c);
  if (u > 0x40) return (u & ~0x20) - 55;
  return u - '0';
}

template <typename String>
void FindAndReplace(String& text, const String& search, const String& replacement) {
  if (search == replacement || search.empty()) return;
  typename String::size_type at = 0;
  while ((at = text.find(search, at)) != String::npos) {
    text.replace(at, search.size(), replacement);
    at += replacement.size();
  }
}

}  // namespace

void CUtil::ReplaceChar(char* text, char from, char to) {
  if (text == nullptr) return;
  for (; *text != '\0'; ++text) {
    if (*text == from) *text = to;
  }
}

unsigned int CUtil::GetStringCount(const char* text, char separator) {
  if (text == nullptr || *text == '\0') return 0;
  unsigned int separators = 0;
  size_t length = strlen(text);
  for (size_t i = 0; i < length; ++i) {
    if (text[i] == separator) ++separators;
  }
  return text[length - 1] == separator ? separators : separators + 1;
}

bool CUtil::SplitString(const char* text, char separator, char*** fields, unsigned int* count) {
  if (fields == nullptr || count == nullptr) return false;
  *fields = nullptr;
  *count = 0;
  if (text == nullptr) return false;

  const unsigned int total = GetStringCount(text, separator);
  char** array = static_cast<char**>(GlobalAlloc(GMEM_ZEROINIT, total * sizeof(char*)));
  if (array == nullptr) return false;

  const char* start = text;
  for (unsigned int i = 0; i < total; ++i) {
    const char* end = strchr(start, separator);
    size_t length = end != nullptr ? static_cast<size_t>(end - start) : strlen(start);
    array[i] = static_cast<char*>(GlobalAlloc(GMEM_ZEROINIT, length + 1));
    if (array[i] == nullptr) {
      FreeSplitStringRet(array, i);
      return false;
    }
    memcpy(array[i], start, length);
    start = end != nullptr ? end + 1 : start + length;
  }
  *fields = array;
  *count = total;
  return true;
}

void CUtil::FreeSplitStringRet(char** fields, unsigned int count) {
  if (fields == nullptr) return;
  for (unsigned int i = 0; i < count; ++i) GlobalFree(fields[i]);
  GlobalFree(fields);
}

int CUtil::TrimRight(char* text, char character) { return ::TrimRight(text, character); }

int CUtil::TrimRight(char* text) { return ::TrimRight(text, ' '); }

void CUtil::Trim(char* text) {
  if (text == nullptr) return;
  size_t begin = strspn(text, " \t");
  size_t end = strlen(text);
  while (end > begin && (text[end - 1] == ' ' || text[end - 1] == '\t')) --end;
  memmove(text, text + begin, end - begin);
  text[end - begin] = '\0';
}

int CUtil::Find(const char* text, char character, int start) {
  if (text == nullptr || start < 0) return -1;
  int length = static_cast<int>(strlen(text));
  for (int i = start; i < length; ++i) {
    if (text[i] == character) return i;
  }
  return -1;
}

void CUtil::SubString(const char* text, int start, int count, char* out) {
  if (out == nullptr) return;
  out[0] = '\0';
  if (text == nullptr || start < 0) return;
  int length = static_cast<int>(strlen(text));
  if (start > length) return;
  int n = length - start < count ? length - start : count;
  if (n < 1) return;
  memcpy(out, text + start, static_cast<size_t>(n));
  out[n] = '\0';
}

int CUtil::ReverseFindChar(const char* text, char character) { return ::ReverseFindChar(text, character); }

int CUtil::GetStringPos(const char* text, const char* pattern, long from, unsigned int to,
                        signed char caseSensitive) {
  if (text == nullptr || pattern == nullptr || *pattern == '\0') return -1;
  if (from < 0) from = 0;
  // A match cannot run past the terminator, so the range ends there.
  const size_t length = strlen(text);
  const size_t end = to < length ? to : length;
  if (static_cast<size_t>(from) >= end) return -1;

  size_t matched = 0;
  for (size_t i = static_cast<size_t>(from); i < end; ++i) {
    if (!SameChar(text[i], pattern[matched], caseSensitive != 0)) {
      // Start again at this very character, not after the failed attempt's start.
      matched = 0;
      if (!SameChar(text[i], pattern[0], caseSensitive != 0)) continue;
    }
    if (pattern[++matched] == '\0') return static_cast<int>(i + 1 - matched);
  }
  return -1;
}

int CUtil::GetStringPos(const char* text, const char* pattern, signed char caseSensitive) {
  if (text == nullptr) return -1;
  return GetStringPos(text, pattern, 0, static_cast<unsigned int>(strlen(text)), caseSensitive);
}

int CUtil::CountLine(const char* text) {
  if (text == nullptr) return 0;
  const long length = static_cast<long>(strlen(text));
  int searches = 0;
  long start = 0;
  for (;;) {
    int found = GetStringPos(text, "\r\n\r\n", start, static_cast<unsigned int>(length), 0);
    ++searches;
    start = static_cast<long>(found) + 4;  // a failed search (-1) gives 3
    if (found < 0 || start >= length) break;
  }
  return start == length - 1 ? searches + 1 : searches;
}

int CUtil::RemoveChar(char* text, char character) {
  if (text == nullptr) return 0;
  int length = static_cast<int>(strlen(text));
  char* out = text;
  for (const char* in = text; *in != '\0'; ++in) {
    if (*in != character) *out++ = *in;
  }
  *out = '\0';
  return length;
}

void CUtil::find_and_replace(std::string& text, const std::string& search, const std::string& replacement) {
  FindAndReplace(text, search, replacement);
}

void CUtil::find_and_replace(std::wstring& text, const std::wstring& search, const std::wstring& replacement) {
  FindAndReplace(text, search, replacement);
}

void CUtil::UrlDecode(const char* source, char* destination) {
  if (source == nullptr || destination == nullptr) return;
  while (*source != '\0') {
    if (*source == '+') {
      *destination++ = ' ';
      ++source;
    } else if (*source == '%' && source[1] != '\0' && source[2] != '\0') {
      *destination++ = static_cast<char>(16 * EscapeDigit(source[1]) + EscapeDigit(source[2]));
      source += 3;
    } else {
      *destination++ = *source++;
    }
  }
  *destination = '\0';
}

bool CUtil::AllIsNumber(const unsigned char* bytes, int length) {
  if (bytes == nullptr) return false;
  for (int i = 0; i < length; ++i) {
    if (bytes[i] < '0' || bytes[i] > '9') return false;
  }
  return true;
}

int CUtil::FindFirstNumPos(const char* text, int length) {
  if (text == nullptr) return -1;
  for (int i = 0; i < length && text[i] != '\0'; ++i) {
    if (text[i] >= '0' && text[i] <= '9') return i;
  }
  return -1;
}

void CUtil::TrimWindowsFileName(char* path) {
  if (path == nullptr) return;
  char* slash = strrchr(path, '/');
  char* backslash = strrchr(path, '\\');
  char* last = slash > backslash ? slash : backslash;
  if (last != nullptr) last[1] = '\0';
}
