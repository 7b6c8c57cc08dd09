#include <algorithm>
#include <string>
#include <vector>

#include "tests/agent/script_test.h"

namespace {

struct Example {
  std::string file;
  std::string text;
};

/// The blocks of docs/scripting.md that are marked "```lua" and start with a comment that names
/// their file.
std::vector<Example> ExamplesOfTheDocument() {
  const std::string document = ReadFile(ZEL_TEST_DOCS "/scripting.md");
  const std::string opening = "\n```lua\n-- ";
  std::vector<Example> examples;
  for (size_t at = document.find(opening); at != std::string::npos;
       at = document.find(opening, at + 1)) {
    const size_t name = at + opening.size();
    const size_t start = document.find("\n", name);
    const size_t end = document.find("\n```", start);
    examples.push_back(
        {document.substr(name, start - name), document.substr(name - 3, end - name + 4)});
  }
  return examples;
}

class ScriptExamplesTest : public ScriptTest {
 protected:
  /// Every block of the document is in one directory, as its reader would have it.
  void WriteAll() const {
    for (const Example& example : ExamplesOfTheDocument()) Write(example.file, example.text);
  }
  ScriptEnd Run(const std::string& file, const ZelContainer& parameters) const {
    MarlinContext context(nullptr);
    Prepare(context, parameters);
    return RunFile(context, directory_ / file);
  }
};

TEST_F(ScriptExamplesTest, HaveFiles) {
  const std::vector<Example> examples = ExamplesOfTheDocument();
  EXPECT_GE(examples.size(), 7U);
  for (const Example& example : examples) {
    EXPECT_TRUE(example.file.ends_with(".mlx") || example.file.ends_with(".lua")) << example.file;
  }
}

TEST_F(ScriptExamplesTest, RunToTheirEnds) {
  WriteAll();
  Write("inventory.txt", "one\ntwo\n");
  ZelContainer parameters;
  parameters.SetString("Path", directory_ / "inventory.txt", kNoIndex);
  parameters.SetString("Directory", directory_ / "", kNoIndex);
  parameters.SetString("Agents", "https://a:7460", 0);
  parameters.SetString("Agents", "https://b:7460", 1);
  parameters.SetInt32("Days", 3, kNoIndex);
  for (const Example& example : ExamplesOfTheDocument()) {
    if (!example.file.ends_with(".mlx")) continue;
    const ScriptEnd end = Run(example.file, parameters);
    EXPECT_TRUE(end.succeeded) << example.file << ": " << end.text;
    EXPECT_TRUE(IsLogged("print [libZel] " + example.file + ": ")) << example.file;
  }
  std::vector<std::string> addresses;
  for (const Invocation& call : FakeActions::Take()) addresses.push_back(call.address);
  EXPECT_EQ(std::count(addresses.begin(), addresses.end(), "https://b:7460"), 1);
}

}  // namespace
