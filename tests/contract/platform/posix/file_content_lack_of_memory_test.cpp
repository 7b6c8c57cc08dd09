// Files whose buffers the system refuses. Sanitizers keep memory of their own and cannot be told to
// refuse any: these run without.

#include <sys/resource.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "tests/contract/content_script.h"

namespace {

constexpr int64_t kTooMuch = int64_t{1} << 30;
constexpr rlim_t kRoomBytes = rlim_t{256} << 20;
constexpr rlim_t kPageBytes = 4096;
constexpr const char* kPath = "C:/a.txt";
/// No UTF-8: text of the code page.
const std::string kOld = "\xE9t\xE9";

/// While it is there the process gets `kRoomBytes` more than it has.
class Shortage {
 public:
  Shortage() {
    getrlimit(RLIMIT_AS, &before_);
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlimit limit = {pages * kPageBytes + kRoomBytes, before_.rlim_max};
    setrlimit(RLIMIT_AS, &limit);
  }
  ~Shortage() { setrlimit(RLIMIT_AS, &before_); }
  Shortage(const Shortage&) = delete;
  Shortage& operator=(const Shortage&) = delete;

 private:
  rlimit before_ = {};
};

class LackOfMemory : public ModuleTest {
 protected:
  Outcome Read(uint32_t length) {
    const Shortage shortage;
    return Run("CoreUtilsReadFile", ReadParameters(kPath, 0, length));
  }
  Outcome Write(const std::string& utf8) {
    const Shortage shortage;
    return Run("CoreUtilsWriteFile", WriteParameters(kPath, Base64(utf8)));
  }
  std::vector<std::string> LastLines(size_t count) const {
    const std::vector<std::string>& lines = host.Transcript();
    return {lines.end() - static_cast<ptrdiff_t>(count), lines.end()};
  }
};

TEST_F(LackOfMemory, ForAFileIsAFailureToReadIt) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kReadable);
  host.Answer("FileOpen", 7);
  host.Answer("FileGetSize", kTooMuch);
  host.Answer("MultiByteToWideChar", 0);

  EXPECT_EQ(Read(3), TextOutcome(kSuccess, ""));

  EXPECT_THAT(LastLines(3), ElementsAre("FileGetSize(\"C:/a.txt\")", "FileClose(7)",
                                        "MultiByteToWideChar(0, 0, null, 0, null, 0)"));
}

TEST_F(LackOfMemory, ForTheConversionFailsWithoutAResult) {
  AnswerReadableFile(host, kOld);
  host.Answer("MultiByteToWideChar", kTooMuch);

  EXPECT_EQ(Read(3), (Outcome{kFailure, "{}"}));

  EXPECT_EQ(host.Transcript().back(), "MultiByteToWideChar(0, 0, \"\\xe9t\\xe9\", 3, null, 0)");
}

TEST_F(LackOfMemory, ForWhatIsToBeWrittenWritesNothing) {
  AnswerReplacement(host, kOld);
  host.Answer("WideCharToMultiByte", kTooMuch);
  host.Answer("FileDelete", 0);

  EXPECT_EQ(Write("hello"), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(LastLines(3),
              ElementsAre("WideCharToMultiByte(0, 0, \"hello\", 5, null, 0, null, null)",
                          "FileDelete(\"C:/a.txt.tmp0\", 0)", "FileClose(8)"));
}

}  // namespace
