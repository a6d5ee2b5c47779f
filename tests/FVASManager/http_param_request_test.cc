// The request object: what it takes from the command, the result documents
// its builders store, and exactly what goes back to the host.
#include "FVASManager/http_param_request.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "environment/program_info.h"
#include "json_command/json_command.h"
#include "platform/system_time.h"
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

// What reached the host through the test's wrapper and callback.
struct Delivery {
  int calls = 0;
  SendBackCallback callback = nullptr;
  int connection = 0;
  void* handle = nullptr;
  std::string text, data;
  bool hasData = false, hasExtra = false;
  signed char answer = 1;
} g_delivery;

signed char HostCallback(int, void*, char const*, void const*, unsigned int, char const*) {
  return g_delivery.answer;
}
// Has the type of the module's exported SendBack; records what it is given.
signed char TestWrapper(SendBackCallback callback, int connection, void* handle, char const* text, void const* data,
                        unsigned int dataLen, char const* extra) {
  ++g_delivery.calls;
  g_delivery.callback = callback;
  g_delivery.connection = connection;
  g_delivery.handle = handle;
  g_delivery.text = text;
  g_delivery.hasData = data != nullptr;
  g_delivery.data = data != nullptr ? std::string(static_cast<const char*>(data), dataLen) : "";
  g_delivery.hasExtra = extra != nullptr;
  return callback(connection, handle, text, data, dataLen, extra);
}
int HostGet(char const*, char const*, char const*, void*, unsigned int*) { return 11; }
int HostSet(char const*, char const*, char const*, void const*, unsigned int) { return 12; }
int HostGet2(char const*, char const*, char const*, void*, unsigned int*) { return 13; }

int g_handleTarget = 0;
void* const kHandle = &g_handleTarget;
const char kPortsCommand[] = "{\"id\":\"c1\",\"cmdId\":\"7\",\"method\":\"GetPorts\",\"parameter\":[\"key\"]}";

using Request = std::unique_ptr<HttpParamRequest>;
Request MakeRequest(const std::string& cmd, SendBackCallback callback = HostCallback, int connection = 5,
                    SendBackWrapper wrapper = TestWrapper) {
  g_delivery = Delivery();
  return std::make_unique<HttpParamRequest>(connection, kHandle, cmd, 2, 77, "example.test", wrapper, callback,
                                            HostGet, HostSet, HostGet2, nullptr, 0, true);
}
std::string Result(const Request& request) { return request->GetHttpParamResponse()->GetJsonResult(); }

TEST(HttpParamRequest, TakesEverythingFromTheCommand) {
  unsigned char* body = new unsigned char[4]{1, 2, 3, 4};
  HttpParamRequest request(3, kHandle,
                           "{\"id\":\"c1\",\"cmdId\":\"7\",\"version\":\"14.3\",\"property\":\"P\","
                           "\"parameter\":[\"key\", 5, {\"a\":[true]}]}",
                           9, 77, "example.test", TestWrapper, HostCallback, HostGet, HostSet, HostGet2, body, 4,
                           true);
  EXPECT_EQ("c1|7|14.3|P|example.test", request.GetClientId() + "|" + request.GetCmdId() + "|" +
                                            request.GetVersion() + "|" + request.GetFunName() + "|" +
                                            request.GetDomain());
  EXPECT_EQ(1, request.GetCommandType());
  EXPECT_EQ(3, request.GetParamCount());
  EXPECT_EQ(9, request.GetBowserType());
  EXPECT_EQ(77, request.GetSocket());
  EXPECT_EQ(HostGet, request.GetHostGetCallback1());
  EXPECT_EQ(HostSet, request.GetHostSetCallback());
  EXPECT_EQ(HostGet2, request.GetHostGetCallback2());
  std::vector<Json::Value*>* stack = request.GetParamStack();
  ASSERT_EQ(3u, stack->size());
  EXPECT_EQ("key", JsonCommand::ConvertString((*stack)[0]));
  EXPECT_EQ("{\n   \"a\" : [ true ]\n}\n", JsonCommand::StyledText(*(*stack)[2]));
  EXPECT_EQ(body, request.GetHttpParamResponse()->GetData());
  EXPECT_EQ(4, request.GetHttpParamResponse()->GetDataLen());
}

TEST(HttpParamRequest, LastTimeStartsAtTheReceiveTick) {
  const unsigned int before = GetTickCount();
  Request request = MakeRequest(kPortsCommand);
  const unsigned int received = request->GetRecTime();
  EXPECT_LE(received - before, 1000u);
  EXPECT_EQ(received, request->GetLastTime());
  usleep(30 * 1000);
  request->GetLastTime();
  EXPECT_GE(request->GetLastTime() - received, 30u);
  EXPECT_EQ(received, request->GetRecTime());
}

TEST(HttpParamRequestResults, GetResultStructForms) {
  const std::string head = "{\n   \"id\" : \"c1\",\n   \"method\" : \"GetPorts\",\n";
  Request request = MakeRequest(kPortsCommand);
  request->GetResultStruct<int>(5, nullptr, 0, 0, "");
  EXPECT_EQ(head + "   \"result\" : [ \"key\", 5 ]\n}\n", Result(request));
  // A description with code 0 travels as two values: the text and the module.
  EXPECT_EQ(request.get(), request->GetResultStruct<int>(6, nullptr, 0, 0, "ok"));
  EXPECT_EQ(head + "   \"result\" : [ \"key\", 5, 6, \"ok\", \"Quintaris Service Manager Module\" ]\n}\n",
            Result(request));

  request = MakeRequest(kPortsCommand);
  request->GetResultStruct<bool>(true, nullptr, 0, -3, "bad");
  EXPECT_EQ("{\n   \"description\" : \"bad\",\n   \"exception\" : -3,\n" + head.substr(2) +
                "   \"result\" : [ \"key\", true ]\n}\n",
            Result(request));

  request = MakeRequest("{\"id\":\"c2\",\"method\":\"V\"}");
  request->GetBOOLResultStruct(2, nullptr, 0, 0, "");
  request->GetResultStruct(0x100000007L, nullptr, 0, 0, "");
  request->GetStringResultStruct("s", nullptr, 0, 0, "");
  EXPECT_EQ("{\n   \"id\" : \"c2\",\n   \"method\" : \"V\",\n   \"result\" : [ true, 7, \"s\" ]\n}\n",
            Result(request));
}

// Every builder stores its document when it is called: the response object
// shows it at once, and a value put on the stack without a build does not
// reach the stored document.
TEST(HttpParamRequestResults, EachBuildStoresItsDocumentAtOnce) {
  const std::string head = "{\n   \"id\" : \"c2\",\n   \"method\" : \"V\",\n   \"result\" : [ ";
  Request request = MakeRequest("{\"id\":\"c2\",\"method\":\"V\"}");
  HttpParamResponse* response = request->GetHttpParamResponse();
  std::string json = "\"j\"";
  const std::pair<std::function<void()>, std::string> builds[] = {
      {[&] { request->GetStringResultStruct("a", nullptr, 0, 0, ""); }, "\"a\""},
      {[&] { request->GetResultStruct<int>(1, nullptr, 0, 0, ""); }, "\"a\", 1"},
      {[&] { request->GetResultStruct<bool>(true, nullptr, 0, 0, ""); }, "\"a\", 1, true"},
      {[&] { request->AddStringResultParam("b", false, 0, ""); }, "\"a\", 1, true, \"b\""},
      {[&] { request->AddResultParam<std::string>("c", false, 0, ""); }, "\"a\", 1, true, \"b\", \"c\""},
      {[&] { request->AddJsonStringResultParam(json, false, 0, ""); }, "\"a\", 1, true, \"b\", \"c\", \"j\""},
  };
  for (const auto& build : builds) {
    build.first();
    EXPECT_EQ(head + build.second + " ]\n}\n", response->GetJsonResult());
    request->GetParamStack()->push_back(new Json::Value("unbuilt"));
    EXPECT_EQ(head + build.second + " ]\n}\n", response->GetJsonResult()) << "only a build stores";
    delete request->GetParamStack()->back();
    request->GetParamStack()->pop_back();
  }
  request->GetResultStructByJsonString("{}");
  EXPECT_EQ("{}", response->GetJsonResult());
}

TEST(HttpParamRequestResults, ResultDataIsCopiedReplacedAndConsumedBySend) {
  Request request = MakeRequest(kPortsCommand);
  const unsigned char first[] = {'a', 0, 'b'};
  request->GetResultStruct<bool>(true, first, 3, 0, "");
  ASSERT_NE(nullptr, request->GetResultData());
  EXPECT_EQ(std::string("a\0b", 3), std::string(reinterpret_cast<char*>(request->GetResultData()), 3));
  EXPECT_NE(first, request->GetResultData());
  // A later build drops the earlier data even without new data.
  request->GetResultStruct<bool>(true, nullptr, 5, 0, "");
  EXPECT_EQ(nullptr, request->GetResultData());
  EXPECT_EQ(0, request->GetResultDataLen());

  request->GetResultStruct<bool>(false, reinterpret_cast<const unsigned char*>("xy"), 2, 0, "");
  EXPECT_EQ(1, request->SendBackResult());
  EXPECT_EQ("xy", g_delivery.data);
  EXPECT_EQ(nullptr, request->GetResultData());
  EXPECT_EQ(1, request->SendBackResult());
  EXPECT_FALSE(g_delivery.hasData) << "a second send has no data";
}

TEST(HttpParamRequestResults, AddResultParamAndJsonStringResult) {
  Request request = MakeRequest(kPortsCommand);
  EXPECT_TRUE(request->AddStringResultParam("one", false, 0, "ignored for code 0"));
  EXPECT_TRUE(request->AddResultParam<std::string>("two", true, -9, "why"));
  EXPECT_EQ(
      "{\n   \"description\" : \"why\",\n   \"event\" : \"GetPorts\",\n   \"exception\" : -9,\n"
      "   \"id\" : \"c1\",\n   \"result\" : [ \"key\", \"one\", \"two\" ]\n}\n",
      Result(request));

  request = MakeRequest("{\"id\":\"c3\",\"method\":\"M\"}");
  std::string json = "{\"b\":[1,2],\"a\":\"x\"}", commented = "// count\n3";
  EXPECT_TRUE(request->AddJsonStringResultParam(json, false, 0, ""));
  EXPECT_TRUE(request->AddJsonStringResultParam(commented, false, 0, ""));
  const std::string kept =
      "{\n   \"id\" : \"c3\",\n   \"method\" : \"M\",\n   \"result\" : [\n      {\n         \"a\" : \"x\",\n"
      "         \"b\" : [ 1, 2 ]\n      },\n      // count\n      3\n   ]\n}\n";
  EXPECT_EQ(kept, Result(request));
  // Texts the parser refuses, or throws on, change nothing.
  for (std::string bad : {std::string("{\"a\":"), std::string(), std::string(100000, '[') + std::string(100000, ']')}) {
    EXPECT_FALSE(request->AddJsonStringResultParam(bad, true, -1, "x")) << bad.substr(0, 10);
    EXPECT_EQ(kept, Result(request)) << bad.substr(0, 10);
    EXPECT_EQ(2u, request->GetParamStack()->size());
  }
}

TEST(HttpParamRequestSend, InsertsCmdIdAsTheLastMember) {
  LogCapture log;
  Request request = MakeRequest(kPortsCommand);
  EXPECT_EQ(request.get(), request->GetResultStructByJsonString("{\n   \"id\" : \"1\"\n}\n"));
  EXPECT_EQ(1, request->SendBackResult());
  const std::string sent = "{\n   \"id\" : \"1\",\n\t\"cmdId\" : \"7\"\n}\n";
  EXPECT_EQ(1, g_delivery.calls);
  EXPECT_EQ(HostCallback, g_delivery.callback);
  EXPECT_EQ(5, g_delivery.connection);
  EXPECT_EQ(kHandle, g_delivery.handle);
  EXPECT_EQ(sent, g_delivery.text);
  EXPECT_FALSE(g_delivery.hasData || g_delivery.hasExtra);
  EXPECT_EQ("{\n   \"id\" : \"1\"\n}\n", Result(request)) << "the stored document is unchanged";
  EXPECT_EQ("Debug: result json = [" + sent + "].\n", log.Text());
}

TEST(HttpParamRequestSend, WhereTheCmdIdGoes) {
  const std::string member = ",\n\t\"cmdId\" : \"7\"\n";
  const struct {
    std::string cmd, document, sent;
  } cases[] = {
      {kPortsCommand, "", ""},
      {kPortsCommand, "no brace\n", "no brace\n"},
      {kPortsCommand, "{\"a\":1}", "{\"a\":1}"},
      // Only a newline before the last "}" counts.
      {kPortsCommand, "{\"a\":\"}\"}\n", "{\"a\":\"}\"}\n"},
      {kPortsCommand, "x\n}{", "x" + member + "}{"},
      {kPortsCommand, "{\n}\n}\n", "{\n}" + member + "}\n"},
      // Without cmdId the member is empty; a long one is cut at 1,023 bytes.
      {"{\"id\":\"1\"}", "{\n}\n", "{,\n\t\"cmdId\" : \"\"\n}\n"},
      {"{\"cmdId\":\"" + std::string(2000, 'i') + "\"}", "{\n}\n",
       "{,\n\t\"cmdId\" : \"" + std::string(1023 - 14, 'i') + "\n}\n"},
  };
  for (const auto& c : cases) {
    Request request = MakeRequest(c.cmd);
    request->GetResultStructByJsonString(c.document);
    EXPECT_EQ(1, request->SendBackResult()) << c.document;
    EXPECT_EQ(c.sent, g_delivery.text) << c.document;
  }
}

TEST(HttpParamRequestSend, RefusedWithoutCallbackConnectionOrWrapper) {
  LogCapture log;
  const unsigned char data[] = {1};
  Request requests[] = {MakeRequest(kPortsCommand, nullptr), MakeRequest(kPortsCommand, HostCallback, 0),
                        MakeRequest(kPortsCommand, HostCallback, 5, nullptr)};
  for (Request& request : requests) {
    request->GetResultStruct<int>(1, data, 1, 0, "");
    EXPECT_EQ(0, request->SendBackResult());
  }
  EXPECT_NE(nullptr, requests[1]->GetResultData()) << "nothing was sent, so the data stays";
  EXPECT_EQ(0, requests[2]->Sendback("text"));
  EXPECT_EQ(0, g_delivery.calls);
  // Without a wrapper the document is still prepared and logged.
  const std::string refused = "Error: Invalid send back handle. Function must be call in wesocket!\n";
  EXPECT_EQ(refused + refused +
                "Debug: result json = [{\n   \"id\" : \"c1\",\n   \"method\" : \"GetPorts\",\n"
                "   \"result\" : [ \"key\", 1 ],\n\t\"cmdId\" : \"7\"\n}\n].\n",
            log.Text());
}

TEST(HttpParamRequestSend, AnsweredWithoutClientIdAndPrimitivesPassTheHostAnswer) {
  LogCapture log;
  const std::string cmd = "{\"cmdId\":\"4\",\"method\":\"M\"}";
  Request request = MakeRequest(cmd);
  request->GetResultStructByJsonString("{\n}\n");
  g_delivery.answer = -2;
  EXPECT_EQ(-2, request->SendBackResult());
  EXPECT_EQ("{,\n\t\"cmdId\" : \"4\"\n}\n", g_delivery.text);
  EXPECT_EQ("Debug: Invalid json command format. cmd = [" + cmd + "][5].\n" +
                "Debug: result json = [{,\n\t\"cmdId\" : \"4\"\n}\n].\n",
            log.Text());

  EXPECT_EQ(-2, request->Sendback("hello", "bin", 3, "extra"));
  EXPECT_EQ("hello/bin", g_delivery.text + "/" + g_delivery.data);
  EXPECT_TRUE(g_delivery.hasExtra);
  EXPECT_EQ(-2, request->Sendback("again"));
  EXPECT_FALSE(g_delivery.hasData || g_delivery.hasExtra);
}

// Commands the parser refuses or throws on (too deep, cut short, empty): the
// request has no identity and no parameters, and is still answered.
TEST(HttpParamRequestHardening, UnusableCommandsAreAnsweredEmpty) {
  const std::string prefix = "{\"id\":\"1\",\"cmdId\":\"2\",\"method\":\"M\",\"parameter\":[";
  for (const std::string& cmd :
       {prefix + std::string(100000, '[') + std::string(100000, ']') + "]}", prefix + "1", std::string()}) {
    Request request = MakeRequest(cmd);
    EXPECT_EQ("", request->GetClientId() + request->GetCmdId() + request->GetFunName() + request->GetVersion());
    EXPECT_EQ(3, request->GetCommandType());
    EXPECT_TRUE(request->GetParamStack()->empty());
    EXPECT_EQ(cmd, request->GetCMDString());
    request->GetResultStruct<bool>(false, nullptr, 0, -2200, "Function not found");
    EXPECT_EQ(1, request->SendBackResult());
    EXPECT_EQ(
        "{\n   \"description\" : \"Function not found\",\n   \"exception\" : -2200,\n   \"id\" : \"\",\n"
        "   \"method\" : \"\",\n   \"result\" : [ false ],\n\t\"cmdId\" : \"\"\n}\n",
        g_delivery.text);
  }
}

}  // namespace
