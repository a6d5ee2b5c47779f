// Arbitrary bytes through the INI loader, then saved and loaded again: the
// second document must equal the first (same sections, keys and values, in
// the same order), so a rewrite never loses what the loader recognised.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "ini/ini_file.h"

namespace {

std::string Saved(const CIniFileA& ini) {
  std::ostringstream out;
  ini.Save(out);
  return out.str();
}

// Every section's name followed by its keys' names and values, in order.
std::vector<std::vector<std::string>> Contents(const CIniFileA& ini) {
  std::vector<std::vector<std::string>> contents;
  for (const auto* section : ini.GetSections()) {
    std::vector<std::string>& row = contents.emplace_back(1, section->GetSectionName());
    for (const auto* key : section->GetKeys()) row.insert(row.end(), {key->GetKeyName(), key->GetValue()});
  }
  return contents;
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
  if (Contents(first) != Contents(second) || Saved(second) != text) abort();

  // Merging the saved text into itself changes nothing either.
  std::istringstream merge(text);
  merge >> CIniFileA::CIniMergeA(second);
  if (Contents(first) != Contents(second)) abort();
  return 0;
}
