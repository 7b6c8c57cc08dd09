#include "libZel/debug.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "agent/libZel/debug_context.h"

namespace {

class DebugTest : public testing::Test {
 protected:
  DebugTest() {
    const auto* test = testing::UnitTest::GetInstance()->current_test_info();
    directory_ = std::filesystem::temp_directory_path() /
                 (std::string("zel_debug_") + test->name() + "_" +
                  std::to_string(reinterpret_cast<uintptr_t>(this)));
    std::filesystem::remove_all(directory_);
  }
  ~DebugTest() override { std::filesystem::remove_all(directory_); }

  DebugOptions Options(ZelDebugLevel level) const {
    DebugOptions options;
    options.logFile = directory_ / "log" / "agent.log";
    options.level = level;
    return options;
  }
  static std::string Content(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  std::filesystem::path directory_;
};

TEST_F(DebugTest, WritesOneLineWithLevelAndModule) {
  const DebugOptions options = Options(ZelDebugLevel::kDetail);
  {
    ZelDebugContext context(options);
    ZelDebug log("Module", "for tests");
    log.SetContext(&context);
    log.DetailWithNL("Copying file %S to %S", ZelString("a"), ZelString("b"));
  }
  EXPECT_NE(Content(options.logFile).find("detail [Module] Copying file a to b\n"),
            std::string::npos);
}

TEST_F(DebugTest, LeavesOutWhatIsBelowItsLevel) {
  const DebugOptions options = Options(ZelDebugLevel::kPrint);
  {
    ZelDebugContext context(options);
    ZelDebug log("Module", "for tests");
    log.SetContext(&context);
    log.ErrorWithNL("an error");
    log.WarningWithNL("a warning");
    log.PrintWithNL("a fact");
    log.TraceWithNL("a step");
    log.DetailWithNL("a detail");
  }
  const std::string content = Content(options.logFile);
  EXPECT_NE(content.find("error [Module] an error"), std::string::npos);
  EXPECT_NE(content.find("warning [Module] a warning"), std::string::npos);
  EXPECT_NE(content.find("print [Module] a fact"), std::string::npos);
  EXPECT_EQ(content.find("a step"), std::string::npos);
  EXPECT_EQ(content.find("a detail"), std::string::npos);
}

TEST_F(DebugTest, KeepsHostileTextsOnOneLine) {
  const DebugOptions options = Options(ZelDebugLevel::kPrint);
  {
    ZelDebugContext context(options);
    ZelDebug log("Module", "for tests");
    log.SetContext(&context);
    log.PrintWithNL("Path %S", ZelString(std::string_view("a\r\nforged\0\x1b[2J", 15)));
  }
  const std::string content = Content(options.logFile);
  EXPECT_NE(content.find("Path a\\x0d\\x0aforged\\x00\\x1b[2J"), std::string::npos) << content;
  EXPECT_EQ(std::count(content.begin(), content.end(), '\n'), 1);
}

TEST_F(DebugTest, GivesAuditLinesToTheSinkAndTheLog) {
  const DebugOptions options = Options(ZelDebugLevel::kPrint);
  std::vector<AuditLine> lines;
  {
    ZelDebugContext context(options);
    context.SetAuditSink([&lines](const AuditLine& line) { lines.push_back(line); });
    ZelDebug log("Module", "for tests");
    log.SetContext(&context);
    log.AuditWithNL("user", "10.0.0.1", "%S", ZelString("accepted, class Direct Access"));
  }
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].module, ZelString("Module"));
  EXPECT_EQ(lines[0].user, ZelString("user"));
  EXPECT_EQ(lines[0].address, ZelString("10.0.0.1"));
  EXPECT_EQ(lines[0].text, ZelString("accepted, class Direct Access"));
  EXPECT_NE(Content(options.logFile).find("accepted, class Direct Access"), std::string::npos);
}

TEST_F(DebugTest, SurvivesAnAuditSinkThatFails) {
  const DebugOptions options = Options(ZelDebugLevel::kPrint);
  {
    ZelDebugContext context(options);
    context.SetAuditSink([](const AuditLine&) { throw std::runtime_error("disk full"); });
    ZelDebug log("Module", "for tests");
    log.SetContext(&context);
    log.AuditWithNL("user", "address", "text");
  }
  EXPECT_NE(Content(options.logFile).find("could not be written: disk full"), std::string::npos);
}

TEST_F(DebugTest, RotatesAndKeepsSoManyFiles) {
  DebugOptions options = Options(ZelDebugLevel::kPrint);
  options.rotateAtBytes = 1000;
  options.keptFiles = 2;
  {
    ZelDebugContext context(options);
    ZelDebug log("Module", "for tests");
    log.SetContext(&context);
    for (int i = 0; i < 200; ++i) log.PrintWithNL("line %d", i);
  }
  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(options.logFile.parent_path())) {
    EXPECT_LE(entry.file_size(), 1000u);
    ++files;
  }
  EXPECT_EQ(files, 3u);
  EXPECT_NE(Content(options.logFile).find("line 199"), std::string::npos);
}

TEST_F(DebugTest, DropsLinesWithoutAContext) {
  ZelDebug log("Module", "for tests");
  log.ErrorWithNL("nobody hears %d", 1);
  log.AuditWithNL("user", "address", "nobody hears");
  const DebugOptions options = Options(ZelDebugLevel::kPrint);
  {
    ZelDebugContext context(options);
    log.SetContext(&context);
    log.SetContext(nullptr);
    log.ErrorWithNL("nobody hears either");
  }
  EXPECT_EQ(Content(options.logFile), "");
}

TEST_F(DebugTest, NamesTheFileThatItCannotOpen) {
  std::filesystem::create_directories(directory_);
  std::ofstream(directory_ / "log") << "a file where the directory should be";
  try {
    ZelDebugContext context(Options(ZelDebugLevel::kPrint));
    FAIL() << "expected an error";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find("agent.log"), std::string::npos) << error.what();
  }
}

TEST_F(DebugTest, TakesLinesFromManyThreads) {
  const DebugOptions options = Options(ZelDebugLevel::kPrint);
  {
    ZelDebugContext context(options);
    ZelDebug log("Module", "for tests");
    log.SetContext(&context);
    std::vector<std::thread> writers;
    for (int writer = 0; writer < 4; ++writer) {
      writers.emplace_back([&log, writer] {
        for (int i = 0; i < 50; ++i) log.PrintWithNL("writer %d line %d", writer, i);
      });
    }
    for (std::thread& writer : writers) writer.join();
  }
  const std::string content = Content(options.logFile);
  EXPECT_EQ(std::count(content.begin(), content.end(), '\n'), 200);
}

}  // namespace
