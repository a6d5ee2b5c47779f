// qs-host with the stand-in module: what exactly reaches DistributeCommand,
// and how the host copes with a module that raises, answers with data, twice,
// late, from another thread or not at all; start-up failures, the module's
// port pair, the housekeeping pace and the order of the stop.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/host/host_client.h"

namespace qs_host_test {
namespace {

constexpr char kChromeAgent[] =
    "Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/120.0 Safari/537.36";
constexpr char kFirefoxAgent[] = "Mozilla/5.0 (X11; Linux x86_64; rv:128.0) Gecko/20100101 Firefox/128.0";

class StandinHost : public HostProcess {
 public:
  StandinHost() : HostProcess(QS_STANDIN_FILE, "standin.so") {}
  bool Start(std::vector<std::string> args = {"--port", "0"}, const std::vector<std::string>& env = {},
             bool waitForPort = true) {
    args.push_back("--module");
    args.push_back(*this / "standin.so");
    return HostProcess::Start(args, env, waitForPort);
  }
  std::string Log() { return qs_test::ReadWholeFile(*this / "standin.log"); }
};

class StandinTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(host_.Start()) << host_.Output(); }
  void TearDown() override {
    if (!stopped_) {
      EXPECT_EQ(0, host_.Stop()) << host_.Output();
    }
  }

  StandinHost host_;
  bool stopped_ = false;
};

TEST_F(StandinTest, TheModuleIsToldWhatTheRequestCarries) {
  HttpClient client;
  ASSERT_TRUE(client.Connect(host_.port()));
  // Each HTTP request is an answer destination of its own: indexes from 1.
  HttpReply reply = client.Send(http::verb::post, "/tst/x?y=1", "abc", {{"Origin", "https://page.example"}},
                                kChromeAgent);
  EXPECT_EQ(200, reply.status);
  EXPECT_EQ("text/plain; charset=utf-8", reply.Header("content-type"));
  EXPECT_EQ("connection=1|url=/tst/x?y=1|request=abc|body=-|browser=2|domain=https://page.example|socket=yes",
            reply.body);
  reply = client.Send(http::verb::get, "/other", "", {{"Referer", "http://from.example/page"}}, kFirefoxAgent);
  EXPECT_EQ("connection=2|url=/other|request=|body=-|browser=3|domain=http://from.example/page|socket=yes",
            reply.body);
  reply = client.Send(http::verb::get, "/other", "", {}, "");
  EXPECT_EQ("connection=3|url=/other|request=|body=-|browser=0|domain=|socket=yes", reply.body);
  // Uploads: the body goes as body too (the request text stops at its NUL).
  reply = client.Send(http::verb::post, "/a/LoadZipFromBytes?type=1", std::string("PK\0\1", 4), {}, "curl/8");
  EXPECT_EQ("connection=4|url=/a/LoadZipFromBytes?type=1|request=PK|body=504b0001|browser=1|domain=|socket=yes",
            reply.body);
  reply = client.Send(http::verb::post, "/CheckUpdateFile?qsver=2&x", R"({"parameter":[]})", {}, "curl/8");
  EXPECT_EQ(
      "connection=5|url=/CheckUpdateFile?qsver=2&x|request={\"parameter\":[]}|body=7b22706172616d65746572223a5b5d7d"
      "|browser=1|domain=|socket=yes",
      reply.body);

  // A WebSocket keeps one index; text messages are commands, binary ones
  // bodies without a command.
  WsClient ws;
  ASSERT_TRUE(ws.Connect(host_.port(), "/tst/ws", kChromeAgent, "http://127.0.0.1:1"));
  EXPECT_EQ("connection=6|url=/tst/ws|request=hello|body=-|browser=2|domain=http://127.0.0.1:1|socket=yes",
            ws.Call("hello"));
  ASSERT_TRUE(ws.Send(std::string("\x01\x02", 2), false));
  WsMessage echo = ws.Read();
  EXPECT_TRUE(echo.text);
  EXPECT_EQ("connection=6|url=/tst/ws|request=|body=0102|browser=2|domain=http://127.0.0.1:1|socket=yes",
            echo.payload);

  // The status page opens its socket under the module's alias.
  EXPECT_NE(std::string::npos, HttpCall(host_.port(), http::verb::get, "/").body.find("var alias = \"tst\";"));
  EXPECT_NE(std::string::npos, host_.Output().find("qs-host: module " + host_ / "standin.so" +
                                                   " (alias \"tst\", standin_1)\n"));
}

TEST_F(StandinTest, AnExceptionFromTheModuleIsAnswered400AndServingGoesOn) {
  HttpClient client;
  ASSERT_TRUE(client.Connect(host_.port()));
  HttpReply reply = client.Send(http::verb::post, "/tst/", "throw");
  EXPECT_EQ(400, reply.status);
  EXPECT_EQ("the module raised: basic_string::substr\n", reply.body);
  reply = client.Send(http::verb::post, "/tst/", "again");
  EXPECT_EQ(200, reply.status) << "the same connection still serves";
  EXPECT_NE(std::string::npos, reply.body.find("|request=again|"));

  WsClient ws;
  ASSERT_TRUE(ws.Connect(host_.port(), "/tst/"));
  ASSERT_TRUE(ws.Send("throw"));
  WsMessage closed = ws.Read();
  EXPECT_EQ(websocket::error::closed, closed.error);
  EXPECT_EQ(websocket::close_code::internal_error, ws.CloseReason().code);
  EXPECT_EQ("the module raised: basic_string::substr", std::string(ws.CloseReason().reason.c_str()));

  WsClient next;
  ASSERT_TRUE(next.Connect(host_.port(), "/tst/"));
  EXPECT_NE(std::string::npos, next.Call("fine").find("|request=fine|"));
}

TEST_F(StandinTest, DataTwiceAndNoAnswer) {
  HttpClient client;
  ASSERT_TRUE(client.Connect(host_.port()));
  HttpReply reply = client.Send(http::verb::post, "/tst/", "data");
  EXPECT_EQ(200, reply.status);
  EXPECT_EQ("application/octet-stream", reply.Header("content-type"));
  EXPECT_EQ(std::string("with data\r\n\r\n\x00\x01\x02\xff", 17), reply.body);
  reply = client.Send(http::verb::post, "/tst/", "twice");
  EXPECT_EQ("first", reply.body) << "one request, one answer: the first";
  reply = client.Send(http::verb::post, "/tst/", "silent");
  EXPECT_EQ(500, reply.status);
  EXPECT_EQ("the module sent no answer\n", reply.body);

  WsClient ws;
  ASSERT_TRUE(ws.Connect(host_.port(), "/tst/"));
  ASSERT_TRUE(ws.Send("data"));
  WsMessage text = ws.Read();
  EXPECT_TRUE(text.text);
  EXPECT_EQ("with data", text.payload);
  WsMessage binary = ws.Read();
  EXPECT_FALSE(binary.text);
  EXPECT_EQ(std::string("\x00\x01\x02\xff", 4), binary.payload);
  ASSERT_TRUE(ws.Send("silent"));
  EXPECT_EQ("first", ws.Call("twice")) << "nothing came for the silent command";
  EXPECT_EQ("second", ws.Read().payload);
}

// The module answers "later" from a thread of its own while the next command
// is running, under the index and handle of the earlier command.
TEST_F(StandinTest, LateAnswersFromAnotherThread) {
  WsClient ws;
  ASSERT_TRUE(ws.Connect(host_.port(), "/tst/"));
  ASSERT_TRUE(ws.Send("later"));
  ASSERT_TRUE(ws.Send("after-late"));
  EXPECT_EQ("later", ws.Read().payload) << "a WebSocket takes answers whenever they come";
  EXPECT_EQ("after-late", ws.Read().payload);

  // Over HTTP the first request has been answered (without an answer) by
  // then; the late answer must not be taken for the second one's.
  HttpClient client;
  ASSERT_TRUE(client.Connect(host_.port()));
  EXPECT_EQ(500, client.Send(http::verb::post, "/tst/", "later").status);
  HttpReply reply = client.Send(http::verb::post, "/tst/", "after-late");
  EXPECT_EQ(200, reply.status);
  EXPECT_EQ("after-late", reply.body);
}

TEST_F(StandinTest, StopWaitsForTheCommandInFlightThenReleasesTheModule) {
  HttpClient client;
  ASSERT_TRUE(client.Connect(host_.port()));
  http::request<http::string_body> slow{http::verb::post, "/tst/", 11};
  slow.set(http::field::host, "127.0.0.1");
  slow.set(http::field::user_agent, kAgent);
  slow.body() = "slow";
  slow.prepare_payload();
  std::thread signaller([this] {
    // Once the module has the command, SIGINT.
    for (int i = 0; i < 500 && host_.Log().find("DistributeCommand begin slow") == std::string::npos; ++i) {
      std::this_thread::sleep_for(10ms);
    }
    host_.Signal(SIGINT);
  });
  HttpReply reply = client.Write(slow);
  signaller.join();
  EXPECT_EQ(200, reply.status);
  EXPECT_EQ("slow", reply.body);
  EXPECT_EQ("close", reply.Header("connection")) << "no keep-alive while stopping";
  EXPECT_EQ(0, host_.Wait());
  stopped_ = true;
  const std::string log = host_.Log();
  const size_t begin = log.find("DistributeCommand begin slow\n");
  const size_t end = log.find("DistributeCommand end slow\n");
  const size_t closed = log.find("CloseWebSocket\n");
  const size_t released = log.find("DoAction 3\n");
  EXPECT_EQ(0u, log.find("DoAction 0\n")) << log;
  ASSERT_NE(std::string::npos, begin) << log;
  EXPECT_LT(begin, end) << log;
  EXPECT_LT(end, closed) << log;
  EXPECT_LT(closed, released) << log;
  EXPECT_EQ(log.size(), released + 11) << "DoAction 3 comes last\n" << log;
  EXPECT_NE(std::string::npos, host_.Output().find("qs-host: stopping (signal 2)\n"));
}

TEST(StandinStart, PortsComeFromTheModuleWithTheSecondAsFallback) {
  // Occupy a port: the module's first choice.
  net::io_context ioc;
  tcp::acceptor taken(ioc, tcp::endpoint(net::ip::make_address_v4("127.0.0.1"), 0));
  const int first = taken.local_endpoint().port();
  const int second = FreePort();
  {
    StandinHost host;
    ASSERT_TRUE(host.Start({}, {"QS_STANDIN_PORTS=" + std::to_string(first) + "," + std::to_string(second)}))
        << host.Output();
    EXPECT_EQ(second, host.port());
    EXPECT_EQ(200, HttpCall(host.port(), http::verb::get, "/").status);
    EXPECT_EQ(0, host.Stop());
  }
  {
    // --ports replaces the pair; when both are taken the host gives up.
    StandinHost host;
    ASSERT_TRUE(host.Start({"--ports", std::to_string(first) + "," + std::to_string(first)}, {}, false));
    EXPECT_EQ(1, host.Wait());
    EXPECT_NE(std::string::npos, host.Output().find("qs-host: cannot listen on 127.0.0.1 (port " +
                                                    std::to_string(first) + ": Address already in use; port " +
                                                    std::to_string(first) + ": Address already in use)\n"))
        << host.Output();
    EXPECT_EQ("DoAction 0\nDoAction 3\n", host.Log()) << "released even when it never served";
  }
}

TEST(StandinStart, LoadFailuresNameWhatIsMissing) {
  {
    HostProcess host(QS_STANDIN_FILE, "standin.so");
    ASSERT_TRUE(host.Start({"--module", "/nonexistent/libnothing.so"}, {}, false));
    EXPECT_EQ(1, host.Wait());
    EXPECT_EQ(0u, host.Output().find("qs-host: cannot load the module /nonexistent/libnothing.so: ")) << host.Output();
  }
  {
    HostProcess host(QS_PARTIAL_STANDIN_FILE, "partial.so");
    ASSERT_TRUE(host.Start({"--module", host / "partial.so"}, {}, false));
    EXPECT_EQ(1, host.Wait());
    EXPECT_EQ("qs-host: the module " + host / "partial.so" + " lacks the exports DistributeCommand, GetImage\n",
              host.Output());
  }
  {
    // Without --module: beside the executable, which here holds none.
    HostProcess host(QS_PARTIAL_STANDIN_FILE, "partial.so");
    ASSERT_TRUE(host.Start({"--port", "0"}, {}, false));
    EXPECT_EQ(1, host.Wait());
    EXPECT_EQ(0u, host.Output().find("qs-host: cannot load the module " + host / "libFVASManager.so: "))
        << host.Output();
  }
}

// The module's wait timeout paces the housekeeping: 1 means every 10 ms,
// 100 once a second.
TEST(StandinStart, HousekeepingFollowsTheWaitTimeout) {
  auto callsIn = [](const std::string& wait) {
    StandinHost host;
    if (!host.Start({"--port", "0"}, {"QS_STANDIN_WAIT=" + wait})) return -1;
    std::this_thread::sleep_for(1500ms);
    if (host.Stop() != 0) return -1;
    const std::string calls = qs_test::ReadWholeFile(host / "standin.waits");
    return calls.empty() ? -1 : atoi(calls.c_str());
  };
  const int busy = callsIn("1");
  const int idle = callsIn("100");
  EXPECT_GE(busy, 30) << "about 150 expected";
  EXPECT_GE(idle, 1);
  EXPECT_LE(idle, 3) << "about 2 expected";
}

}  // namespace
}  // namespace qs_host_test
