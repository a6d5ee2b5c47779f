// The result documents' writer against the dependency's reference writer:
// every row must come out byte for byte the same, through StyledText and
// through both result forms.
#include "json_command/json_command.h"

#include <json/reader.h>
#include <json/writer.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

std::string Reference(const Json::Value& value) {
  Json::StyledWriter writer;
  return writer.write(value);
}

Json::Value Parsed(const std::string& text) {
  Json::Value value;
  Json::Reader reader;
  EXPECT_TRUE(reader.parse(text, value, true)) << text;
  return value;
}

// An array of `count` strings of `width` characters: its one-line text is
// 4 + 2 * (count - 1) + count * (width + 2) long.
Json::Value Strings(int count, int width) {
  Json::Value array(Json::arrayValue);
  for (int i = 0; i < count; ++i) array.append(std::string(static_cast<size_t>(width), 'x'));
  return array;
}

std::vector<Json::Value> Rows() {
  std::vector<Json::Value> rows = {
      Json::Value(), Json::Value(0), Json::Value(-1), Json::Value(std::numeric_limits<Json::Int64>::min()),
      Json::Value(std::numeric_limits<Json::UInt64>::max()), Json::Value(0.1), Json::Value(-0.0),
      Json::Value(1e300), Json::Value(true), Json::Value(""), Json::Value("plain text"),
      Json::Value("quote \" backslash \\ slash /"), Json::Value("tab\tline\nfeed\x01\x1f del\x7f"),
      Json::Value("\xc3\xa9t\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"), Json::Value("bad \xff\xfe utf-8 \xc3"),
      Json::Value(std::string("zero\0byte", 9)), Json::Value(Json::arrayValue), Json::Value(Json::objectValue),
      // The one-line rule: under 74 characters, fewer than 25 elements, no
      // non-empty array or object inside.
      Strings(2, 31), Strings(2, 32), Strings(3, 18), Strings(3, 19), Strings(24, 0), Strings(25, 0),
      Parsed("[[], {}, 1]"), Parsed("[[1], 2]"), Parsed("[{\"a\":1}]"), Parsed("[[[1, 2], [3]], [4]]"),
      Parsed("{\"b\":[1,{\"c\":[]}],\"a\":{\"z\":null,\"y\":[\"q\"]},\"\":0,\"\\u00e9\":1,\"k\\\"ey\":2}"),
      Parsed("// before\n{\"a\":1 // after\n}"), Parsed("[1, /* inner */ 2]"),
  };
  Json::Value nulKey(Json::objectValue);
  nulKey[std::string("a\0b", 3)] = 1;
  nulKey[std::string("a\0c", 3)] = 2;
  rows.push_back(nulKey);
  return rows;
}

TEST(StyledText, IsTheReferenceWritersTextForEveryValue) {
  for (const Json::Value& row : Rows()) {
    EXPECT_EQ(Reference(row), JsonCommand::StyledText(row)) << Reference(row);
    Json::Value wrapped(Json::objectValue);
    wrapped["v"] = row;
    wrapped["list"].append(row);
    wrapped["list"].append(row);
    EXPECT_EQ(Reference(wrapped), JsonCommand::StyledText(wrapped)) << Reference(wrapped);
  }
}

TEST(StyledText, ResultDocumentsAreTheReferenceWritersText) {
  const std::vector<Json::Value> rows = Rows();
  for (size_t i = 0; i < rows.size(); ++i) {
    Json::Value first = rows[i], second = rows[(i + 7) % rows.size()];
    std::vector<Json::Value*> values = {&first, nullptr, &second};
    Json::Value shortForm(Json::objectValue);
    shortForm["id"] = "i\xc3\xa9";
    shortForm["event"] = "E";
    shortForm["exception"] = -2205;
    shortForm["description"] = "why \"";
    for (const Json::Value* value : values) shortForm["result"].append(value ? *value : Json::Value());
    EXPECT_EQ(Reference(shortForm), JsonCommand::Encode("i\xc3\xa9", "E", values, true, -2205, "why \""));

    Json::Value sessionForm(Json::objectValue);
    sessionForm["session"] = std::string("s\0s", 3);
    sessionForm["object"] = "o";
    sessionForm["exception"] = 0;
    sessionForm["description"] = "Successful";
    sessionForm["method"] = "M";
    sessionForm["result"] = shortForm["result"];
    EXPECT_EQ(Reference(sessionForm),
              JsonCommand::Encode(std::string("s\0s", 3), "o", "M", values, false, 0, "ignored"));
    EXPECT_EQ(Reference(rows[i]), Reference(first)) << "the values are given back unchanged";
  }
}

}  // namespace

#pragma GCC diagnostic pop
