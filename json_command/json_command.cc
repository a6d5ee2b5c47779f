#include "json_command/json_command.h"

#include <json/reader.h>
#include <json/writer.h>

#include <exception>

#include "environment/log.h"

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

std::string JsonCommand::StyledText(const Json::Value& value) {
  try {
    Json::StyledWriter writer;
    return writer.write(value);
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

// Steps shared by both result forms after their identifying members: the
// function name under "event" or "method", then the result values.
void AddNameAndResults(Json::Value& root, const std::string& name, const std::vector<Json::Value*>& values,
                       bool isEvent) {
  root[isEvent ? "event" : "method"] = name;
  for (const Json::Value* value : values) {
    root["result"].append(value != nullptr ? *value : Json::Value());
  }
}

}  // namespace

std::string JsonCommand::Encode(const std::string& id, const std::string& name, const std::vector<Json::Value*>& values,
                                bool isEvent, int errorCode, std::string description) {
  try {
    Json::Value root(Json::objectValue);
    root["id"] = id;
    if (errorCode != 0) {
      root["exception"] = errorCode;
      root["description"] = description;
    }
    AddNameAndResults(root, name, values, isEvent);
    return StyledText(root);
  } catch (...) {
    return std::string();
  }
}

std::string JsonCommand::Encode(const std::string& session, const std::string& object, const std::string& name,
                                const std::vector<Json::Value*>& values, bool isEvent, int errorCode,
                                std::string description) {
  try {
    Json::Value root(Json::objectValue);
    root["session"] = session;
    root["object"] = object;
    root["exception"] = errorCode;
    root["description"] = errorCode != 0 ? description : std::string("Successful");
    AddNameAndResults(root, name, values, isEvent);
    return StyledText(root);
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
