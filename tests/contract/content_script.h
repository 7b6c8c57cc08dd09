#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "tests/contract/module_test.h"

/// A parameter container for reading; `length` counts from the start of the file.
inline ZelContainer ReadParameters(const std::string& path, int32_t offset, uint32_t length) {
  ZelContainer params = Texts({{"Path", path.c_str()}, {"DACurrentConsoleUser", "maria"}});
  params.SetInt32("Offset", offset, kNoIndex);
  params.SetInt32("Length", static_cast<int32_t>(length), kNoIndex);
  return params;
}

inline ZelContainer WriteParameters(const char* path, const ZelString& base64) {
  ZelContainer params = Texts({{"Path", path}, {"DACurrentConsoleUser", "maria"}});
  params.SetString("FileContent", base64, kNoIndex);
  return params;
}

inline ZelString Base64(const std::string& bytes) {
  return EncodeBase64(reinterpret_cast<const unsigned char*>(bytes.data()),
                      static_cast<uint32_t>(bytes.size()));
}

/// What an action answers that gives text back.
inline Outcome TextOutcome(ResultCode code, const std::string& text) {
  return {code, "{Result: String \"" + text + "\"}"};
}

inline Outcome ContentOutcome(const std::string& bytes) {
  return TextOutcome(kSuccess, std::string(Base64(bytes).Utf8()));
}

/// Scripts the loading of a file that holds `content`, through handle 7 and in one piece.
inline void AnswerLoading(FakeHost& host, const std::string& content) {
  host.Answer("FileOpen", 7);
  host.Answer("FileGetSize", static_cast<int64_t>(content.size()));
  if (!content.empty()) host.AnswerBytes("FileRead", content);
  host.Answer("FileRead", 0);
}

/// Scripts a file that exists and may be read.
inline void AnswerReadableFile(FakeHost& host, const std::string& content) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kReadable);
  AnswerLoading(host, content);
}

/// Scripts the replacement of a file that holds `content`, up to the opened, empty file.
inline void AnswerReplacement(FakeHost& host, const std::string& content) {
  AnswerVerdict(host, kWritable);
  host.Answer("FileExists", 1);
  AnswerLoading(host, content);
  host.Answer("FileExists", 0);
  host.Answer("FileCopy", 0);
  host.Answer("FileDelete", 0);
  host.Answer("FileCreate", 8);
}
