// The command document: its queries, the parser's limits and the result
// documents, compared byte for byte.
#include "json_command/json_command.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

std::string NestedArrays(size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

TEST(JsonCommandQueries, CommandTypeFunctionNameAndPropertyType) {
  const struct {
    const char* text;
    int commandType;
    const char* functionName;
    const char* propertyType;
  } cases[] = {
      // The first of the keys in byte order decides.
      {"{\"method\":\"A\",\"event\":\"B\"}", 2, "B", ""},
      {"{\"method\":\"A\",\"property\":\"P\"}", 0, "A", "get"},
      {"{\"property\":\"P\"}", 1, "P", "get"},
      {"{\"property\":\"P\",\"parameter\":[1]}", 1, "P", "set"},
      {"{\"property\":\"P\",\"parameter\":null}", 1, "P", "set"},
      // Names are member texts as the dependency converts them.
      {"{\"method\":5}", 0, "5", ""},
      {"{\"method\":[\"A\"]}", 0, "", ""},
      // Keys match exactly; valid JSON that is not an object has no members.
      {"{\"Method\":\"A\",\"EVENT\":\"B\"}", 3, "", ""},
      {"[\"method\",\"A\"]", 3, "", ""},
  };
  for (const auto& c : cases) {
    JsonCommand command(c.text);
    EXPECT_EQ(c.commandType, command.GetCommandType()) << c.text;
    EXPECT_EQ(c.functionName, command.GetFunctionName()) << c.text;
    EXPECT_EQ(c.propertyType, command.GetPropertyType()) << c.text;
  }
}

TEST(JsonCommandQueries, ParametersTypesAndCopies) {
  JsonCommand command(
      "{\"parameter\":[null, true, -1, 1.5, \"s\", [], {\"a\":\"x\"}, 2147483647, 2147483648, 2.0,"
      " 18446744073709551615, 18446744073709551616]}");
  ASSERT_EQ(12, command.GetParameterCount());
  const int expected[] = {0, 1, 3, 5, 6, 7, 8, 3, 4, 5, 4, 5};
  for (int i = 0; i < 12; ++i) EXPECT_EQ(expected[i], command.GetParameterType(i)) << i;
  EXPECT_EQ(9, command.GetParameterType(12));
  EXPECT_EQ(9, command.GetParameterType(-1));
  EXPECT_EQ(nullptr, command.GetParameter(12));
  EXPECT_EQ(nullptr, command.GetParameter(-1));
  // A null parameter is a parameter; each one is a copy of its own.
  std::unique_ptr<Json::Value> first(command.GetParameter(0)), object(command.GetParameter(6));
  ASSERT_TRUE(first != nullptr && object != nullptr);
  EXPECT_TRUE(first->isNull());
  (*object)["a"] = "changed";
  EXPECT_EQ("x", (*std::unique_ptr<Json::Value>(command.GetParameter(6)))["a"].asString());
  EXPECT_EQ(12u, std::unique_ptr<Json::Value>(command.GetJsonValue("parameter"))->size());

  // Only an array holds parameters.
  for (const char* text : {"{\"parameter\":{\"a\":1,\"b\":2}}", "{\"parameter\":\"ab\"}", "{\"method\":\"M\"}"}) {
    JsonCommand other(text);
    EXPECT_EQ(0, other.GetParameterCount()) << text;
    EXPECT_EQ(9, other.GetParameterType(0)) << text;
  }
}

TEST(JsonCommandQueries, IdentifiersAndMemberTexts) {
  JsonCommand command;
  ASSERT_TRUE(command.SetJsonString(
      "{\"id\":\"c1\",\"cmdId\":\"42\",\"version\":\"14.3\",\"u\":3000000000,\"w\":2.0,\"t\":0.1,\"b\":false,"
      "\"z\":null,\"a\":[1],\"\":\"e\"}"));
  EXPECT_EQ("c1|42|14.3", command.GetClientID() + "|" + command.GetCmdId() + "|" + command.GetVersion());
  std::string texts;
  for (const char* key : {"u", "w", "t", "b", "z", "a", "missing"}) texts += command.GetValue(key) + "|";
  EXPECT_EQ("3000000000|2.0|0.10000000000000001|false||||", texts);
  EXPECT_EQ(nullptr, command.GetJsonValue("missing"));
  EXPECT_TRUE(command.IfKeyExist("z") && command.IfKeyExist(""));
  EXPECT_FALSE(command.IfKeyExist("ID") || command.IfKeyExist("i"));

  JsonCommand numeric("{\"id\":7,\"cmdId\":-1,\"version\":[\"1\"]}");
  EXPECT_EQ("7|-1|", numeric.GetClientID() + "|" + numeric.GetCmdId() + "|" + numeric.GetVersion());
  // A key holding a NUL byte matches only in full.
  JsonCommand nul("{\"a\\u0000b\":\"v\\u0000w\"}");
  EXPECT_FALSE(nul.IfKeyExist("a"));
  EXPECT_EQ(std::string("v\0w", 3), nul.GetValue(std::string("a\0b", 3)));
}

TEST(JsonCommandQueries, ReaderSemantics) {
  // The last duplicate key wins, text after the value is ignored and comments
  // are skipped.
  EXPECT_EQ("2", JsonCommand("{\"id\":\"1\",\"id\":\"2\"}").GetClientID());
  EXPECT_EQ("1", JsonCommand("{\"id\":\"1\"} trailing text {").GetClientID());
  JsonCommand commented("/* head */ {\"id\":\"1\", // note\n \"parameter\":[5 /* five */]}");
  EXPECT_EQ("5\n", JsonCommand::StyledText(*std::unique_ptr<Json::Value>(commented.GetParameter(0))));
  // A document is valid again after an invalid one, and invalid after a valid one.
  JsonCommand reused("{");
  EXPECT_TRUE(reused.SetJsonString("{\"method\":\"M\"}"));
  EXPECT_EQ("M", reused.GetFunctionName());
  EXPECT_FALSE(reused.SetJsonString("{\"method\":"));
  EXPECT_EQ("", reused.GetFunctionName());
}

// Every query of a document that is not valid answers its absent value.
void ExpectAbsent(const std::string& text) {
  JsonCommand command;
  EXPECT_FALSE(command.SetJsonString(text)) << text.substr(0, 80);
  EXPECT_FALSE(command.IfKeyExist("id") || command.IfKeyExist("method"));
  EXPECT_EQ("", command.GetValue("id") + command.GetCmdId() + command.GetClientID() + command.GetVersion() +
                    command.GetPropertyType() + command.GetFunctionName());
  EXPECT_EQ(nullptr, command.GetJsonValue("parameter"));
  EXPECT_EQ(0, command.GetParameterCount());
  EXPECT_EQ(9, command.GetParameterType(0));
  EXPECT_EQ(nullptr, command.GetParameter(0));
  EXPECT_EQ(3, command.GetCommandType());
}

TEST(JsonCommandInvalid, EveryQueryAnswersAbsent) {
  EXPECT_EQ(3, JsonCommand().GetCommandType());
  for (const char* text : {"", "{", "{\"id\":\"1\",}", "{'id':'1'}", "tru", "{\"id\":\"\\ud800\"}", "1e999", "NaN"}) {
    ExpectAbsent(text);
  }
  // The reader fills part of the document before it finds the error; none of
  // that may show through.
  ExpectAbsent("{\"id\":\"1\",\"cmdId\":\"2\",\"version\":\"3\",\"method\":\"M\",\"parameter\":[1,2,]}");
}

TEST(JsonCommandInvalid, NestingLimitOfTheReader) {
  // 1,000 levels, the command object included, are accepted.
  JsonCommand deepest("{\"id\":\"1\",\"method\":\"M\",\"parameter\":[" + NestedArrays(998) + "]}");
  ASSERT_EQ(1, deepest.GetParameterCount());
  std::unique_ptr<Json::Value> parameter(deepest.GetParameter(0));
  int depth = 1;
  for (const Json::Value* level = parameter.get(); level->isArray() && level->size() == 1; level = &(*level)[0u]) {
    ++depth;
  }
  EXPECT_EQ(998, depth);
  // One more level makes the reader throw; that is an invalid command.
  ExpectAbsent("{\"id\":\"1\",\"method\":\"M\",\"parameter\":[" + NestedArrays(999) + "]}");
  ExpectAbsent(NestedArrays(100000));
  ExpectAbsent(std::string(100000, '['));
  std::string objects;
  for (int i = 0; i < 100000; ++i) objects += "{\"a\":";
  ExpectAbsent(objects + "1" + std::string(100000, '}'));
}

TEST(JsonCommandInvalid, HugeDocumentsHaveNoSizeLimit) {
  std::string text = "{\"method\":\"M\",\"parameter\":[";
  for (int i = 0; i < 1000000; ++i) text += "7,";
  text += "\"" + std::string(8 << 20, 'x') + "\"]}";
  EXPECT_EQ(1000001, JsonCommand(text).GetParameterCount());
  ExpectAbsent(text.substr(0, text.size() - 2));
}

TEST(JsonCommandEncode, ShortForm) {
  std::vector<Json::Value*> none;
  EXPECT_EQ("{\n   \"id\" : \"1\",\n   \"method\" : \"M\"\n}\n", JsonCommand::Encode("1", "M", none, false, 0, "x"));
  Json::Value five(5);
  std::vector<Json::Value*> one = {&five};
  EXPECT_EQ(
      "{\n   \"description\" : \"bad\",\n   \"event\" : \"M\",\n   \"exception\" : -2,\n   \"id\" : \"1\",\n"
      "   \"result\" : [ 5 ]\n}\n",
      JsonCommand::Encode("1", "M", one, true, -2, "bad"));
  // Values in order, escaped, a null pointer as null; the values are copied.
  Json::Value text("a\"b\\c\n\x01/\xc3\xa9"), object(Json::objectValue);
  object["k"] = 1;
  std::vector<Json::Value*> values = {&text, nullptr, &object};
  EXPECT_EQ(
      "{\n   \"id\" : \"i\\\"d\",\n   \"method\" : \"M\",\n   \"result\" : [\n"
      "      \"a\\\"b\\\\c\\n\\u0001/\\u00e9\",\n      null,\n      {\n         \"k\" : 1\n      }\n   ]\n}\n",
      JsonCommand::Encode("i\"d", "M", values, false, 0, ""));
}

TEST(JsonCommandEncode, SessionFormAndDiskFileCommand) {
  Json::Value value("v");
  std::vector<Json::Value*> values = {&value}, none;
  EXPECT_EQ(
      "{\n   \"description\" : \"Successful\",\n   \"exception\" : 0,\n   \"method\" : \"M\",\n"
      "   \"object\" : \"O\",\n   \"result\" : [ \"v\" ],\n   \"session\" : \"S\"\n}\n",
      JsonCommand::Encode("S", "O", "M", values, false, 0, "ignored"));
  EXPECT_EQ(
      "{\n   \"description\" : \"failed\",\n   \"event\" : \"E\",\n   \"exception\" : -2200,\n"
      "   \"object\" : \"\",\n   \"session\" : \"\"\n}\n",
      JsonCommand::Encode("", "", "E", none, true, -2200, "failed"));
  EXPECT_EQ(
      "{\n   \"id\" : \"0\",\n   \"method\" : \"GetFile\",\n"
      "   \"parameter\" : [ \"C:\\\\d\\\\\\\"q\\\".txt\" ]\n}\n",
      JsonCommand::GetDiskFileJson("C:\\d\\\"q\".txt"));
}

}  // namespace
