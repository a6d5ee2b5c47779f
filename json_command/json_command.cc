#include "json_command/json_command.h"

#include <json/reader.h>
#include <json/writer.h>

#include <exception>

#include "environment/log.h"
#include "json_command/styled_text.h"

// Json::Reader and Json::StyledWriter are the reference behaviour of the
// command and result formats; the dependency marks them deprecated in favour
// of builders whose defaults differ (tab indentation, other root rules).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

bool JsonCommand::ParseText(const std::string& text, Json::Value* root, bool collectComments) {
  if (root == nullptr) return false;
  bool parsed = false;
  try {
    // A fresh value: the reader replaces a value's content but keeps comments
    // that an earlier parse attached to it.
    *root = Json::Value();
    Json::Reader reader;
    parsed = reader.parse(text, *root, collectComments);
  } catch (...) {
    // The reader throws when nesting passes its limit; such a text is as
    // unusable as one with a syntax error.
    parsed = false;
  }
  if (!parsed) {
    try {
      *root = Json::Value();
    } catch (...) {
    }
  }
  return parsed;
}

namespace {

// Each thread keeps one writer, and with it its buffers, between calls.
StyledTextWriter& ThreadWriter() {
  thread_local StyledTextWriter writer;
  return writer;
}

}  // namespace

std::string JsonCommand::StyledText(const Json::Value& value) {
  // What the thread's writer leaves aside (comments, strings with a 0 byte)
  // the reference writer writes.
  try {
    std::string text;
    if (ThreadWriter().Write(value, &text)) return text;
    Json::StyledWriter reference;
    return reference.write(value);
  } catch (...) {
    return std::string();
  }
}

#pragma GCC diagnostic pop

JsonCommand::JsonCommand() : m_bValid(false) {}

JsonCommand::JsonCommand(const std::string& text) : m_bValid(false) { SetJsonString(text); }

bool JsonCommand::SetJsonString(const std::string& text) {
  m_strJson = text;
  m_bValid = ParseText(m_strJson, &m_root, false);
  return m_bValid;
}

const Json::Value* JsonCommand::Member(const std::string& key) const {
  if (!m_bValid || m_root.type() != Json::objectValue) return nullptr;
  return m_root.find(key.data(), key.data() + key.size());
}

std::string JsonCommand::MemberText(const std::string& key) const {
  const Json::Value* member = Member(key);
  if (member == nullptr) return std::string();
  switch (member->type()) {
    case Json::arrayValue:
    case Json::objectValue:
      // The dependency refuses to convert these (it throws).
      return std::string();
    default:
      break;
  }
  try {
    return member->asString();
  } catch (...) {
    return std::string();
  }
}

bool JsonCommand::IfKeyExist(const std::string& key) const { return Member(key) != nullptr; }

std::string JsonCommand::GetValue(const std::string& key) const { return MemberText(key); }

Json::Value* JsonCommand::GetJsonValue(const std::string& key) const {
  const Json::Value* member = Member(key);
  if (member == nullptr) return nullptr;
  try {
    return new Json::Value(*member);
  } catch (...) {
    return nullptr;
  }
}

std::string JsonCommand::GetCmdId() const { return MemberText("cmdId"); }

std::string JsonCommand::GetClientID() const { return MemberText("id"); }

std::string JsonCommand::GetVersion() const { return MemberText("version"); }

int JsonCommand::GetParameterCount() const {
  const Json::Value* parameters = Member("parameter");
  if (parameters == nullptr || parameters->type() != Json::arrayValue) return 0;
  return static_cast<int>(parameters->size());
}

int JsonCommand::GetParameterType(int index) const {
  if (index < 0 || index >= GetParameterCount()) return 9;
  const Json::Value& parameter = (*Member("parameter"))[static_cast<Json::ArrayIndex>(index)];
  switch (parameter.type()) {
    case Json::nullValue:
      return 0;
    case Json::booleanValue:
      return 1;
    case Json::intValue:
      return 3;
    case Json::uintValue:
      return 4;
    case Json::realValue:
      return 5;
    case Json::stringValue:
      return 6;
    case Json::arrayValue:
      return 7;
    case Json::objectValue:
      return 8;
  }
  return 9;
}

Json::Value* JsonCommand::GetParameter(int index) const {
  if (GetParameterType(index) == 9) return nullptr;
  try {
    return new Json::Value((*Member("parameter"))[static_cast<Json::ArrayIndex>(index)]);
  } catch (...) {
    return nullptr;
  }
}

std::string JsonCommand::GetPropertyType() const {
  if (Member("property") == nullptr) return std::string();
  return Member("parameter") != nullptr ? "set" : "get";
}

int JsonCommand::GetCommandType() const {
  // Members are kept in byte order of their keys and "event" < "method" <
  // "property", so testing the three keys in that order finds the one that
  // comes first in the document's member order.
  if (Member("event") != nullptr) return kEvent;
  if (Member("method") != nullptr) return kMethod;
  if (Member("property") != nullptr) return kProperty;
  return kNoCommand;
}

std::string JsonCommand::GetFunctionName() const {
  switch (GetCommandType()) {
    case kMethod:
      return MemberText("method");
    case kProperty:
      return MemberText("property");
    case kEvent:
      return MemberText("event");
    default:
      return std::string();
  }
}

namespace {

using DocumentMember = StyledTextWriter::Member;

DocumentMember Text(const char* name, const std::string& text) { return DocumentMember{name, &text, 0, nullptr}; }
DocumentMember Number(const char* name, int number) { return DocumentMember{name, nullptr, number, nullptr}; }
DocumentMember Values(const char* name, const std::vector<Json::Value*>& values) { return DocumentMember{name, nullptr, 0, &values}; }

// The styled text of a result document. The members are written in place by
// the thread's writer; a document it leaves aside (values with comments or
// with a 0 byte in a string) is built as a Json::Value and written by the
// reference writer. There the values are lent rather than copied: each is
// swapped into its place and swapped back once the text is written, so the
// caller's values are unchanged afterwards, also when writing fails.
std::string DocumentText(const std::vector<DocumentMember>& members) {
  std::string text;
  if (ThreadWriter().WriteDocument(members, &text)) return text;
  Json::Value root(Json::objectValue);
  const std::vector<Json::Value*>* lent = nullptr;
  Json::Value* results = nullptr;
  for (const DocumentMember& member : members) {
    Json::Value& slot = root[member.name];
    if (member.text != nullptr) {
      slot = *member.text;
    } else if (member.values != nullptr) {
      slot.resize(static_cast<Json::ArrayIndex>(member.values->size()));
      lent = member.values;
      results = &slot;
    } else {
      slot = member.number;
    }
  }
  struct Lend {
    Json::Value* results;
    const std::vector<Json::Value*>* values;
    void Swap() {
      for (Json::ArrayIndex i = 0; values != nullptr && i < values->size(); ++i) {
        if ((*values)[i] != nullptr) (*results)[i].swap(*(*values)[i]);
      }
    }
    ~Lend() { Swap(); }
  } lend{results, lent};
  lend.Swap();
  return JsonCommand::StyledText(root);
}

}  // namespace

std::string JsonCommand::Encode(const std::string& id, const std::string& name, const std::vector<Json::Value*>& values,
                                bool isEvent, int errorCode, std::string description) {
  try {
    std::vector<DocumentMember> members{Text("id", id), Text(isEvent ? "event" : "method", name)};
    if (errorCode != 0) {
      members.push_back(Number("exception", errorCode));
      members.push_back(Text("description", description));
    }
    if (!values.empty()) members.push_back(Values("result", values));
    return DocumentText(members);
  } catch (...) {
    return std::string();
  }
}

std::string JsonCommand::Encode(const std::string& session, const std::string& object, const std::string& name,
                                const std::vector<Json::Value*>& values, bool isEvent, int errorCode,
                                std::string description) {
  try {
    if (errorCode == 0) description = "Successful";
    std::vector<DocumentMember> members{Text("session", session), Text("object", object), Number("exception", errorCode),
                                Text("description", description), Text(isEvent ? "event" : "method", name)};
    if (!values.empty()) members.push_back(Values("result", values));
    return DocumentText(members);
  } catch (...) {
    return std::string();
  }
}

std::string JsonCommand::GetDiskFileJson(const std::string& path) {
  std::string text;
  try {
    Json::Value root(Json::objectValue);
    root["id"] = "0";
    root["method"] = "GetFile";
    root["parameter"].append(path);
    text = StyledText(root);
  } catch (...) {
    text.clear();
  }
  LogDebug("Encode url succeed. cmd = [%s].", text.c_str());
  return text;
}
