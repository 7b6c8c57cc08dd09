#include "agent/libZel/platform/posix/process_files.h"

#include <charconv>

namespace {

// The kernel's PF_KTHREAD.
constexpr uint32_t kKernelThread = 0x00200000;
constexpr std::string_view kBlanks = " \t\n";

// 0 for what is no number or too large.
template <typename Number>
Number NumberOf(std::string_view text) {
  Number number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  return result.ec == std::errc() ? number : 0;
}

// Takes the first word off `text`.
std::string_view NextWord(std::string_view* text) {
  const size_t start = text->find_first_not_of(kBlanks);
  if (start == std::string_view::npos) return *text = {};
  text->remove_prefix(start);
  const std::string_view word = text->substr(0, text->find_first_of(kBlanks));
  text->remove_prefix(word.size());
  return word;
}

void SetField(int field, std::string_view word, ProcessStat* stat) {
  switch (field) {
    case 4:
      stat->parentId = NumberOf<uint32_t>(word);
      break;
    case 9:
      stat->isKernelThread = (NumberOf<uint32_t>(word) & kKernelThread) != 0;
      break;
    case 14:
    case 15:
      stat->cpuTicks += NumberOf<uint64_t>(word);
      break;
    case 20:
      stat->threadCount = NumberOf<uint32_t>(word);
      break;
    case 22:
      stat->startTicks = NumberOf<uint64_t>(word);
      break;
    case 23:
      stat->virtualBytes = NumberOf<uint64_t>(word);
      break;
    case 24:
      stat->residentPages = NumberOf<uint64_t>(word);
      break;
    default:
      break;
  }
}

}  // namespace

ProcessStat ParseProcessStat(std::string_view line) {
  // Counted from 1, as proc(5) does; the command is the second.
  constexpr int kFirstFieldAfterCommand = 3;
  constexpr int kLastField = 24;

  ProcessStat stat;
  const size_t start = line.find('(');
  const size_t end = line.rfind(')');
  if (start == std::string_view::npos || end == std::string_view::npos || end < start) return stat;
  stat.command = line.substr(start + 1, end - start - 1);
  line.remove_prefix(end + 1);
  for (int field = kFirstFieldAfterCommand; field <= kLastField; ++field) {
    SetField(field, NextWord(&line), &stat);
  }
  return stat;
}

std::string_view ExecutableOf(std::string_view link) {
  constexpr std::string_view kDeleted = " (deleted)";
  if (link.ends_with(kDeleted)) link.remove_suffix(kDeleted.size());
  return link;
}

uint32_t ThreadGroupOf(std::string_view status) {
  // The name in the first line cannot hold a line end: the kernel escapes it.
  constexpr std::string_view kLine = "\nTgid:";
  const size_t start = status.find(kLine);
  if (start == std::string_view::npos) return 0;
  std::string_view rest = status.substr(start + kLine.size());
  return NumberOf<uint32_t>(NextWord(&rest));
}
