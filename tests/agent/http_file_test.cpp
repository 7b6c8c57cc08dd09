// The file functions on URLs, against a server of our own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "agent/libZel/debug_context.h"
#include "agent/libZel/http_file.h"
#include "libZel/file.h"
#include "tests/agent/temporary_directory.h"
#include "tests/agent/test_http_server.h"

namespace fs = std::filesystem;

namespace {

std::string Lines(size_t sizeBytes) {
  std::string content;
  for (int i = 0; content.size() < sizeBytes; ++i) content += std::to_string(i) + '\n';
  return content;
}

/// A store of files in memory, as plain as HTTP allows: GET, HEAD, PUT, DELETE.
class FileStore {
 public:
  FileStore() : server_([this](const TestHttpRequest& request) { return Answer(request); }) {}

  ZelString Url(const std::string& name) const { return ZelString(server_.Url(name)); }
  std::string HostAndPort() const { return server_.HostAndPort(); }

  void Put(const std::string& name, const std::string& content) {
    const std::lock_guard lock(mutex_);
    files_[name] = content;
  }
  std::string Get(const std::string& name) {
    const std::lock_guard lock(mutex_);
    return files_.contains(name) ? files_[name] : "(missing)";
  }
  /// Requests on `name` get this answer instead.
  void Override(const std::string& name, const TestHttpAnswer& answer) {
    const std::lock_guard lock(mutex_);
    overrides_[name] = answer;
  }
  std::vector<std::string> Log() {
    const std::lock_guard lock(mutex_);
    return log_;
  }

 private:
  TestHttpAnswer Answer(const TestHttpRequest& request) {
    const std::lock_guard lock(mutex_);
    log_.push_back(request.method + " " + request.target);
    if (request.headers.contains("authorization")) {
      log_.back() += " " + request.headers.at("authorization");
    }
    if (overrides_.contains(request.target)) return overrides_[request.target];
    if (request.method == "PUT") {
      const bool exists = files_.contains(request.target);
      if (exists && request.headers.contains("if-none-match")) return {412, {}, "", 0};
      files_[request.target] = request.body;
      return {201, {}, "", 0};
    }
    if (!files_.contains(request.target)) return {404, {}, "no such file", 0};
    if (request.method == "DELETE") {
      files_.erase(request.target);
      return {204, {}, "", 0};
    }
    return {200, {"Last-Modified: Fri, 13 Feb 2009 23:31:30 GMT"}, files_[request.target], 0};
  }

  std::mutex mutex_;
  std::map<std::string, std::string> files_;
  std::map<std::string, TestHttpAnswer> overrides_;
  std::vector<std::string> log_;
  TestHttpServer server_;
};

TEST(HttpFile, ExistsWhenHeadSucceeds) {
  FileStore store;
  store.Put("/file", "12345");
  EXPECT_EQ(FileExists(store.Url("/file")), 1);
  EXPECT_EQ(FileGetSize(store.Url("/file")), 5u);
  EXPECT_EQ(FileExists(store.Url("/missing")), 0);
  EXPECT_EQ(FileGetSize(store.Url("/missing")), 0u);
  EXPECT_EQ(store.Log()[0], "HEAD /file");
}

TEST(HttpFile, DoesNotExistOnAServerThatIsNotThere) {
  ZelString url;
  { url = FileStore().Url("/file"); }
  EXPECT_EQ(FileExists(url), 0);
  EXPECT_NE(FileDeleteNet(url, false), 0);
}

TEST(HttpFile, IsNotAskedForLongerThanItMayTake) {
  std::promise<void> release;
  TestHttpServer server([&](const TestHttpRequest&) {
    release.get_future().wait();
    return TestHttpAnswer();
  });
  const http_file::Properties properties =
      http_file::GetProperties(ZelString(server.Url("/file")), std::chrono::milliseconds(50));
  release.set_value();
  EXPECT_EQ(properties.presence, http_file::Properties::Presence::kUnknown);
  EXPECT_THAT(std::string(properties.reason.Utf8()), testing::HasSubstr("imed out"));
}

TEST(HttpFile, IsDownloadedWithItsModificationTime) {
  const TemporaryDirectory directory;
  FileStore store;
  const std::string content = Lines(2'000'000);
  store.Put("/file", content);
  EXPECT_EQ(FileCopyNet(store.Url("/file"), directory / "copy", 0), 0);
  EXPECT_EQ(ReadFile(directory.Native("copy")), content);
  const auto modified =
      std::chrono::file_clock::to_sys(fs::last_write_time(directory.Native("copy")));
  EXPECT_EQ(std::chrono::duration_cast<std::chrono::seconds>(modified.time_since_epoch()).count(),
            1234567890);
  EXPECT_EQ(directory.CountEntries(), 1u);
}

TEST(HttpFile, IsDownloadedWholeOrNotAtAll) {
  const TemporaryDirectory directory;
  FileStore store;
  WriteFile(directory.Native("copy"), "old");
  store.Override("/short", {200, {}, "abc", 5});
  store.Override("/error", {500, {}, "an error page", 0});
  store.Override("/unchanged", {304, {}, "", 0});
  for (const char* name : {"/short", "/error", "/unchanged", "/missing"}) {
    EXPECT_NE(FileCopyNet(store.Url(name), directory / "copy", 0), 0) << name;
    EXPECT_EQ(ReadFile(directory.Native("copy")), "old") << name;
  }
  EXPECT_EQ(directory.CountEntries(), 1u);
}

TEST(HttpFile, IsNotDownloadedOntoAFileThatMustStay) {
  const TemporaryDirectory directory;
  FileStore store;
  store.Put("/file", "new");
  WriteFile(directory.Native("copy"), "old");
  EXPECT_NE(FileCopyNet(store.Url("/file"), directory / "copy", 1), 0);
  EXPECT_EQ(ReadFile(directory.Native("copy")), "old");
  EXPECT_TRUE(store.Log().empty());
}

TEST(HttpFile, IsUploaded) {
  const TemporaryDirectory directory;
  FileStore store;
  for (const size_t sizeBytes : {size_t{0}, size_t{10}, size_t{3'000'000}}) {
    const std::string content = Lines(sizeBytes);
    WriteFile(directory.Native("file"), content);
    EXPECT_EQ(FileCopyNet(directory / "file", store.Url("/file"), 0), 0);
    EXPECT_EQ(store.Get("/file"), content);
  }
}

TEST(HttpFile, IsNotReplacedWhenItMustStay) {
  const TemporaryDirectory directory;
  FileStore store;
  store.Put("/file", "old");
  WriteFile(directory.Native("file"), "new");
  EXPECT_NE(FileCopyNet(directory / "file", store.Url("/file"), 1), 0);
  EXPECT_EQ(store.Get("/file"), "old");
  EXPECT_EQ(FileCopyNet(directory / "file", store.Url("/free"), 1), 0);
  EXPECT_EQ(store.Get("/free"), "new");
}

TEST(HttpFile, IsNotReplacedWhenTheServerHidesThatItExists) {
  const TemporaryDirectory directory;
  FileStore store;
  WriteFile(directory.Native("file"), "new");
  store.Override("/file", {405, {}, "", 0});
  EXPECT_NE(FileCopyNet(directory / "file", store.Url("/file"), 1), 0);
  EXPECT_EQ(store.Log(), std::vector<std::string>{"HEAD /file"});
}

TEST(HttpFile, IsCopiedFromServerToServer) {
  FileStore from, to;
  const std::string content = Lines(300'000);
  from.Put("/file", content);
  EXPECT_EQ(FileCopyNet(from.Url("/file"), to.Url("/copy"), 0), 0);
  EXPECT_EQ(to.Get("/copy"), content);
  EXPECT_EQ(FileCopyNet(from.Url("/missing"), to.Url("/copy"), 0), -1);
  EXPECT_EQ(to.Get("/copy"), content);
}

TEST(HttpFile, MovesBothWays) {
  const TemporaryDirectory directory;
  FileStore store;
  WriteFile(directory.Native("file"), "content");
  EXPECT_EQ(FileRenameNet(directory / "file", store.Url("/file")), 0);
  EXPECT_EQ(directory.CountEntries(), 0u);
  EXPECT_EQ(store.Get("/file"), "content");
  EXPECT_EQ(FileRenameNet(store.Url("/file"), directory / "back"), 0);
  EXPECT_EQ(ReadFile(directory.Native("back")), "content");
  EXPECT_EQ(store.Get("/file"), "(missing)");
}

TEST(HttpFile, StaysWhenItIsMovedToItsOwnName) {
  FileStore store;
  store.Put("/file", "content");
  EXPECT_EQ(FileRenameNet(store.Url("/file"), store.Url("/file")), 0);
  EXPECT_EQ(store.Get("/file"), "content");
  EXPECT_NE(FileRenameNet(store.Url("/missing"), store.Url("/missing")), 0);
}

TEST(HttpFile, IsDeleted) {
  FileStore store;
  store.Put("/file", "content");
  EXPECT_EQ(FileDeleteNet(store.Url("/file"), false), 0);
  EXPECT_EQ(store.Get("/file"), "(missing)");
  EXPECT_NE(FileDeleteNet(store.Url("/file"), false), 0);
}

TEST(HttpFile, FollowsFiveRedirectsAndNoMore) {
  const TemporaryDirectory directory;
  FileStore store;
  store.Put("/0", "content");
  for (int i = 1; i <= 6; ++i) {
    const ZelString name = ZelString("/") + ZelString::FromInt64(i);
    const ZelString next = ZelString("Location: /") + ZelString::FromInt64(i - 1);
    store.Override(std::string(name.Utf8()), {302, {std::string(next.Utf8())}, "", 0});
  }
  EXPECT_EQ(FileCopyNet(store.Url("/5"), directory / "copy", 0), 0);
  EXPECT_EQ(ReadFile(directory.Native("copy")), "content");
  EXPECT_NE(FileCopyNet(store.Url("/6"), directory / "other", 0), 0);
  EXPECT_EQ(directory.CountEntries(), 1u);
}

TEST(HttpFile, IsNeverRedirectedToAFileOfThisMachine) {
  const TemporaryDirectory directory;
  FileStore store;
  WriteFile(directory.Native("secret"), "secret");
  const ZelString target = ZelString("Location: file://") + (directory / "secret");
  store.Override("/file", {302, {std::string(target.Utf8())}, "", 0});
  EXPECT_NE(FileCopyNet(store.Url("/file"), directory / "copy", 0), 0);
  EXPECT_EQ(directory.CountEntries(), 1u);
}

TEST(HttpFile, CredentialsReachTheServerAndNotTheLog) {
  const TemporaryDirectory directory;
  FileStore store;
  {
    ZelDebugContext context({.logFile = directory.Native("log.txt")});
    LibraryLog().SetContext(&context);
    const ZelString url(std::string("http://user:s3cret@") + store.HostAndPort() + "/missing");
    EXPECT_NE(FileCopyNet(url, directory / "copy", 0), 0);
    EXPECT_NE(FileDeleteNet(url, false), 0);
    LibraryLog().SetContext(nullptr);
  }
  const std::string log = ReadFile(directory.Native("log.txt"));
  EXPECT_NE(log.find("404"), std::string::npos) << log;
  EXPECT_EQ(log.find("s3cret"), std::string::npos) << log;
  EXPECT_EQ(store.Log()[0], "GET /missing Basic dXNlcjpzM2NyZXQ=");
}

TEST(HttpFile, LogsUrlsWithoutWhatMayBeSecret) {
  const auto logged = [](const char* url) { return http_file::WithoutCredentials(url); };
  EXPECT_EQ(logged("https://u:p@host:8/a/b?sig=s3cret#x"), ZelString("https://host:8/a/b?..."));
  EXPECT_EQ(logged("http://host?sig=s3cret"), ZelString("http://host?..."));
  EXPECT_EQ(logged("http://host/a@b"), ZelString("http://host/a@b"));
  EXPECT_EQ(logged("http://a@b@host/"), ZelString("http://host/"));
}

}  // namespace
