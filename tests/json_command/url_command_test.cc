// Commands built from URL queries, with the log lines the builders write.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <regex>
#include <string>

#include "environment/program_info.h"
#include "json_command/json_command.h"
#include "tests/common/temp_dir.h"

namespace {

// Sends every log level to a folder of the test's own. Text() is the log with
// each prefix cut to "Type: " and an error's " GetLastError = n." removed.
class LogCapture {
 public:
  LogCapture() : savedLog_(g_log_file), savedIni_(g_szIniFile) {
    qs_test::WriteFile(dir_ / "QSConfiguration.ini", "[QS]\nLogLevel=14\n");
    g_log_file = dir_ / "qss.log";
    snprintf(g_szIniFile, sizeof(g_szIniFile), "%s", (dir_ / "QSConfiguration.ini").c_str());
  }
  ~LogCapture() {
    g_log_file = savedLog_;
    snprintf(g_szIniFile, sizeof(g_szIniFile), "%s", savedIni_.c_str());
  }
  std::string Text() const {
    static const std::regex prefix("\\[Process:[^\\]]*\\] \\[[^\\]]*\\] \\[(\\w+)-\\d+\\]: ");
    static const std::regex lastError(" GetLastError = -?\\d+\\.\n");
    const std::string log = qs_test::ReadWholeFile(dir_ / "qss.log");
    return std::regex_replace(std::regex_replace(log, lastError, "\n"), prefix, "$1: ");
  }

 private:
  qs_test::TempDir dir_;
  std::string savedLog_, savedIni_;
};

using Params = std::map<std::string, std::string>;
const std::string kImage = "{\n   \"id\" : \"5\",\n   \"method\" : \"GetImageByIndex\"";

TEST(UrlParameters, SplittingAndFirstOccurrence) {
  EXPECT_EQ((Params{{"a", "1"}, {"b", ""}}), JsonCommand::GetURLParamters("&a=1&&b=&"));
  EXPECT_EQ((Params{{"id", "1"}}), JsonCommand::GetURLParamters("id=1&id=2"));
  EXPECT_EQ((Params{{"id", "3"}}), JsonCommand::GetURLParamters("flag&id=3"));
  // No decoding; only the first "=" separates; an empty key is a key.
  EXPECT_EQ((Params{{"id", "%41"}, {"k", "v=w"}, {"", "x"}}), JsonCommand::GetURLParamters("id=%41&k=v=w&=x"));
  EXPECT_EQ(Params{}, JsonCommand::GetURLParamters(""));
}

// The builders' success line for `cmd`.
std::string Built(const std::string& cmd) { return "Debug: Encode url succeed. cmd = [" + cmd + "].\n"; }

TEST(EncodeURL, ImageByIndexNeedsAllThreeValues) {
  LogCapture log;
  const std::string built[] = {kImage + ",\n   \"parameter\" : [ 2, true ]\n}\n",
                               // Any thumbnail text but "true" is false; the index is read with strtol.
                               kImage + ",\n   \"parameter\" : [ -3, false ]\n}\n",
                               kImage + ",\n   \"parameter\" : [ 0, false ]\n}\n"};
  EXPECT_EQ(built[0], JsonCommand::EncodeURL("id=5&index=2&thumbnail=true"));
  EXPECT_EQ(built[1], JsonCommand::EncodeURL("thumbnail=TRUE&index=-3x&id=5"));
  EXPECT_EQ(built[2], JsonCommand::EncodeURL("id=5&index=abc&thumbnail=yes"));
  EXPECT_EQ("", JsonCommand::EncodeURL("id=5&index=2"));
  EXPECT_EQ("", JsonCommand::EncodeURL("id=&index=2&thumbnail=true"));
  EXPECT_EQ(Built(built[0]) + Built(built[1]) + Built(built[2]) +
                "Error: Parsed id = [5], index = [2], thumbnail = [].\n"
                "Error: Parsed id = [], index = [2], thumbnail = [true].\n",
            log.Text());
}

TEST(ParseURL, PositionalPacking) {
  LogCapture log;
  const std::string built[] = {kImage + ",\n   \"parameter\" : [ 1, 480 ]\n}\n",
                               kImage + ",\n   \"parameter\" : [ 1, 640, 480, 2, 0 ]\n}\n",
                               // An empty value is as absent as a missing one.
                               kImage + ",\n   \"parameter\" : [ 5 ]\n}\n", kImage + "\n}\n"};
  EXPECT_EQ(built[0], JsonCommand::ParseURL("index=1&id=5&height=480"));
  EXPECT_EQ(built[1], JsonCommand::ParseURL("webcam=x&act=2&height=480&width=640&index=1&id=5&extra=9"));
  EXPECT_EQ(built[2], JsonCommand::ParseURL("id=5&index=&act=5"));
  EXPECT_EQ(built[3], JsonCommand::ParseURL("id=5"));
  EXPECT_EQ("", JsonCommand::ParseURL("index=1&height=480"));
  EXPECT_EQ(Built(built[0]) + Built(built[1]) + Built(built[2]) + Built(built[3]) +
                "Error: Invalid url: id = [], index = [1].\n",
            log.Text());
}

TEST(EncodeFun, CompactTextWithoutEscaping) {
  LogCapture log;
  EXPECT_EQ("{\"id\":\"9\",\"method\":\"Scan\",\"parameter\":[1,\"a\"]}",
            JsonCommand::EncodeFun("Scan", "id=9&p=[1,\"a\"]"));
  EXPECT_EQ("{\"id\":\"9\",\"method\":\"Scan\"}", JsonCommand::EncodeFun("Scan", "id=9&p="));
  EXPECT_EQ("{\"id\":\"a\"b\",\"method\":\"M\"x\",\"parameter\":not json}",
            JsonCommand::EncodeFun("M\"x", "id=a\"b&p=not json"));
  EXPECT_EQ("", JsonCommand::EncodeFun("Scan", "p=[1]&x=2"));
  const std::string disk = JsonCommand::GetDiskFileJson("/data/x.pdf");
  EXPECT_EQ(Built("{\"id\":\"9\",\"method\":\"Scan\",\"parameter\":[1,\"a\"]}") +
                Built("{\"id\":\"9\",\"method\":\"Scan\"}") +
                Built("{\"id\":\"a\"b\",\"method\":\"M\"x\",\"parameter\":not json}") +
                "Error: Encode url failed. method=Scan, params = [p=[1]&x=2].\n" + Built(disk),
            log.Text());
}

}  // namespace
