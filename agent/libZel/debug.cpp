#include "libZel/debug.h"

#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "agent/libZel/debug_context.h"
#include "agent/libZel/native_path.h"

namespace {

const char* LevelName(ZelDebugLevel level) {
  switch (level) {
    case ZelDebugLevel::kError:
      return "error";
    case ZelDebugLevel::kWarning:
      return "warning";
    case ZelDebugLevel::kPrint:
      return "print";
    case ZelDebugLevel::kTrace:
      return "trace";
    case ZelDebugLevel::kDetail:
      return "detail";
  }
  return "?";
}

void AppendEscaped(std::string_view text, std::string* line) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7F) {
      line->push_back(c);
      continue;
    }
    char escape[5];
    std::snprintf(escape, sizeof escape, "\\x%02x", byte);
    line->append(escape);
  }
}

std::shared_ptr<spdlog::logger> OpenLogger(const DebugOptions& options) {
  std::vector<spdlog::sink_ptr> sinks;
  sinks.push_back(std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
      options.logFile.native(), options.rotateAtBytes, options.keptFiles));
  if (options.alsoToStderr) sinks.push_back(std::make_shared<spdlog::sinks::stderr_sink_mt>());

  auto logger = std::make_shared<spdlog::logger>("zelagent", sinks.begin(), sinks.end());
  // The same line end everywhere, so that logs of all machines are read by the same tools.
  logger->set_formatter(std::make_unique<spdlog::pattern_formatter>(
      "%Y-%m-%d %H:%M:%S.%e [%t] %v", spdlog::pattern_time_type::local, "\n"));
  logger->set_level(spdlog::level::trace);
  // Whoever reads the log of a running or fallen agent sees its last line.
  logger->flush_on(spdlog::level::trace);
  logger->set_error_handler([told = false](const std::string& message) mutable {
    if (!std::exchange(told, true)) {
      std::fprintf(stderr, "zelagent: the log cannot be written: %s\n", message.c_str());
    }
  });
  return logger;
}

}  // namespace

struct ZelDebugContext::Implementation {
  std::shared_ptr<spdlog::logger> logger;
  std::function<void(const AuditLine&)> auditSink;
};

ZelDebugContext::ZelDebugContext(const DebugOptions& options)
    : implementation_(std::make_unique<Implementation>()), level_(options.level) {
  try {
    std::filesystem::create_directories(options.logFile.parent_path());
    implementation_->logger = OpenLogger(options);
  } catch (const std::exception& failure) {
    const ZelString file = FromNativePath(options.logFile);
    throw std::runtime_error("cannot open the log file " + std::string(file.Utf8()) + ": " +
                             failure.what());
  }
}

ZelDebugContext::~ZelDebugContext() {
  Flush();
}

void ZelDebugContext::WriteLine(ZelDebugLevel level, const ZelString& module,
                                const ZelString& text) {
  if (!IsEnabled(level)) return;
  try {
    std::string line = LevelName(level);
    line += " [";
    AppendEscaped(module.Utf8(), &line);
    line += "] ";
    AppendEscaped(text.Utf8(), &line);
    implementation_->logger->log(spdlog::level::info, spdlog::string_view_t(line));
  } catch (const std::exception&) {
    // Out of memory: the line is lost, the caller's work is not.
  }
}

void ZelDebugContext::SetAuditSink(std::function<void(const AuditLine&)> sink) {
  implementation_->auditSink = std::move(sink);
}

void ZelDebugContext::WriteAudit(const AuditLine& line) {
  try {
    if (implementation_->auditSink) implementation_->auditSink(line);
    ZelString text;
    text.Printf("audit: user \"%S\", address \"%S\": %S", line.user, line.address, line.text);
    WriteLine(ZelDebugLevel::kPrint, line.module, text);
  } catch (const std::exception& failure) {
    WriteLine(ZelDebugLevel::kError, "libZel",
              ZelString("an audit line could not be written: ") + failure.what());
  }
}

void ZelDebugContext::Flush() {
  implementation_->logger->flush();
}

ZelDebug::ZelDebug(const ZelString& name, const ZelString& description)
    : name_(name), description_(description) {}

void ZelDebug::SetContext(ZelDebugContext* context) {
  context_ = context;
}

bool ZelDebug::IsEnabled(ZelDebugLevel level) const {
  const ZelDebugContext* context = context_;
  return context != nullptr && context->IsEnabled(level);
}

void ZelDebug::Write(ZelDebugLevel level, const ZelString& text) {
  if (ZelDebugContext* context = context_) context->WriteLine(level, name_, text);
}

void ZelDebug::WriteAudit(const ZelString& user, const ZelString& address, const ZelString& text) {
  if (ZelDebugContext* context = context_) context->WriteAudit({name_, user, address, text});
}

ZelDebug& LibraryLog() {
  static ZelDebug log("libZel", "The agent's run-time library");
  return log;
}
