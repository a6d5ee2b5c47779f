// Parameter conversion: every kind a browser can send, through every
// converter, with the values and failure outputs a caller sees.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <string>

#include "json_command/json_command.h"

namespace {

// One parameter as the command parser produces it from JSON text.
Json::Value Parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(JsonCommand::ParseText(text, &value, false)) << text;
  return value;
}

template <typename T>
struct Row {
  const char* json;
  T expected;
};

template <typename T>
struct OutRow {
  const char* json;
  bool result;
  T out;
};

TEST(ConvertInt, OneArgumentForm) {
  const Row<int> rows[] = {
      {"\"12abc\"", 12},      {"\"abc\"", 0},     {"\"\"", 0},      {"\"0\"", 0},         {"\"-7\"", -7},
      {"\" \\t42\"", 42},     {"\"+8\"", 8},      {"\"0x1A\"", 0},  {"\"1\\u00002\"", 1}, {"true", 1},
      {"false", 0},           {"2.9", 2},         {"-2.9", -2},     {"0.4", 0},           {"5", 5},
      {"-5", -5},             {"[1]", 0},         {"null", 0},      {"{\"a\":1}", 0},
      // Narrowing to 32 bits wraps; strtol reads 64 bits first.
      {"3000000000", -1294967296}, {"\"99999999999\"", 1215752191}, {"-2147483649", 2147483647},
      // A real converts as the integer it truncates to; beyond 64 bits it
      // saturates before the narrowing.
      {"3000000000.7", -1294967296}, {"1e300", -1}, {"-1e300", 0},
  };
  for (const auto& row : rows) {
    Json::Value value = Parse(row.json);
    EXPECT_EQ(row.expected, JsonCommand::ConvertInt(&value)) << row.json;
  }
  EXPECT_EQ(0, JsonCommand::ConvertInt(nullptr));
}

TEST(ConvertInt, TwoArgumentFormValidatesText) {
  const OutRow<int> rows[] = {
      {"\"0\"", true, 0},     {"\"abc\"", false, -1}, {"\"12abc\"", true, 12}, {"true", false, -1},
      {"false", false, -1},   {"\"\"", false, -1},    {"\"00\"", false, -1},   {"\"-0\"", false, -1},
      {"\" 0\"", false, -1},  {"\"0abc\"", false, -1}, {"\"-7\"", true, -7},   {"2.9", true, 2},
      {"-2.9", true, -2},     {"0.4", true, 0},       {"5", true, 5},          {"-5", true, -5},
      {"3000000000", true, -1294967296},              {"\"4294967296\"", true, 0},
      {"null", false, -1},    {"[1]", false, -1},     {"{}", false, -1},
  };
  for (const auto& row : rows) {
    Json::Value value = Parse(row.json);
    int out = 77;
    EXPECT_EQ(row.result, JsonCommand::ConvertInt(&value, &out)) << row.json;
    EXPECT_EQ(row.out, out) << row.json;
  }
  Json::Value five(5);
  int out = 77;
  EXPECT_FALSE(JsonCommand::ConvertInt(nullptr, &out));
  EXPECT_FALSE(JsonCommand::ConvertInt(&five, nullptr));
  EXPECT_EQ(77, out);
}

TEST(ConvertShortAndUInt, OneArgumentFormsNarrowConvertInt) {
  const Row<short> shorts[] = {{"70000", 4464},  {"\"-1\"", -1}, {"true", 1},  {"-2.9", -2},
                               {"\"x\"", 0},     {"[7]", 0},     {"32768", -32768}};
  for (const auto& row : shorts) {
    Json::Value value = Parse(row.json);
    EXPECT_EQ(row.expected, JsonCommand::ConvertShort(&value)) << row.json;
  }
  const Row<unsigned int> uints[] = {{"-1", 4294967295u},         {"\"-1\"", 4294967295u}, {"true", 1u},
                                     {"3000000000", 3000000000u}, {"2.9", 2u},             {"{}", 0u},
                                     {"4294967296", 0u}};
  for (const auto& row : uints) {
    Json::Value value = Parse(row.json);
    EXPECT_EQ(row.expected, JsonCommand::ConvertUInt(&value)) << row.json;
  }
  EXPECT_EQ(0, JsonCommand::ConvertShort(nullptr));
  EXPECT_EQ(0u, JsonCommand::ConvertUInt(nullptr));
}

TEST(ConvertShortAndUInt, TwoArgumentFormsDoNotValidateText) {
  const OutRow<short> shorts[] = {{"{}", false, -1},     {"true", false, -1}, {"null", false, -1},
                                  {"[1]", false, -1},    {"\"abc\"", true, 0}, {"\"12x\"", true, 12},
                                  {"2.9", true, 2},      {"65537", true, 1},   {"-3", true, -3},
                                  {"3000000000", true, 24064}};
  for (const auto& row : shorts) {
    Json::Value value = Parse(row.json);
    short out = 77;
    EXPECT_EQ(row.result, JsonCommand::ConvertShort(&value, &out)) << row.json;
    EXPECT_EQ(row.out, out) << row.json;
  }
  const OutRow<unsigned int> uints[] = {{"{}", false, 0u},        {"true", false, 0u},   {"null", false, 0u},
                                        {"\"abc\"", true, 0u},    {"\"-1\"", true, 4294967295u},
                                        {"-1", true, 4294967295u}, {"2.9", true, 2u},
                                        {"3000000000", true, 3000000000u}};
  for (const auto& row : uints) {
    Json::Value value = Parse(row.json);
    unsigned int out = 77;
    EXPECT_EQ(row.result, JsonCommand::ConvertUInt(&value, &out)) << row.json;
    EXPECT_EQ(row.out, out) << row.json;
  }
  Json::Value five(5);
  short s = 77;
  unsigned int u = 77;
  EXPECT_FALSE(JsonCommand::ConvertShort(nullptr, &s));
  EXPECT_FALSE(JsonCommand::ConvertShort(&five, nullptr));
  EXPECT_FALSE(JsonCommand::ConvertUInt(nullptr, &u));
  EXPECT_FALSE(JsonCommand::ConvertUInt(&five, nullptr));
  EXPECT_EQ(77, s);
  EXPECT_EQ(77u, u);
}

TEST(ConvertInt64, ReadsTheConvertedText) {
  const Row<long long> rows[] = {
      {"\"9223372036854775807\"", std::numeric_limits<long long>::max()},
      {"\"99999999999999999999\"", std::numeric_limits<long long>::max()},
      {"\"-99999999999999999999\"", std::numeric_limits<long long>::min()},
      {"-9223372036854775808", std::numeric_limits<long long>::min()},
      {"18446744073709551615", std::numeric_limits<long long>::max()},
      {"3000000000", 3000000000LL},
      {"-2147483649", -2147483649LL},
      {"2.5", 2},
      {"-2.5", -2},
      {"true", 0},
      {"null", 0},
      {"[5]", 0},
      {"{}", 0},
      {"\" 12x\"", 12},
  };
  for (const auto& row : rows) {
    Json::Value value = Parse(row.json);
    EXPECT_EQ(row.expected, JsonCommand::ConvertInt64(&value)) << row.json;
  }
  EXPECT_EQ(0, JsonCommand::ConvertInt64(nullptr));
}

TEST(ConvertDoubleAndFloat, BothForms) {
  const Row<double> doubles[] = {{"\"1.5x\"", 1.5}, {"\"abc\"", 0.0}, {"\"-2e3\"", -2000.0}, {"true", 1.0},
                                 {"false", 0.0},    {"2.5", 2.5},     {"-3", -3.0},         {"3000000000", 3e9},
                                 {"null", 0.0},     {"[1]", 0.0},     {"{}", 0.0}};
  for (const auto& row : doubles) {
    Json::Value value = Parse(row.json);
    EXPECT_EQ(row.expected, JsonCommand::ConvertDouble(&value)) << row.json;
    EXPECT_EQ(static_cast<float>(row.expected), JsonCommand::ConvertFloat(&value)) << row.json;
  }
  const OutRow<double> outs[] = {{"true", false, 0.0},  {"false", false, 0.0}, {"null", false, 0.0},
                                 {"[1]", false, 0.0},   {"\"abc\"", true, 0.0}, {"\"0.25\"", true, 0.25},
                                 {"2.5", true, 2.5},    {"-3", true, -3.0},    {"3000000000", true, 3e9}};
  for (const auto& row : outs) {
    Json::Value value = Parse(row.json);
    double d = 77.0;
    float f = 77.0f;
    EXPECT_EQ(row.result, JsonCommand::ConvertDouble(&value, &d)) << row.json;
    EXPECT_EQ(row.out, d) << row.json;
    EXPECT_EQ(row.result, JsonCommand::ConvertFloat(&value, &f)) << row.json;
    EXPECT_EQ(static_cast<float>(row.out), f) << row.json;
  }
  // Narrowing to single precision rounds, and overflows to infinity.
  Json::Value tenth = Parse("\"0.1\"");
  EXPECT_EQ(0.1f, JsonCommand::ConvertFloat(&tenth));
  Json::Value huge = Parse("1e300");
  EXPECT_TRUE(std::isinf(JsonCommand::ConvertFloat(&huge)));

  Json::Value five(5);
  double d = 77.0;
  float f = 77.0f;
  EXPECT_EQ(0.0, JsonCommand::ConvertDouble(nullptr));
  EXPECT_EQ(0.0f, JsonCommand::ConvertFloat(nullptr));
  EXPECT_FALSE(JsonCommand::ConvertDouble(nullptr, &d));
  EXPECT_FALSE(JsonCommand::ConvertDouble(&five, nullptr));
  EXPECT_FALSE(JsonCommand::ConvertFloat(nullptr, &f));
  EXPECT_FALSE(JsonCommand::ConvertFloat(&five, nullptr));
  EXPECT_EQ(77.0, d);
  EXPECT_EQ(77.0f, f);
}

TEST(ConvertBOOL, OneArgumentForm) {
  const Row<signed char> rows[] = {
      {"\"TRUE\"", 1}, {"\"True\"", 1}, {"\"true\"", 1},  {"\"true \"", 0}, {"\"yes\"", 0}, {"\"1\"", 0},
      {"\"\"", 0},     {"true", 1},     {"false", 0},     {"0.4", 0},       {"-0.9", 0},    {"1.5", 1},
      {"5", 1},        {"0", 0},        {"-1", 1},        {"3000000000", 1}, {"null", 0},   {"[1]", 0},
      {"{}", 0},
      // The text ends at its first NUL byte.
      {"\"tRuE\\u0000xyz\"", 1},
  };
  for (const auto& row : rows) {
    Json::Value value = Parse(row.json);
    EXPECT_EQ(row.expected, JsonCommand::ConvertBOOL(&value)) << row.json;
  }
  // At most 255 bytes of the text take part.
  Json::Value padded("true" + std::string(300, 'x'));
  EXPECT_EQ(0, JsonCommand::ConvertBOOL(&padded));
  EXPECT_EQ(0, JsonCommand::ConvertBOOL(nullptr));
}

TEST(ConvertBOOL, TwoArgumentFormLeavesOutputForText) {
  const OutRow<signed char> rows[] = {
      // For text only the result carries the answer: 7 stays.
      {"\"TRUE\"", true, 7}, {"\"no\"", false, 7}, {"\"\"", false, 7}, {"true", true, 1}, {"false", true, 0},
      {"0.4", true, 0},      {"2.7", true, 1},     {"2", true, 1},     {"0", true, 0},    {"4294967295", true, 1},
      {"null", true, 0},     {"[]", false, 7},     {"{}", false, 7},
  };
  for (const auto& row : rows) {
    Json::Value value = Parse(row.json);
    signed char out = 7;
    EXPECT_EQ(row.result, JsonCommand::ConvertBOOL(&value, &out)) << row.json;
    EXPECT_EQ(row.out, out) << row.json;
  }
  Json::Value yes(true);
  signed char out = 7;
  EXPECT_FALSE(JsonCommand::ConvertBOOL(nullptr, &out));
  EXPECT_FALSE(JsonCommand::ConvertBOOL(&yes, nullptr));
  EXPECT_EQ(7, out);
}

TEST(ConvertUChar, FirstByteOrNarrowedInteger) {
  const OutRow<unsigned char> rows[] = {
      {"\"A\"", true, 'A'},   {"\"\\u00e9\"", true, 0xC3}, {"\"\"", false, 0},    {"321", true, 65},
      {"-1", true, 255},      {"4294967041", true, 1},     {"1.5", false, 0},     {"true", false, 0},
      {"null", false, 0},     {"[65]", false, 0},          {"{}", false, 0},
  };
  for (const auto& row : rows) {
    Json::Value value = Parse(row.json);
    unsigned char out = 9;
    EXPECT_EQ(row.result, JsonCommand::ConvertUChar(&value, &out)) << row.json;
    EXPECT_EQ(row.out, out) << row.json;
  }
  Json::Value a("a");
  unsigned char out = 9;
  EXPECT_FALSE(JsonCommand::ConvertUChar(nullptr, &out));
  EXPECT_FALSE(JsonCommand::ConvertUChar(&a, nullptr));
  EXPECT_EQ(9, out);
}

TEST(ConvertString, TextsOfEveryKind) {
  const Row<const char*> rows[] = {
      {"\"s\"", "s"},
      {"true", "true"},
      {"false", "false"},
      {"1.5", "1.500000"},
      {"-0.0000004", "-0.000000"},
      {"-3", "-3"},
      {"3000000000", "3000000000"},
      {"-2147483649", "-2147483649"},
      {"18446744073709551615", "18446744073709551615"},
      {"[1,\"a\"]", "[ 1, \"a\" ]\n"},
      {"[]", "[]\n"},
      {"[{\"k\":null}]", "[\n   {\n      \"k\" : null\n   }\n]\n"},
      {"null", "NULL"},
      {"{\"a\":1}", ""},
  };
  for (const auto& row : rows) {
    Json::Value value = Parse(row.json);
    EXPECT_EQ(row.expected, JsonCommand::ConvertString(&value)) << row.json;
    std::string out = "untouched";
    std::string utf8 = "untouched";
    const bool isObject = value.type() == Json::objectValue;
    EXPECT_EQ(!isObject, JsonCommand::ConvertString(&value, &out)) << row.json;
    EXPECT_EQ(!isObject, JsonCommand::GetUTF8String(&value, &utf8)) << row.json;
    EXPECT_EQ(isObject ? "untouched" : row.expected, out) << row.json;
    EXPECT_EQ(isObject ? "untouched" : row.expected, utf8) << row.json;
  }
  // Text keeps NUL bytes; a number's text is cut to 255 characters.
  Json::Value nul = Parse("\"a\\u0000b\"");
  EXPECT_EQ(std::string("a\0b", 3), JsonCommand::ConvertString(&nul));
  Json::Value huge = Parse("1e300");
  std::string text = JsonCommand::ConvertString(&huge);
  EXPECT_EQ(255u, text.size());
  EXPECT_EQ("1000000000000000052504760255204420248704468581108159154915854115511802457988908195786371375080447864",
            text.substr(0, 100));

  std::string out = "untouched";
  Json::Value s("s");
  EXPECT_EQ("", JsonCommand::ConvertString(nullptr));
  EXPECT_FALSE(JsonCommand::ConvertString(nullptr, &out));
  EXPECT_FALSE(JsonCommand::ConvertString(&s, nullptr));
  EXPECT_FALSE(JsonCommand::GetUTF8String(nullptr, &out));
  EXPECT_FALSE(JsonCommand::GetUTF8String(&s, nullptr));
  EXPECT_EQ("untouched", out);
}

TEST(ConvertIntArray, ScalarsArraysAndPartialFill) {
  struct ArrayRow {
    const char* json;
    bool result;
    int count;
    std::vector<int> leading;  // the elements filled before any stop
  };
  const ArrayRow rows[] = {
      {"[1, \"2\", 3]", true, 3, {1, 2, 3}},
      {"[1, true]", false, 2, {1}},
      {"[\"x\", 1.5, 4]", false, 3, {0}},
      {"[[1]]", false, 1, {}},
      {"[4294967295, -7, \"8z\"]", true, 3, {-1, -7, 8}},
      {"[]", true, 0, {}},
      {"\"7x\"", true, 1, {7}},
      {"5", true, 1, {5}},
      {"3000000000", true, 1, {-1294967296}},
  };
  for (const ArrayRow& row : rows) {
    Json::Value value = Parse(row.json);
    int* values = nullptr;
    int count = -5;
    EXPECT_EQ(row.result, JsonCommand::ConvertIntArray(&value, &values, &count)) << row.json;
    EXPECT_EQ(row.count, count) << row.json;
    ASSERT_NE(nullptr, values) << row.json;
    for (size_t i = 0; i < row.leading.size(); ++i) EXPECT_EQ(row.leading[i], values[i]) << row.json << i;
    delete[] values;
  }

  // null gives no array; other kinds give nothing at all.
  Json::Value null;
  int sentinel = 1;
  int* values = &sentinel;
  int count = -5;
  EXPECT_TRUE(JsonCommand::ConvertIntArray(&null, &values, &count));
  EXPECT_EQ(nullptr, values);
  EXPECT_EQ(0, count);
  for (const char* json : {"true", "1.5", "{}", "{\"a\":1}"}) {
    Json::Value value = Parse(json);
    values = &sentinel;
    count = -5;
    EXPECT_FALSE(JsonCommand::ConvertIntArray(&value, &values, &count)) << json;
    EXPECT_EQ(&sentinel, values) << json;
    EXPECT_EQ(-5, count) << json;
  }
  Json::Value five(5);
  EXPECT_FALSE(JsonCommand::ConvertIntArray(nullptr, &values, &count));
  EXPECT_FALSE(JsonCommand::ConvertIntArray(&five, nullptr, &count));
  EXPECT_FALSE(JsonCommand::ConvertIntArray(&five, &values, nullptr));
  EXPECT_EQ(&sentinel, values);
}

TEST(ConvertObject, CopiesEveryMember) {
  Json::Value object = Parse("{\"b\":[1,2],\"a\":\"x\",\"c\":{\"d\":null}}");
  std::map<std::string, Json::Value*> members;
  Json::Value* kept = new Json::Value("old");
  members["a"] = kept;
  ASSERT_TRUE(JsonCommand::ConvertObject(&object, &members));
  ASSERT_EQ(3u, members.size());
  EXPECT_EQ("\"x\"\n", JsonCommand::StyledText(*members["a"]));
  EXPECT_EQ("[ 1, 2 ]\n", JsonCommand::StyledText(*members["b"]));
  EXPECT_EQ("{\n   \"d\" : null\n}\n", JsonCommand::StyledText(*members["c"]));
  // The entry that was there is replaced, not freed: it is still the caller's.
  EXPECT_EQ("old", kept->asString());
  delete kept;
  (*members["a"]) = "changed";
  EXPECT_EQ("x", object["a"].asString());
  for (auto& entry : members) delete entry.second;

  std::map<std::string, Json::Value*> none;
  for (const char* json : {"[1]", "null", "\"a\"", "5"}) {
    Json::Value value = Parse(json);
    EXPECT_FALSE(JsonCommand::ConvertObject(&value, &none)) << json;
  }
  Json::Value empty = Parse("{}");
  EXPECT_TRUE(JsonCommand::ConvertObject(&empty, &none));
  EXPECT_FALSE(JsonCommand::ConvertObject(nullptr, &none));
  EXPECT_FALSE(JsonCommand::ConvertObject(&object, nullptr));
  EXPECT_TRUE(none.empty());
}

}  // namespace
