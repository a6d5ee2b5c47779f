// The command document: queries, the reader's limits, result documents byte
// for byte, and a thin table of the converters. That nothing throws on any
// text (URL builders included), and that the styled text is the dependency's
// reference writer's, are the JSON fuzz target's properties.
#include "json_command/json_command.h"

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <memory>
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
                            std::to_string(command.GetCommandType()) + "|" +
                            std::to_string(command.GetParameterCount()) + "|" +
                            std::to_string(command.GetParameterType(0)))
        << text.substr(0, 60);
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
}

Json::Value Parse(const char* text) {
  Json::Value value;
  JsonCommand::ParseText(text, &value, false);
  return value;
}

// The converters nothing in the module calls: one row per behaviour a
// handler would rely on.
TEST(Converters, ThinTable) {
  const struct { const char* json; int one; bool twoOk; int two; } ints[] = {
      {"\"12abc\"", 12, true, 12}, {"\"abc\"", 0, false, -1}, {"true", 1, false, -1}, {"-2.9", -2, true, -2},
      {"3000000000", -1294967296, true, -1294967296}, {"\"00\"", 0, false, -1}, {"\"0\"", 0, true, 0}};
  for (const auto& row : ints) {
    Json::Value value = Parse(row.json);
    int out = 77;
    EXPECT_EQ(row.one, JsonCommand::ConvertInt(&value)) << row.json;
    EXPECT_EQ(row.twoOk, JsonCommand::ConvertInt(&value, &out)) << row.json;
    EXPECT_EQ(row.two, out) << row.json;
  }
  Json::Value text = Parse("\"TRUE\""), real = Parse("1.5"), array = Parse("[1, \"2\", true]"), nul = Parse("null");
  signed char flag = 7;
  EXPECT_TRUE(JsonCommand::ConvertBOOL(&text, &flag));
  EXPECT_EQ(7, flag) << "for text only the result carries the answer";
  EXPECT_EQ("1.500000|NULL", JsonCommand::ConvertString(&real) + "|" + JsonCommand::ConvertString(&nul));
  EXPECT_EQ(std::numeric_limits<long long>::max(), JsonCommand::ConvertInt64(&(real = Parse("18446744073709551615"))));
  int* numbers = nullptr;
  int count = 0;
  EXPECT_FALSE(JsonCommand::ConvertIntArray(&array, &numbers, &count)) << "stops at the boolean";
  EXPECT_EQ(3, count);
  EXPECT_EQ(2, numbers[1]);
  delete[] numbers;
  std::map<std::string, Json::Value*> members;
  EXPECT_FALSE(JsonCommand::ConvertObject(&array, &members));
  std::string copy;
  double number = 0;
  EXPECT_FALSE(JsonCommand::ConvertString(nullptr, &copy) || JsonCommand::ConvertString(&real, nullptr) ||
               JsonCommand::ConvertDouble(nullptr, &number) || JsonCommand::ConvertDouble(&real, nullptr) ||
               JsonCommand::ConvertInt64(nullptr) != 0);
  EXPECT_TRUE(JsonCommand::ConvertDouble(&(real = Parse("2.5")), &number) && number == 2.5);
  EXPECT_TRUE(JsonCommand::ConvertBOOL(&(real = Parse("-3")), &flag) && flag == 1) << "a nonzero number is 1";
}

}  // namespace
