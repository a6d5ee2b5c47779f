// qs-host serving the real module, driven over real loopback sockets: every
// route over HTTP and WebSocket, image records with the size guard, CORS,
// TLS, many clients at once, and a clean stop.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/host/host_client.h"

namespace qs_host_test {
namespace {

// Answers with the module and headers the host adds to every module answer.
void ExpectJson(const HttpReply& reply, const std::string& body) {
  EXPECT_EQ(200, reply.status) << reply.error.message();
  EXPECT_EQ("application/json", reply.Header("content-type"));
  EXPECT_EQ(body, reply.body);
}

class HostTest : public testing::Test {
 protected:
  // Four workers, more than the cores here, so strands really interleave.
  void SetUp() override { ASSERT_TRUE(host_.Start({"--port", "0", "--threads", "4"})) << host_.Output(); }
  void TearDown() override { EXPECT_EQ(0, host_.Stop()) << host_.Output(); }

  HostProcess host_;
};

TEST_F(HostTest, HttpCommandsReachTheModuleAndItsAnswersComeBack) {
  EXPECT_NE(std::string::npos,
            host_.Output().find("qs-host: TLS off: no server.pem and server_key.pem in " + host_.folder() + "/cert/\n"))
      << host_.Output();
  HttpClient client;
  ASSERT_TRUE(client.Connect(host_.port()));
  // Several requests on one kept-alive connection.
  HttpReply reply = client.Send(http::verb::post, "/kxp/", R"({"id":"7","cmdId":"c1","method":"VersionInfo"})");
  ExpectJson(reply, VersionInfoAnswer("7", "c1"));
  EXPECT_EQ("qs-host", reply.Header("server"));
  EXPECT_EQ("*", reply.Header("access-control-allow-origin")) << "EnableCORSAll is on by default";
  ExpectJson(client.Send(http::verb::post, "/kxp/cmd", R"({"id":"8","cmdId":"c2","method":"QSVersion"})"),
             QSVersionAnswer("8", "c2", "0"));
  ExpectJson(client.Send(http::verb::post, "/kxp/", R"({"id":"9","cmdId":"c3","method":"versioninfo"})"),
             NotFoundAnswer("9", "versioninfo", "c3"));
  // What follows a blank line in the request text is the module's body, not
  // part of the command.
  ExpectJson(client.Send(http::verb::post, "/kxp/", "{\"id\":\"1\",\"method\":\"QSVersion\"}\r\n\r\nDATA"),
             QSVersionAnswer("1", "", "0"));
  // A client without a User-Agent is refused by the module (browser type 0).
  ExpectJson(client.Send(http::verb::post, "/kxp/", R"({"id":"5","method":"VersionInfo"})", {}, ""),
             Document("   \"description\" : \"Unsupported browser client. Please try Folivant plugin edition for "
                      "chrome in Chrome!\",\n"
                      "   \"exception\" : -2205,\n"
                      "   \"id\" : \"5\",\n"
                      "   \"method\" : \"VersionInfo\",\n"
                      "   \"result\" : [ false ]",
                      ""));

  // The status page; HEAD gives its length without a body, and the
  // connection stays in step.
  HttpReply page = client.Send(http::verb::get, "/");
  EXPECT_EQ(200, page.status);
  EXPECT_EQ("text/html; charset=utf-8", page.Header("content-type"));
  EXPECT_NE(std::string::npos, page.body.find("var alias = \"kxp\";")) << "the alias comes from the module";
  HttpReply head = client.Send(http::verb::head, "/");
  EXPECT_EQ(200, head.status);
  EXPECT_EQ(std::to_string(page.body.size()), head.Header("content-length"));
  EXPECT_EQ("", head.body);

  // Paths the module does not know, and an empty command: its own answer.
  for (const char* target : {"/favicon.ico", "/x/kxp/", "/kxp/"}) {
    reply = client.Send(http::verb::get, target);
    EXPECT_EQ(200, reply.status) << target;
    EXPECT_EQ("text/plain; charset=utf-8", reply.Header("content-type")) << target;
    EXPECT_EQ("Invalid command", reply.body) << target;
  }
}

TEST_F(HostTest, UploadsHandTheirBinaryBodyToTheModule) {
  // The module wraps the upload into a command of its own, from the URL.
  const std::string zip("PK\x03\x04\x00\x00", 6);
  HttpReply reply = HttpCall(host_.port(), http::verb::post, "/kxp/LoadZipFromBytes?type=2&qsver=1.2&x=1", zip,
                             {{"Content-Type", "application/octet-stream"}});
  ExpectJson(reply, Document("   \"description\" : \"Function not found\",\n"
                             "   \"exception\" : -2200,\n"
                             "   \"id\" : \"1\",\n"
                             "   \"method\" : \"LoadZipFromBytes\",\n"
                             "   \"result\" : [ 2, \"1.2\", false ]",
                             ""));
  // CheckUpdateFile takes the command from the request text and adds the
  // client's version to its parameter list.
  reply = HttpCall(host_.port(), http::verb::post, "/CheckUpdateFile?qsver=15&x=1",
                   R"({"id":"9","method":"CheckUpdateFile","parameter":[]})");
  ExpectJson(reply, Document("   \"description\" : \"Function not found\",\n"
                             "   \"exception\" : -2200,\n"
                             "   \"id\" : \"9\",\n"
                             "   \"method\" : \"CheckUpdateFile\",\n"
                             "   \"result\" : [ \"15\", false ]",
                             ""));
}

TEST_F(HostTest, WebSocketCommandsAreAnsweredOnTheirSocket) {
  WsClient ws;
  ASSERT_TRUE(ws.Connect(host_.port(), "/kxp/"));
  EXPECT_EQ(VersionInfoAnswer("1", "a"), ws.Call(R"({"id":"1","cmdId":"a","method":"VersionInfo"})"));
  EXPECT_EQ(QSVersionAnswer("2", "b", "0"), ws.Call(R"({"id":"2","cmdId":"b","method":"QSVersion"})"));
  EXPECT_EQ(NotFoundAnswer("3", "Nope", "c"), ws.Call(R"({"id":"3","cmdId":"c","method":"Nope"})"));
  EXPECT_EQ(Document("   \"description\" : \"User SID is empty.\",\n"
                     "   \"exception\" : -2408,\n"
                     "   \"id\" : \"4\",\n"
                     "   \"method\" : \"GetPorts\",\n"
                     "   \"result\" : [ \"0\", false ]",
                     "d"),
            ws.Call(R"({"id":"4","cmdId":"d","method":"GetPorts","parameter":["0"]})"));

  // The socket's path is the URL of every message on it.
  WsClient elsewhere;
  ASSERT_TRUE(elsewhere.Connect(host_.port(), "/elsewhere"));
  EXPECT_EQ("Invalid command", elsewhere.Call(R"({"id":"1","method":"QSVersion"})"));

  WsClient anonymous;
  ASSERT_TRUE(anonymous.Connect(host_.port(), "/kxp/", ""));
  EXPECT_NE(std::string::npos, anonymous.Call(R"({"id":"1","method":"QSVersion"})").find("-2205"));
}

TEST_F(HostTest, ImageRecordsAndTheSizeGuard) {
  const int port = host_.port();
  const std::string setA = "/kxp/SetEncryptedImageMap?x=1&GUID=A";
  const std::string getA = "/kxp/GetEncryptedImageMap?GUID=A";
  EXPECT_EQ(404, HttpCall(port, http::verb::get, getA).status);

  EXPECT_EQ(204, HttpCall(port, http::verb::post, setA, "0123456789").status);
  HttpReply reply = HttpCall(port, http::verb::get, getA);
  EXPECT_EQ(200, reply.status);
  EXPECT_EQ("application/octet-stream", reply.Header("content-type"));
  EXPECT_EQ("0123456789" + std::string(2042, '\0'), reply.body);

  // A full record is accepted; one byte more would stop the module's process,
  // so the host refuses it before the module sees it.
  const std::string full(2052, 'F');
  EXPECT_EQ(204, HttpCall(port, http::verb::post, setA, full).status);
  {
    HttpClient client;
    ASSERT_TRUE(client.Connect(port));
    reply = client.Send(http::verb::post, setA, std::string(2053, 'X'));
    EXPECT_EQ(413, reply.status);
    EXPECT_EQ("an image record holds at most 2052 bytes\n", reply.body);
    EXPECT_EQ("close", reply.Header("connection"));
    EXPECT_TRUE(client.ClosedByServer());
  }
  {
    // Without a length up front: the body is cut off as it grows.
    HttpClient client;
    ASSERT_TRUE(client.Connect(port));
    http::request<http::string_body> chunked{http::verb::post, setA, 11};
    chunked.set(http::field::host, "127.0.0.1");
    chunked.set(http::field::user_agent, kAgent);
    chunked.body() = std::string(5000, 'Y');
    chunked.chunked(true);
    reply = client.Write(chunked);
    EXPECT_EQ(413, reply.status);
  }
  {
    // The refusal comes before the body is read, so a client that waits for
    // "100 Continue" is told at once.
    HttpClient client;
    ASSERT_TRUE(client.Connect(port));
    http::request<http::empty_body> ask{http::verb::post, setA, 11};
    ask.set(http::field::host, "127.0.0.1");
    ask.set(http::field::expect, "100-continue");
    ask.content_length(100000);
    reply = client.Write(ask);
    EXPECT_EQ(413, reply.status);
  }
  reply = HttpCall(port, http::verb::get, getA);
  EXPECT_EQ(full, reply.body) << "the record is unchanged and the module still runs";

  // An empty body deletes; a URL without GUID stores nothing.
  EXPECT_EQ(204, HttpCall(port, http::verb::post, setA, "").status);
  EXPECT_EQ(404, HttpCall(port, http::verb::get, getA).status);
  EXPECT_EQ(400, HttpCall(port, http::verb::post, "/SetEncryptedImageMap?x=1", "abc").status);
  // Everything after "GUID=" is the key.
  EXPECT_EQ(204, HttpCall(port, http::verb::post, "/SetEncryptedImageMap?GUID=B&x=1", "b").status);
  EXPECT_EQ(404, HttpCall(port, http::verb::get, "/GetEncryptedImageMap?GUID=B").status);
  EXPECT_EQ(200, HttpCall(port, http::verb::get, "/GetEncryptedImageMap?GUID=B&x=1").status);
}

TEST_F(HostTest, CorsPreflightIsAnsweredByTheHost) {
  HttpReply reply = HttpCall(host_.port(), http::verb::options, "/kxp/", "",
                             {{"Origin", "https://page.example"},
                              {"Access-Control-Request-Method", "POST"},
                              {"Access-Control-Request-Headers", "content-type, x-one"},
                              {"Access-Control-Request-Private-Network", "true"}});
  EXPECT_EQ(204, reply.status);
  EXPECT_EQ("*", reply.Header("access-control-allow-origin"));
  EXPECT_EQ("GET, POST, OPTIONS", reply.Header("access-control-allow-methods"));
  EXPECT_EQ("content-type, x-one", reply.Header("access-control-allow-headers"));
  EXPECT_EQ("true", reply.Header("access-control-allow-private-network"));
  EXPECT_EQ("600", reply.Header("access-control-max-age"));
  EXPECT_EQ("", reply.body);
}

// Many clients at once, half on HTTP keep-alive connections, half on
// WebSockets; every command carries its own id, so an answer delivered to
// the wrong connection or mixed with another shows.
TEST_F(HostTest, ManyConcurrentClientsEachGetTheirOwnAnswers) {
  constexpr int kClients = 32;
  constexpr int kCommands = 200;
  std::atomic<int> wrong{0};
  std::atomic<int> answered{0};
  std::vector<std::string> firstWrong(kClients);
  std::vector<std::thread> threads;
  for (int c = 0; c < kClients; ++c) {
    threads.emplace_back([&, c] {
      const bool overWebSocket = c % 2 == 1;
      HttpClient http;
      WsClient ws;
      if (overWebSocket ? !ws.Connect(host_.port()) : !http.Connect(host_.port())) {
        wrong += kCommands;
        return;
      }
      for (int i = 0; i < kCommands; ++i) {
        const std::string id = std::to_string(c) + "-" + std::to_string(i);
        const std::string cmdId = "k" + id;
        std::string command;
        std::string expected;
        switch (i % 3) {
          case 0:
            command = R"({"id":")" + id + R"(","cmdId":")" + cmdId + R"(","method":"VersionInfo"})";
            expected = VersionInfoAnswer(id, cmdId);
            break;
          case 1:
            command = R"({"id":")" + id + R"(","cmdId":")" + cmdId + R"(","method":"QSVersion"})";
            expected = QSVersionAnswer(id, cmdId, "0");
            break;
          default:
            command = R"({"id":")" + id + R"(","cmdId":")" + cmdId + R"(","method":"M)" + id + R"("})";
            expected = NotFoundAnswer(id, "M" + id, cmdId);
        }
        std::string got;
        if (overWebSocket) {
          got = ws.Call(command);
        } else {
          HttpReply reply = http.Send(http::verb::post, "/kxp/", command);
          got = reply.status == 200 ? reply.body : "status " + std::to_string(reply.status);
        }
        if (got != expected) {
          ++wrong;
          if (firstWrong[c].empty()) firstWrong[c] = "expected:\n" + expected + "got:\n" + got;
        } else {
          ++answered;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(kClients * kCommands, answered.load());
  EXPECT_EQ(0, wrong.load());
  for (const auto& text : firstWrong) {
    if (!text.empty()) ADD_FAILURE() << text;
  }
}

TEST(HostStop, SigtermClosesSocketsAndReleasesTheModule) {
  HostProcess host;
  ASSERT_TRUE(host.Start()) << host.Output();
  WsClient ws;
  ASSERT_TRUE(ws.Connect(host.port()));
  EXPECT_EQ(QSVersionAnswer("1", "", "0"), ws.Call(R"({"id":"1","method":"QSVersion"})"));
  HttpClient idle;
  ASSERT_TRUE(idle.Connect(host.port()));

  host.Signal(SIGTERM);
  WsMessage last = ws.Read();
  EXPECT_EQ(websocket::error::closed, last.error);
  EXPECT_EQ(websocket::close_code::going_away, ws.CloseReason().code);
  EXPECT_EQ("the service stops", std::string(ws.CloseReason().reason.c_str()));
  EXPECT_EQ(0, host.Wait());
  EXPECT_TRUE(idle.ClosedByServer());
  const std::string output = host.Output();
  EXPECT_NE(std::string::npos, output.find("qs-host: stopping (signal 15)\n")) << output;
  EXPECT_NE(std::string::npos, output.find("qs-host: stopped after signal 15; module released (DoAction 3)\n"))
      << output;
}

TEST(HostCall, OneCommandInProcess) {
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string output;
  };
  const std::vector<Case> cases = {
      {{"call", R"({"id":"1","cmdId":"x","method":"QSVersion"})"}, 0, QSVersionAnswer("1", "x", "0")},
      {{"call", "--url", "/kxp/v", R"({"id":"2","method":"VersionInfo"})"}, 0, VersionInfoAnswer("2", "")},
      {{"call", "--url", "/nowhere", "{}"}, 0, "Invalid command\n"},
      {{"call", "--no-user-agent", R"({"id":"3","method":"QSVersion"})"},
       0,
       Document("   \"description\" : \"Unsupported browser client. Please try Folivant plugin edition for "
                "chrome in Chrome!\",\n"
                "   \"exception\" : -2205,\n"
                "   \"id\" : \"3\",\n"
                "   \"method\" : \"QSVersion\",\n"
                "   \"result\" : [ false ]",
                "")},
      {{"call"}, 1, "qs-host: call needs a JSON command\n"},
  };
  for (const Case& c : cases) {
    HostProcess host;
    ASSERT_TRUE(host.Start(c.args, {}, false));
    EXPECT_EQ(c.status, host.Wait()) << host.Output();
    const std::string output = host.Output();
    // The usage text comes before the message when the arguments are wrong.
    EXPECT_EQ(c.output, output.substr(output.size() - std::min(output.size(), c.output.size()))) << output;
    if (c.status == 0) {
      EXPECT_EQ(c.output, output);
    }
  }
}

// A self-signed certificate and key for 127.0.0.1, as PEM files.
bool WriteSelfSignedPair(const std::string& certFile, const std::string& keyFile) {
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_RSA_gen(2048), EVP_PKEY_free);
  std::unique_ptr<X509, decltype(&X509_free)> cert(X509_new(), X509_free);
  if (!key || !cert) return false;
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 24 * 3600);
  X509_set_pubkey(cert.get(), key.get());
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
  X509_set_issuer_name(cert.get(), name);
  if (X509_sign(cert.get(), key.get(), EVP_sha256()) == 0) return false;
  FILE* out = fopen(certFile.c_str(), "w");
  if (out == nullptr) return false;
  const bool certWritten = PEM_write_X509(out, cert.get()) == 1;
  fclose(out);
  out = fopen(keyFile.c_str(), "w");
  if (out == nullptr) return false;
  const bool keyWritten = PEM_write_PrivateKey(out, key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1;
  fclose(out);
  return certWritten && keyWritten;
}

TEST(HostTls, ServedWhenTheCertificateFolderHoldsAKeyPair) {
  HostProcess host;
  std::filesystem::create_directory(host / "cert");
  ASSERT_TRUE(WriteSelfSignedPair(host / "cert/server.pem", host / "cert/server_key.pem"));
  ASSERT_TRUE(host.Start()) << host.Output();
  const int tlsPort = host.TlsPort();
  ASSERT_GT(tlsPort, 0) << host.Output();
  EXPECT_NE(tlsPort, host.port());

  HttpsClient https;
  ASSERT_TRUE(https.Connect(tlsPort));
  ExpectJson(https.Send(http::verb::post, "/kxp/", R"({"id":"1","cmdId":"s","method":"VersionInfo"})"),
             VersionInfoAnswer("1", "s"));
  HttpReply page = https.Send(http::verb::get, "/");
  EXPECT_EQ(200, page.status);

  WssClient wss;
  ASSERT_TRUE(wss.Connect(tlsPort));
  EXPECT_EQ(QSVersionAnswer("2", "w", "0"), wss.Call(R"({"id":"2","cmdId":"w","method":"QSVersion"})"));
  // The plain port serves beside it.
  ExpectJson(HttpCall(host.port(), http::verb::post, "/kxp/", R"({"id":"3","method":"QSVersion"})"),
             QSVersionAnswer("3", "", "0"));
  EXPECT_EQ(0, host.Stop()) << host.Output();
}

}  // namespace
}  // namespace qs_host_test
