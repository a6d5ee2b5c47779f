#include "ini/ini_file.h"

#include "platform/regular_file.h"
#include "util/util.h"

const char* const CIniFileA::LF = "\n";
const wchar_t* const CIniFileW::LF = L"\n";

// ---- Helpers ------------------------------------------------------------------

namespace {

template <typename String>
void RTrimImpl(String& text, const String& chars) {
  typename String::size_type last = text.find_last_not_of(chars);
  text.erase(last == String::npos ? 0 : last + 1);
}

template <typename String>
void LTrimImpl(String& text, const String& chars) {
  text.erase(0, text.find_first_not_of(chars));
}

}  // namespace

void RTrim(std::string& text, const std::string& chars) { RTrimImpl(text, chars); }
void RTrim(std::wstring& text, const std::wstring& chars) { RTrimImpl(text, chars); }
void LTrim(std::string& text, const std::string& chars) { LTrimImpl(text, chars); }
void LTrim(std::wstring& text, const std::wstring& chars) { LTrimImpl(text, chars); }
void Trim(std::string& text, const std::string& chars) {
  RTrim(text, chars);
  LTrim(text, chars);
}
void Trim(std::wstring& text, const std::wstring& chars) {
  RTrim(text, chars);
  LTrim(text, chars);
}

std::string wstr_to_str(const std::wstring& text) {
  std::string out;
  CUtil::UnicodeToUTF8(text.c_str(), out);
  return out;
}

std::wstring str_to_wstr(const std::string& text) {
  std::wstring out;
  CUtil::UTF8toUnicode(text.c_str(), out);
  return out;
}

bool NarrowIniTraits::ReadFile(const std::string& fileName, std::string* bytes) {
  return ReadRegularFile(fileName.c_str(), bytes);
}

bool NarrowIniTraits::WriteFile(const std::string& fileName, const std::string& bytes) {
  return ReplaceRegularFile(fileName.c_str(), bytes);
}

// ---- Keys and sections --------------------------------------------------------

template <typename Traits>
bool BasicIniFile<Traits>::Key::SetKeyName(String name) {
  Trim(name, Traits::Lit(" \t"));
  KeyIndex& keys = m_section->m_keys;
  if (keys.find(name) != keys.end()) return false;
  keys.erase(this);
  m_name = name;
  keys.insert(this);
  return true;
}

template <typename Traits>
typename BasicIniFile<Traits>::Key* BasicIniFile<Traits>::Section::AddKey(String name) {
  Trim(name, Traits::Lit(" \t"));
  auto found = m_keys.find(name);
  if (found != m_keys.end()) return *found;
  Key* key = new Key(this, name);
  m_keys.insert(key);
  return key;
}

template <typename Traits>
void BasicIniFile<Traits>::Section::RemoveKey(Key* key) {
  if (key == nullptr || m_keys.erase(key) == 0) return;
  delete key;
}

template <typename Traits>
void BasicIniFile<Traits>::Section::RemoveAllKeys() {
  for (Key* key : m_keys) delete key;
  m_keys.clear();
}

template <typename Traits>
bool BasicIniFile<Traits>::Section::SetSectionName(String name) {
  Trim(name, Traits::Lit(" \t"));
  SectionIndex& sections = m_file->m_sections;
  if (sections.find(name) != sections.end()) return false;
  sections.erase(this);
  m_name = name;
  sections.insert(this);
  return true;
}

// ---- The document ---------------------------------------------------------------

template <typename Traits>
typename BasicIniFile<Traits>::Section* BasicIniFile<Traits>::AddSection(String name) {
  Trim(name, Traits::Lit(" \t"));
  auto found = m_sections.find(name);
  if (found != m_sections.end()) return *found;
  Section* section = new Section(this, name);
  m_sections.insert(section);
  return section;
}

template <typename Traits>
void BasicIniFile<Traits>::RemoveSection(Section* section) {
  if (section == nullptr || m_sections.erase(section) == 0) return;
  delete section;
}

template <typename Traits>
void BasicIniFile<Traits>::RemoveAllSections() {
  for (Section* section : m_sections) delete section;
  m_sections.clear();
}

template <typename Traits>
void BasicIniFile<Traits>::Load(typename Traits::IStream& input, bool merge) {
  if (!merge) RemoveAllSections();
  const String leftBlanks = Traits::Lit(" \t");
  const String lineEnds = Traits::Lit("\n\r");
  const String allBlanks = Traits::Lit(" \t\r\n");
  Section* current = nullptr;
  String line;
  while (std::getline(input, line, static_cast<Char>('\n'))) {
    LTrim(line, leftBlanks);
    RTrim(line, lineEnds);
    if (line.empty()) continue;

    typename String::size_type lastSolid = line.find_last_not_of(allBlanks);
    if (line[0] == static_cast<Char>('[') && lastSolid != String::npos &&
        line[lastSolid] == static_cast<Char>(']')) {
      current = AddSection(line.substr(1, line.length() - 2));
      continue;
    }
    typename String::size_type equals = line.find(static_cast<Char>('='));
    if (equals == String::npos || equals == 0 || current == nullptr) continue;
    current->AddKey(line.substr(0, equals))->SetValue(line.substr(equals + 1));
  }
}

template <typename Traits>
bool BasicIniFile<Traits>::Load(const std::string& fileName, bool merge) {
  std::string bytes;
  if (!Traits::ReadFile(fileName, &bytes)) return false;
  std::basic_istringstream<Char> input(Traits::FromBytes(bytes));
  Load(input, merge);
  return true;
}

template <typename Traits>
void BasicIniFile<Traits>::Save(typename Traits::OStream& output) const {
  const String lf = Traits::Lit("\n");
  for (const Section* section : m_sections) {
    output << static_cast<Char>('[') << section->GetSectionName() << static_cast<Char>(']') << lf;
    for (const Key* key : section->GetKeys()) {
      output << key->GetKeyName() << static_cast<Char>('=') << key->GetValue() << lf;
    }
  }
}

template <typename Traits>
bool BasicIniFile<Traits>::Save(const std::string& fileName) const {
  std::basic_ostringstream<Char> text;
  Save(text);
  return Traits::WriteFile(fileName, Traits::ToBytes(text.str()));
}

template class BasicIniFile<NarrowIniTraits>;
template class BasicIniFile<WideIniTraits>;

// ---- Stream operators -------------------------------------------------------------

std::ostream& operator<<(std::ostream& output, const CIniFileA& file) {
  file.Save(output);
  return output;
}

std::istream& operator>>(std::istream& input, CIniFileA& file) {
  file.Load(input, false);
  return input;
}

std::istream& operator>>(std::istream& input, CIniFileA::CIniMergeA merge) {
  merge.File().Load(input, true);
  return input;
}

std::wostream& operator<<(std::wostream& output, const CIniFileW& file) {
  file.Save(output);
  return output;
}

std::wistream& operator>>(std::wistream& input, CIniFileW& file) {
  file.Load(input, false);
  return input;
}

std::wistream& operator>>(std::wistream& input, CIniFileW::CIniMergeW merge) {
  merge.File().Load(input, true);
  return input;
}
