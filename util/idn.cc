// CUtil::IdnToAscii: UTF-8 host names to their ASCII form, label by label.
#include <cstring>
#include <string>

#include "platform/global_memory.h"
#include "util/mem_buffer.h"
#include "util/punycode.h"
#include "util/util.h"

namespace {

constexpr unsigned int kGrowBy = 0x80000;
// The encoder writes each label into a buffer of this size.
constexpr int kLabelBufferSize = 1024;

// Appends the ASCII form of one label to `name` (with the "." before it when
// it is not the first). False when the label is empty or cannot be encoded.
bool AppendLabel(const char* label, bool first, CMemBuffer& name) {
  std::wstring wide;
  CUtil::UTF8toUnicode(label, wide);
  if (wide.empty()) return false;

  char encoded[kLabelBufferSize];
  memset(encoded, 0, sizeof(encoded));
  int nonBasic = 0;
  int length = PunyCode::u_strToPunycode(wide.c_str(), -1, encoded, kLabelBufferSize, nullptr,
                                         nullptr, &nonBasic);
  if (length <= 0) return false;
  // The encoder reports the full length but stores only what fits; a label
  // whose encoding does not fit in the buffer cannot be written out whole, so
  // it fails like any other label that cannot be encoded.
  if (length > kLabelBufferSize) return false;

  if (!first && name.Write(".", 1) != 1) return false;
  if (nonBasic > 0 && name.Write("xn--", 4) != 4) return false;
  return name.Write(encoded, static_cast<unsigned int>(length)) == static_cast<unsigned int>(length);
}

}  // namespace

unsigned int CUtil::IdnToAscii(const char* host, char* out) {
  if (host == nullptr) return 0;

  // A trailing "." makes no extra label; ".." makes an empty one, which fails.
  char** labels = nullptr;
  unsigned int count = 0;
  if (!SplitString(host, '.', &labels, &count)) return 0;

  CMemBuffer name(kGrowBy);
  bool ok = true;
  for (unsigned int i = 0; i < count && ok; ++i) ok = AppendLabel(labels[i], i == 0, name);
  FreeSplitStringRet(labels, count);
  if (!ok) return 0;

  const unsigned int length = name.GetLength();
  if (out == nullptr) return length + 1;

  if (length > 0) {
    void* copy = name.DetachEx();
    if (copy == nullptr) return 0;
    memcpy(out, copy, length);
    GlobalFree(copy);
  }
  out[length] = '\0';
  return length;
}
