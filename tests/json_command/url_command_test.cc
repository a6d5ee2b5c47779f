// Commands built from URL queries, with the log lines the builders write.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "environment/program_info.h"
#include "json_command/json_command.h"
#include "tests/common/temp_dir.h"

namespace {

// Sends the log to a folder of the test's own with every level enabled, and
// restores the previous log file and configuration file afterwards.
class LogCapture {
 public:
  LogCapture() : m_savedLogFile(g_log_file) {
    memcpy(m_savedIniFile, g_szIniFile, sizeof(m_savedIniFile));
    qs_test::WriteFile(m_dir / "QSConfiguration.ini", "[QS]\nLogLevel=14\n");
    g_log_file = m_dir / "qss.log";
    snprintf(g_szIniFile, sizeof(g_szIniFile), "%s", (m_dir / "QSConfiguration.ini").c_str());
  }
  ~LogCapture() {
    g_log_file = m_savedLogFile;
    memcpy(g_szIniFile, m_savedIniFile, sizeof(m_savedIniFile));
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // The entries written so far as "Type: text", with the line prefix and an
  // error line's " GetLastError = n." taken off. Texts may span lines.
  std::vector<std::string> Entries() const {
    std::string log = qs_test::ReadWholeFile(m_dir / "qss.log");
    std::vector<std::string> entries;
    size_t start = 0;
    while (start < log.size()) {
      size_t next = log.find("\n[Process:", start);
      std::string entry = log.substr(start, next == std::string::npos ? std::string::npos : next - start);
      if (!entry.empty() && entry.back() == '\n') entry.pop_back();
      size_t typeEnd = entry.find("]: ");
      size_t typeStart = entry.rfind('[', typeEnd);
      std::string type = entry.substr(typeStart + 1, entry.find('-', typeStart) - typeStart - 1);
      std::string text = entry.substr(typeEnd + 3);
      if (type == "Error") text = text.substr(0, text.rfind(" GetLastError = "));
      entries.push_back(type + ": " + text);
      if (next == std::string::npos) break;
      start = next + 1;
    }
    return entries;
  }

 private:
  qs_test::TempDir m_dir;
  std::string m_savedLogFile;
  char m_savedIniFile[sizeof(g_szIniFile)];
};

using Params = std::map<std::string, std::string>;

TEST(UrlParameters, SplittingAndFirstOccurrence) {
  EXPECT_EQ((Params{{"a", "1"}, {"b", "2"}}), JsonCommand::GetURLParamters("a=1&b=2"));
  EXPECT_EQ((Params{{"id", "1"}}), JsonCommand::GetURLParamters("id=1&id=2"));
  EXPECT_EQ((Params{{"id", "3"}}), JsonCommand::GetURLParamters("flag&id=3"));
  EXPECT_EQ((Params{{"id", "%41"}, {"x", "a+b"}}), JsonCommand::GetURLParamters("id=%41&x=a+b"));
  // Only the first "=" separates; empty keys and values are entries too.
  EXPECT_EQ((Params{{"k", "v=w"}, {"", "x"}, {"e", ""}}), JsonCommand::GetURLParamters("k=v=w&=x&e="));
  EXPECT_EQ((Params{{"a", "1"}, {"b", ""}}), JsonCommand::GetURLParamters("&a=1&&b=&"));
  EXPECT_EQ(Params{}, JsonCommand::GetURLParamters(""));
  EXPECT_EQ(Params{}, JsonCommand::GetURLParamters("&&&"));
  EXPECT_EQ(Params{}, JsonCommand::GetURLParamters("novalue"));
  // Keys compare bytewise: case matters.
  EXPECT_EQ((Params{{"ID", "1"}, {"id", "2"}}), JsonCommand::GetURLParamters("ID=1&id=2"));
  // Bytes pass through unchanged, NUL included.
  EXPECT_EQ((Params{{"k", std::string("a\0b", 3)}}), JsonCommand::GetURLParamters(std::string("k=a\0b", 5)));
}

TEST(EncodeURL, ImageByIndex) {
  LogCapture log;
  const std::string expected =
      "{\n   \"id\" : \"5\",\n   \"method\" : \"GetImageByIndex\",\n   \"parameter\" : [ 2, true ]\n}\n";
  EXPECT_EQ(expected, JsonCommand::EncodeURL("id=5&index=2&thumbnail=true"));
  EXPECT_EQ("{\n   \"id\" : \"5\",\n   \"method\" : \"GetImageByIndex\",\n   \"parameter\" : [ -3, false ]\n}\n",
            JsonCommand::EncodeURL("thumbnail=yes&index=-3x&id=5"));
  EXPECT_EQ("{\n   \"id\" : \"%41\",\n   \"method\" : \"GetImageByIndex\",\n   \"parameter\" : [ 0, false ]\n}\n",
            JsonCommand::EncodeURL("id=%41&index=abc&thumbnail=TRUE"));
  // The id is escaped as JSON text; a 64-bit index stays whole.
  EXPECT_EQ(
      "{\n   \"id\" : \"a\\\"b\",\n   \"method\" : \"GetImageByIndex\",\n"
      "   \"parameter\" : [ 9223372036854775807, true ]\n}\n",
      JsonCommand::EncodeURL("id=a\"b&index=99999999999999999999&thumbnail=true"));
  EXPECT_EQ("", JsonCommand::EncodeURL("id=5&index=2"));
  EXPECT_EQ("", JsonCommand::EncodeURL("id=&index=2&thumbnail=true"));
  EXPECT_EQ("", JsonCommand::EncodeURL(""));

  std::vector<std::string> entries = log.Entries();
  ASSERT_EQ(7u, entries.size());
  EXPECT_EQ("Debug: Encode url succeed. cmd = [" + expected + "].", entries[0]);
  EXPECT_EQ("Error: Parsed id = [5], index = [2], thumbnail = [].", entries[4]);
  EXPECT_EQ("Error: Parsed id = [], index = [2], thumbnail = [true].", entries[5]);
  EXPECT_EQ("Error: Parsed id = [], index = [], thumbnail = [].", entries[6]);
}

TEST(ParseURL, PositionalPacking) {
  LogCapture log;
  const std::string packed =
      "{\n   \"id\" : \"7\",\n   \"method\" : \"GetImageByIndex\",\n   \"parameter\" : [ 1, 480 ]\n}\n";
  EXPECT_EQ(packed, JsonCommand::ParseURL("index=1&id=7&height=480"));
  EXPECT_EQ(
      "{\n   \"id\" : \"7\",\n   \"method\" : \"GetImageByIndex\",\n   \"parameter\" : [ 1, 640, 480, 2, 0 ]\n}\n",
      JsonCommand::ParseURL("webcam=x&act=2&height=480&width=640&index=1&id=7&extra=9"));
  // An empty value is as absent as a missing one; no parameter at all leaves
  // out the member.
  EXPECT_EQ("{\n   \"id\" : \"7\",\n   \"method\" : \"GetImageByIndex\",\n   \"parameter\" : [ 5 ]\n}\n",
            JsonCommand::ParseURL("id=7&index=&width=&act=5"));
  EXPECT_EQ("{\n   \"id\" : \"7\",\n   \"method\" : \"GetImageByIndex\"\n}\n", JsonCommand::ParseURL("id=7"));
  EXPECT_EQ("", JsonCommand::ParseURL("index=1&height=480"));
  EXPECT_EQ("", JsonCommand::ParseURL("id=&index=4"));

  std::vector<std::string> entries = log.Entries();
  ASSERT_EQ(6u, entries.size());
  EXPECT_EQ("Debug: Encode url succeed. cmd = [" + packed + "].", entries[0]);
  EXPECT_EQ("Error: Invalid url: id = [], index = [1].", entries[4]);
  EXPECT_EQ("Error: Invalid url: id = [], index = [4].", entries[5]);
}

TEST(EncodeFun, CompactTextWithoutEscaping) {
  LogCapture log;
  EXPECT_EQ("{\"id\":\"9\",\"method\":\"Scan\",\"parameter\":[1,\"a\"]}",
            JsonCommand::EncodeFun("Scan", "id=9&p=[1,\"a\"]"));
  EXPECT_EQ("{\"id\":\"9\",\"method\":\"Scan\"}", JsonCommand::EncodeFun("Scan", "id=9"));
  EXPECT_EQ("{\"id\":\"9\",\"method\":\"Scan\"}", JsonCommand::EncodeFun("Scan", "id=9&p="));
  // Nothing is escaped or checked: what the client wrote goes in as it is.
  EXPECT_EQ("{\"id\":\"a\"b\",\"method\":\"M\"x\",\"parameter\":not json}",
            JsonCommand::EncodeFun("M\"x", "id=a\"b&p=not json"));
  EXPECT_EQ("{\"id\":\"%41\",\"method\":\"\",\"parameter\":%5B1%5D}", JsonCommand::EncodeFun("", "id=%41&p=%5B1%5D"));
  EXPECT_EQ("", JsonCommand::EncodeFun("Scan", "p=[1]&x=2"));

  std::vector<std::string> entries = log.Entries();
  ASSERT_EQ(6u, entries.size());
  EXPECT_EQ("Debug: Encode url succeed. cmd = [{\"id\":\"9\",\"method\":\"Scan\",\"parameter\":[1,\"a\"]}].",
            entries[0]);
  EXPECT_EQ("Error: Encode url failed. method=Scan, params = [p=[1]&x=2].", entries[5]);

  // What EncodeFun builds from a well-formed query is a valid command.
  JsonCommand command(JsonCommand::EncodeFun("Scan", "id=9&p=[1,\"a\"]"));
  EXPECT_EQ("Scan", command.GetFunctionName());
  EXPECT_EQ(2, command.GetParameterCount());
}

TEST(DiskFileCommand, LogsTheStyledText) {
  LogCapture log;
  const std::string text = JsonCommand::GetDiskFileJson("/data/x.pdf");
  EXPECT_EQ("{\n   \"id\" : \"0\",\n   \"method\" : \"GetFile\",\n   \"parameter\" : [ \"/data/x.pdf\" ]\n}\n", text);
  std::vector<std::string> entries = log.Entries();
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ("Debug: Encode url succeed. cmd = [" + text + "].", entries[0]);
}

TEST(UrlBuilders, HugeQueries) {
  // A long query with many pieces: the first occurrence still wins and the
  // builders answer in full.
  std::string query = "id=big";
  for (int i = 0; i < 100000; ++i) query += "&k" + std::to_string(i) + "=v&id=late";
  query += "&index=3&thumbnail=true&p=[" + std::string(1 << 20, '1') + "]";
  EXPECT_EQ(100004u, JsonCommand::GetURLParamters(query).size());
  EXPECT_EQ("{\n   \"id\" : \"big\",\n   \"method\" : \"GetImageByIndex\",\n   \"parameter\" : [ 3, true ]\n}\n",
            JsonCommand::EncodeURL(query));
  EXPECT_EQ("{\n   \"id\" : \"big\",\n   \"method\" : \"GetImageByIndex\",\n   \"parameter\" : [ 3 ]\n}\n",
            JsonCommand::ParseURL(query));
  EXPECT_EQ("{\"id\":\"big\",\"method\":\"M\",\"parameter\":[" + std::string(1 << 20, '1') + "]}",
            JsonCommand::EncodeFun("M", query));
}

}  // namespace
