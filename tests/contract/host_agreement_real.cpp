#include "tests/contract/host_agreement.h"

void ScriptAnswer(const char*, int64_t) {}

void SetUpHost() {}

void TearDownHost() {}
