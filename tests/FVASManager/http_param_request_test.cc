// The request object: what it takes from the command, the result documents
// its builders store, and exactly what goes back to the host.
#include "FVASManager/http_param_request.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "environment/program_info.h"
#include "json_command/json_command.h"
#include "platform/system_time.h"
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

// What reached the host, as seen by the test's wrapper and callback.
struct Delivery {
  int wrapperCalls = 0;
  int callbackCalls = 0;
  SendBackCallback callback = nullptr;
  int connection = 0;
  void* handle = nullptr;
  std::string text;
  bool hasData = false;
  std::string data;
  unsigned int dataLen = 0;
  bool hasExtra = false;
  signed char answer = 1;
};
Delivery g_delivery;

signed char HostCallback(int connection, void* handle, char const* text, void const* data, unsigned int dataLen,
                         char const* extra) {
  ++g_delivery.callbackCalls;
  g_delivery.connection = connection;
  g_delivery.handle = handle;
  g_delivery.text = text != nullptr ? text : "(null)";
  g_delivery.hasData = data != nullptr;
  g_delivery.data = data != nullptr ? std::string(static_cast<const char*>(data), dataLen) : std::string();
  g_delivery.dataLen = dataLen;
  g_delivery.hasExtra = extra != nullptr;
  return g_delivery.answer;
}

// Has the type of the module's exported SendBack.
signed char TestWrapper(SendBackCallback callback, int connection, void* handle, char const* text, void const* data,
                        unsigned int dataLen, char const* extra) {
  ++g_delivery.wrapperCalls;
  g_delivery.callback = callback;
  return callback(connection, handle, text, data, dataLen, extra);
}

int HostGet(char const*, char const*, char const*, void*, unsigned int*) { return 11; }
int HostSet(char const*, char const*, char const*, void const*, unsigned int) { return 12; }
int HostGet2(char const*, char const*, char const*, void*, unsigned int*) { return 13; }

int g_handleTarget = 0;
void* const kHandle = &g_handleTarget;

// A request on connection 5 with the test's wrapper and callback.
HttpParamRequest* MakeRequest(const std::string& cmd, SendBackCallback callback = HostCallback, int connection = 5,
                              SendBackWrapper wrapper = TestWrapper) {
  g_delivery = Delivery();
  return new HttpParamRequest(connection, kHandle, cmd, 2, 77, "example.test", wrapper, callback, HostGet, HostSet,
                              HostGet2, nullptr, 0, true);
}

const char kPortsCommand[] =
    "{\"id\":\"c1\",\"cmdId\":\"7\",\"version\":\"14.3\",\"method\":\"GetPorts\",\"parameter\":[\"key\"]}";

TEST(HttpParamRequest, TakesEverythingFromTheCommand) {
  unsigned char* body = new unsigned char[4]{1, 2, 3, 4};
  HttpParamRequest request(3, kHandle,
                           "{\"id\":\"c1\",\"cmdId\":\"7\",\"version\":\"14.3\",\"property\":\"P\","
                           "\"parameter\":[\"key\", 5, {\"a\":[true]}]}",
                           9, 77, "example.test", TestWrapper, HostCallback, HostGet, HostSet, HostGet2, body, 4,
                           true);
  EXPECT_EQ("c1", request.GetClientId());
  EXPECT_EQ("7", request.GetCmdId());
  EXPECT_EQ("14.3", request.GetVersion());
  EXPECT_EQ("P", request.GetFunName());
  EXPECT_EQ(1, request.GetCommandType());
  EXPECT_EQ(3, request.GetParamCount());
  EXPECT_EQ(9, request.GetBowserType());
  EXPECT_EQ(77, request.GetSocket());
  EXPECT_EQ("example.test", request.GetDomain());
  EXPECT_EQ(HostGet, request.GetHostGetCallback1());
  EXPECT_EQ(HostSet, request.GetHostSetCallback());
  EXPECT_EQ(HostGet2, request.GetHostGetCallback2());
  EXPECT_EQ(nullptr, request.GetResultData());
  EXPECT_EQ(0, request.GetResultDataLen());

  std::vector<Json::Value*>* stack = request.GetParamStack();
  ASSERT_EQ(3u, stack->size());
  EXPECT_EQ("key", JsonCommand::ConvertString((*stack)[0]));
  EXPECT_EQ(5, JsonCommand::ConvertInt((*stack)[1]));
  EXPECT_EQ("{\n   \"a\" : [ true ]\n}\n", JsonCommand::StyledText(*(*stack)[2]));

  // The response takes the body; it is freed with the request.
  HttpParamResponse* response = request.GetHttpParamResponse();
  ASSERT_NE(nullptr, response);
  EXPECT_EQ(body, response->GetData());
  EXPECT_EQ(4, response->GetDataLen());
  EXPECT_EQ("", response->GetJsonResult());
}

TEST(HttpParamRequest, BorrowedBodyStaysWithTheCaller) {
  unsigned char body[3] = {7, 8, 9};
  {
    HttpParamRequest request(1, nullptr, kPortsCommand, 1, 0, "", TestWrapper, HostCallback, nullptr, nullptr,
                             nullptr, body, 3, false);
    EXPECT_EQ(body, request.GetHttpParamResponse()->GetData());
  }
  EXPECT_EQ(9, body[2]);
  // The length is kept as 32 bits.
  HttpParamResponse response(nullptr, 0x100000005L, true);
  EXPECT_EQ(5, response.GetDataLen());
  response.SetJsonResult("doc");
  EXPECT_EQ("doc", response.GetJsonResult());
}

TEST(HttpParamRequest, ReceiveAndLastTimes) {
  const unsigned int before = GetTickCount();
  HttpParamRequest* request = MakeRequest(kPortsCommand);
  const unsigned int received = request->GetRecTime();
  EXPECT_LE(received - before, 1000u);
  EXPECT_EQ(received, request->GetLastTime());
  usleep(30 * 1000);
  const unsigned int firstCall = request->GetLastTime();
  EXPECT_LE(firstCall - received, 1000u);
  const unsigned int secondCall = request->GetLastTime();
  EXPECT_GE(secondCall - received, 30u);
  EXPECT_EQ(received, request->GetRecTime());
  delete request;
}

TEST(HttpParamRequestResults, GetResultStructForms) {
  HttpParamRequest* request = MakeRequest(kPortsCommand);
  // Values follow the command's own parameters.
  request->GetResultStruct<int>(5, nullptr, 0, 0, "");
  EXPECT_EQ("{\n   \"id\" : \"c1\",\n   \"method\" : \"GetPorts\",\n   \"result\" : [ \"key\", 5 ]\n}\n",
            request->GetHttpParamResponse()->GetJsonResult());
  // A description with code 0 travels as two values: the text and the module.
  EXPECT_EQ(request, request->GetResultStruct<int>(6, nullptr, 0, 0, "ok"));
  EXPECT_EQ(
      "{\n   \"id\" : \"c1\",\n   \"method\" : \"GetPorts\",\n"
      "   \"result\" : [ \"key\", 5, 6, \"ok\", \"Quintaris Service Manager Module\" ]\n}\n",
      request->GetHttpParamResponse()->GetJsonResult());
  EXPECT_EQ(5u, request->GetParamStack()->size());
  delete request;

  request = MakeRequest(kPortsCommand);
  request->GetResultStruct<bool>(true, nullptr, 0, -3, "bad");
  EXPECT_EQ(
      "{\n   \"description\" : \"bad\",\n   \"exception\" : -3,\n   \"id\" : \"c1\",\n   \"method\" : \"GetPorts\",\n"
      "   \"result\" : [ \"key\", true ]\n}\n",
      request->GetHttpParamResponse()->GetJsonResult());
  request->GetStringResultStruct("s\"q", nullptr, 0, -4, "");
  EXPECT_EQ(
      "{\n   \"description\" : \"\",\n   \"exception\" : -4,\n   \"id\" : \"c1\",\n   \"method\" : \"GetPorts\",\n"
      "   \"result\" : [ \"key\", true, \"s\\\"q\" ]\n}\n",
      request->GetHttpParamResponse()->GetJsonResult());
  delete request;

  request = MakeRequest("{\"id\":\"c2\",\"method\":\"QSVersion\"}");
  request->GetBOOLResultStruct(2, nullptr, 0, 0, "");
  request->GetBOOLResultStruct(0, nullptr, 0, 0, "");
  request->GetResultStruct(0x100000007L, nullptr, 0, 0, "");
  request->GetResultStruct<std::string>("v", nullptr, 0, 0, "");
  EXPECT_EQ(
      "{\n   \"id\" : \"c2\",\n   \"method\" : \"QSVersion\",\n   \"result\" : [ true, false, 7, \"v\" ]\n}\n",
      request->GetHttpParamResponse()->GetJsonResult());
  delete request;
}

TEST(HttpParamRequestResults, ResultDataIsCopiedReplacedAndConsumed) {
  HttpParamRequest* request = MakeRequest(kPortsCommand);
  const unsigned char first[] = {'a', 0, 'b'};
  request->GetResultStruct<bool>(true, first, 3, 0, "");
  ASSERT_NE(nullptr, request->GetResultData());
  EXPECT_NE(first, request->GetResultData());
  EXPECT_EQ(3, request->GetResultDataLen());
  EXPECT_EQ(0, memcmp(first, request->GetResultData(), 3));

  // A later build drops the earlier data even without new data.
  request->GetResultStruct<bool>(true, nullptr, 5, 0, "");
  EXPECT_EQ(nullptr, request->GetResultData());
  EXPECT_EQ(0, request->GetResultDataLen());

  const unsigned char second[] = {'x', 'y'};
  request->GetResultStruct<bool>(false, second, 2, 0, "");
  EXPECT_EQ(1, request->SendBackResult());
  EXPECT_TRUE(g_delivery.hasData);
  EXPECT_EQ(std::string("xy"), g_delivery.data);
  EXPECT_EQ(2u, g_delivery.dataLen);
  EXPECT_EQ(nullptr, request->GetResultData());
  EXPECT_EQ(0, request->GetResultDataLen());

  // Sending again sends the same document without data.
  EXPECT_EQ(1, request->SendBackResult());
  EXPECT_FALSE(g_delivery.hasData);
  EXPECT_EQ(0u, g_delivery.dataLen);
  delete request;

  // Data that is never sent is freed with the request.
  request = MakeRequest(kPortsCommand);
  request->GetResultStruct<int>(1, first, 3, 0, "");
  delete request;
}

TEST(HttpParamRequestResults, AddResultParamForms) {
  HttpParamRequest* request = MakeRequest(kPortsCommand);
  EXPECT_TRUE(request->AddStringResultParam("one", false, 0, "ignored for code 0"));
  EXPECT_EQ("{\n   \"id\" : \"c1\",\n   \"method\" : \"GetPorts\",\n   \"result\" : [ \"key\", \"one\" ]\n}\n",
            request->GetHttpParamResponse()->GetJsonResult());
  EXPECT_TRUE(request->AddResultParam<std::string>("two", true, -9, "why"));
  EXPECT_EQ(
      "{\n   \"description\" : \"why\",\n   \"event\" : \"GetPorts\",\n   \"exception\" : -9,\n"
      "   \"id\" : \"c1\",\n   \"result\" : [ \"key\", \"one\", \"two\" ]\n}\n",
      request->GetHttpParamResponse()->GetJsonResult());
  delete request;
}

TEST(HttpParamRequestResults, JsonStringResultKeepsComments) {
  HttpParamRequest* request = MakeRequest("{\"id\":\"c3\",\"method\":\"M\"}");
  std::string json = "{\"b\":[1,2],\"a\":\"x\"}";
  EXPECT_TRUE(request->AddJsonStringResultParam(json, false, 0, ""));
  const std::string first =
      "{\n   \"id\" : \"c3\",\n   \"method\" : \"M\",\n   \"result\" : [\n      {\n         \"a\" : \"x\",\n"
      "         \"b\" : [ 1, 2 ]\n      }\n   ]\n}\n";
  EXPECT_EQ(first, request->GetHttpParamResponse()->GetJsonResult());

  std::string commented = "// count\n3";
  EXPECT_TRUE(request->AddJsonStringResultParam(commented, false, 0, ""));
  EXPECT_EQ(
      "{\n   \"id\" : \"c3\",\n   \"method\" : \"M\",\n   \"result\" : [\n      {\n         \"a\" : \"x\",\n"
      "         \"b\" : [ 1, 2 ]\n      },\n      // count\n      3\n   ]\n}\n",
      request->GetHttpParamResponse()->GetJsonResult());
  const std::string kept = request->GetHttpParamResponse()->GetJsonResult();

  // Texts the parser refuses, or throws on, change nothing.
  for (std::string bad : {std::string("{\"a\":"), std::string(""), std::string(5000, '['),
                          std::string(100000, '[') + std::string(100000, ']')}) {
    EXPECT_FALSE(request->AddJsonStringResultParam(bad, true, -1, "x"));
    EXPECT_EQ(kept, request->GetHttpParamResponse()->GetJsonResult());
    EXPECT_EQ(2u, request->GetParamStack()->size());
  }
  delete request;
}

TEST(HttpParamRequestResults, DocumentStoredUnchanged) {
  HttpParamRequest* request = MakeRequest(kPortsCommand);
  request->GetResultStruct<int>(1, nullptr, 0, 0, "");
  EXPECT_EQ(request, request->GetResultStructByJsonString("not json {"));
  EXPECT_EQ("not json {", request->GetHttpParamResponse()->GetJsonResult());
  delete request;
}

TEST(HttpParamRequestSend, InsertsCmdIdAsTheLastMember) {
  LogCapture log;
  HttpParamRequest* request = MakeRequest(kPortsCommand);
  request->GetResultStructByJsonString("{\n   \"id\" : \"1\"\n}\n");
  EXPECT_EQ(1, request->SendBackResult());
  const std::string sent = "{\n   \"id\" : \"1\",\n\t\"cmdId\" : \"7\"\n}\n";
  EXPECT_EQ(1, g_delivery.wrapperCalls);
  EXPECT_EQ(1, g_delivery.callbackCalls);
  EXPECT_EQ(HostCallback, g_delivery.callback);
  EXPECT_EQ(5, g_delivery.connection);
  EXPECT_EQ(kHandle, g_delivery.handle);
  EXPECT_EQ(sent, g_delivery.text);
  EXPECT_FALSE(g_delivery.hasData);
  EXPECT_EQ(0u, g_delivery.dataLen);
  EXPECT_FALSE(g_delivery.hasExtra);
  // The stored document itself is not changed.
  EXPECT_EQ("{\n   \"id\" : \"1\"\n}\n", request->GetHttpParamResponse()->GetJsonResult());

  // A whole result as a handler builds it.
  request->GetResultStruct<bool>(false, nullptr, 0, -2200, "Function not found");
  const std::string full =
      "{\n   \"description\" : \"Function not found\",\n   \"exception\" : -2200,\n   \"id\" : \"c1\",\n"
      "   \"method\" : \"GetPorts\",\n   \"result\" : [ \"key\", false ],\n\t\"cmdId\" : \"7\"\n}\n";
  EXPECT_EQ(1, request->SendBackResult());
  EXPECT_EQ(full, g_delivery.text);
  delete request;

  std::vector<std::string> entries = log.Entries();
  ASSERT_EQ(2u, entries.size());
  EXPECT_EQ("Debug: result json = [" + sent + "].", entries[0]);
  EXPECT_EQ("Debug: result json = [" + full + "].", entries[1]);
}

TEST(HttpParamRequestSend, WhereTheCmdIdGoes) {
  struct Case {
    const char* document;
    const char* sent;
  };
  const Case cases[] = {
      {"", ""},
      {"no brace\n", "no brace\n"},
      {"{\"a\":1}", "{\"a\":1}"},
      // The newline after the last "}" does not count.
      {"{\"a\":\"}\"}\n", "{\"a\":\"}\"}\n"},
      {"x\n}{", "x,\n\t\"cmdId\" : \"7\"\n}{"},
      {"{\n}\n}\n", "{\n},\n\t\"cmdId\" : \"7\"\n}\n"},
      {"\n}", ",\n\t\"cmdId\" : \"7\"\n}"},
  };
  for (const Case& c : cases) {
    HttpParamRequest* request = MakeRequest(kPortsCommand);
    request->GetResultStructByJsonString(c.document);
    EXPECT_EQ(1, request->SendBackResult()) << c.document;
    EXPECT_EQ(c.sent, g_delivery.text) << c.document;
    delete request;
  }

  // The member is formatted into 1,024 bytes: a long id is cut, quote and all.
  const std::string longId(2000, 'i');
  HttpParamRequest* request = MakeRequest("{\"id\":\"1\",\"cmdId\":\"" + longId + "\"}");
  request->GetResultStructByJsonString("{\n}\n");
  request->SendBackResult();
  EXPECT_EQ("{,\n\t\"cmdId\" : \"" + std::string(1023 - 14, 'i') + "\n}\n", g_delivery.text);
  delete request;

  // A command without cmdId gets an empty one.
  request = MakeRequest("{\"id\":\"1\",\"method\":\"M\"}");
  request->GetResultStructByJsonString("{\n}\n");
  request->SendBackResult();
  EXPECT_EQ("{,\n\t\"cmdId\" : \"\"\n}\n", g_delivery.text);
  delete request;
}

TEST(HttpParamRequestSend, RefusedWithoutCallbackOrConnection) {
  LogCapture log;
  HttpParamRequest* noCallback = MakeRequest(kPortsCommand, nullptr);
  noCallback->GetResultStructByJsonString("{\n}\n");
  EXPECT_EQ(0, noCallback->SendBackResult());
  EXPECT_EQ(0, g_delivery.wrapperCalls);
  delete noCallback;

  HttpParamRequest* noConnection = MakeRequest(kPortsCommand, HostCallback, 0);
  const unsigned char data[] = {1};
  noConnection->GetResultStruct<int>(1, data, 1, 0, "");
  EXPECT_EQ(0, noConnection->SendBackResult());
  EXPECT_EQ(0, g_delivery.wrapperCalls);
  // Nothing was sent, so the result data is still there.
  EXPECT_NE(nullptr, noConnection->GetResultData());
  delete noConnection;

  std::vector<std::string> entries = log.Entries();
  ASSERT_EQ(2u, entries.size());
  EXPECT_EQ("Error: Invalid send back handle. Function must be call in wesocket!", entries[0]);
  EXPECT_EQ(entries[0], entries[1]);
}

TEST(HttpParamRequestSend, WithoutClientIdOrWrapper) {
  LogCapture log;
  const std::string cmd = "{\"cmdId\":\"4\",\"method\":\"M\"}";
  HttpParamRequest* request = MakeRequest(cmd);
  request->GetResultStructByJsonString("{\n}\n");
  g_delivery.answer = -2;
  EXPECT_EQ(-2, request->SendBackResult());
  EXPECT_EQ("{,\n\t\"cmdId\" : \"4\"\n}\n", g_delivery.text);
  delete request;

  // Without a wrapper nothing goes out, but the document is still prepared.
  request = MakeRequest("{\"id\":\"1\",\"cmdId\":\"4\"}", HostCallback, 5, nullptr);
  request->GetResultStructByJsonString("{\n}\n");
  EXPECT_EQ(0, request->SendBackResult());
  EXPECT_EQ(0, g_delivery.callbackCalls);
  EXPECT_EQ(0, request->Sendback("text"));
  delete request;

  std::vector<std::string> entries = log.Entries();
  ASSERT_EQ(3u, entries.size());
  EXPECT_EQ("Debug: Invalid json command format. cmd = [" + cmd + "][5].", entries[0]);
  EXPECT_EQ("Debug: result json = [{,\n\t\"cmdId\" : \"4\"\n}\n].", entries[1]);
  EXPECT_EQ("Debug: result json = [{,\n\t\"cmdId\" : \"4\"\n}\n].", entries[2]);
}

TEST(HttpParamRequestSend, SendbackPrimitives) {
  HttpParamRequest* request = MakeRequest(kPortsCommand);
  const char data[] = "bin";
  g_delivery.answer = 9;
  EXPECT_EQ(9, request->Sendback("hello", data, 3, "extra"));
  EXPECT_EQ("hello", g_delivery.text);
  EXPECT_EQ("bin", g_delivery.data);
  EXPECT_TRUE(g_delivery.hasExtra);
  EXPECT_EQ(9, request->Sendback("again"));
  EXPECT_EQ("again", g_delivery.text);
  EXPECT_FALSE(g_delivery.hasData);
  EXPECT_FALSE(g_delivery.hasExtra);
  EXPECT_EQ(2, g_delivery.wrapperCalls);
  delete request;
}

// Commands the parser refuses or throws on: the request is still made, has
// no identity and no parameters, and can still be answered.
TEST(HttpParamRequestHardening, UnusableCommandsAreAnsweredEmpty) {
  std::string deepObjects;
  for (int i = 0; i < 100000; ++i) deepObjects += "{\"a\":";
  const std::string commands[] = {
      "{\"id\":\"1\",\"cmdId\":\"2\",\"method\":\"M\",\"parameter\":[" + std::string(100000, '[') +
          std::string(100000, ']') + "]}",
      "{\"id\":\"1\",\"cmdId\":\"2\",\"method\":\"M\",\"parameter\":[" + std::string(999, '[') +
          std::string(999, ']') + "]}",
      deepObjects + "1" + std::string(100000, '}'),
      std::string(100000, '['),
      "{\"id\":\"1\",\"cmdId\":\"2\",\"method\":\"M\",\"parameter\":[" + std::string(4 << 20, '1'),
      "",
  };
  for (const std::string& cmd : commands) {
    HttpParamRequest* request = MakeRequest(cmd);
    EXPECT_EQ("", request->GetClientId());
    EXPECT_EQ("", request->GetCmdId());
    EXPECT_EQ("", request->GetFunName());
    EXPECT_EQ("", request->GetVersion());
    EXPECT_EQ(3, request->GetCommandType());
    EXPECT_EQ(0, request->GetParamCount());
    EXPECT_TRUE(request->GetParamStack()->empty());
    EXPECT_EQ(cmd, request->GetCMDString());
    request->GetResultStruct<bool>(false, nullptr, 0, -2200, "Function not found");
    EXPECT_EQ(1, request->SendBackResult());
    EXPECT_EQ(
        "{\n   \"description\" : \"Function not found\",\n   \"exception\" : -2200,\n   \"id\" : \"\",\n"
        "   \"method\" : \"\",\n   \"result\" : [ false ],\n\t\"cmdId\" : \"\"\n}\n",
        g_delivery.text);
    delete request;
  }
}

TEST(HttpParamRequestHardening, DeepestAndLargestAcceptedCommands) {
  // 1,000 levels including the command object are accepted and answered.
  HttpParamRequest* request = MakeRequest("{\"id\":\"1\",\"cmdId\":\"2\",\"method\":\"M\",\"parameter\":[" +
                                          std::string(998, '[') + std::string(998, ']') + "]}");
  EXPECT_EQ(1, request->GetParamCount());
  request->GetResultStruct<int>(1, nullptr, 0, 0, "");
  EXPECT_EQ(1, request->SendBackResult());
  EXPECT_EQ(0u, g_delivery.text.find("{\n   \"id\" : \"1\",\n   \"method\" : \"M\",\n   \"result\" : [\n"));
  const std::string tail = "\n      1\n   ],\n\t\"cmdId\" : \"2\"\n}\n";
  ASSERT_GT(g_delivery.text.size(), tail.size());
  EXPECT_EQ(tail, g_delivery.text.substr(g_delivery.text.size() - tail.size()));
  delete request;

  std::string cmd = "{\"id\":\"many\",\"method\":\"M\",\"parameter\":[";
  for (int i = 0; i < 200000; ++i) cmd += "1,";
  cmd += "2]}";
  request = MakeRequest(cmd);
  EXPECT_EQ(200001, request->GetParamCount());
  EXPECT_EQ(200001u, request->GetParamStack()->size());
  EXPECT_EQ(2, JsonCommand::ConvertInt(request->GetParamStack()->back()));
  delete request;
}

}  // namespace
