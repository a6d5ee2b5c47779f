// CUtil's UTF-8 and wide-text members. wchar_t holds UTF-32 code points here,
// so the conversions are UTF-8 <-> UTF-32; malformed input becomes U+FFFD
// rather than an error.
#include <cstring>
#include <string>
#include <utf8cpp/utf8.h>

#include "platform/global_memory.h"
#include "util/util.h"

namespace {

constexpr uint32_t kReplacement = 0xFFFD;

void DecodeUtf8(const char* text, size_t length, std::wstring& out) {
  out.clear();
  const char* it = text;
  const char* end = text + length;
  while (it < end) {
    try {
      out.push_back(static_cast<wchar_t>(utf8::next(it, end)));
    } catch (const utf8::exception&) {
      // Skip the offending byte and mark the spot.
      ++it;
      out.push_back(static_cast<wchar_t>(kReplacement));
    }
  }
}

}  // namespace

char* CUtil::UTF8ToAscii(const char* text) {
  if (text == nullptr) return nullptr;
  size_t size = strlen(text) + 1;
  char* copy = static_cast<char*>(GlobalAlloc(0, size));
  if (copy != nullptr) memcpy(copy, text, size);
  return copy;
}

const char* CUtil::AsciiToUTF8(const char* text) { return text; }

void CUtil::UnicodeToUTF8(const wchar_t* wide, std::string& out) {
  out.clear();
  if (wide == nullptr) return;
  for (; *wide != L'\0'; ++wide) {
    uint32_t cp = static_cast<uint32_t>(*wide);
    if (!utf8::internal::is_code_point_valid(cp)) cp = kReplacement;
    utf8::unchecked::append(cp, std::back_inserter(out));
  }
}

void CUtil::UTF8toUnicode(const char* text, int length, std::wstring& out) {
  out.clear();
  if (text == nullptr || length <= 0) return;
  DecodeUtf8(text, strnlen(text, static_cast<size_t>(length)), out);
}

void CUtil::UTF8toUnicode(const char* text, std::wstring& out) {
  out.clear();
  if (text == nullptr) return;
  DecodeUtf8(text, strlen(text), out);
}

wchar_t* CUtil::ConvertUTF8toUnicode(const char* text, int length) {
  if (text == nullptr || length < 1) return nullptr;
  const size_t slots = static_cast<size_t>(length) * 3;
  wchar_t* block = static_cast<wchar_t*>(GlobalAlloc(GMEM_ZEROINIT, slots * sizeof(wchar_t)));
  if (block == nullptr) return nullptr;
  std::wstring wide;
  UTF8toUnicode(text, length, wide);
  // At most one code point per byte, so the text and its terminator fit.
  memcpy(block, wide.data(), wide.size() * sizeof(wchar_t));
  return block;
}
