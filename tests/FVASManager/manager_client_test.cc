#include "FVASManager/ManagerClient.h"

#include <gtest/gtest.h>

#include <string>

#include "FVASManager/http_param_request.h"

namespace {

signed char Capture(SendBackCallback, int, void*, char const* text, void const*, unsigned int, char const*);
std::string g_sent;

signed char Capture(SendBackCallback, int, void*, char const* text, void const*, unsigned int, char const*) {
  g_sent = text;
  return 1;
}

signed char NoCallback(int, void*, char const*, void const*, unsigned int, char const*) { return 1; }

HttpParamRequest* Request(const std::string& cmd, int browserType = 1) {
  return new HttpParamRequest(1, nullptr, cmd, browserType, 3, "d", Capture, NoCallback, nullptr, nullptr, nullptr,
                              nullptr, 0, true);
}

TEST(GetHashCode, SignedBytesFromZero) {
  EXPECT_EQ(0u, GetHashCode(""));
  EXPECT_EQ(97u, GetHashCode("a"));
  EXPECT_EQ(3299u, GetHashCode("ab"));
  EXPECT_EQ(4294967295u, GetHashCode("\xff")) << "0xFF counts as -1";
  EXPECT_EQ(GetHashCode("abc"), GetHashCode(std::string("abc\0def", 7))) << "up to the first NUL";
  EXPECT_EQ(3299u * 33 + static_cast<unsigned int>(-128), GetHashCode("ab\x80"));
}

TEST(ManagerClient, TheTableHoldsExactlyThreeCommands) {
  ManagerClient client;
  EXPECT_EQ(3u, client.FunctionCount());
  EXPECT_TRUE(client.HasFunction("VersionInfo"));
  EXPECT_TRUE(client.HasFunction("QSVersion"));
  EXPECT_TRUE(client.HasFunction("GetPorts"));
  EXPECT_FALSE(client.HasFunction("LoadZipFromBytes"));
  EXPECT_FALSE(client.HasFunction("CheckUpdateFile"));
  client.AddAllFunctionMap();
  EXPECT_EQ(3u, client.FunctionCount()) << "inserting again keeps the entries";

  HttpParamRequest* request = Request(R"({"id":"1","method":""})");
  EXPECT_TRUE(client.Function(request));
  EXPECT_NE(std::string::npos, g_sent.find("\"exception\" : -2200")) << "an empty method name";
  delete request;
}

TEST(ManagerClient, UserTablesGrowAsDocumented) {
  ManagerClient client;
  EXPECT_EQ("", client.GetUserSIDBySock(5));
  EXPECT_EQ("", client.GetUserSIDBySock(6));
  EXPECT_EQ(1u, client.UserCount()) << "one row per user, its session refreshed";
  ManagerClient::SUserModuleInfo info;
  ASSERT_TRUE(client.FindUser("", &info));
  EXPECT_EQ(0u, info.sessionId);

  HttpParamRequest* version = Request(R"({"id":"1","method":"VersionInfo"})");
  client.Function(version);
  delete version;
  HttpParamRequest* again = Request(R"({"id":"1","method":"VersionInfo"})");
  client.Function(again);
  delete again;
  EXPECT_EQ(1u, client.UserKeyCount()) << "the same user keeps one key";

  HttpParamRequest* ports = Request(R"({"id":"2","method":"GetPorts","parameter":["12345"]})");
  client.Function(ports);
  delete ports;
  EXPECT_NE(std::string::npos, g_sent.find("\"description\" : \"User SID is empty.\""));
  std::string sid = "unset";
  EXPECT_TRUE(client.FindUserKey("12345", &sid)) << "an unknown key is entered";
  EXPECT_EQ("", sid);
  EXPECT_EQ(2u, client.UserKeyCount());
}

TEST(ManagerClient, PortMapText) {
  ManagerClient::PortMap ports;
  EXPECT_EQ("{}", ManagerClient::PortMapToJson(ports));
  ports["kxp"] = {8080, 8443};
  ports["fvt"] = {0, 0};
  EXPECT_EQ(R"({"fvt":{"port":0,"sslPort":0},"kxp":{"port":8080,"sslPort":8443}})", ManagerClient::PortMapToJson(ports));
  ports["kxs"] = {-1, 2147483647};
  EXPECT_NE(std::string::npos, ManagerClient::PortMapToJson(ports).find(R"("kxs":{"port":-1,"sslPort":2147483647})"));
}

TEST(ManagerClient, KnownUsersGetAnEmptyPortMapAndNoError) {
  ManagerClient client;
  std::string error;
  EXPECT_TRUE(client.GetCurrentUserModulePorts("S-1-5", error).empty());
  EXPECT_EQ("", error);
  EXPECT_TRUE(client.GetCurrentUserModulePorts("", error).empty());
  EXPECT_EQ("User SID is empty.", error);
  ManagerClient::PortMap all = client.GetAllListenPorts("S-1-5");
  ASSERT_EQ(3u, all.size());
  EXPECT_EQ(0, all["kxp"].port) << "nothing registered";
}

TEST(ManagerClient, ErrorInfoIsBounded) {
  ManagerClient client;
  client.SetErrorInfo(-2405, std::string(3000, 'x').c_str());
  EXPECT_EQ(-2405, client.GetErrorCode());
  EXPECT_EQ(1023u, std::string(client.GetErrorInfo()).size());
}

TEST(ManagerClientDeathTest, NullRequestFailsTheAssertion) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  ManagerClient client;
  EXPECT_DEATH(client.Function(nullptr), "FVASManager/ManagerClient.*pParam != __null");
}

}  // namespace
