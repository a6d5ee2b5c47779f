// In-memory INI documents: sections of keys with text values, loaded from and
// saved to streams or files. The only parser of the configuration files.
//
// Loading (Load):
//  - each line is read up to "\n", left-trimmed of " \t" and right-trimmed of
//    "\n\r" only, so blanks at the end stay; empty lines are skipped;
//  - "[name]" opens a section when the line starts with "[" and its last
//    character other than " \t\r\n" is "]"; the name is the line without its
//    first and last characters, then trimmed of " \t" (so "[Port]  " names the
//    section "Port]");
//  - "key=value" (an "=" anywhere but first) sets a key of the current section:
//    the key is trimmed of " \t", the value is kept exactly; keys before any
//    section are dropped, and so is every other line (comments included,
//    unless they contain "=");
//  - names are unique and matched as the traits say: case-blind for the narrow
//    family, keeping the first spelling; a key given twice keeps its last value.
// Saving (Save) writes, in name order, "[name]" and then "key=value" lines,
// each ended by LF, and nothing else.
//
// The narrow family is CIniFileA (CIniSectionA, CIniKeyA, CIniMergeA). The wide
// family CIniFileW is the same over std::wstring, except that names are
// ordered and matched with wcsncmp over the shorter name's length: case
// matters, and a name that is a prefix of another counts as equal to it
// ("Serv" finds "Server"). Files of the wide family are UTF-8 on disk.
//
// A document is not thread-safe; callers serialise access.
#pragma once

#include <cstring>
#include <cwchar>
#include <fstream>
#include <istream>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <strings.h>

// ---- Trimming and conversion helpers --------------------------------------

// Erases everything after the last character not in `chars`.
void RTrim(std::string& text, const std::string& chars);
void RTrim(std::wstring& text, const std::wstring& chars);
// Erases everything before the first character not in `chars`.
void LTrim(std::string& text, const std::string& chars);
void LTrim(std::wstring& text, const std::wstring& chars);
void Trim(std::string& text, const std::string& chars);
void Trim(std::wstring& text, const std::wstring& chars);
// UTF-8 <-> wide text.
std::string wstr_to_str(const std::wstring& text);
std::wstring str_to_wstr(const std::string& text);

// ---- Traits -----------------------------------------------------------------

struct NarrowIniTraits {
  using Char = char;
  using String = std::string;
  using IStream = std::istream;
  using OStream = std::ostream;
  // strcasecmp: case-blind names.
  static int Compare(const String& a, const String& b) { return strcasecmp(a.c_str(), b.c_str()); }
  // An ASCII literal in this character type.
  static String Lit(const char* ascii) { return ascii; }
  static bool ReadFile(const std::string& fileName, std::string* bytes);
  static bool WriteFile(const std::string& fileName, const std::string& bytes);
  static std::string ToBytes(const String& text) { return text; }
  static String FromBytes(const std::string& bytes) { return bytes; }
};

struct WideIniTraits {
  using Char = wchar_t;
  using String = std::wstring;
  using IStream = std::wistream;
  using OStream = std::wostream;
  // wcsncmp over the shorter length: case-sensitive, prefixes compare equal.
  static int Compare(const String& a, const String& b) {
    return wcsncmp(a.c_str(), b.c_str(), a.size() < b.size() ? a.size() : b.size());
  }
  static String Lit(const char* ascii) { return String(ascii, ascii + strlen(ascii)); }
  static bool ReadFile(const std::string& fileName, std::string* bytes) {
    return NarrowIniTraits::ReadFile(fileName, bytes);
  }
  static bool WriteFile(const std::string& fileName, const std::string& bytes) {
    return NarrowIniTraits::WriteFile(fileName, bytes);
  }
  static std::string ToBytes(const String& text) { return wstr_to_str(text); }
  static String FromBytes(const std::string& bytes) { return str_to_wstr(bytes); }
};

// ---- The document -------------------------------------------------------------

template <typename Traits>
class BasicIniFile {
 public:
  using Char = typename Traits::Char;
  using String = typename Traits::String;

  class Section;

  // One key: its owning section, name and value.
  class Key {
   public:
    const String& GetKeyName() const { return m_name; }
    const String& GetValue() const { return m_value; }
    // Stored exactly as given.
    void SetValue(const String& value) { m_value = value; }
    // Trims the new name; false (nothing changed) when the section already has
    // a key of that name.
    bool SetKeyName(String name);
    Section* GetSection() const { return m_section; }

   private:
    friend class Section;
    Key(Section* section, const String& name) : m_section(section), m_name(name) {}
    Section* m_section;
    String m_name;
    String m_value;
  };

  // Orders keys or sections by name with the traits' comparison; lookups by
  // name go through the same comparison.
  template <typename T>
  struct NameLess {
    using is_transparent = void;
    bool operator()(const T* a, const T* b) const { return Traits::Compare(NameOf(a), NameOf(b)) < 0; }
    bool operator()(const T* a, const String& b) const { return Traits::Compare(NameOf(a), b) < 0; }
    bool operator()(const String& a, const T* b) const { return Traits::Compare(a, NameOf(b)) < 0; }
    static const String& NameOf(const Key* k) { return k->GetKeyName(); }
    static const String& NameOf(const Section* s) { return s->GetSectionName(); }
  };
  using KeyIndex = std::set<Key*, NameLess<Key>>;

  // One section: its owning file, name and keys (owned).
  class Section {
   public:
    using CIniKeyA = Key;
    using CIniKeyW = Key;

    ~Section() { RemoveAllKeys(); }
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;

    const String& GetSectionName() const { return m_name; }
    const KeyIndex& GetKeys() const { return m_keys; }
    BasicIniFile* GetIniFile() const { return m_file; }
    Key* GetKey(const String& name) const {
      auto found = m_keys.find(name);
      return found == m_keys.end() ? nullptr : *found;
    }
    // Trims the name of " \t"; the existing key of that name or a new one with
    // an empty value.
    Key* AddKey(String name);
    void SetKeyValue(const String& key, const String& value) { AddKey(key)->SetValue(value); }
    String GetKeyValue(const String& key) const {
      Key* k = GetKey(key);
      return k == nullptr ? String() : k->GetValue();
    }
    void RemoveKey(const String& name) { RemoveKey(GetKey(name)); }
    void RemoveKey(Key* key);
    void RemoveAllKeys();
    // Trims the new name; false (nothing changed) when the file already has a
    // section of that name.
    bool SetSectionName(String name);

   private:
    friend class BasicIniFile;
    friend class Key;
    Section(BasicIniFile* file, const String& name) : m_file(file), m_name(name) {}
    BasicIniFile* m_file;
    String m_name;
    KeyIndex m_keys;
  };
  using SectionIndex = std::set<Section*, NameLess<Section>>;

  // Selects the merging stream operator.
  class Merge {
   public:
    explicit Merge(BasicIniFile& file) : m_file(file) {}
    BasicIniFile& File() const { return m_file; }

   private:
    BasicIniFile& m_file;
  };

  BasicIniFile() = default;
  ~BasicIniFile() { RemoveAllSections(); }
  BasicIniFile(const BasicIniFile&) = delete;
  BasicIniFile& operator=(const BasicIniFile&) = delete;

  // Without merging, every section is removed first; with it, the stream's
  // keys overwrite and extend what is there.
  void Load(typename Traits::IStream& input, bool merge = false);
  // False, with the document unchanged, when the path does not name a regular
  // file that can be read (missing, a folder, a FIFO, no permission, a
  // dangling link; see platform/regular_file.h).
  bool Load(const std::string& fileName, bool merge = false);
  void Save(typename Traits::OStream& output) const;
  // Replaces the file in one step (see platform/regular_file.h); false, with
  // the file unchanged, when the path names anything but a regular file, the
  // file is read-only or the new text cannot be written in full.
  bool Save(const std::string& fileName) const;

  const SectionIndex& GetSections() const { return m_sections; }
  Section* GetSection(const String& name) const {
    auto found = m_sections.find(name);
    return found == m_sections.end() ? nullptr : *found;
  }
  // Trims the name of " \t"; the existing section of that name or a new one.
  Section* AddSection(String name);
  void RemoveSection(const String& name) { RemoveSection(GetSection(name)); }
  void RemoveSection(Section* section);
  void RemoveAllSections();
  bool RenameSection(const String& oldName, const String& newName) {
    Section* section = GetSection(oldName);
    return section != nullptr && section->SetSectionName(newName);
  }
  String GetKeyValue(const String& section, const String& key, const String& defaultValue) const {
    Section* s = GetSection(section);
    Key* k = s == nullptr ? nullptr : s->GetKey(key);
    return k == nullptr ? defaultValue : k->GetValue();
  }
  String GetKeyValue(const String& section, const String& key) const { return GetKeyValue(section, key, String()); }
  void SetKeyValue(const String& section, const String& key, const String& value) {
    AddSection(section)->SetKeyValue(key, value);
  }
  bool RenameKey(const String& section, const String& oldKey, const String& newKey) {
    Section* s = GetSection(section);
    Key* k = s == nullptr ? nullptr : s->GetKey(oldKey);
    return k != nullptr && k->SetKeyName(newKey);
  }

 private:
  SectionIndex m_sections;
};

class CIniFileA : public BasicIniFile<NarrowIniTraits> {
 public:
  using CIniSectionA = Section;
  using CIniMergeA = Merge;
  // The line end written after every line.
  static const char* const LF;
};

class CIniFileW : public BasicIniFile<WideIniTraits> {
 public:
  using CIniSectionW = Section;
  using CIniMergeW = Merge;
  static const wchar_t* const LF;
};

std::ostream& operator<<(std::ostream& output, const CIniFileA& file);
std::istream& operator>>(std::istream& input, CIniFileA& file);
std::istream& operator>>(std::istream& input, CIniFileA::CIniMergeA merge);
std::wostream& operator<<(std::wostream& output, const CIniFileW& file);
std::wistream& operator>>(std::wistream& input, CIniFileW& file);
std::wistream& operator>>(std::wistream& input, CIniFileW::CIniMergeW merge);

extern template class BasicIniFile<NarrowIniTraits>;
extern template class BasicIniFile<WideIniTraits>;
