// Arbitrary text through CUtil's scanners: GetStringPos (checked against the
// text), UrlDecode (never longer than its source), SplitString (the fields
// joined again give the text back), and the other in-place editors.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "util/util.h"
#include "util/win_string.h"

namespace {

char Fold(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

void Check(bool condition) { if (!condition) abort(); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  // First byte: separator; then text and pattern split at the first NUL.
  const char separator = static_cast<char>(data[0]);
  std::string rest(reinterpret_cast<const char*>(data + 1), size - 1);
  std::string text = rest.substr(0, rest.find('\0'));
  std::string pattern = rest.find('\0') == std::string::npos ? "ab" : rest.substr(rest.find('\0') + 1);
  pattern = pattern.substr(0, pattern.find('\0'));

  for (signed char caseSensitive = 0; caseSensitive < 2; ++caseSensitive) {
    int pos = CUtil::GetStringPos(text.c_str(), pattern.c_str(), caseSensitive);
    if (pos >= 0) {
      Check(static_cast<size_t>(pos) + pattern.size() <= text.size());
      for (size_t i = 0; i < pattern.size(); ++i) {
        char a = text[pos + i], b = pattern[i];
        Check(caseSensitive ? a == b : Fold(a) == Fold(b));
      }
    }
    long from = static_cast<long>(data[0] % 8) - 2;
    int ranged = CUtil::GetStringPos(text.c_str(), pattern.c_str(), from, static_cast<unsigned int>(size), caseSensitive);
    Check(ranged == -1 || ranged >= 0);
  }
  CUtil::CountLine(text.c_str());

  std::string decoded(text.size() + 1, '\0');
  CUtil::UrlDecode(text.c_str(), &decoded[0]);
  Check(strlen(decoded.c_str()) <= text.size());

  char** fields = nullptr;
  unsigned int count = 0;
  Check(CUtil::SplitString(text.c_str(), separator, &fields, &count));
  Check(count == CUtil::GetStringCount(text.c_str(), separator));
  if (separator != '\0') {
    std::string joined;
    for (unsigned int i = 0; i < count; ++i) joined += (i != 0 ? std::string(1, separator) : "") + fields[i];
    std::string expected = text;
    if (!expected.empty() && expected.back() == separator) expected.pop_back();
    Check(joined == expected);
  }
  CUtil::FreeSplitStringRet(fields, count);

  std::string trimmed = text, trimmedRight = text, removed = text;
  CUtil::Trim(&trimmed[0]);
  ::TrimRight(&trimmedRight[0], separator);
  CUtil::RemoveChar(&removed[0], separator);
  CUtil::atol(text.c_str(), static_cast<int>(data[0]));
  char version[11];
  CUtil::NormalizeVersion(text.c_str(), version);
  Check(version[0] == '\0' || strlen(version) == 10);
  CUtil::GetSupportedImageType(reinterpret_cast<const unsigned char*>(text.data()),
                               static_cast<unsigned int>(text.size()));
  std::wstring wide;
  CUtil::UTF8toUnicode(text.c_str(), wide);
  std::string back;
  CUtil::UnicodeToUTF8(wide.c_str(), back);
  return 0;
}
