// The plug-in as a host sees it: loaded with dlopen and driven only through
// its exports, every answer compared byte for byte.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "tests/FVASManager/module_host.h"
#include "tests/common/own_folder.h"
#include "tests/common/temp_dir.h"

// The module asks time() for the activity clock; this test program provides
// the definition the module binds to, so tests can move the clock.
namespace {
std::atomic<long long> g_fakeNow{0};
}  // namespace

extern "C" time_t time(time_t* out) {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  const long long fake = g_fakeNow.load();
  const time_t now = fake != 0 ? static_cast<time_t>(fake) : ts.tv_sec;
  if (out != nullptr) *out = now;
  return now;
}

namespace {

using qs_test::AnswerLog;
using qs_test::ModuleHost;

// The styled result document with the command id inserted before its brace.
std::string Document(const std::string& members, const std::string& cmdId) {
  return "{\n" + members + ",\n\t\"cmdId\" : \"" + cmdId + "\"\n}\n";
}

class ModuleTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(host_.loaded());
    host_.DoAction(3, nullptr, nullptr, 0);  // a fresh router for every test
    AnswerLog::Instance().Take();
    g_fakeNow = 0;
  }
  void TearDown() override { g_fakeNow = 0; }

  ModuleHost host_;
};

TEST_F(ModuleTest, Constants) {
  char alias[8];
  memset(alias, 'z', sizeof(alias));
  EXPECT_EQ(4, host_.GetAlias(alias));
  EXPECT_EQ(0, memcmp(alias, "kxp\0zzzz", 8));
  EXPECT_EQ(4, host_.GetAlias(nullptr));

  char tag[32];
  memset(tag, 'z', sizeof(tag));
  EXPECT_EQ(16, host_.GetVersionDesc(nullptr));
  EXPECT_EQ(16, host_.GetVersionDesc(tag));
  EXPECT_EQ(0, memcmp(tag, "fvasm2_14331212\0z", 17));

  int ports[3] = {0, 0, -1};
  EXPECT_EQ(2, host_.GetPorts(false, ports));
  EXPECT_EQ(18625, ports[0]);
  EXPECT_EQ(18993, ports[1]);
  EXPECT_EQ(2, host_.GetPorts(true, ports));
  EXPECT_EQ(18626, ports[0]);
  EXPECT_EQ(18994, ports[1]);
  EXPECT_EQ(-1, ports[2]);
  EXPECT_EQ(2, host_.GetPorts(true, nullptr));
  EXPECT_EQ(0, host_.Reserved());
  host_.CloseWebSocket();
}

TEST_F(ModuleTest, DoActionCodes) {
  EXPECT_EQ(0, host_.DoAction(1, nullptr, nullptr, 0));
  EXPECT_EQ(0, host_.DoAction(5, nullptr, nullptr, 0));
  EXPECT_EQ(0, host_.DoAction(-1, nullptr, nullptr, 0));
  EXPECT_EQ(1, host_.DoAction(2, "/nonexistent/exe", "/nonexistent/module", 7));
  EXPECT_EQ(1, host_.DoAction(3, nullptr, nullptr, 0));
}

TEST_F(ModuleTest, VersionInfoThenGetPortsWithTheKeyItHandedOut) {
  host_.Send("/kxp/cmd", R"({"id":"7","cmdId":"c1","method":"VersionInfo","version":"fvasm2_14331212"})");
  EXPECT_EQ(Document("   \"id\" : \"7\",\n"
                     "   \"method\" : \"VersionInfo\",\n"
                     "   \"result\" : [\n"
                     "      \"14, 3, 3, 1212\",\n"
                     "      \"Quintaris Service Manager Module\",\n"
                     "      \"0\",\n"
                     "      \"false\",\n"
                     "      \"32\"\n"
                     "   ]",
                     "c1"),
            host_.OnlyAnswer());

  // On this platform every user's SID is empty, so the key "0" answers -2408.
  host_.Send("/kxp/cmd", R"({"id":"8","cmdId":"c2","method":"GetPorts","parameter":["0"]})");
  EXPECT_EQ(Document("   \"description\" : \"User SID is empty.\",\n"
                     "   \"exception\" : -2408,\n"
                     "   \"id\" : \"8\",\n"
                     "   \"method\" : \"GetPorts\",\n"
                     "   \"result\" : [ \"0\", false ]",
                     "c2"),
            host_.OnlyAnswer());
}

TEST_F(ModuleTest, LegacyTagGetsTheOldVersionAndNoEnhancedMode) {
  host_.Send("/kxp/", R"({"id":"1","method":"VersionInfo","version":"fvasm_13000404"})");
  // Shorter than the current version, so the array fits on one styled line.
  EXPECT_EQ(Document("   \"id\" : \"1\",\n"
                     "   \"method\" : \"VersionInfo\",\n"
                     "   \"result\" : [ \"13,0,0,0404\", \"Quintaris Service Manager Module\", \"0\", \"false\", \"32\" ]",
                     ""),
            host_.OnlyAnswer());
  host_.Send("/kxp/", R"({"id":"1","method":"VersionInfo","version":"fvasm_13000405"})");
  EXPECT_NE(std::string::npos, host_.OnlyAnswer().find("\"14, 3, 3, 1212\""));
}

TEST_F(ModuleTest, QSVersionAndGetPortsWithoutParameters) {
  host_.Send("/kxp/", R"({"id":"2","cmdId":"q","method":"QSVersion"})");
  EXPECT_EQ(Document("   \"id\" : \"2\",\n"
                     "   \"method\" : \"QSVersion\",\n"
                     "   \"result\" : [ \"0\", \"Quintaris Service\" ]",
                     "q"),
            host_.OnlyAnswer());
  host_.Send("/kxp/", R"({"id":"2","method":"QSVersion","parameter":[1]})");
  EXPECT_EQ(Document("   \"id\" : \"2\",\n"
                     "   \"method\" : \"QSVersion\",\n"
                     "   \"result\" : [ 1, \"\", \"Quintaris Service\" ]",
                     ""),
            host_.OnlyAnswer())
      << "parameters make the version empty";
  host_.Send("/kxp/", R"({"id":"3","method":"GetPorts","parameter":[]})");
  EXPECT_EQ(Document("   \"description\" : \"Invalid parameter count.\",\n"
                     "   \"exception\" : -2202,\n"
                     "   \"id\" : \"3\",\n"
                     "   \"method\" : \"GetPorts\",\n"
                     "   \"result\" : [ false ]",
                     ""),
            host_.OnlyAnswer());
}

TEST_F(ModuleTest, UnknownMethodsAndUnsupportedBrowsers) {
  host_.Send("/kxp/", R"({"id":"4","cmdId":"u","method":"versioninfo"})");
  EXPECT_EQ(Document("   \"description\" : \"Function not found\",\n"
                     "   \"exception\" : -2200,\n"
                     "   \"id\" : \"4\",\n"
                     "   \"method\" : \"versioninfo\",\n"
                     "   \"result\" : [ false ]",
                     "u"),
            host_.OnlyAnswer());

  host_.Send("/kxp/", R"({"id":"5","method":"VersionInfo"})", /*browserType=*/0);
  EXPECT_EQ(Document("   \"description\" : \"Unsupported browser client. Please try Folivant plugin edition for "
                     "chrome in Chrome!\",\n"
                     "   \"exception\" : -2205,\n"
                     "   \"id\" : \"5\",\n"
                     "   \"method\" : \"VersionInfo\",\n"
                     "   \"result\" : [ false ]",
                     ""),
            host_.OnlyAnswer());

  host_.Send("/kxp/", "not json at all");
  EXPECT_EQ(Document("   \"description\" : \"Function not found\",\n"
                     "   \"exception\" : -2200,\n"
                     "   \"id\" : \"\",\n"
                     "   \"method\" : \"\",\n"
                     "   \"result\" : [ false ]",
                     ""),
            host_.OnlyAnswer());
}

TEST_F(ModuleTest, UrlClasses) {
  // An HTTP request: the header block is the command, what follows the blank
  // line is the body.
  host_.Send("/kxp/x", "{\"id\":\"6\",\"method\":\"QSVersion\"}\r\n\r\nDATA");
  EXPECT_NE(std::string::npos, host_.OnlyAnswer().find("\"result\" : [ \"0\", \"Quintaris Service\" ]"));

  EXPECT_EQ(1, host_.Send("/other", R"({"id":"1","method":"QSVersion"})"));
  std::vector<qs_test::Answer> answers = AnswerLog::Instance().Take();
  ASSERT_EQ(1u, answers.size());
  EXPECT_EQ("Invalid command", answers[0].text);
  EXPECT_EQ(1, answers[0].connection);
  EXPECT_EQ(static_cast<void*>(&host_), answers[0].handle);
  EXPECT_FALSE(answers[0].hasExtra);

  host_.Send("/kxp/", "");
  EXPECT_EQ("Invalid command", host_.OnlyAnswer()) << "an empty command";
  host_.Send("/x/kxp/", R"({"id":"1","method":"QSVersion"})");
  EXPECT_EQ("Invalid command", host_.OnlyAnswer()) << "/kxp/ must begin the path";

  // Uploads are wrapped into a command the table does not hold.
  const unsigned char zip[] = {'P', 'K', 3, 4};
  host_.Send("/kxp/LoadZipFromBytes?type=2&qsver=1.2&x=1", "", 1, zip, sizeof(zip));
  EXPECT_EQ(Document("   \"description\" : \"Function not found\",\n"
                     "   \"exception\" : -2200,\n"
                     "   \"id\" : \"1\",\n"
                     "   \"method\" : \"LoadZipFromBytes\",\n"
                     "   \"result\" : [ 2, \"1.2\", false ]",
                     ""),
            host_.OnlyAnswer());

  host_.Send("/CheckUpdateFile?qsver=15&x=1", R"({"id":"9","method":"CheckUpdateFile","parameter":[]})");
  EXPECT_EQ(Document("   \"description\" : \"Function not found\",\n"
                     "   \"exception\" : -2200,\n"
                     "   \"id\" : \"9\",\n"
                     "   \"method\" : \"CheckUpdateFile\",\n"
                     "   \"result\" : [ \"15\", false ]",
                     ""),
            host_.OnlyAnswer());
}

// The type is the one character at (position of "?type=" + 6) in 32 bits:
// without "?type=" that wraps to index 5, and "?type=" at the very end gives
// an empty type. Either way the command is not valid JSON.
TEST_F(ModuleTest, UploadTypePositionArithmetic) {
  host_.Send("/ab/LoadZipFromBytes", "");
  const std::string invalid = Document("   \"description\" : \"Function not found\",\n"
                                       "   \"exception\" : -2200,\n"
                                       "   \"id\" : \"\",\n"
                                       "   \"method\" : \"\",\n"
                                       "   \"result\" : [ false ]",
                                       "");
  EXPECT_EQ(invalid, host_.OnlyAnswer()) << "index 5 is 'o'";
  host_.Send("/ab/LoadZipFromBytes?type=", "");
  EXPECT_EQ(invalid, host_.OnlyAnswer());
  host_.Send("/abcd1/LoadZipFromBytes?qsver=7&z", "");
  EXPECT_NE(std::string::npos, host_.OnlyAnswer().find("\"result\" : [ 1, \"7\", false ]")) << "index 5 is '1'";
}

TEST_F(ModuleTest, RejectedRequestsAnswerNothing) {
  const unsigned char body[] = {1, 2, 3};
  EXPECT_EQ(0, host_.Send("/kxp/", R"({"id":"1","method":"QSVersion"})", 1, body, 3, /*reject=*/1));
  EXPECT_TRUE(AnswerLog::Instance().Take().empty());
}

TEST_F(ModuleTest, SendBackWrapperIsTypedAndRefreshesActivity) {
  g_fakeNow = 1000000;
  EXPECT_EQ(1, host_.SendBack(&AnswerLog::Callback, 5, nullptr, "hello", "ab", 2, "x"));
  std::vector<qs_test::Answer> answers = AnswerLog::Instance().Take();
  ASSERT_EQ(1u, answers.size());
  EXPECT_EQ(5, answers[0].connection);
  EXPECT_EQ("hello", answers[0].text);
  EXPECT_EQ("ab", answers[0].data);
  EXPECT_EQ("x", answers[0].extra);
  g_fakeNow = 1000031;
  EXPECT_EQ(100, host_.GetWaitTimeout()) << "the answer counted as activity at 1000000";
  EXPECT_EQ(0, host_.SendBack(nullptr, 5, nullptr, "x", nullptr, 0, nullptr));
  EXPECT_EQ(1, host_.GetWaitTimeout());
}

TEST_F(ModuleTest, WaitTimeoutTransitions) {
  EXPECT_EQ(1, host_.GetWaitTimeout()) << "before the first command";
  g_fakeNow = 2000000;
  host_.Send("/kxp/", R"({"id":"1","method":"QSVersion"})");
  AnswerLog::Instance().Take();
  g_fakeNow = 2000030;
  EXPECT_EQ(1, host_.GetWaitTimeout());
  g_fakeNow = 2000031;
  EXPECT_EQ(100, host_.GetWaitTimeout());
  host_.Send("/nowhere", "");  // an "Invalid command" answer is activity too
  AnswerLog::Instance().Take();
  EXPECT_EQ(1, host_.GetWaitTimeout());
  g_fakeNow = 2000062;
  EXPECT_EQ(100, host_.GetWaitTimeout());
}

TEST_F(ModuleTest, ImageMapStore) {
  const char* setUrl = "/kxp/SetEncryptedImageMap?x=1&GUID=A";
  const char* getUrl = "/kxp/GetEncryptedImageMap?GUID=A";
  unsigned char data[10];
  for (int i = 0; i < 10; ++i) data[i] = static_cast<unsigned char>(i + 1);
  EXPECT_EQ(0, host_.SetImage("/kxp/SetEncryptedImageMap?x=1", data, 10)) << "no GUID";
  EXPECT_EQ(0, host_.SetImage("/kxp/Other?GUID=A", data, 10)) << "no marker";
  unsigned int length = 7;
  EXPECT_EQ(0, host_.GetImage(getUrl, nullptr, &length));
  EXPECT_EQ(7u, length);

  EXPECT_EQ(1, host_.SetImage(setUrl, data, 10));
  std::vector<unsigned char> record(3000, 0xEE);
  length = 0;
  EXPECT_EQ(1, host_.GetImage(getUrl, record.data(), &length));
  EXPECT_EQ(2052u, length);
  EXPECT_EQ(0, memcmp(record.data(), data, 10));
  for (int i = 10; i < 2052; ++i) ASSERT_EQ(0, record[i]) << i;
  EXPECT_EQ(0xEE, record[2052]) << "exactly 2052 bytes are written";

  length = 0;
  EXPECT_EQ(1, host_.GetImage(getUrl, nullptr, &length)) << "a size query";
  EXPECT_EQ(2052u, length);
  EXPECT_EQ(1, host_.GetImage(getUrl, record.data(), &length)) << "fetching does not remove";

  const unsigned char shorter[3] = {9, 9, 9};
  EXPECT_EQ(1, host_.SetImage(setUrl, shorter, 3));
  host_.GetImage(getUrl, record.data(), &length);
  EXPECT_EQ(0, record[3]) << "a replacement leaves zeros, not the old bytes";

  std::vector<unsigned char> full(2052, 0x5A);
  EXPECT_EQ(1, host_.SetImage("/SetEncryptedImageMap?GUID=A&x=1", full.data(), 2052));
  EXPECT_EQ(1, host_.GetImage("/GetEncryptedImageMap?GUID=A&x=1", record.data(), &length))
      << "everything after GUID= is the key";
  EXPECT_EQ(0x5A, record[2051]);

  EXPECT_EQ(1, host_.SetImage(setUrl, nullptr, 0));
  EXPECT_EQ(0, host_.GetImage(getUrl, nullptr, &length));
  EXPECT_EQ(1, host_.SetImage("/SetEncryptedImageMap?GUID=never", nullptr, 0)) << "deleting nothing";

  host_.SetImage(setUrl, data, 10);
  host_.DoAction(3, nullptr, nullptr, 0);
  EXPECT_EQ(0, host_.GetImage(getUrl, nullptr, &length)) << "the router and its map are gone";
}

TEST_F(ModuleTest, OversizedImageRecordStopsTheProcess) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  std::vector<unsigned char> big(2053, 1);
  EXPECT_DEATH(host_.SetImage("/SetEncryptedImageMap?GUID=B", big.data(), 2053), "exceeds its 2052-byte store");
}

// Start-up through DoAction, in a folder of its own.
TEST_F(ModuleTest, DoActionStartsUpInTheExecutablesFolder) {
  if (qs_test::InOwnFolder()) {
    const std::string folder = std::string(getenv("QS_TEST_OWN_FOLDER"));
    EXPECT_EQ(1, host_.DoAction(4, "/host/exe", "/host/module.so", 99));
    host_.Send("/kxp/", R"({"id":"1","method":"VersionInfo"})");
    EXPECT_NE(std::string::npos, host_.OnlyAnswer().find("\"false\"")) << "mode 3: no enhanced mode";
    host_.Send("/kxp/", R"({"id":"2","method":"QSVersion"})");
    EXPECT_NE(std::string::npos, host_.OnlyAnswer().find("[ \"13,0,0,0404\", \"Quintaris Service\" ]"));
    return;
  }
  qs_test::TempDir dir;
  qs_test::WriteFile(dir / "QSConfiguration.ini",
                     "[QS]\nLogLevel=14\nEnableEnhancedMode=TRUE\nQSVersion=13,0,0,0404\n");
  ASSERT_EQ(0, qs_test::RunInOwnFolder(dir.path()));
  EXPECT_TRUE(qs_test::IsFolder(dir / "cache"));
  EXPECT_TRUE(qs_test::IsFolder(dir / "dump")) << "start-up with the permission flag";
  const std::string log = qs_test::ReadWholeFile(dir / "log/qss.log");
  EXPECT_NE(std::string::npos, log.find("[Debug-3]: Receive Command: {\"id\":\"1\",\"method\":\"VersionInfo\"}"));
  EXPECT_NE(std::string::npos, log.find("[Debug-3]: 2. Before command actually start cost: "));
  EXPECT_NE(std::string::npos, log.find("[Debug-3]: Twain function [VersionInfo] begin: \n"));
  EXPECT_NE(std::string::npos, log.find("[Debug-3]: User=, sock=42, session=0\n"));
  EXPECT_NE(std::string::npos, log.find(". cmd = [QSVersion]. id = [2].\n"));
  EXPECT_NE(std::string::npos, log.find("[Debug-3]: 4. Command send back result cost: "));
}

// A folder where the configuration file should be: the module starts and
// answers with the defaults.
TEST_F(ModuleTest, ServesWhenTheConfigurationPathIsAFolder) {
  if (qs_test::InOwnFolder()) {
    EXPECT_EQ(1, host_.DoAction(0, nullptr, nullptr, 0));
    host_.Send("/kxp/", R"({"id":"1","method":"VersionInfo"})");
    EXPECT_NE(std::string::npos, host_.OnlyAnswer().find("\"14, 3, 3, 1212\",\n      \"Quintaris"));
    host_.Send("/kxp/", R"({"id":"2","method":"QSVersion"})");
    EXPECT_NE(std::string::npos, host_.OnlyAnswer().find("[ \"0\", \"Quintaris Service\" ]"));
    return;
  }
  qs_test::TempDir dir;
  mkdir((dir / "QSConfiguration.ini").c_str(), 0755);
  ASSERT_EQ(0, qs_test::RunInOwnFolder(dir.path()));
  EXPECT_TRUE(qs_test::IsFolder(dir / "QSConfiguration.ini"));
}

TEST_F(ModuleTest, EnhancedModeIsReportedInServiceMode) {
  if (qs_test::InOwnFolder()) {
    host_.DoAction(0, nullptr, nullptr, 0);
    host_.Send("/kxp/", R"({"id":"1","method":"VersionInfo"})");
    const std::string answer = host_.OnlyAnswer();
    EXPECT_NE(std::string::npos, answer.find("\"0\",\n      \"true\",\n      \"32\"")) << answer;
    host_.Send("/kxp/", R"({"id":"1","method":"VersionInfo","version":"fvasm_13000404"})");
    EXPECT_NE(std::string::npos, host_.OnlyAnswer().find("\"false\"")) << "the legacy tag never gets true";
    return;
  }
  qs_test::TempDir dir;
  qs_test::WriteFile(dir / "QSConfiguration.ini", "[QS]\nEnableEnhancedMode=TRUE\n");
  ASSERT_EQ(0, qs_test::RunInOwnFolder(dir.path()));
  const std::string log = qs_test::ReadWholeFile(dir / "log/qss.log");
  EXPECT_EQ(std::string::npos, log.find("GetCurrentUserModulePorts")) << "debug lines filtered at level 6";
}

// Several host threads at once: commands, unknown methods and image records.
TEST_F(ModuleTest, ConcurrentHostThreads) {
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 60; ++i) {
        const char* requests[] = {R"({"id":"1","method":"VersionInfo"})", R"({"id":"2","method":"QSVersion"})",
                                  R"({"id":"3","method":"Nope"})"};
        host_.Send("/kxp/", requests[i % 3]);
        const std::string guid = "/SetEncryptedImageMap?GUID=" + std::to_string(t);
        unsigned char value = static_cast<unsigned char>(i);
        host_.SetImage(guid.c_str(), &value, 1);
        unsigned char record[2052];
        unsigned int length = 0;
        const std::string get = "/GetEncryptedImageMap?GUID=" + std::to_string(t);
        if (!host_.GetImage(get.c_str(), record, &length) || record[0] != value || length != 2052) ++wrong;
        host_.GetWaitTimeout();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(0, wrong.load());
  std::vector<qs_test::Answer> answers = AnswerLog::Instance().Take();
  ASSERT_EQ(240u, answers.size());
  int unknown = 0;
  for (const auto& answer : answers) unknown += answer.text.find("-2200") != std::string::npos;
  EXPECT_EQ(80, unknown);
}

}  // namespace
