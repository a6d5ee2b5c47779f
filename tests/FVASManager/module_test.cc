// The plug-in as a host sees it: loaded with dlopen and driven only through
// its exports. Every answer document of the command table is pinned here, byte
// for byte (the host's tests check only routing, ids and status codes).
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "tests/FVASManager/module_host.h"
#include "tests/common/own_folder.h"

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

using qs_test::AnswerLog, qs_test::ModuleHost;

// The styled result document with the command id inserted before its brace.
std::string Document(const std::string& members, const std::string& cmdId) {
  return "{\n" + members + ",\n\t\"cmdId\" : \"" + cmdId + "\"\n}\n";
}
std::string Ok(const std::string& id, const std::string& method, const std::string& result,
               const std::string& cmdId = "") {
  return Document("   \"id\" : \"" + id + "\",\n   \"method\" : \"" + method + "\",\n   \"result\" : " + result, cmdId);
}
std::string Failed(const std::string& id, const std::string& method, int code, const std::string& why,
                   const std::string& result = "[ false ]", const std::string& cmdId = "") {
  return Document("   \"description\" : \"" + why + "\",\n   \"exception\" : " + std::to_string(code) +
                      ",\n   \"id\" : \"" + id + "\",\n   \"method\" : \"" + method + "\",\n   \"result\" : " + result,
                  cmdId);
}

// An answer callback that holds its command until the test lets it go: 1
// while it waits, set to 2 to release it.
std::atomic<int> g_answering{0};
signed char HeldAnswer(int connection, void* handle, char const* text, void const* data, unsigned int length,
                       char const* extra) {
  g_answering = 1;
  while (g_answering != 2) usleep(1000);
  return AnswerLog::Callback(connection, handle, text, data, length, extra);
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

TEST_F(ModuleTest, AnswersOfEveryCommandAndUrlClass) {
  const std::string notFound = "Function not found", service = "[ \"0\", \"Quintaris Service\" ]";
  const struct {
    const char* url;
    std::string request;
    int browser;
    std::string answer;
  } rows[] = {
      {"/kxp/cmd", R"({"id":"7","cmdId":"c1","method":"VersionInfo","version":"fvasm2_14331212"})", 1,
       Ok("7", "VersionInfo", "[\n      \"14, 3, 3, 1212\",\n      \"Quintaris Service Manager Module\",\n"
                              "      \"0\",\n      \"false\",\n      \"32\"\n   ]", "c1")},
      // The legacy tag: the old version text, never the enhanced mode; short enough for one line.
      {"/kxp/", R"({"id":"1","method":"VersionInfo","version":"fvasm_13000404"})", 1,
       Ok("1", "VersionInfo", "[ \"13,0,0,0404\", \"Quintaris Service Manager Module\", \"0\", \"false\", \"32\" ]")},
      // On this platform every SID is empty: the key "0" answers -2408.
      {"/kxp/cmd", R"({"id":"8","cmdId":"c2","method":"GetPorts","parameter":["0"]})", 1,
       Failed("8", "GetPorts", -2408, "User SID is empty.", "[ \"0\", false ]", "c2")},
      {"/kxp/", R"({"id":"3","method":"GetPorts","parameter":[]})", 1,
       Failed("3", "GetPorts", -2202, "Invalid parameter count.")},
      {"/kxp/", R"({"id":"2","cmdId":"q","method":"QSVersion"})", 1, Ok("2", "QSVersion", service, "q")},
      // Parameters make the version empty.
      {"/kxp/", R"({"id":"2","method":"QSVersion","parameter":[1]})", 1,
       Ok("2", "QSVersion", "[ 1, \"\", \"Quintaris Service\" ]")},
      {"/kxp/", R"({"id":"4","cmdId":"u","method":"versioninfo"})", 1, Failed("4", "versioninfo", -2200, notFound,
                                                                              "[ false ]", "u")},
      {"/kxp/", R"({"id":"5","method":"VersionInfo"})", 0,
       Failed("5", "VersionInfo", -2205, "Unsupported browser client. Please try Folivant plugin edition for chrome "
                                         "in Chrome!")},
      {"/kxp/", "not json at all", 1, Failed("", "", -2200, notFound)},
      // The header block is the command; what follows the blank line is the body.
      {"/kxp/x", "{\"id\":\"6\",\"method\":\"QSVersion\"}\r\n\r\nDATA", 1, Ok("6", "QSVersion", service)},
      {"/other", R"({"id":"1","method":"QSVersion"})", 1, "Invalid command"},
      {"/x/kxp/", R"({"id":"1","method":"QSVersion"})", 1, "Invalid command"},  // /kxp/ must begin the path
      {"/kxp/", "", 1, "Invalid command"},
      // Uploads are wrapped into commands the table does not hold.
      {"/kxp/LoadZipFromBytes?type=2&qsver=1.2&x=1", "", 1,
       Failed("1", "LoadZipFromBytes", -2200, notFound, "[ 2, \"1.2\", false ]")},
      {"/CheckUpdateFile?qsver=15&x=1", R"({"id":"9","method":"CheckUpdateFile","parameter":[]})", 1,
       Failed("9", "CheckUpdateFile", -2200, notFound, "[ \"15\", false ]")},
      // The type is the character at (position of "?type=" + 6) in 32 bits:
      // without "?type=" that wraps to index 5 ("o" here, not JSON).
      {"/ab/LoadZipFromBytes", "", 1, Failed("", "", -2200, notFound)},
      {"/abcd1/LoadZipFromBytes?qsver=7&z", "", 1, Failed("1", "LoadZipFromBytes", -2200, notFound,
                                                          "[ 1, \"7\", false ]")},
  };
  const unsigned char zip[] = {'P', 'K', 3, 4};
  for (const auto& row : rows) {
    EXPECT_EQ(1, host_.Send(row.url, row.request, row.browser, zip, sizeof(zip)));
    const std::vector<qs_test::Answer> answers = AnswerLog::Instance().Take();
    ASSERT_EQ(1u, answers.size()) << row.request;
    EXPECT_EQ(row.answer, answers[0].text) << row.url << " " << row.request;
    EXPECT_EQ(std::make_tuple(1, static_cast<void*>(&host_), false),
              std::make_tuple(answers[0].connection, answers[0].handle, answers[0].hasExtra));
  }
  EXPECT_EQ(0, host_.Send("/kxp/", R"({"id":"1","method":"QSVersion"})", 1, zip, 4, /*reject=*/1));
  EXPECT_TRUE(AnswerLog::Instance().Take().empty()) << "a rejected request answers nothing";
}

TEST_F(ModuleTest, ConstantsActionsAndTheWaitTimeout) {
  char alias[8] = "zzzzzzz", tag[32] = "zzzzzzzzzzzzzzzzzzzzzzzzzzzzzzz";
  EXPECT_EQ(4, host_.GetAlias(alias));
  EXPECT_EQ(0, memcmp(alias, "kxp\0zzz", 8));
  EXPECT_EQ(16, host_.GetVersionDesc(nullptr));
  EXPECT_EQ(16, host_.GetVersionDesc(tag));
  EXPECT_EQ(0, memcmp(tag, "fvasm2_14331212\0z", 17));
  int ports[3] = {0, 0, -1};
  EXPECT_EQ(2, host_.GetPorts(false, ports));
  EXPECT_EQ("18625 18993", std::to_string(ports[0]) + " " + std::to_string(ports[1]));
  host_.GetPorts(true, ports);
  EXPECT_EQ("18626 18994 -1", std::to_string(ports[0]) + " " + std::to_string(ports[1]) + " " + std::to_string(ports[2]));
  std::string results;
  for (const int action : {1, 5, -1, 2, 3}) results += std::to_string(host_.DoAction(action, "/x/exe", "/x/module", 7));
  EXPECT_EQ("00011", results);

  // 1 while busy or within 30 s of the last activity (a command, an answer
  // through SendBack), 100 after.
  // The timeouts 30 and 31 s after `last`.
  auto after = [this](long long last) {
    g_fakeNow = last + 30;
    const int within = host_.GetWaitTimeout();
    g_fakeNow = last + 31;
    return std::to_string(within) + " " + std::to_string(host_.GetWaitTimeout());
  };
  EXPECT_EQ(1, host_.GetWaitTimeout()) << "before the first command";
  g_fakeNow = 2000000;
  host_.Send("/kxp/", R"({"id":"1","method":"QSVersion"})");
  EXPECT_EQ("1 100", after(2000000));
  EXPECT_EQ(1, host_.SendBack(&AnswerLog::Callback, 5, nullptr, "hello", "ab", 2, "x"));
  EXPECT_EQ("1 100", after(2000031)) << "the answer counted as activity";
  EXPECT_EQ(0, host_.SendBack(nullptr, 5, nullptr, "x", nullptr, 0, nullptr));
  // A command on another thread: its answer and its end are activity, and
  // neither keeps the lock from this thread.
  std::thread command([&] {
    host_.DistributeCommand(1, &host_, 0, "/kxp/", R"({"id":"2","method":"QSVersion"})", nullptr, 0, 1, &HeldAnswer,
                            42, "", nullptr, nullptr, nullptr);
  });
  for (int i = 0; i < 5000 && g_answering != 1; ++i) usleep(1000);
  g_fakeNow = 2000200;
  EXPECT_EQ(100, host_.GetWaitTimeout()) << "answered at 2000062, still running";
  g_answering = 2;
  command.join();
  EXPECT_EQ("1 100", after(2000200));
  const std::vector<qs_test::Answer> answers = AnswerLog::Instance().Take();
  ASSERT_EQ(3u, answers.size());
  EXPECT_EQ("5 hello ab x", std::to_string(answers[1].connection) + " " + answers[1].text + " " + answers[1].data +
                                " " + answers[1].extra);
}

TEST_F(ModuleTest, ImageMapStore) {
  const char* setUrl = "/kxp/SetEncryptedImageMap?x=1&GUID=A";
  const char* getUrl = "/kxp/GetEncryptedImageMap?GUID=A";
  const unsigned char data[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, shorter[3] = {9, 9, 9};
  EXPECT_EQ(0, host_.SetImage("/kxp/SetEncryptedImageMap?x=1", data, 10)) << "no GUID";
  EXPECT_EQ(0, host_.SetImage("/kxp/Other?GUID=A", data, 10)) << "no marker";
  unsigned int length = 7;
  EXPECT_EQ(0, host_.GetImage(getUrl, nullptr, &length));
  EXPECT_EQ(7u, length);
  EXPECT_EQ(1, host_.SetImage(setUrl, data, 10));
  EXPECT_EQ(1, host_.SetImage(setUrl, shorter, 3)) << "a replacement leaves zeros, not the old bytes";
  std::vector<unsigned char> record(3000, 0xEE);
  EXPECT_EQ(1, host_.GetImage(getUrl, nullptr, &length)) << "a size query";
  EXPECT_EQ(2052u, length);
  EXPECT_EQ(1, host_.GetImage(getUrl, record.data(), &length));
  EXPECT_EQ(std::vector<unsigned char>({9, 9, 9, 0, 0, 0xEE}),
            std::vector<unsigned char>({record[0], record[1], record[2], record[3], record[2051], record[2052]}))
      << "exactly 2052 bytes are written";
  EXPECT_EQ(1, host_.GetImage("/GetEncryptedImageMap?GUID=A", record.data(), &length)) << "fetching does not remove";
  EXPECT_EQ(0, host_.GetImage("/GetEncryptedImageMap?GUID=A&x=1", record.data(), &length))
      << "everything after GUID= is the key";
  EXPECT_EQ(1, host_.SetImage(setUrl, nullptr, 0));
  EXPECT_EQ(0, host_.GetImage(getUrl, nullptr, &length));
  host_.SetImage(setUrl, data, 10);
  host_.DoAction(3, nullptr, nullptr, 0);
  EXPECT_EQ(0, host_.GetImage(getUrl, nullptr, &length)) << "the router and its map are gone";
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  std::vector<unsigned char> big(2053, 1);
  EXPECT_DEATH(host_.SetImage("/SetEncryptedImageMap?GUID=B", big.data(), 2053), "exceeds its 2052-byte store");
}

// Start-up through DoAction, in a folder of its own: per-user mode (4) with a
// configuration, and the service (0) with the enhanced mode.
TEST_F(ModuleTest, StartUpInTheExecutablesFolder) {
  const std::string configurations[] = {"[QS]\nLogLevel=14\nEnableEnhancedMode=TRUE\nQSVersion=13,0,0,0404\n",
                                        "[QS]\nEnableEnhancedMode=TRUE\n"};
  if (qs_test::InOwnFolder()) {
    const std::string text = qs_test::ReadWholeFile(qs_test::OwnFolder() + "QSConfiguration.ini");
    const bool user = text == configurations[0], enhanced = text == configurations[1];
    EXPECT_EQ(1, host_.DoAction(user ? 4 : 0, "/host/exe", "/host/module.so", 99));
    host_.Send("/kxp/", R"({"id":"1","method":"VersionInfo"})");
    EXPECT_NE(std::string::npos, host_.OnlyAnswer().find(enhanced ? "\"0\",\n      \"true\"" : "\"0\",\n      \"false\""));
    host_.Send("/kxp/", R"({"id":"2","method":"QSVersion"})");
    EXPECT_NE(std::string::npos, host_.OnlyAnswer().find(user ? "[ \"13,0,0,0404\", \"Quintaris Service\" ]"
                                                              : "[ \"0\", \"Quintaris Service\" ]"));
    return;
  }
  for (const std::string& configuration : configurations) {
    qs_test::TempDir dir;
    qs_test::WriteFile(dir / "QSConfiguration.ini", configuration);
    ASSERT_EQ(0, qs_test::RunInOwnFolder(dir.path())) << configuration;
    EXPECT_TRUE(qs_test::IsFolder(dir / "dump")) << "start-up with the permission flag; " << configuration;
  }
}

}  // namespace
