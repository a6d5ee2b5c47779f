#include "json_command/styled_text.h"

#include <json/writer.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr unsigned kRightMargin = 74;
constexpr size_t kIndentSize = 3;

bool HasComment(const Json::Value& value) {
  return value.hasComment(Json::commentBefore) || value.hasComment(Json::commentAfterOnSameLine) ||
         value.hasComment(Json::commentAfter);
}

// The dependency writes a string without escapes exactly when every byte is
// printable ASCII other than '"' and '\'; such strings are quoted here
// without a call.
bool NeedsEscapes(const char* begin, const char* end) {
  for (const char* c = begin; c != end; ++c) {
    const unsigned char byte = static_cast<unsigned char>(*c);
    if (byte < 0x20 || byte >= 0x7F || byte == '"' || byte == '\\') return true;
  }
  return false;
}

bool AppendQuoted(const char* begin, const char* end, std::string* out) {
  if (!NeedsEscapes(begin, end)) {
    out->push_back('"');
    out->append(begin, end);
    out->push_back('"');
    return true;
  }
  if (std::find(begin, end, '\0') != end) return false;  // the public quoting stops at a 0 byte
  out->append(Json::valueToQuotedString(std::string(begin, end).c_str()));
  return true;
}

// The elements of a Json::Value array.
struct ArrayElements {
  const Json::Value& array;
  Json::ArrayIndex size() const { return array.size(); }
  template <typename F>
  bool ForEach(F each) const {
    for (const Json::Value& element : array) {
      if (!each(element)) return false;
    }
    return true;
  }
};

// Values given by pointer, a null pointer standing for a null value.
struct PointedElements {
  const std::vector<Json::Value*>& values;
  Json::ArrayIndex size() const { return static_cast<Json::ArrayIndex>(values.size()); }
  template <typename F>
  bool ForEach(F each) const {
    for (const Json::Value* element : values) {
      if (!each(element != nullptr ? *element : Json::Value::nullSingleton())) return false;
    }
    return true;
  }
};

}  // namespace

void StyledTextWriter::Begin(std::string* text) {
  text->clear();
  text->reserve(m_lastSize);
  m_doc = text;
  m_indent.clear();
  m_childrenUsed = 0;
}

void StyledTextWriter::End() {
  m_doc->push_back('\n');
  m_lastSize = m_doc->size();
}

bool StyledTextWriter::Write(const Json::Value& root, std::string* text) {
  Begin(text);
  if (HasComment(root) || !WriteValue(root)) return false;
  End();
  return true;
}

bool StyledTextWriter::WriteDocument(std::vector<Member> members, std::string* text) {
  Begin(text);
  if (members.empty()) {
    text->append("{}");
  } else {
    std::sort(members.begin(), members.end(),
              [](const Member& a, const Member& b) { return strcmp(a.name, b.name) < 0; });
    text->push_back('{');
    m_indent.append(kIndentSize, ' ');
    for (size_t i = 0; i < members.size(); ++i) {
      if (i > 0) text->push_back(',');
      WriteIndent();
      if (!AppendQuoted(members[i].name, members[i].name + strlen(members[i].name), text)) return false;
      text->append(" : ");
      if (!WriteMember(members[i])) return false;
    }
    m_indent.resize(m_indent.size() - kIndentSize);
    WriteIndent();
    text->push_back('}');
  }
  End();
  return true;
}

bool StyledTextWriter::WriteMember(const Member& member) {
  if (member.text != nullptr) {
    return AppendQuoted(member.text->data(), member.text->data() + member.text->size(), m_doc);
  }
  if (member.values != nullptr) return WriteArray(PointedElements{*member.values});
  m_doc->append(Json::valueToString(static_cast<Json::LargestInt>(member.number)));
  return true;
}

bool StyledTextWriter::ScalarText(const Json::Value& value, std::string* out) {
  switch (value.type()) {
    case Json::nullValue: out->append("null"); return true;
    case Json::intValue: out->append(Json::valueToString(value.asLargestInt())); return true;
    case Json::uintValue: out->append(Json::valueToString(value.asLargestUInt())); return true;
    case Json::realValue: out->append(Json::valueToString(value.asDouble())); return true;
    case Json::booleanValue: out->append(value.asBool() ? "true" : "false"); return true;
    case Json::stringValue: {
      const char* begin = nullptr;
      const char* end = nullptr;
      if (!value.getString(&begin, &end)) return true;  // written as nothing
      return AppendQuoted(begin, end, out);
    }
    case Json::arrayValue:
    case Json::objectValue:
      if (!value.empty()) return false;
      out->append(value.type() == Json::arrayValue ? "[]" : "{}");
      return true;
  }
  return false;
}

void StyledTextWriter::WriteIndent() {
  std::string& doc = *m_doc;
  if (!doc.empty()) {
    const char last = doc.back();
    if (last == ' ') return;  // already indented
    if (last != '\n') doc.push_back('\n');
  }
  doc.append(m_indent);
}

bool StyledTextWriter::WriteValue(const Json::Value& value) {
  if (HasComment(value)) return false;
  if (value.type() == Json::arrayValue) return WriteArray(ArrayElements{value});
  if (value.type() != Json::objectValue || value.empty()) return ScalarText(value, m_doc);
  WriteIndent();
  m_doc->push_back('{');
  m_indent.append(kIndentSize, ' ');
  for (auto it = value.begin(); it != value.end(); ++it) {
    if (it != value.begin()) m_doc->push_back(',');
    WriteIndent();
    // Member names are quoted as C strings, as the dependency's writer does.
    const std::string name = it.name();
    if (!AppendQuoted(name.c_str(), name.c_str() + strlen(name.c_str()), m_doc)) return false;
    m_doc->append(" : ");
    if (!WriteValue(*it)) return false;
  }
  m_indent.resize(m_indent.size() - kIndentSize);
  WriteIndent();
  m_doc->push_back('}');
  return true;
}

template <typename Elements>
bool StyledTextWriter::IsMultiline(const Elements& elements, size_t first, bool* ok) {
  const Json::ArrayIndex size = elements.size();
  if (size * 3 >= kRightMargin) return true;
  bool nested = false;
  elements.ForEach([&](const Json::Value& element) {
    nested = (element.isArray() || element.isObject()) && !element.empty();
    return !nested;
  });
  if (nested) return true;
  Json::ArrayIndex lineLength = 4 + (size - 1) * 2;  // "[ " + ", " between + " ]"
  size_t index = first;
  *ok = elements.ForEach([&](const Json::Value& element) {
    if (HasComment(element)) return false;
    if (m_children.size() <= index) m_children.emplace_back();
    std::string& text = m_children[index++];
    text.clear();
    if (!ScalarText(element, &text)) return false;
    lineLength += static_cast<Json::ArrayIndex>(text.size());
    return true;
  });
  m_childrenUsed = index;
  return lineLength >= kRightMargin;
}

template <typename Elements>
bool StyledTextWriter::WriteArray(const Elements& elements) {
  if (elements.size() == 0) {
    m_doc->append("[]");
    return true;
  }
  const size_t first = m_childrenUsed;
  bool ok = true;
  const bool multiline = IsMultiline(elements, first, &ok);
  if (!ok) return false;
  const bool haveTexts = m_childrenUsed > first;
  if (!multiline) {
    m_doc->append("[ ");
    for (size_t i = first; i < m_childrenUsed; ++i) {
      if (i > first) m_doc->append(", ");
      m_doc->append(m_children[i]);
    }
    m_doc->append(" ]");
    m_childrenUsed = first;
    return true;
  }
  WriteIndent();
  m_doc->push_back('[');
  m_indent.append(kIndentSize, ' ');
  size_t index = first;
  bool firstElement = true;
  if (!elements.ForEach([&](const Json::Value& element) {
        if (!firstElement) m_doc->push_back(',');
        firstElement = false;
        WriteIndent();
        if (haveTexts) {
          m_doc->append(m_children[index++]);
          return true;
        }
        return WriteValue(element);
      })) {
    return false;
  }
  m_childrenUsed = first;
  m_indent.resize(m_indent.size() - kIndentSize);
  WriteIndent();
  m_doc->push_back(']');
  return true;
}
