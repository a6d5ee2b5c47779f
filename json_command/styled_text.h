// The styled layout of result documents, written without the dependency's
// general writer for the values that documents carry.
//
// StyledTextWriter produces exactly the text of Json::StyledWriter: three
// blanks per level, "name" : value members in name order, an array on one
// line "[ a, b ]" when it has fewer than 25 elements, none of them a non-empty
// array or object, and its one-line text is shorter than 74 characters,
// otherwise one element per line; a line feed at the end. Scalars are written
// by the dependency's own formatting functions (or, for strings of printable
// ASCII without quotes or backslashes, copied between quotes, which is what
// those functions do), so numbers and escapes are identical by construction.
//
// Values carrying comments, and strings holding a 0 byte, are not handled:
// the writer returns false for them and the caller uses Json::StyledWriter.
// A writer keeps its buffers between calls; one writer serves one thread.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

class StyledTextWriter {
 public:
  // Replaces *text with the styled text of `root`. False (and *text
  // unspecified) for a value this writer leaves to Json::StyledWriter.
  bool Write(const Json::Value& root, std::string* text);

  // One member of a document that WriteDocument builds in place: a text, a
  // number, or an array of the given values (a null entry is written as
  // null). Exactly one of `text` and `values` is set for those kinds; neither
  // for a number.
  struct Member {
    const char* name;
    const std::string* text;
    int number;
    const std::vector<Json::Value*>* values;
  };
  // Replaces *text with the styled text of the object these members make,
  // as if they had been put into a Json::Value and written: members in name
  // order, an empty array written as "[]". False as Write.
  bool WriteDocument(std::vector<Member> members, std::string* text);

 private:
  template <typename Elements>
  bool WriteArray(const Elements& elements);
  // Whether the array goes one element per line. When it may fit on one line
  // the elements' texts are left in m_children from index `first` on.
  template <typename Elements>
  bool IsMultiline(const Elements& elements, size_t first, bool* ok);
  bool WriteValue(const Json::Value& value);
  bool WriteMember(const Member& member);
  // Text of a scalar, an empty array or an empty object; false for others.
  bool ScalarText(const Json::Value& value, std::string* out);
  void WriteIndent();
  void Begin(std::string* text);
  void End();

  std::string* m_doc = nullptr;
  std::string m_indent;
  std::vector<std::string> m_children;  // one-line candidates, reused
  size_t m_childrenUsed = 0;
  size_t m_lastSize = 0;  // the last document's length, reserved for the next
};
