#include "tests/contract/host_agreement.h"

void ScriptAnswer(const char*, int64_t) {}

void ScriptText(const char*, const std::string&) {}

void ScriptList(const char*, const std::vector<std::string>&) {}

void ScriptBytes(const char*, const std::string&) {}

void ScriptDirectory(const std::vector<std::string>&) {}

void SetUpHost() {}

void TearDownHost() {}
