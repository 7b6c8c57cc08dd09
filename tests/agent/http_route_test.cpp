#include "agent/libZelCore/http_route.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using boost::beast::http::verb;
using testing::HasSubstr;
using Kind = HttpRoute::Kind;

unsigned StatusOf(verb method, std::string_view target) {
  const HttpRoute route = FindRoute(method, target);
  return route.refusal ? route.refusal->status : 0;
}

/// What is wrong with the file's name in a target; "" when nothing is.
std::string Problem(std::string_view file) {
  const HttpRoute route = FindRoute(verb::put, "/a/" + std::string(file));
  if (!route.refusal) return {};
  EXPECT_EQ(route.refusal->status, 400U) << file;
  EXPECT_EQ(route.refusal->code, "malformed_target") << file;
  return route.refusal->message;
}

TEST(FindRoute, KnowsTheProtocolsOwnTargets) {
  EXPECT_EQ(FindRoute(verb::get, "/v1/health").kind, Kind::kHealth);
  EXPECT_EQ(FindRoute(verb::head, "/v1/actions").kind, Kind::kActions);
  const HttpRoute call = FindRoute(verb::post, "/v1/actions/%45cho");
  EXPECT_EQ(call.kind, Kind::kCall);
  EXPECT_EQ(call.action, "Echo");
  EXPECT_EQ(StatusOf(verb::put, "/v1/health"), 405U);
  EXPECT_EQ(StatusOf(verb::get, "/v1/actions/Echo"), 405U);
  EXPECT_EQ(StatusOf(verb::put, "/v1/file"), 404U);
  EXPECT_EQ(StatusOf(verb::get, "/v1"), 404U);
}

TEST(FindRoute, TakesUploadsApart) {
  for (const char* target : {"/backup17/a%20b.zip", "http://host:1/backup17/a%20b.zip"}) {
    const HttpRoute route = FindRoute(verb::put, target);
    EXPECT_EQ(route.kind, Kind::kUpload);
    EXPECT_FALSE(route.refusal.has_value());
    EXPECT_EQ(route.alias, "backup17");
    EXPECT_EQ(route.file, "a b.zip");
  }
}

TEST(FindRoute, StoresFilesWithPutAlone) {
  for (const verb method : {verb::get, verb::post, verb::delete_, verb::head, verb::patch}) {
    const HttpRoute route = FindRoute(method, "/backup/file");
    ASSERT_TRUE(route.refusal.has_value());
    EXPECT_EQ(route.refusal->status, 405U);
    EXPECT_EQ(route.refusal->extraFields, "Allow: PUT\r\n");
  }
  EXPECT_EQ(StatusOf(verb::get, "/nothing"), 404U);
  EXPECT_EQ(StatusOf(verb::get, "/"), 404U);
  EXPECT_EQ(StatusOf(verb::get, "/a/b/c"), 404U);
}

TEST(FindRoute, TakesExactlyTwoSegments) {
  for (const char* target : {"/", "/a", "/a/", "//b", "/a/b/", "/a/b/c", "/a//b", "/../a/b"})
    EXPECT_EQ(StatusOf(verb::put, target), 400U) << target;
  EXPECT_EQ(StatusOf(verb::put, "*"), 404U);
}

TEST(FindRoute, TakesAliasesOfSafeCharactersAlone) {
  EXPECT_EQ(StatusOf(verb::put, "/A-z_0.9/f"), 0U);
  EXPECT_EQ(StatusOf(verb::put, "/" + std::string(64, 'a') + "/f"), 0U);
  EXPECT_EQ(StatusOf(verb::put, "/" + std::string(65, 'a') + "/f"), 400U);
  for (const char* alias : {".", "..", ".a", "a%62", "a b", "a:b", "\xC3\xA4", "a\\b"})
    EXPECT_EQ(StatusOf(verb::put, "/" + std::string(alias) + "/f"), 400U) << alias;
}

TEST(FindRoute, TakesNamesThatEveryPlatformCanStore) {
  for (const char* name : {"a", ".hidden", "a.tar.gz", "%C3%A4.txt", "%F0%9F%98%80", "a%25b",
                           "console", "com", "lpt10.txt", "%ED%B3%BF"})
    EXPECT_EQ(Problem(name), "") << name;
  EXPECT_EQ(Problem(std::string(255, 'n')), "");
}

TEST(FindRoute, RefusesNamesThatLeadElsewhere) {
  for (const char* name : {"%2e", "%2E%2e", "..%2fx", "a%5Cb", "a%2F", "%00", "a%2etxt"})
    EXPECT_THAT(Problem(name), HasSubstr("percent-encoded \".\"")) << name;
  for (const char* name : {"%252e%252e", "%252Fetc", "a%255cb", "a%2500"})
    EXPECT_THAT(Problem(name), HasSubstr("twice")) << name;
  for (const char* name : {".", "..", "...", "a.", "a%20"})
    EXPECT_THAT(Problem(name), HasSubstr("dot or blank")) << name;
  EXPECT_THAT(Problem("a\\b"), HasSubstr("no file name can hold"));
}

TEST(FindRoute, RefusesNamesThatSomePlatformCannotStore) {
  for (const char* name : {"a:b", "a%3Cb", "a%3E", "%22", "a|b", "a%3Fb", "a*"})
    EXPECT_THAT(Problem(name), HasSubstr("no file name can hold")) << name;
  for (const char* name : {"con", "NUL.txt", "Aux%20.x", "COM1", "lpt%C2%B2.log", "CONOUT$"})
    EXPECT_THAT(Problem(name), HasSubstr("device")) << name;
  for (const char* name : {"a%0Ab", "%01", "%7F", "a%C2%85"})
    EXPECT_THAT(Problem(name), HasSubstr("control")) << name;
}

TEST(FindRoute, RefusesNamesThatAreNoText) {
  EXPECT_THAT(Problem(std::string(256, 'n')), HasSubstr("255"));
  EXPECT_THAT(Problem("%"), HasSubstr("malformed"));
  EXPECT_THAT(Problem("%4"), HasSubstr("malformed"));
  EXPECT_THAT(Problem("%+1"), HasSubstr("malformed"));
  for (const char* name : {"%FF", "%C0%AE", "%C3", "%ED%A0%BD%ED%B8%80"})
    EXPECT_THAT(Problem(name), HasSubstr("UTF-8")) << name;
}

}  // namespace
