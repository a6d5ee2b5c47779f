// Arbitrary text as a command document and as a URL query: every query of
// JsonCommand, both result forms of what it parsed, every converter on every
// parameter, and the URL builders. Nothing may throw or crash, and the styled
// text must be the reference writer's, byte for byte.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include <json/writer.h>

#include "json_command/json_command.h"

namespace {

void ConvertAll(const Json::Value* value) {
  JsonCommand::ConvertString(value);
  JsonCommand::ConvertShort(value);
  JsonCommand::ConvertInt(value);
  JsonCommand::ConvertInt64(value);
  JsonCommand::ConvertUInt(value);
  JsonCommand::ConvertDouble(value);
  JsonCommand::ConvertFloat(value);
  JsonCommand::ConvertBOOL(value);

  std::string text;
  short s = 0;
  int i = 0, count = 0, *numbers = nullptr;
  unsigned int u = 0;
  double d = 0;
  float f = 0;
  signed char b = 0;
  unsigned char c = 0;
  JsonCommand::ConvertString(value, &text);
  JsonCommand::GetUTF8String(value, &text);
  JsonCommand::ConvertShort(value, &s);
  JsonCommand::ConvertInt(value, &i);
  JsonCommand::ConvertUInt(value, &u);
  JsonCommand::ConvertDouble(value, &d);
  JsonCommand::ConvertFloat(value, &f);
  JsonCommand::ConvertBOOL(value, &b);
  JsonCommand::ConvertUChar(value, &c);
  JsonCommand::ConvertIntArray(value, &numbers, &count);
  delete[] numbers;

  std::map<std::string, Json::Value*> members;
  JsonCommand::ConvertObject(value, &members);
  for (auto& member : members) delete member.second;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
std::string Reference(const Json::Value& value) {
  Json::StyledWriter writer;
  return writer.write(value);
}
#pragma GCC diagnostic pop

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);

  JsonCommand command(text);
  command.IfKeyExist(text);
  command.GetValue(text);
  delete command.GetJsonValue(text);
  delete command.GetJsonValue("parameter");
  command.GetVersion();
  command.GetPropertyType();
  command.GetCommandType();
  const std::string cmdId = command.GetCmdId(), id = command.GetClientID(), name = command.GetFunctionName();

  // Every parameter, plus the indexes just outside the list.
  std::vector<Json::Value*> values;
  for (int index = -1, count = command.GetParameterCount(); index <= count; ++index) {
    command.GetParameterType(index);
    Json::Value* parameter = command.GetParameter(index);
    ConvertAll(parameter);
    if (parameter != nullptr) values.push_back(parameter);
  }
  JsonCommand::Encode(id, name, values, true, -1, cmdId);
  JsonCommand::Encode(cmdId, id, name, values, false, 0, "");
  for (Json::Value* value : values) delete value;

  // The text with comments kept, as results built from handler JSON are.
  // Whatever writes the styled text must give the reference writer's bytes,
  // alone and as a result value.
  Json::Value commented;
  if (JsonCommand::ParseText(text, &commented, true)) {
    if (JsonCommand::StyledText(commented) != Reference(commented)) abort();
    Json::Value document(Json::objectValue);
    document["id"] = id;
    document["method"] = name;
    document["result"].append(commented);
    std::vector<Json::Value*> lent = {&commented};
    if (JsonCommand::Encode(id, name, lent, false, 0, "") != Reference(document)) abort();
    ConvertAll(&commented);
  }

  JsonCommand::GetURLParamters(text);
  JsonCommand::EncodeURL(text);
  JsonCommand::ParseURL(text);
  JsonCommand::EncodeFun(name, text);
  JsonCommand::GetDiskFileJson(text);
  return 0;
}
