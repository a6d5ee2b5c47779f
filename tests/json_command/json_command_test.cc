// The command document: queries, the reader's limits, result documents byte
// for byte, and a thin table of the converters. That nothing throws on any
// text (URL builders included), and that the styled text is the dependency's
// reference writer's, are the JSON fuzz target's properties.
#include "json_command/json_command.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string NestedArrays(size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

TEST(JsonCommand, QueriesTypesAndIdentity) {
  const struct { const char* text; int type; const char* name; const char* property; } kinds[] = {
      {"{\"method\":\"A\",\"event\":\"B\"}", 2, "B", ""},  // the first of the keys in byte order decides
      {"{\"method\":\"A\",\"property\":\"P\"}", 0, "A", "get"}, {"{\"property\":\"P\"}", 1, "P", "get"},
      {"{\"property\":\"P\",\"parameter\":null}", 1, "P", "set"}, {"{\"method\":5}", 0, "5", ""},
      {"{\"method\":[\"A\"]}", 0, "", ""}, {"{\"Method\":\"A\"}", 3, "", ""}, {"[\"method\",\"A\"]", 3, "", ""},
  };
  for (const auto& k : kinds) {
    JsonCommand command(k.text);
    EXPECT_EQ(k.type, command.GetCommandType()) << k.text;
    EXPECT_EQ(k.name, command.GetFunctionName()) << k.text;
    EXPECT_EQ(k.property, command.GetPropertyType()) << k.text;
  }
  // Type codes from the stored kind: 2^31 is unsigned, 2.0 real, 2^64 real.
  JsonCommand params("{\"id\":7,\"cmdId\":\"42\",\"version\":[\"1\"],\"parameter\":[null, true, -1, 1.5, \"s\", [],"
                     " {\"a\":\"x\"}, 2147483648, 2.0, 18446744073709551616]}");
  std::string types;
  for (int i = -1; i <= 10; ++i) types += std::to_string(params.GetParameterType(i));
  EXPECT_EQ("901356784559", types);
  EXPECT_EQ("7|42|", params.GetClientID() + "|" + params.GetCmdId() + "|" + params.GetVersion());
  std::unique_ptr<Json::Value> object(params.GetParameter(6));
  (*object)["a"] = "changed";
  EXPECT_EQ("x", (*std::unique_ptr<Json::Value>(params.GetParameter(6)))["a"].asString()) << "copies";
  EXPECT_EQ(0, JsonCommand("{\"parameter\":{\"a\":1}}").GetParameterCount()) << "only an array holds parameters";
  JsonCommand texts("{\"u\":3000000000,\"w\":2.0,\"t\":0.1,\"b\":false,\"a\":[1],\"a\\u0000b\":\"v\\u0000w\"}");
  EXPECT_EQ("3000000000|2.0|0.10000000000000001|false|", texts.GetValue("u") + "|" + texts.GetValue("w") + "|" +
                                                             texts.GetValue("t") + "|" + texts.GetValue("b") + "|" +
                                                             texts.GetValue("a"));
  EXPECT_EQ(std::string("v\0w", 3), texts.GetValue(std::string("a\0b", 3)));
  EXPECT_FALSE(JsonCommand("{\"a\\u0000b\":1}").IfKeyExist("a")) << "a key with a 0 byte matches only in full";
  EXPECT_EQ("2", JsonCommand("{\"id\":\"1\",\"id\":\"2\"} trailing {").GetClientID());
  EXPECT_EQ((std::map<std::string, std::string>{{"", "e"}, {"a", "1"}, {"c", "x=y"}}),
            JsonCommand::GetURLParamters("a=1&=e&b&a=3&c=x=y")) << "the first of a key, cut at its first '='";
}

// A text the reader refuses, or throws on, is an invalid command: every query
// answers its absent value, whatever the reader filled in before it stopped.
TEST(JsonCommand, InvalidTextsAnswerAbsentValues) {
  JsonCommand deepest("{\"id\":\"1\",\"method\":\"M\",\"parameter\":[" + NestedArrays(998) + "]}");
  EXPECT_EQ(1, deepest.GetParameterCount()) << "1,000 levels are accepted";
  std::string objects;
  for (int i = 0; i < 100000; ++i) objects += "{\"a\":";
  const std::string rows[] = {"", "{", "{\"id\":\"1\",}", "{'id':'1'}", "{\"id\":\"\\ud800\"}", "1e999",
                              "{\"id\":\"1\",\"method\":\"M\",\"parameter\":[1,2,]}",
                              "{\"id\":\"1\",\"method\":\"M\",\"parameter\":[" + NestedArrays(999) + "]}",
                              NestedArrays(100000), std::string(100000, '['), objects + "1" + std::string(100000, '}')};
  for (const std::string& text : rows) {
    JsonCommand command;
    EXPECT_FALSE(command.SetJsonString(text)) << text.substr(0, 60);
    EXPECT_EQ("|3|0|9", command.GetClientID() + command.GetFunctionName() + command.GetVersion() + "|" +
                            std::to_string(command.GetCommandType()) + "|" + std::to_string(command.GetParameterCount())
                            + "|" + std::to_string(command.GetParameterType(0))) << text.substr(0, 60);
    EXPECT_EQ(nullptr, command.GetJsonValue("parameter"));
  }
  std::string huge = "{\"method\":\"M\",\"parameter\":[";
  for (int i = 0; i < 100000; ++i) huge += "7,";
  huge += "\"" + std::string(8 << 20, 'x') + "\"]}";
  EXPECT_EQ(100001, JsonCommand(huge).GetParameterCount()) << "no size limit";
}


TEST(ResultDocuments, BothFormsByteForByte) {
  Json::Value text("a\"b\\c\n\x01/\xc3\xa9"), object(Json::objectValue);
  object["k"] = 1;
  std::vector<Json::Value*> values = {&text, nullptr, &object}, none;
  EXPECT_EQ("{\n   \"id\" : \"i\\\"d\",\n   \"method\" : \"M\",\n   \"result\" : [\n"
            "      \"a\\\"b\\\\c\\n\\u0001/\\u00e9\",\n      null,\n      {\n         \"k\" : 1\n      }\n   ]\n}\n",
            JsonCommand::Encode("i\"d", "M", values, false, 0, "ignored for code 0"));
  EXPECT_EQ("{\n   \"description\" : \"bad\",\n   \"event\" : \"M\",\n   \"exception\" : -2,\n   \"id\" : \"1\"\n}\n",
            JsonCommand::Encode("1", "M", none, true, -2, "bad"));
  Json::Value zero(std::string("a\0b", 3));  // a 0 byte: the reference writer, the value lent and given back
  EXPECT_NE(std::string::npos, JsonCommand::Encode("1", "M", values = {&zero}, false, 0, "").find("[ \"a\\u0000b\" ]"));
  EXPECT_EQ(std::string("a\0b", 3), zero.asString());
}

Json::Value Parse(const char* text) {
  Json::Value value;
  JsonCommand::ParseText(text, &value, false);
  return value;
}

// Every converter on one value, as one line: ConvertInt, (ok:out) of
// ConvertInt, ConvertShort and ConvertUInt, ConvertInt64, ConvertDouble and
// (ok:out), ConvertBOOL and (ok:out), (ok:out) of ConvertUChar and
// ConvertString, (ok:count:elements) of ConvertIntArray, (ok:members) of
// ConvertObject. Untouched outputs keep the sentinels 77, 7, "-" and -9.
std::string AllConversions(const Json::Value* v) {
  int i = 77, count = -9, *numbers = nullptr;
  short s = 77;
  unsigned int u = 77;
  double d = 77;
  signed char b = 7;
  unsigned char c = 77;
  std::string t = "-";
  std::map<std::string, Json::Value*> members;
  std::ostringstream line;
  line << JsonCommand::ConvertInt(v) << " " << JsonCommand::ConvertInt(v, &i) << ":" << i << " "
       << JsonCommand::ConvertShort(v, &s) << ":" << s << " " << JsonCommand::ConvertUInt(v, &u) << ":" << u << " "
       << JsonCommand::ConvertInt64(v) << " " << JsonCommand::ConvertDouble(v) << " "
       << JsonCommand::ConvertDouble(v, &d) << ":" << d << " " << int(JsonCommand::ConvertBOOL(v)) << " "
       << JsonCommand::ConvertBOOL(v, &b) << ":" << int(b) << " " << JsonCommand::ConvertUChar(v, &c) << ":" << int(c)
       << " " << JsonCommand::ConvertString(v, &t) << ":" << t << " "
       << JsonCommand::ConvertIntArray(v, &numbers, &count) << ":" << count;
  for (int n = 0; n < count; ++n) line << (n == 0 ? ":" : "+") << numbers[n];
  line << " " << JsonCommand::ConvertObject(v, &members) << ":" << members.size();
  for (auto& member : members) delete member.second;
  delete[] numbers;
  return line.str();
}

// One row per JSON kind (a null pointer first) and per surprising text.
TEST(Converters, EveryKindThroughEveryConverter) {
  const struct { const char* json; const char* line; } rows[] = {
      {nullptr, "0 0:77 0:77 0:77 0 0 0:77 0 0:7 0:77 0:- 0:-9 0:0"},
      {"null", "0 0:-1 0:-1 0:0 0 0 0:0 0 1:0 0:0 1:NULL 1:0 0:0"},
      {"{\"a\":1}", "0 0:-1 0:-1 0:0 0 0 0:0 0 0:7 0:0 0:- 0:-9 1:1"},
      {"[5, \"6\", true]", "0 0:-1 0:-1 0:0 0 0 0:0 0 0:7 0:0 1:[ 5, \"6\", true ]\n 0:3:5+6+0 0:0"},
      {"true", "1 0:-1 0:-1 0:0 0 1 0:0 1 1:1 0:0 1:true 0:-9 0:0"},
      {"-4294967299", "-3 1:-3 1:-3 1:4294967293 -4294967299 -4.29497e+09 1:-4.29497e+09 1 1:1 1:253 1:-4294967299 "
                      "1:1:-3 0:0"},
      {"18446744073709551614", "-2 1:-2 1:-2 1:4294967294 9223372036854775807 1.84467e+19 1:1.84467e+19 1 1:1 1:254 "
                                "1:18446744073709551614 1:1:-2 0:0"},
      {"2.7", "2 1:2 1:2 1:2 2 2.7 1:2.7 1 1:1 0:0 1:2.700000 0:-9 0:0"},
      {"\"-2a.5\"", "-2 1:-2 1:-2 1:4294967294 -2 -2 1:-2 0 0:7 1:45 1:-2a.5 1:1:-2 0:0"},  // read in base 10
      {"\"TRUE\"", "0 0:-1 1:0 1:0 0 0 1:0 1 1:7 1:84 1:TRUE 1:1:0 0:0"},  // kept: the answer only in the result
      {"\"\"", "0 0:-1 1:0 1:0 0 0 1:0 0 0:7 0:0 1: 1:1:0 0:0"},
  };
  for (const auto& row : rows) {
    const Json::Value value = row.json != nullptr ? Parse(row.json) : Json::Value();
    EXPECT_EQ(row.line, AllConversions(row.json != nullptr ? &value : nullptr)) << (row.json ? row.json : "null pointer");
  }
  Json::Value real = Parse("1.5");
  float single = 0;
  EXPECT_TRUE(JsonCommand::ConvertFloat(&real, &single) && single == 1.5f && JsonCommand::ConvertFloat(&real) == 1.5f &&
              !JsonCommand::ConvertFloat(nullptr, &single) && JsonCommand::ConvertFloat(nullptr) == 0);
}

}  // namespace
