#pragma once

#include <memory>
#include <string>

#include "agent/libZel/debug_context.h"
#include "tests/agent/temporary_directory.h"

/// Takes what libZel logs while it lives.
class LibraryLogText {
 public:
  LibraryLogText()
      : context_(std::make_unique<ZelDebugContext>(DebugOptions{
            .logFile = directory_.Native("log.txt"), .level = ZelDebugLevel::kPrint})) {
    LibraryLog().SetContext(context_.get());
  }
  ~LibraryLogText() { LibraryLog().SetContext(nullptr); }
  LibraryLogText(const LibraryLogText&) = delete;
  LibraryLogText& operator=(const LibraryLogText&) = delete;

  /// What was logged so far.
  std::string Text() {
    context_->Flush();
    return ReadFile(directory_.Native("log.txt"));
  }

 private:
  const TemporaryDirectory directory_;
  const std::unique_ptr<ZelDebugContext> context_;
};
