// Arbitrary text as a command document and as a URL query: every query of
// JsonCommand, both result forms of what it parsed, every converter on every
// parameter, and the URL builders. Nothing may throw or crash.
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "json_command/json_command.h"

namespace {

void ConvertAll(const Json::Value* value) {
  std::string text;
  short s = 0;
  int i = 0;
  unsigned int u = 0;
  double d = 0;
  float f = 0;
  signed char b = 0;
  unsigned char c = 0;
  JsonCommand::ConvertString(value);
  JsonCommand::ConvertString(value, &text);
  JsonCommand::GetUTF8String(value, &text);
  JsonCommand::ConvertShort(value);
  JsonCommand::ConvertShort(value, &s);
  JsonCommand::ConvertInt(value);
  JsonCommand::ConvertInt(value, &i);
  JsonCommand::ConvertInt64(value);
  JsonCommand::ConvertUInt(value);
  JsonCommand::ConvertUInt(value, &u);
  JsonCommand::ConvertDouble(value);
  JsonCommand::ConvertDouble(value, &d);
  JsonCommand::ConvertFloat(value);
  JsonCommand::ConvertFloat(value, &f);
  JsonCommand::ConvertBOOL(value);
  JsonCommand::ConvertBOOL(value, &b);
  JsonCommand::ConvertUChar(value, &c);

  int* numbers = nullptr;
  int count = 0;
  JsonCommand::ConvertIntArray(value, &numbers, &count);
  delete[] numbers;

  std::map<std::string, Json::Value*> members;
  JsonCommand::ConvertObject(value, &members);
  for (auto& member : members) delete member.second;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);

  JsonCommand command(text);
  command.IfKeyExist("id");
  command.IfKeyExist(text);
  command.GetValue("method");
  command.GetValue(text);
  delete command.GetJsonValue("parameter");
  delete command.GetJsonValue(text);
  const std::string cmdId = command.GetCmdId();
  const std::string id = command.GetClientID();
  command.GetVersion();
  command.GetPropertyType();
  command.GetCommandType();
  const std::string name = command.GetFunctionName();

  // Every parameter, plus the indexes just outside the list.
  const int count = command.GetParameterCount();
  std::vector<Json::Value*> values;
  for (int index = -1; index <= count; ++index) {
    command.GetParameterType(index);
    Json::Value* parameter = command.GetParameter(index);
    ConvertAll(parameter);
    if (parameter != nullptr) values.push_back(parameter);
  }
  JsonCommand::Encode(id, name, values, false, 0, cmdId);
  JsonCommand::Encode(id, name, values, true, -1, cmdId);
  JsonCommand::Encode(cmdId, id, name, values, false, 0, "");
  JsonCommand::Encode(cmdId, id, name, values, true, -2200, name);
  for (Json::Value* value : values) delete value;

  // The text with comments kept, as results built from handler JSON are.
  Json::Value commented;
  if (JsonCommand::ParseText(text, &commented, true)) {
    JsonCommand::StyledText(commented);
    ConvertAll(&commented);
  }

  JsonCommand::GetURLParamters(text);
  JsonCommand::EncodeURL(text);
  JsonCommand::ParseURL(text);
  JsonCommand::EncodeFun(name, text);
  JsonCommand::GetDiskFileJson(text);
  return 0;
}
