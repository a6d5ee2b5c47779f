// Arbitrary bytes through the INI loader, then saved and loaded again: the
// second document must equal the first (same sections, keys and values, in
// the same order), so a rewrite never loses what the loader recognised.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "ini/ini_file.h"

namespace {

std::string Saved(const CIniFileA& ini) {
  std::ostringstream out;
  ini.Save(out);
  return out.str();
}

bool SameDocument(const CIniFileA& a, const CIniFileA& b) {
  if (a.GetSections().size() != b.GetSections().size()) return false;
  auto sa = a.GetSections().begin();
  auto sb = b.GetSections().begin();
  for (; sa != a.GetSections().end(); ++sa, ++sb) {
    if ((*sa)->GetSectionName() != (*sb)->GetSectionName()) return false;
    const auto& ka = (*sa)->GetKeys();
    const auto& kb = (*sb)->GetKeys();
    if (ka.size() != kb.size()) return false;
    auto ia = ka.begin();
    auto ib = kb.begin();
    for (; ia != ka.end(); ++ia, ++ib) {
      if ((*ia)->GetKeyName() != (*ib)->GetKeyName() || (*ia)->GetValue() != (*ib)->GetValue()) return false;
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  CIniFileA first;
  std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
  first.Load(input, false);
  const std::string text = Saved(first);

  CIniFileA second;
  std::istringstream again(text);
  second.Load(again, false);
  if (!SameDocument(first, second) || Saved(second) != text) abort();

  // Merging the saved text into itself changes nothing either.
  std::istringstream merge(text);
  merge >> CIniFileA::CIniMergeA(second);
  if (!SameDocument(first, second)) abort();
  return 0;
}
