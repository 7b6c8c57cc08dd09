#include "agent/libZel/native_path.h"

#include <gtest/gtest.h>

#include "libZel/path.h"

namespace {

std::string ErrorOf(const ZelString& path) {
  return ToNativePath(path).error;
}

TEST(ToNativePath, SaysWhyAPathNamesNothing) {
  EXPECT_EQ(ErrorOf(""), "the path is empty");
  EXPECT_EQ(ErrorOf(ZelString(std::string_view("a\0b", 3))), "the path holds a NUL character");
  EXPECT_EQ(ErrorOf("http://host/file"), "the path is a URL");
  EXPECT_EQ(ErrorOf("\\\\server"), "the path names a server without a share");
}

TEST(ToNativePath, TakesBothSeparators) {
  EXPECT_EQ(ToNativePath("C:\\a/b\\c").path, ToNativePath("C:/a\\b/c").path);
  EXPECT_EQ(ToNativePath("c:\\a").path, ToNativePath("C:/a").path);
}

TEST(ToNativePath, ResolvesDotsAndDropsAClosingSeparator) {
  EXPECT_EQ(ToNativePath("C:/a/../b/./c/").path, ToNativePath("C:/b/c").path);
  EXPECT_EQ(ToNativePath("C:/../..").path, ToNativePath("C:/").path);
}

TEST(ToNativePath, RoundTripsNames) {
  for (const char* name : {"plain", "Grüße 🦊", "blank inside"}) {
    const NativePath native = ToNativePath(ZelString("C:/directory/") + name);
    ASSERT_TRUE(native) << native.error;
    EXPECT_EQ(ToNativePath(FromNativePath(native.path)).path, native.path);
  }
}

}  // namespace
