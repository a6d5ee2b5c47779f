// The request object (what it takes from the command, the documents its
// builders store, exactly what goes back to the host) and the command table's
// own helpers.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "FVASManager/ManagerClient.h"
#include "FVASManager/http_param_request.h"
#include "json_command/json_command.h"

namespace {

// What reached the host through the test's wrapper.
struct Delivery {
  int calls = 0, connection = 0;
  std::string text, data;
  bool hasData = false, hasExtra = false;
  signed char answer = 1;
} g_delivery;

signed char HostCallback(int, void*, char const*, void const*, unsigned int, char const*) { return g_delivery.answer; }
signed char TestWrapper(SendBackCallback callback, int connection, void* handle, char const* text, void const* data,
                        unsigned int dataLen, char const* extra) {
  g_delivery = {g_delivery.calls + 1, connection, text,
                data != nullptr ? std::string(static_cast<const char*>(data), dataLen) : "",
                data != nullptr, extra != nullptr, g_delivery.answer};
  return callback(connection, handle, text, data, dataLen, extra);
}

const char kPortsCommand[] = "{\"id\":\"c1\",\"cmdId\":\"7\",\"method\":\"GetPorts\",\"parameter\":[\"key\"]}";

using Request = std::unique_ptr<HttpParamRequest>;
Request MakeRequest(const std::string& cmd, SendBackCallback callback = HostCallback, int connection = 5,
                    SendBackWrapper wrapper = TestWrapper) {
  g_delivery = Delivery();
  return std::make_unique<HttpParamRequest>(connection, nullptr, cmd, 2, 77, "example.test", wrapper, callback, nullptr,
                                            nullptr, nullptr, nullptr, 0, true);
}

// Commands the parser refuses or throws on: no identity, no parameters, and
// still answered.
TEST(HttpParamRequest, UnusableCommandsAreStillAnswered) {
  for (const std::string& cmd : {std::string(100000, '[') + std::string(100000, ']'), std::string("{\"id\":\"1\"")}) {
    Request unusable = MakeRequest(cmd);
    EXPECT_EQ("", unusable->GetClientId() + unusable->GetCmdId() + unusable->GetFunName());
    EXPECT_EQ(3, unusable->GetCommandType());
    unusable->GetResultStruct<bool>(false, nullptr, 0, -2200, "Function not found");
    EXPECT_EQ(1, unusable->SendBackResult());
    EXPECT_EQ("{\n   \"description\" : \"Function not found\",\n   \"exception\" : -2200,\n   \"id\" : \"\",\n"
              "   \"method\" : \"\",\n   \"result\" : [ false ],\n\t\"cmdId\" : \"\"\n}\n",
              g_delivery.text);
  }
}

// A description with code 0 travels as two values (the text and the module);
// otherwise it is the document's own member, with the event form.
TEST(HttpParamRequest, DescriptionsAndTheEventForm) {
  Request request = MakeRequest(kPortsCommand);
  request->GetResultStruct<int>(6, nullptr, 0, 0, "ok");
  EXPECT_NE(std::string::npos, request->GetHttpParamResponse()->GetJsonResult().find(
                                   "[ \"key\", 6, \"ok\", \"Quintaris Service Manager Module\" ]"));
  request = MakeRequest(kPortsCommand);
  request->GetResultStruct<bool>(true, nullptr, 0, -3, "bad");
  EXPECT_TRUE(request->AddResultParam<std::string>("two", true, -9, "why"));
  EXPECT_EQ("{\n   \"description\" : \"why\",\n   \"event\" : \"GetPorts\",\n   \"exception\" : -9,\n"
            "   \"id\" : \"c1\",\n   \"result\" : [ \"key\", true, \"two\" ]\n}\n",
            request->GetHttpParamResponse()->GetJsonResult());
  // A JSON text that does not parse is refused; one that does is appended.
  std::string bad = "{", one = "[1]";
  EXPECT_TRUE(!request->AddJsonStringResultParam(bad, 0, 0, "") && request->AddJsonStringResultParam(one, true, -9, "why") &&
              request->GetHttpParamResponse()->GetJsonResult().find("\"two\",\n      [ 1 ]\n   ]") != std::string::npos);
  request->GetResultStructByJsonString("{}");
  EXPECT_EQ("{}", request->GetHttpParamResponse()->GetJsonResult());
}

TEST(HttpParamRequest, SendBackInsertsTheCmdIdAndConsumesTheData) {
  const std::string member = ",\n\t\"cmdId\" : \"7\"\n";
  const struct { std::string cmd, document, sent; } rows[] = {
      {kPortsCommand, "{\n   \"id\" : \"1\"\n}\n", "{\n   \"id\" : \"1\"" + member + "}\n"},
      {kPortsCommand, "no brace\n", "no brace\n"}, {kPortsCommand, "{\"a\":1}", "{\"a\":1}"},
      {kPortsCommand, "x\n}{", "x" + member + "}{"},  // the last "}", the last newline before it
      {kPortsCommand, "{\n}\n}\n", "{\n}" + member + "}\n"},
      {"{\"id\":\"1\"}", "{\n}\n", "{,\n\t\"cmdId\" : \"\"\n}\n"},
      {"{\"cmdId\":\"" + std::string(2000, 'i') + "\"}", "{\n}\n",  // cut at 1,023 bytes
       "{,\n\t\"cmdId\" : \"" + std::string(1023 - 14, 'i') + "\n}\n"},
  };
  for (const auto& row : rows) {
    Request request = MakeRequest(row.cmd);
    request->GetResultStructByJsonString(row.document);
    EXPECT_EQ(1, request->SendBackResult());
    EXPECT_EQ(row.sent, g_delivery.text) << row.document;
    EXPECT_EQ(row.document, request->GetHttpParamResponse()->GetJsonResult()) << "the stored document is unchanged";
  }
  Request request = MakeRequest(kPortsCommand);
  request->GetResultStruct<bool>(true, reinterpret_cast<const unsigned char*>("xy"), 2, 0, "");
  request->GetResultStruct<bool>(true, nullptr, 5, 0, "");
  EXPECT_EQ(nullptr, request->GetResultData()) << "a later build drops the earlier data";
  request->GetResultStruct<bool>(false, reinterpret_cast<const unsigned char*>("ab"), 2, 0, "");
  g_delivery.answer = -2;
  EXPECT_EQ(-2, request->SendBackResult()) << "the host's answer";
  EXPECT_EQ("ab 5 0", g_delivery.data + " " + std::to_string(g_delivery.connection) + " " +
                         std::to_string(g_delivery.hasExtra));
  EXPECT_EQ(-2, request->SendBackResult());
  EXPECT_FALSE(g_delivery.hasData) << "the data went with the first send";
  // Without a callback, with connection 0 or without a wrapper nothing is sent.
  Request refused[] = {MakeRequest(kPortsCommand, nullptr), MakeRequest(kPortsCommand, HostCallback, 0),
                       MakeRequest(kPortsCommand, HostCallback, 5, nullptr)};
  for (Request& r : refused) {
    r->GetResultStruct<int>(1, reinterpret_cast<const unsigned char*>("d"), 1, 0, "");
    EXPECT_EQ(0, r->SendBackResult());
  }
  EXPECT_NE(nullptr, refused[1]->GetResultData()) << "nothing was sent, so the data stays";
  EXPECT_EQ(0, g_delivery.calls);
}

TEST(ManagerClient, PortMapsAndUserKeys) {
  ManagerClient client;
  EXPECT_EQ(R"({"fvt":{"port":0,"sslPort":-1},"kxp":{"port":8080,"sslPort":8443}})",
            ManagerClient::PortMapToJson({{"kxp", {8080, 8443}}, {"fvt", {0, -1}}}));
  // Two VersionInfo calls from the same user give one key; an unknown key
  // given to GetPorts is entered too.
  for (const char* cmd : {R"({"id":"1","method":"VersionInfo"})", R"({"id":"1","method":"VersionInfo"})",
                          R"({"id":"2","method":"GetPorts","parameter":["12345"]})"}) {
    Request request = MakeRequest(cmd);
    client.Function(request.get());
  }
  EXPECT_EQ(2u, client.UserKeyCount());
  EXPECT_EQ(1u, client.UserCount());
  std::string sid = "unset";
  EXPECT_TRUE(client.FindUserKey("12345", &sid) && sid.empty() && !client.FindUserKey("7", nullptr));
  EXPECT_EQ("3299 4294967295", std::to_string(GetHashCode("ab")) + " " + std::to_string(GetHashCode("\xff")));
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(client.Function(nullptr), "FVASManager/ManagerClient.*pParam != __null");
}

}  // namespace
