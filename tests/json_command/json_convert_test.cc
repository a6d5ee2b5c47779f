// Parameter conversion: each JSON kind through each converter, with the
// values and failure outputs a caller sees.
#include <gtest/gtest.h>

#include <cmath>
#include <initializer_list>
#include <limits>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "json_command/json_command.h"

namespace {

// One parameter as the command parser produces it from JSON text.
Json::Value Parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(JsonCommand::ParseText(text, &value, false)) << text;
  return value;
}

// A one-argument form: each row's {json, value}, and the neutral value for null.
template <typename T, typename Convert>
void CheckOne(const char* name, std::initializer_list<std::pair<const char*, T>> rows, Convert convert) {
  for (const auto& [json, expected] : rows) {
    Json::Value value = Parse(json);
    EXPECT_EQ(expected, convert(&value)) << name << " " << json;
  }
  EXPECT_EQ(T(), convert(nullptr)) << name;
}

// A two-argument form: each row's {json, result, output} with the output
// starting as `initial`; a null pointer fails without writing.
template <typename T, typename Convert>
void CheckTwo(const char* name, T initial, std::initializer_list<std::tuple<const char*, bool, T>> rows,
              Convert convert) {
  for (const auto& [json, result, expectedOut] : rows) {
    Json::Value value = Parse(json);
    T out = initial;
    EXPECT_EQ(result, convert(&value, &out)) << name << " " << json;
    EXPECT_EQ(expectedOut, out) << name << " " << json;
  }
  Json::Value five(5);
  T out = initial;
  EXPECT_FALSE(convert(nullptr, &out)) << name;
  EXPECT_FALSE(convert(&five, nullptr)) << name;
  EXPECT_EQ(initial, out) << name;
}

TEST(ConvertIntegers, OneArgumentFormsAcceptBooleansAndNeverFail) {
  CheckOne<int>("ConvertInt",
                {{"\"12abc\"", 12}, {"\"abc\"", 0}, {"\"-7\"", -7}, {"\"0x1A\"", 0}, {"\"1\\u00002\"", 1},
                 {"true", 1}, {"2.9", 2}, {"-2.9", -2}, {"-5", -5}, {"[1]", 0}, {"null", 0}, {"{\"a\":1}", 0},
                 // strtol reads 64 bits and the result wraps to 32; a real
                 // beyond 64 bits saturates first.
                 {"3000000000", -1294967296}, {"\"99999999999\"", 1215752191}, {"1e300", -1}},
                [](Json::Value* v) { return JsonCommand::ConvertInt(v); });
  CheckOne<short>("ConvertShort", {{"70000", 4464}, {"\"-1\"", -1}, {"true", 1}, {"\"x\"", 0}, {"[7]", 0}},
                  [](Json::Value* v) { return JsonCommand::ConvertShort(v); });
  CheckOne<unsigned int>("ConvertUInt",
                         {{"-1", 4294967295u}, {"\"-1\"", 4294967295u}, {"true", 1u}, {"3000000000", 3000000000u},
                          {"{}", 0u}},
                         [](Json::Value* v) { return JsonCommand::ConvertUInt(v); });
  CheckOne<long long>("ConvertInt64",
                      {{"\"9223372036854775807\"", std::numeric_limits<long long>::max()},
                       {"\"-99999999999999999999\"", std::numeric_limits<long long>::min()},
                       {"18446744073709551615", std::numeric_limits<long long>::max()},
                       {"-2147483649", -2147483649LL}, {"-2.5", -2}, {"\" 12x\"", 12}, {"true", 0}, {"[5]", 0}},
                      [](Json::Value* v) { return JsonCommand::ConvertInt64(v); });
}

// Only ConvertInt checks its text: 0 from anything but "0" is a failure.
TEST(ConvertIntegers, TwoArgumentFormsRejectBooleans) {
  CheckTwo<int>("ConvertInt", 77,
                {{"\"0\"", true, 0}, {"\"abc\"", false, -1}, {"\"12abc\"", true, 12}, {"true", false, -1},
                 {"\"\"", false, -1}, {"\"00\"", false, -1}, {"\"-7\"", true, -7}, {"-2.9", true, -2},
                 {"3000000000", true, -1294967296}, {"\"4294967296\"", true, 0}, {"null", false, -1},
                 {"{}", false, -1}},
                [](Json::Value* v, int* o) { return JsonCommand::ConvertInt(v, o); });
  CheckTwo<short>("ConvertShort", 77,
                  {{"{}", false, -1}, {"true", false, -1}, {"\"abc\"", true, 0}, {"2.9", true, 2}, {"65537", true, 1}},
                  [](Json::Value* v, short* o) { return JsonCommand::ConvertShort(v, o); });
  CheckTwo<unsigned int>("ConvertUInt", 77u,
                         {{"{}", false, 0u}, {"null", false, 0u}, {"\"abc\"", true, 0u},
                          {"\"-1\"", true, 4294967295u}, {"2.9", true, 2u}},
                         [](Json::Value* v, unsigned int* o) { return JsonCommand::ConvertUInt(v, o); });
  CheckTwo<unsigned char>("ConvertUChar", 9,
                          {{"\"A\"", true, 'A'}, {"\"\\u00e9\"", true, 0xC3}, {"\"\"", false, 0}, {"321", true, 65},
                           {"-1", true, 255}, {"1.5", false, 0}, {"true", false, 0}, {"[65]", false, 0}},
                          [](Json::Value* v, unsigned char* o) { return JsonCommand::ConvertUChar(v, o); });
}

TEST(ConvertReals, StrtodAndSinglePrecision) {
  const std::pair<const char*, double> rows[] = {{"\"1.5x\"", 1.5}, {"\"abc\"", 0.0}, {"\"-2e3\"", -2000.0},
                                                 {"\"0.1\"", 0.1},  {"true", 1.0},    {"-3", -3.0},
                                                 {"3000000000", 3e9}, {"[1]", 0.0}};
  for (const auto& [json, expected] : rows) {
    Json::Value value = Parse(json);
    EXPECT_EQ(expected, JsonCommand::ConvertDouble(&value)) << json;
    EXPECT_EQ(static_cast<float>(expected), JsonCommand::ConvertFloat(&value)) << json;
  }
  EXPECT_EQ(0.0, JsonCommand::ConvertDouble(nullptr));
  EXPECT_EQ(0.0f, JsonCommand::ConvertFloat(nullptr));
  CheckTwo<double>("ConvertDouble", 77.0,
                   {{"true", false, 0.0}, {"null", false, 0.0}, {"\"abc\"", true, 0.0}, {"\"0.25\"", true, 0.25},
                    {"3000000000", true, 3e9}},
                   [](Json::Value* v, double* o) { return JsonCommand::ConvertDouble(v, o); });
  CheckTwo<float>("ConvertFloat", 77.0f,
                  {{"false", false, 0.0f}, {"\"0.1\"", true, 0.1f}, {"1e300", true, HUGE_VALF}},
                  [](Json::Value* v, float* o) { return JsonCommand::ConvertFloat(v, o); });
}

TEST(ConvertBOOL, TextComparesToTrueAndTheTwoArgumentFormLeavesItsOutput) {
  CheckOne<signed char>("ConvertBOOL",
                        {{"\"TRUE\"", 1}, {"\"true \"", 0}, {"\"1\"", 0}, {"\"tRuE\\u0000xyz\"", 1}, {"true", 1},
                         {"0.4", 0}, {"-0.9", 0}, {"1.5", 1}, {"-1", 1}, {"null", 0}, {"[1]", 0}},
                        [](Json::Value* v) { return JsonCommand::ConvertBOOL(v); });
  // For text only the result carries the answer: the 7 stays.
  CheckTwo<signed char>("ConvertBOOL", 7,
                        {{"\"TRUE\"", true, 7}, {"\"no\"", false, 7}, {"false", true, 0}, {"0.4", true, 0},
                         {"2.7", true, 1}, {"4294967295", true, 1}, {"null", true, 0}, {"[]", false, 7},
                         {"{}", false, 7}},
                        [](Json::Value* v, signed char* o) { return JsonCommand::ConvertBOOL(v, o); });
}

TEST(ConvertString, TextsOfEveryKind) {
  const std::pair<const char*, std::string> rows[] = {
      {"\"s\"", "s"},       {"true", "true"},    {"1.5", "1.500000"},      {"-3", "-3"},
      {"3000000000", "3000000000"},              {"18446744073709551615", "18446744073709551615"},
      {"[1,\"a\"]", "[ 1, \"a\" ]\n"},           {"null", "NULL"},         {"{\"a\":1}", ""},
  };
  for (const auto& [json, expected] : rows) {
    Json::Value value = Parse(json);
    EXPECT_EQ(expected, JsonCommand::ConvertString(&value)) << json;
    const bool isObject = value.isObject();
    std::string out = "untouched", utf8 = "untouched";
    EXPECT_EQ(!isObject, JsonCommand::ConvertString(&value, &out)) << json;
    EXPECT_EQ(!isObject, JsonCommand::GetUTF8String(&value, &utf8)) << json;
    const std::string stored = isObject ? "untouched" : expected;
    EXPECT_EQ(stored + "|" + stored, out + "|" + utf8) << json;
  }
  // Text keeps NUL bytes; a number's text is cut to 255 characters.
  Json::Value nul = Parse("\"a\\u0000b\""), huge = Parse("1e300");
  EXPECT_EQ(std::string("a\0b", 3), JsonCommand::ConvertString(&nul));
  EXPECT_EQ("100000000000000005250476025520", JsonCommand::ConvertString(&huge).substr(0, 30));
  EXPECT_EQ(255u, JsonCommand::ConvertString(&huge).size());
  std::string out = "untouched";
  EXPECT_EQ("", JsonCommand::ConvertString(nullptr));
  EXPECT_FALSE(JsonCommand::ConvertString(nullptr, &out) || JsonCommand::GetUTF8String(nullptr, &out));
  EXPECT_FALSE(JsonCommand::ConvertString(&nul, nullptr) || JsonCommand::GetUTF8String(&nul, nullptr));
  EXPECT_EQ("untouched", out);
}

TEST(ConvertIntArray, ScalarsArraysAndPartialFill) {
  const struct {
    const char* json;
    bool result;
    int count;
    std::vector<int> leading;  // the elements filled before any stop
  } rows[] = {
      {"[1, \"2\", 3]", true, 3, {1, 2, 3}}, {"[1, true]", false, 2, {1}}, {"[[1]]", false, 1, {}},
      {"[4294967295, -7, \"8z\"]", true, 3, {-1, -7, 8}}, {"[]", true, 0, {}}, {"\"7x\"", true, 1, {7}},
      {"5", true, 1, {5}},
  };
  for (const auto& row : rows) {
    Json::Value value = Parse(row.json);
    int* values = nullptr;
    int count = -5;
    EXPECT_EQ(row.result, JsonCommand::ConvertIntArray(&value, &values, &count)) << row.json;
    EXPECT_EQ(row.count, count) << row.json;
    ASSERT_NE(nullptr, values) << row.json;
    EXPECT_EQ(row.leading, std::vector<int>(values, values + row.leading.size())) << row.json;
    delete[] values;
  }
  // Other kinds and null pointers give nothing at all; null gives no array.
  Json::Value flag(true), real(1.5), object(Json::objectValue), null;
  int sentinel = 1, count = -5;
  int* values = &sentinel;
  EXPECT_FALSE(JsonCommand::ConvertIntArray(&flag, &values, &count) ||
               JsonCommand::ConvertIntArray(&real, &values, &count) ||
               JsonCommand::ConvertIntArray(&object, &values, &count) ||
               JsonCommand::ConvertIntArray(nullptr, &values, &count) ||
               JsonCommand::ConvertIntArray(&real, nullptr, &count) ||
               JsonCommand::ConvertIntArray(&real, &values, nullptr));
  EXPECT_EQ(&sentinel, values);
  EXPECT_EQ(-5, count);
  EXPECT_TRUE(JsonCommand::ConvertIntArray(&null, &values, &count));
  EXPECT_EQ(nullptr, values);
  EXPECT_EQ(0, count);
}

TEST(ConvertObject, CopiesEveryMemberOfAnObjectOnly) {
  Json::Value object = Parse("{\"b\":[1,2],\"a\":\"x\"}"), array = Parse("[1]"), null;
  std::map<std::string, Json::Value*> members;
  EXPECT_FALSE(JsonCommand::ConvertObject(&array, &members) || JsonCommand::ConvertObject(&null, &members) ||
               JsonCommand::ConvertObject(nullptr, &members) || JsonCommand::ConvertObject(&object, nullptr));
  EXPECT_TRUE(members.empty());
  ASSERT_TRUE(JsonCommand::ConvertObject(&object, &members));
  ASSERT_EQ(2u, members.size());
  EXPECT_EQ("\"x\"\n", JsonCommand::StyledText(*members["a"]));
  EXPECT_EQ("[ 1, 2 ]\n", JsonCommand::StyledText(*members["b"]));
  *members["a"] = "changed";
  EXPECT_EQ("x", object["a"].asString()) << "the members are copies";
  for (auto& entry : members) delete entry.second;
}

}  // namespace
