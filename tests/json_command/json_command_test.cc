// The command document: its queries, the parser's limits and the result
// documents, compared byte for byte.
#include "json_command/json_command.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

// `depth` nested arrays around nothing: "[[...]]".
std::string NestedArrays(size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

// A command whose only parameter is `depth` nested arrays (the command object
// itself adds one level).
std::string CommandWithNesting(size_t depth) {
  return "{\"id\":\"1\",\"method\":\"M\",\"parameter\":[" + NestedArrays(depth - 1) + "]}";
}

struct KindCase {
  const char* text;
  int commandType;
  const char* functionName;
  const char* propertyType;
};

TEST(JsonCommandQueries, CommandTypeFunctionNameAndPropertyType) {
  const KindCase cases[] = {
      {"{\"method\":\"A\",\"event\":\"B\"}", 2, "B", ""},
      {"{\"method\":\"A\",\"property\":\"P\"}", 0, "A", "get"},
      {"{\"property\":\"P\",\"event\":\"E\"}", 2, "E", "get"},
      {"{\"property\":\"P\"}", 1, "P", "get"},
      {"{\"property\":\"P\",\"parameter\":[1]}", 1, "P", "set"},
      {"{\"property\":\"P\",\"parameter\":null}", 1, "P", "set"},
      {"{\"method\":\"Scan\",\"parameter\":[]}", 0, "Scan", ""},
      {"{\"event\":\"\"}", 2, "", ""},
      // Names are member texts as the dependency converts them.
      {"{\"method\":5}", 0, "5", ""},
      {"{\"method\":true}", 0, "true", ""},
      {"{\"method\":null}", 0, "", ""},
      {"{\"method\":[\"A\"]}", 0, "", ""},
      {"{\"method\":{\"a\":1}}", 0, "", ""},
      // Keys match exactly.
      {"{\"Method\":\"A\",\"EVENT\":\"B\"}", 3, "", ""},
      {"{\"id\":\"1\"}", 3, "", ""},
      // Valid JSON that is not an object has no members.
      {"[\"method\",\"A\"]", 3, "", ""},
      {"\"method\"", 3, "", ""},
      {"5", 3, "", ""},
  };
  for (const KindCase& c : cases) {
    JsonCommand command(c.text);
    EXPECT_EQ(c.commandType, command.GetCommandType()) << c.text;
    EXPECT_EQ(c.functionName, command.GetFunctionName()) << c.text;
    EXPECT_EQ(c.propertyType, command.GetPropertyType()) << c.text;
  }
}

TEST(JsonCommandQueries, ParameterTypesFollowTheStoredKind) {
  JsonCommand command(
      "{\"parameter\":[null, true, -1, 1.5, \"s\", [], {}, 0, 2147483647, 2147483648, -2147483649,"
      " 1e2, 2.0, 18446744073709551615, 18446744073709551616, false]}");
  ASSERT_EQ(16, command.GetParameterCount());
  const int expected[] = {0, 1, 3, 5, 6, 7, 8, 3, 3, 4, 3, 5, 5, 4, 5, 1};
  for (int i = 0; i < 16; ++i) EXPECT_EQ(expected[i], command.GetParameterType(i)) << i;
  EXPECT_EQ(9, command.GetParameterType(16));
  EXPECT_EQ(9, command.GetParameterType(-1));
  EXPECT_EQ(9, command.GetParameterType(1 << 30));
  EXPECT_EQ(nullptr, command.GetParameter(16));
  EXPECT_EQ(nullptr, command.GetParameter(-1));

  // A parameter that is itself null is a parameter, not a missing one.
  std::unique_ptr<Json::Value> first(command.GetParameter(0));
  ASSERT_NE(nullptr, first);
  EXPECT_EQ(Json::nullValue, first->type());
}

TEST(JsonCommandQueries, OnlyAnArrayCountsAsParameters) {
  for (const char* text : {"{\"parameter\":{\"a\":1,\"b\":2}}", "{\"parameter\":\"ab\"}", "{\"parameter\":7}",
                           "{\"parameter\":null}", "{\"parameter\":[]}", "{\"method\":\"M\"}"}) {
    JsonCommand command(text);
    EXPECT_EQ(0, command.GetParameterCount()) << text;
    EXPECT_EQ(9, command.GetParameterType(0)) << text;
    EXPECT_EQ(nullptr, command.GetParameter(0)) << text;
  }
}

TEST(JsonCommandQueries, ParametersAreIndependentCopies) {
  JsonCommand command("{\"parameter\":[{\"b\":[1,2],\"a\":\"x\"}, \"s\"]}");
  std::unique_ptr<Json::Value> object(command.GetParameter(0));
  ASSERT_NE(nullptr, object);
  EXPECT_EQ("{\n   \"a\" : \"x\",\n   \"b\" : [ 1, 2 ]\n}\n", JsonCommand::StyledText(*object));
  (*object)["a"] = "changed";
  std::unique_ptr<Json::Value> again(command.GetParameter(0));
  EXPECT_EQ("x", (*again)["a"].asString());

  std::unique_ptr<Json::Value> whole(command.GetJsonValue("parameter"));
  ASSERT_NE(nullptr, whole);
  EXPECT_EQ(2u, whole->size());
  EXPECT_EQ(nullptr, command.GetJsonValue("missing"));
}

TEST(JsonCommandQueries, IdentifiersAndMemberTexts) {
  JsonCommand command;
  ASSERT_TRUE(command.SetJsonString(
      "{\"id\":\"c1\",\"cmdId\":\"42\",\"version\":\"14.3\",\"n\":5,\"u\":3000000000,\"r\":1.5,\"w\":2.0,"
      "\"t\":0.1,\"b\":false,\"z\":null,\"a\":[1],\"o\":{},\"e\":\"\"}"));
  EXPECT_EQ("c1", command.GetClientID());
  EXPECT_EQ("42", command.GetCmdId());
  EXPECT_EQ("14.3", command.GetVersion());
  EXPECT_EQ("5", command.GetValue("n"));
  EXPECT_EQ("3000000000", command.GetValue("u"));
  EXPECT_EQ("1.5", command.GetValue("r"));
  EXPECT_EQ("2.0", command.GetValue("w"));
  EXPECT_EQ("0.10000000000000001", command.GetValue("t"));
  EXPECT_EQ("false", command.GetValue("b"));
  EXPECT_EQ("", command.GetValue("z"));
  EXPECT_EQ("", command.GetValue("a"));
  EXPECT_EQ("", command.GetValue("o"));
  EXPECT_EQ("", command.GetValue("missing"));

  EXPECT_TRUE(command.IfKeyExist("z"));
  EXPECT_TRUE(command.IfKeyExist("e"));
  EXPECT_FALSE(command.IfKeyExist("ID"));
  EXPECT_FALSE(command.IfKeyExist("i"));
  EXPECT_FALSE(command.IfKeyExist(""));

  // Numbers and other kinds under the identifying keys.
  JsonCommand numeric("{\"id\":7,\"cmdId\":-1,\"version\":[\"1\"]}");
  EXPECT_EQ("7", numeric.GetClientID());
  EXPECT_EQ("-1", numeric.GetCmdId());
  EXPECT_EQ("", numeric.GetVersion());

  // A key holding a NUL byte matches only in full.
  JsonCommand nul("{\"a\\u0000b\":\"v\\u0000w\"}");
  EXPECT_TRUE(nul.IfKeyExist(std::string("a\0b", 3)));
  EXPECT_FALSE(nul.IfKeyExist("a"));
  EXPECT_EQ(std::string("v\0w", 3), nul.GetValue(std::string("a\0b", 3)));
}

TEST(JsonCommandQueries, ReaderSemantics) {
  // The last of duplicate keys wins; text after the first value is ignored;
  // comments are skipped, not kept with the values.
  JsonCommand duplicate("{\"id\":\"1\",\"id\":\"2\"}");
  EXPECT_EQ("2", duplicate.GetClientID());

  JsonCommand trailing("{\"id\":\"1\"} trailing text {");
  EXPECT_TRUE(trailing.SetJsonString("{\"id\":\"1\"} trailing text {"));
  EXPECT_EQ("1", trailing.GetClientID());

  JsonCommand commented("/* head */ {\"id\":\"1\", // note\n \"parameter\":[5 /* five */]}");
  EXPECT_EQ("1", commented.GetClientID());
  std::unique_ptr<Json::Value> five(commented.GetParameter(0));
  ASSERT_NE(nullptr, five);
  EXPECT_EQ("5\n", JsonCommand::StyledText(*five));

  // A document parsed after an invalid one is valid again.
  JsonCommand reused("{");
  EXPECT_EQ(3, reused.GetCommandType());
  EXPECT_TRUE(reused.SetJsonString("{\"method\":\"M\"}"));
  EXPECT_EQ("M", reused.GetFunctionName());
  EXPECT_FALSE(reused.SetJsonString("{\"method\":"));
  EXPECT_EQ("", reused.GetFunctionName());
}

// Every query of a document that is not valid answers its absent value.
void ExpectAbsent(const std::string& text) {
  JsonCommand command;
  EXPECT_FALSE(command.SetJsonString(text)) << text.substr(0, 80);
  EXPECT_FALSE(command.IfKeyExist("id"));
  EXPECT_FALSE(command.IfKeyExist("method"));
  EXPECT_EQ("", command.GetValue("id"));
  EXPECT_EQ(nullptr, command.GetJsonValue("id"));
  EXPECT_EQ(nullptr, command.GetJsonValue("parameter"));
  EXPECT_EQ("", command.GetCmdId());
  EXPECT_EQ("", command.GetClientID());
  EXPECT_EQ("", command.GetVersion());
  EXPECT_EQ(0, command.GetParameterCount());
  EXPECT_EQ(9, command.GetParameterType(0));
  EXPECT_EQ(nullptr, command.GetParameter(0));
  EXPECT_EQ("", command.GetPropertyType());
  EXPECT_EQ(3, command.GetCommandType());
  EXPECT_EQ("", command.GetFunctionName());
}

TEST(JsonCommandInvalid, EveryQueryAnswersAbsent) {
  JsonCommand empty;
  EXPECT_EQ(3, empty.GetCommandType());
  EXPECT_EQ(0, empty.GetParameterCount());
  EXPECT_EQ("", empty.GetClientID());

  for (const char* text : {"", "   ", "{", "}", "{\"id\":\"1\",}", "{'id':'1'}", "nul", "tru",
                           "{\"id\":\"\\ud800\"}", "1e999", "[1,]", "{\"id\" \"1\"}", "NaN"}) {
    ExpectAbsent(text);
  }
  // The reader fills part of the document before it finds the error; none of
  // that may show through.
  ExpectAbsent("{\"id\":\"1\",\"cmdId\":\"2\",\"version\":\"3\",\"method\":\"M\",\"parameter\":[1,2,]}");
  ExpectAbsent("{\"id\":\"1\",\"property\":\"P\",\"parameter\":[1] junk");
}

TEST(JsonCommandInvalid, NestingLimitOfTheReader) {
  // 1,000 levels, the command object included, are accepted.
  JsonCommand deepest(CommandWithNesting(999));
  ASSERT_EQ(1, deepest.GetParameterCount());
  EXPECT_EQ(7, deepest.GetParameterType(0));
  std::unique_ptr<Json::Value> parameter(deepest.GetParameter(0));
  ASSERT_NE(nullptr, parameter);
  const Json::Value* level = parameter.get();
  for (int i = 0; i < 997; ++i) {
    ASSERT_EQ(1u, level->size()) << i;
    level = &(*level)[0u];
  }
  EXPECT_EQ(Json::arrayValue, level->type());
  EXPECT_EQ(0u, level->size());
  EXPECT_FALSE(JsonCommand::StyledText(*parameter).empty());
  EXPECT_EQ("1", deepest.GetClientID());

  // One more level makes the reader throw; that is an invalid command.
  ExpectAbsent(CommandWithNesting(1000));
  ExpectAbsent(NestedArrays(1001));
  ExpectAbsent(NestedArrays(100000));
  ExpectAbsent(std::string(100000, '['));
  std::string objects;
  for (int i = 0; i < 100000; ++i) objects += "{\"a\":";
  ExpectAbsent(objects + "1" + std::string(100000, '}'));
  ExpectAbsent(std::string(100000, '{'));
}

TEST(JsonCommandInvalid, HugeDocuments) {
  std::string text = "{\"id\":\"big\",\"method\":\"M\",\"parameter\":[";
  for (int i = 0; i < 1000000; ++i) text += "7,";
  text += "\"" + std::string(8 << 20, 'x') + "\"]}";
  JsonCommand command(text);
  ASSERT_EQ(1000001, command.GetParameterCount());
  EXPECT_EQ(3, command.GetParameterType(999999));
  EXPECT_EQ(6, command.GetParameterType(1000000));
  std::unique_ptr<Json::Value> last(command.GetParameter(1000000));
  ASSERT_NE(nullptr, last);
  EXPECT_EQ(size_t(8 << 20), JsonCommand::ConvertString(last.get()).size());
  EXPECT_EQ("big", command.GetClientID());

  // The same text cut short anywhere near its end is refused.
  ExpectAbsent(text.substr(0, text.size() - 2));
}

TEST(JsonCommandEncode, ShortForm) {
  std::vector<Json::Value*> none;
  EXPECT_EQ("{\n   \"id\" : \"1\",\n   \"method\" : \"M\"\n}\n", JsonCommand::Encode("1", "M", none, false, 0, "x"));
  EXPECT_EQ("{\n   \"id\" : \"\",\n   \"method\" : \"\"\n}\n", JsonCommand::Encode("", "", none, false, 0, ""));

  Json::Value five(5);
  std::vector<Json::Value*> one = {&five};
  EXPECT_EQ(
      "{\n   \"description\" : \"bad\",\n   \"event\" : \"M\",\n   \"exception\" : -2,\n   \"id\" : \"1\",\n"
      "   \"result\" : [ 5 ]\n}\n",
      JsonCommand::Encode("1", "M", one, true, -2, "bad"));
  // A non-zero code always brings its description, even an empty one.
  EXPECT_EQ(
      "{\n   \"description\" : \"\",\n   \"exception\" : 1,\n   \"id\" : \"1\",\n   \"method\" : \"M\",\n"
      "   \"result\" : [ 5 ]\n}\n",
      JsonCommand::Encode("1", "M", one, false, 1, ""));
}

TEST(JsonCommandEncode, ResultValuesInOrderWithEscapes) {
  Json::Value text("a\"b\\c\n\x01/\xc3\xa9");
  Json::Value flag(true);
  Json::Value object(Json::objectValue);
  object["k"] = 1;
  object["a"].append(false);
  std::vector<Json::Value*> values = {&text, nullptr, &flag, &object};
  EXPECT_EQ(
      "{\n"
      "   \"id\" : \"i\\\"d\",\n"
      "   \"method\" : \"M\",\n"
      "   \"result\" : [\n"
      "      \"a\\\"b\\\\c\\n\\u0001/\\u00e9\",\n"
      "      null,\n"
      "      true,\n"
      "      {\n"
      "         \"a\" : [ false ],\n"
      "         \"k\" : 1\n"
      "      }\n"
      "   ]\n"
      "}\n",
      JsonCommand::Encode("i\"d", "M", values, false, 0, ""));
  // The values are copied, not taken.
  EXPECT_EQ(1, object["k"].asInt());
}

TEST(JsonCommandEncode, SessionForm) {
  Json::Value value("v");
  std::vector<Json::Value*> values = {&value};
  std::vector<Json::Value*> none;
  EXPECT_EQ(
      "{\n   \"description\" : \"Successful\",\n   \"exception\" : 0,\n   \"method\" : \"M\",\n"
      "   \"object\" : \"O\",\n   \"result\" : [ \"v\" ],\n   \"session\" : \"S\"\n}\n",
      JsonCommand::Encode("S", "O", "M", values, false, 0, "ignored"));
  EXPECT_EQ(
      "{\n   \"description\" : \"failed\",\n   \"event\" : \"E\",\n   \"exception\" : -2200,\n"
      "   \"object\" : \"\",\n   \"session\" : \"\"\n}\n",
      JsonCommand::Encode("", "", "E", none, true, -2200, "failed"));
}

TEST(JsonCommandEncode, DiskFileCommand) {
  EXPECT_EQ(
      "{\n   \"id\" : \"0\",\n   \"method\" : \"GetFile\",\n   \"parameter\" : [ \"/tmp/a b.txt\" ]\n}\n",
      JsonCommand::GetDiskFileJson("/tmp/a b.txt"));
  // The command it builds reads back as a GetFile method with one parameter.
  JsonCommand command(JsonCommand::GetDiskFileJson("C:\\dir\\\"q\".txt"));
  EXPECT_EQ(0, command.GetCommandType());
  EXPECT_EQ("GetFile", command.GetFunctionName());
  EXPECT_EQ("0", command.GetClientID());
  std::unique_ptr<Json::Value> path(command.GetParameter(0));
  ASSERT_NE(nullptr, path);
  EXPECT_EQ("C:\\dir\\\"q\".txt", JsonCommand::ConvertString(path.get()));
}

TEST(JsonCommandText, ParseTextAndStyledText) {
  Json::Value root(5);
  EXPECT_FALSE(JsonCommand::ParseText(NestedArrays(5000), &root, true));
  EXPECT_EQ(Json::nullValue, root.type());
  EXPECT_FALSE(JsonCommand::ParseText("[1,", &root, false));
  EXPECT_EQ(Json::nullValue, root.type());
  EXPECT_FALSE(JsonCommand::ParseText("1", nullptr, false));

  ASSERT_TRUE(JsonCommand::ParseText("// lead\n[1 /* one */]", &root, true));
  EXPECT_EQ("\n// lead\n[\n   1 /* one */\n]\n", JsonCommand::StyledText(root));
  ASSERT_TRUE(JsonCommand::ParseText("// lead\n[1 /* one */]", &root, false));
  EXPECT_EQ("[ 1 ]\n", JsonCommand::StyledText(root));
}

}  // namespace
