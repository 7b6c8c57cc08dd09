#include "agent/libZelCore/http_upload.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <string>
#include <thread>
#include <vector>

#include "agent/libZel/progress.h"
#include "agent/libZel/request_proof.h"
#include "tests/agent/http_server_fixture.h"

namespace {

using namespace http_test;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::HasSubstr;

class HttpUploadTest : public HttpServerTest {
 protected:
  HttpUploadTest() { AddAlias("admin", "in"); }

  void AddAlias(const std::string& owner, const std::string& name, bool isTemporary = false) {
    AliasTable::Alias alias;
    alias.owner = owner;
    alias.name = name;
    alias.directory = directory_ / "store";
    alias.isTemporary = isTemporary;
    ASSERT_EQ(aliases_.Add(alias), "");
  }
  static std::string Head(const std::string& target, const std::string& length,
                          const std::string& fields = kGood) {
    return "PUT " + target + " HTTP/1.1\r\nHost: agent\r\n" + fields + length + "\r\n\r\n";
  }
  static std::string Put(const std::string& target, const std::string& body,
                         const std::string& fields = kGood) {
    return Head(target, "Content-Length: " + std::to_string(body.size()), fields) + body;
  }
  std::filesystem::path Stored(const char* name) const {
    return directory_.Native() / "store" / name;
  }
  /// A server that stops takes none any more.
  bool TakesConnections() const {
    boost::asio::io_context io;
    boost::asio::ip::tcp::socket socket(io);
    boost::system::error_code ec;
    socket.connect({boost::asio::ip::address_v4::loopback(), server_->Port()}, ec);
    return !ec;
  }
  /// How many entries the directory of the alias has: no temporary may stay.
  size_t CountStored() const {
    std::error_code ec;
    size_t count = 0;
    for (std::filesystem::directory_iterator it(directory_.Native() / "store", ec), end;
         !ec && it != end; it.increment(ec))
      ++count;
    return count;
  }
  /// What the audit trail has of the only request.
  InvocationRecord TheRecord() {
    EXPECT_TRUE(Eventually([&] { return Audited().size() == 1; }));
    return Audited().empty() ? InvocationRecord{} : Audited()[0];
  }
  /// Some bytes that are not all the same.
  static std::string Bytes(size_t count) {
    std::string bytes(count, '\0');
    for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>((i * 2654435761U) >> 13);
    return bytes;
  }
};

TEST_F(HttpUploadTest, StoresAFile) {
  const Reply reply = Exchange(Put("/in/a%20b.txt", "content"));
  EXPECT_EQ(reply.status, 201);
  EXPECT_EQ(reply.body, R"({"bytes":7})");
  EXPECT_EQ(ReadFile(Stored("a b.txt")), "content");
  EXPECT_EQ(CountStored(), 1U);
  const InvocationRecord record = TheRecord();
  EXPECT_EQ(record.what, "upload in/a b.txt bytes 7");
  EXPECT_EQ(record.code, 0U);
  EXPECT_EQ(record.caller.login, "admin");
  EXPECT_EQ(record.requestId, reply.Field("X-Request-Id"));
}

TEST_F(HttpUploadTest, StoresAnEmptyFile) {
  EXPECT_EQ(Exchange(Put("/in/empty", "")).body, R"({"bytes":0})");
  EXPECT_TRUE(std::filesystem::is_regular_file(Stored("empty")));
}

TEST_F(HttpUploadTest, StoresALargeFileWhole) {
  const std::string body = Bytes(5 * 1024 * 1024 + 77);
  EXPECT_EQ(Exchange(Put("/in/large", body)).status, 201);
  EXPECT_TRUE(ReadFile(Stored("large")) == body);
}

TEST_F(HttpUploadTest, StoresMoreThanOtherBodiesMayHold) {
  settings_.maxBodyBytes = 100;
  EXPECT_EQ(Exchange(Put("/in/large", Bytes(1000))).status, 201);
}

TEST_F(HttpUploadTest, StoresAChunkedBody) {
  const std::string first = Bytes(300 * 1024);
  char length[32];
  std::snprintf(length, sizeof length, "%zx\r\n", first.size());
  const Reply reply = Exchange(Head("/in/chunked", "Transfer-Encoding: chunked") + length + first +
                               "\r\n3\r\nend\r\n0\r\n\r\n");
  EXPECT_EQ(reply.status, 201);
  EXPECT_TRUE(ReadFile(Stored("chunked")) == first + "end");
}

TEST_F(HttpUploadTest, ReplacesAFile) {
  std::filesystem::create_directory(directory_.Native() / "store");
  WriteFile(Stored("f"), "old and longer");
  EXPECT_EQ(Exchange(Put("/in/f", "new")).status, 201);
  EXPECT_EQ(ReadFile(Stored("f")), "new");
}

TEST_F(HttpUploadTest, GoesOnWithTheConnection) {
  RawClient client = Connect();
  client.Send(Put("/in/one", "1") + Put("/in/two", "22") + Call("Echo", "{}") +
              Head("/in/three", "Transfer-Encoding: chunked") + "3\r\n333\r\n0\r\n\r\n" +
              Get("/v1/health"));
  EXPECT_EQ(client.Read().body, R"({"bytes":1})");
  EXPECT_EQ(client.Read().body, R"({"bytes":2})");
  EXPECT_EQ(client.Read().status, 200);
  EXPECT_EQ(client.Read().body, R"({"bytes":3})");
  EXPECT_EQ(client.Read().body, R"({"status":"ok"})");
  EXPECT_EQ(ReadFile(Stored("three")), "333");
}

TEST_F(HttpUploadTest, SaysContinueToAClientThatWaitsForIt) {
  RawClient client = Connect();
  client.Send(Head("/in/f", "Expect: 100-continue\r\nContent-Length: 4"));
  EXPECT_EQ(client.Read().status, 100);
  client.Send("body");
  EXPECT_EQ(client.Read().status, 201);
}

TEST_F(HttpUploadTest, RefusesInsteadOfSayingContinue) {
  for (const auto& [target, fields, status] :
       {std::tuple{"/in/f", "", 401}, std::tuple{"/other/f", kGood, 404},
        std::tuple{"/in/f", kClerk, 404}}) {
    RawClient client = Connect();
    client.Send(Head(target, "Expect: 100-continue\r\nContent-Length: 4", fields));
    EXPECT_EQ(client.Read().status, status) << target;
  }
}

TEST_F(HttpUploadTest, KnowsAliasesOfTheirOwnersOnly) {
  const Reply reply = Exchange(Put("/in/f", "x", AgentCredentials("RELAY")));
  EXPECT_EQ(reply.status, 404);
  EXPECT_THAT(reply.body, HasSubstr("unknown_alias"));
  AddAlias("agent/RELAY", "in");
  EXPECT_EQ(Exchange(Put("/in/f", "x", AgentCredentials("RELAY"))).status, 201);
}

TEST_F(HttpUploadTest, DropsATemporaryAliasAfterOneFile) {
  AddAlias("admin", "once", true);
  EXPECT_EQ(Exchange(Put("/once/f", "x")).status, 201);
  EXPECT_EQ(Exchange(Put("/once/f", "x")).status, 404);
}

TEST_F(HttpUploadTest, NeedsALengthWithinTheLimit) {
  settings_.maxUploadBytes = 10;
  EXPECT_EQ(Exchange(Head("/in/f", "X: y")).status, 411);
  EXPECT_EQ(Exchange(Head("/in/f", "Content-Length: 11")).status, 413);
  EXPECT_EQ(Exchange(Head("/in/f", "Transfer-Encoding: chunked") + "b\r\n").status, 413);
  EXPECT_EQ(CountStored(), 0U);
  EXPECT_EQ(Exchange(Put("/in/f", "0123456789")).status, 201);
}

TEST_F(HttpUploadTest, TakesNoPartsOfFiles) {
  const Reply reply =
      Exchange(Put("/in/f", "x", std::string(kGood) + "Content-Range: bytes 0-0/2\r\n"));
  EXPECT_EQ(reply.status, 400);
  EXPECT_THAT(reply.body, HasSubstr("malformed_request"));
  EXPECT_EQ(CountStored(), 0U);
}

TEST_F(HttpUploadTest, TakesNoEncodedContent) {
  for (const char* coding : {"gzip", "identity, gzip", "x-unknown"}) {
    RawClient client = Connect();
    client.Send(Head("/in/f", "Expect: 100-continue\r\nContent-Length: 1",
                     std::string(kGood) + "Content-Encoding: " + coding + "\r\n"));
    const Reply reply = client.Read();
    EXPECT_EQ(reply.status, 415) << coding;
    EXPECT_EQ(reply.Field("Accept-Encoding"), "identity");
    EXPECT_THAT(reply.body, HasSubstr("unsupported_encoding"));
  }
  const std::string twice = "Content-Encoding: identity\r\nContent-Encoding: gzip\r\n";
  EXPECT_EQ(Exchange(Put("/in/f", "x", kGood + twice)).status, 415);
  EXPECT_EQ(CountStored(), 0U);
  EXPECT_EQ(
      Exchange(Put("/in/f", "x", std::string(kGood) + "Content-Encoding: Identity\r\n")).status,
      201);
}

TEST_F(HttpUploadTest, ForgetsTheFieldsOfTheRequestBefore) {
  RawClient client = Connect();
  client.Send(Put("/in/f", "x", std::string(kGood) + "Content-Range: bytes 0-0/2\r\n"));
  EXPECT_EQ(client.Read().status, 400);
  client.Send(Put("/in/f", "x", std::string(kGood) + "Content-Encoding: gzip\r\n"));
  EXPECT_EQ(client.Read().status, 415);
  client.Send(Put("/in/f", "x"));
  EXPECT_EQ(client.Read().status, 201);
}

TEST_F(HttpUploadTest, RefusesMoreThanTheVolumeHolds) {
  settings_.maxUploadBytes = UINT64_MAX;
  const Reply reply = Exchange(Head("/in/f", "Content-Length: 1000000000000000000"));
  EXPECT_EQ(reply.status, 507);
  EXPECT_THAT(reply.body, HasSubstr("disk_full"));
  EXPECT_EQ(CountStored(), 0U);
}

TEST_F(HttpUploadTest, DoesNotReplaceADirectory) {
  std::filesystem::create_directories(Stored("d"));
  const Reply reply = Exchange(Put("/in/d", "x"));
  EXPECT_EQ(reply.status, 409);
  EXPECT_THAT(reply.body, HasSubstr("not_a_file"));
  EXPECT_EQ(CountStored(), 1U);
  EXPECT_EQ(TheRecord().code, 409U);
}

TEST_F(HttpUploadTest, LeavesTheOldFileWhenTheConnectionIsCut) {
  std::filesystem::create_directory(directory_.Native() / "store");
  WriteFile(Stored("f"), "old");
  {
    RawClient client = Connect();
    client.Send(Head("/in/f", "Content-Length: 1000000") + Bytes(200000));
  }
  EXPECT_NE(TheRecord().code, 0U);
  EXPECT_EQ(ReadFile(Stored("f")), "old");
  EXPECT_EQ(CountStored(), 1U);
}

TEST_F(HttpUploadTest, DropsAnUploadThatStalls) {
  settings_.stallTimeoutMs = 200;
  RawClient known = Connect();
  RawClient chunked = Connect();
  known.Send(Head("/in/known", "Content-Length: 1000000") + Bytes(70000));
  chunked.Send(Head("/in/chunked", "Transfer-Encoding: chunked") + "fffff\r\n" + Bytes(70000));
  EXPECT_TRUE(known.IsClosedByServer());
  EXPECT_TRUE(chunked.IsClosedByServer());
  EXPECT_TRUE(Eventually([&] { return Audited().size() == 2; }));
  EXPECT_EQ(CountStored(), 0U);
}

TEST_F(HttpUploadTest, DropsAnUploadThatDrips) {
  settings_.stallTimeoutMs = 300;
  RawClient client = Connect();
  client.Send(Head("/in/f", "Content-Length: 1000000"));
  const auto end = std::chrono::steady_clock::now() + kPatience;
  boost::system::error_code ec;
  while (!ec && std::chrono::steady_clock::now() < end) {
    if (!client.IsSilentFor(milliseconds(20))) break;
    boost::asio::write(client.Socket(), boost::asio::buffer("x", 1), ec);
  }
  EXPECT_LT(std::chrono::steady_clock::now(), end);
  EXPECT_NE(TheRecord().code, 0U);
  EXPECT_EQ(CountStored(), 0U);
}

TEST_F(HttpUploadTest, TakesSoManyAtOnce) {
  settings_.maxUploads = 1;
  RawClient first = Connect();
  first.Send(Head("/in/one", "Expect: 100-continue\r\nContent-Length: 4"));
  EXPECT_EQ(first.Read().status, 100);
  const Reply refused = Exchange(Put("/in/two", "x"));
  EXPECT_EQ(refused.status, 503);
  EXPECT_EQ(refused.Field("Retry-After"), "1");
  first.Send("body");
  EXPECT_EQ(first.Read().status, 201);
  EXPECT_TRUE(Eventually([&] { return Exchange(Put("/in/two", "x")).status == 201; }));
}

TEST_F(HttpUploadTest, ChecksTheDigestOfAProofBeforeTheFileIsThere) {
  AddAlias("agent/RELAY", "in");
  BodyDigest digest;
  digest.Add("content");
  const std::string sha256 = digest.Hex();
  const auto proof = [&] {
    return "Authorization: " +
           MakeProof({"RELAY", "fleet secret"}, {"PUT", "/in/f", "agent"}, sha256) + "\r\n";
  };
  const Reply wrong = Exchange(Put("/in/f", "contend", proof()));
  EXPECT_EQ(wrong.status, 400);
  EXPECT_THAT(wrong.body, HasSubstr("wrong_digest"));
  EXPECT_EQ(CountStored(), 0U);
  EXPECT_EQ(Exchange(Put("/in/f", "content", proof())).status, 201);
  EXPECT_EQ(ReadFile(Stored("f")), "content");
}

TEST_F(HttpUploadTest, RefusesAMalformedChunk) {
  const Reply reply =
      Exchange(Head("/in/f", "Transfer-Encoding: chunked") + "3\r\nabcX\r\n0\r\n\r\n");
  EXPECT_EQ(reply.status, 400);
  EXPECT_EQ(CountStored(), 0U);
}

TEST_F(HttpUploadTest, TellsItsProgress) {
  EXPECT_EQ(Exchange(Put("/in/progress.bin", "12345")).status, 201);
  bool isFound = false;
  for (const Progress::Report& report : Progress::Reports()) {
    if (!report.name.Utf8().ends_with("progress.bin")) continue;
    isFound = true;
    EXPECT_EQ(report.kind, Progress::Kind::kReceive);
    EXPECT_EQ(report.totalBytes, 5U);
    EXPECT_EQ(report.doneBytes, 5U);
    EXPECT_FALSE(report.isRunning);
    EXPECT_TRUE(report.failure.IsEmpty());
  }
  EXPECT_TRUE(isFound);
}

TEST_F(HttpUploadTest, StoresManyFilesAtOnce) {
  Connect();
  const std::string body = Bytes(400 * 1024);
  std::atomic<int> good{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&, t] {
      RawClient client(server_->Port());
      for (int i = 0; i < 5; ++i) {
        client.Send(Put("/in/f" + std::to_string(t), body));
        if (client.Read().status == 201) ++good;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(good, 30);
  EXPECT_EQ(CountStored(), 6U);
}

TEST_F(HttpUploadTest, LetsAnUploadEndWhenItStops) {
  RawClient client = Connect();
  client.Send(Head("/in/f", "Expect: 100-continue\r\nContent-Length: 4"));
  EXPECT_EQ(client.Read().status, 100);
  auto stopped = std::async(std::launch::async, [&] { server_->Stop(); });
  ASSERT_TRUE(Eventually([&] { return !TakesConnections(); }));
  client.Send("body");
  const Reply reply = client.Read();
  EXPECT_EQ(reply.status, 201);
  EXPECT_EQ(reply.Field("Connection"), "close");
  EXPECT_EQ(stopped.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(ReadFile(Stored("f")), "body");
}

TEST_F(HttpUploadTest, CutsAnUploadThatGoesOnWhenItStops) {
  RawClient client = Connect();
  client.Send(Head("/in/f", "Expect: 100-continue\r\nContent-Length: 4"));
  EXPECT_EQ(client.Read().status, 100);
  const auto start = std::chrono::steady_clock::now();
  server_->Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(9));
  EXPECT_NE(TheRecord().code, 0U);
  EXPECT_EQ(CountStored(), 0U);
}

}  // namespace
