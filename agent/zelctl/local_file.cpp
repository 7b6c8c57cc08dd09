#include "agent/zelctl/local_file.h"

#include <cstdio>
#include <fstream>
#include <optional>

#include "agent/libZel/file_text.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/terminal.h"
#include "libZel/string.h"

std::string PathText(const std::filesystem::path& path) {
  return std::string(ZelString(path.c_str()).Utf8());
}

std::string ReadLocalFile(const std::filesystem::path& file) {
  std::optional<std::string> bytes = ReadFileText(file);
  if (!bytes) throw Failure(ExitStatus::kUsage, PathText(file) + " cannot be read");
  return *std::move(bytes);
}

std::string ReadStandardInput() {
  std::string bytes;
  char block[65536];
  size_t count = 0;
  while ((count = std::fread(block, 1, sizeof block, stdin)) > 0) bytes.append(block, count);
  if (std::ferror(stdin) == 0) return bytes;
  throw Failure(ExitStatus::kUsage, "standard input cannot be read");
}

std::string ReadPasswordFile(const std::string& name) {
  std::optional<std::string> password = FirstLineOfFile(LocalPath(name));
  if (password && !password->empty()) return *std::move(password);
  throw Failure(ExitStatus::kUsage, "the password file " + name +
                                        (password ? " has no first line" : " cannot be opened"));
}

void WriteLocalFile(const std::filesystem::path& file, const std::string& bytes) {
  std::ofstream output(file, std::ios::binary | std::ios::trunc);
  output.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  output.close();
  if (!output) throw Failure(ExitStatus::kUsage, PathText(file) + " cannot be written");
}
