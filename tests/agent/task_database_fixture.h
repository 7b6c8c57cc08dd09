#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <initializer_list>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "agent/libZel/debug_context.h"
#include "agent/libZelCore/agent_core.h"
#include "agent/libZelCore/calling_user.h"
#include "agent/libZelCore/invocation_depth.h"
#include "agent/task_database/module_main.h"
#include "tests/agent/temporary_directory.h"

// The master's module from its entry point down to its database: a real agent core, whose actions
// are invoked as other agents and console users invoke them.

enum Command : uint32_t {
  kRegister = 1,
  kUnregister = 2,
  kInitialise = 3,
  kActivate = 4,
  kCleanUp = 5,
  kDescription = 6,
  kVersion = 7,
};

/// Who invokes an action, and what the agent says about its user.
struct Invoker {
  std::string owner;
  std::string login = {};
  bool isAdministrator = false;
  bool vouches = false;
};

inline Invoker Master() {
  return {""};
}
inline Invoker Agent(const std::string& name) {
  return {"agent/" + name};
}
inline Invoker UserOf(const std::string& agent, const std::string& login) {
  return {"agent/" + agent, login, false, true};
}
inline Invoker AdministratorOf(const std::string& agent, const std::string& login) {
  return {"agent/" + agent, login, true, true};
}
inline Invoker ConsoleUser(const std::string& login) {
  return {login};
}

inline std::string TextOf(const ZelContainer& container, const char* key) {
  ZelString value;
  EXPECT_TRUE(container.GetString(key, &value, kNoIndex)) << key;
  return std::string(value.Utf8());
}

inline int64_t NumberOf(const ZelContainer& container, const char* key) {
  int64_t value = -1;
  EXPECT_TRUE(container.GetInt64(key, &value, kNoIndex)) << key;
  return value;
}

inline std::vector<ZelContainer> ListOf(const ZelContainer& container, const char* key) {
  std::vector<ZelContainer> list(static_cast<size_t>(container.CountValues(key)));
  for (uint32_t i = 0; i < list.size(); ++i)
    EXPECT_TRUE(container.GetContainer(key, &list[i], i)) << key;
  return list;
}

inline std::vector<int64_t> IdsOf(const std::vector<ZelContainer>& rows) {
  std::vector<int64_t> ids;
  for (const ZelContainer& row : rows) ids.push_back(NumberOf(row, "ObjectId"));
  return ids;
}

inline std::set<std::string> KeysOf(const ZelContainer& container) {
  std::set<std::string> keys;
  for (size_t i = 0; i < container.CountKeys(); ++i) keys.emplace(container.EntryAt(i).Key());
  return keys;
}

/// A container with texts.
using Texts = std::initializer_list<std::pair<const char*, std::string>>;
inline ZelContainer With(Texts texts) {
  ZelContainer container;
  for (const auto& [key, text] : texts) container.SetString(key, ZelString(text), kNoIndex);
  return container;
}

inline ZelContainer NewTaskFor(const std::string& requester) {
  return With({{"ObjectName", "printer"}, {"_DB_ATTR_REQUESTEDBY_", requester}});
}

inline ZelContainer Change(int64_t id, const std::string& requester, const std::string& note = {}) {
  ZelContainer request = With({{"_DB_ATTR_REQUESTEDBY_", requester}});
  request.SetInt64("ObjectId", id, kNoIndex);
  if (!note.empty()) request.SetString("_DB_ATTR_NOTES_", ZelString(note), kNoIndex);
  return request;
}

struct Reply {
  uint32_t code = 0;
  ZelContainer answer;

  std::string Error() const { return TextOf(answer, "Error"); }
};

/// An agent that is a master, with the module as the agent drives it.
class TaskDatabase : public testing::Test {
 protected:
  ~TaskDatabase() override { StopModule(); }

  virtual std::string MasterSettings() { return {}; }

  void SetUp() override {
    const std::filesystem::path config = home_.Native() / "home" / "config";
    std::filesystem::create_directories(config);
    WriteFile(config / "zelagent.ini",
              "[agent]\nname = master-1\n[log]\nlevel = detail\n"
              "[master]\nenabled = yes\n" +
                  MasterSettings());
    // Roles alone count here, so nobody's password is hashed at some cost.
    const std::string hash =
        "scrypt$16384$8$1$" + std::string(32, '0') + "$" + std::string(64, '0');
    WriteFile(config / "users", "boss:administrator:" + hash + "\nbob:helpdesk:" + hash + "\n");
    core_ = std::make_unique<AgentCore>(AgentOptions{home_.Native() / "home", uint16_t{0}});
    StartModule();
  }

  void StartModule() {
    owner_ = core_->Actions().AddOwner("TaskDatabase");
    ASSERT_EQ(ModuleMain(kRegister, 0, reinterpret_cast<TCHAR*>(owner_)), 1u);
    ASSERT_EQ(ModuleMain(kInitialise, 0, nullptr), 1u);
    ASSERT_EQ(ModuleMain(kActivate, 0, nullptr), 1u);
  }
  void StopModule() {
    if (!owner_) return;
    EXPECT_EQ(ModuleMain(kCleanUp, 0, nullptr), 1u);
    EXPECT_EQ(ModuleMain(kUnregister, 0, nullptr), 1u);
    core_->Actions().UnregisterAll(owner_);
    owner_ = nullptr;
  }

  Reply Invoke(const Invoker& invoker, const char* action, const ZelContainer& parameters) {
    Reply reply{0, parameters};
    if (invoker.vouches) {
      ZelContainer said;
      said.SetString("Login", ZelString(invoker.login), kNoIndex);
      said.SetBool("Administrator", invoker.isAdministrator, kNoIndex);
      reply.answer.SetContainer(kCallingUserKey, said, kNoIndex);
    }
    const InvocationContext context(0, invoker.owner);
    reply.code = core_->Actions().Invoke(action, &reply.answer);
    return reply;
  }

  Reply Create(const Invoker& invoker, const ZelContainer& parameters) {
    return Invoke(invoker, "TrnDbCreateTask", parameters);
  }
  int64_t MustCreate(const Invoker& invoker, const ZelContainer& parameters) {
    const Reply reply = Create(invoker, parameters);
    ExpectYes(reply);
    return NumberOf(reply.answer, "ObjectId");
  }
  Reply Close(const Invoker& invoker, int64_t id, const std::string& requester) {
    return Invoke(invoker, "TrnDbCloseTask", Change(id, requester));
  }
  Reply AddNote(const Invoker& invoker, int64_t id, const std::string& requester,
                const std::string& note) {
    return Invoke(invoker, "TrnDbTaskAddNote", Change(id, requester, note));
  }
  std::vector<ZelContainer> List(const Invoker& invoker, const ZelContainer& filter = {}) {
    const Reply reply = Invoke(invoker, "TrnDbTaskGetList", filter);
    EXPECT_EQ(reply.code, 0u);
    if (reply.answer.CountKeys() != 0) {
      EXPECT_EQ(KeysOf(reply.answer), std::set<std::string>{"Values"});
    }
    return ListOf(reply.answer, "Values");
  }
  /// The newest task.
  ZelContainer Newest() {
    const std::vector<ZelContainer> rows = List(Master());
    EXPECT_FALSE(rows.empty());
    return rows.empty() ? ZelContainer() : rows.front();
  }

  static void ExpectYes(const Reply& reply) {
    EXPECT_EQ(reply.code, 0u);
    bool result = false;
    EXPECT_TRUE(reply.answer.GetBool("Result", &result, kNoIndex));
    EXPECT_TRUE(result);
    if (!result) ADD_FAILURE() << reply.Error();
  }
  static void ExpectNo(const Reply& reply, const std::string& error, uint32_t code = 0) {
    EXPECT_EQ(reply.code, code);
    EXPECT_EQ(KeysOf(reply.answer), (std::set<std::string>{"Error", "Result"}));
    bool result = true;
    EXPECT_TRUE(reply.answer.GetBool("Result", &result, kNoIndex));
    EXPECT_FALSE(result);
    EXPECT_THAT(reply.Error(), testing::HasSubstr(error));
  }

  std::filesystem::path Home() const { return home_.Native() / "home"; }
  std::string Log() {
    core_->DebugContext().Flush();
    return ReadFile(Home() / "log" / "zelagent.log");
  }
  /// Everything that stands in the agent's home, the database included.
  std::string AllFiles() {
    core_->DebugContext().Flush();
    std::string all;
    for (const std::filesystem::directory_entry& entry :
         std::filesystem::recursive_directory_iterator(Home()))
      if (entry.is_regular_file()) all += ReadFile(entry.path());
    return all;
  }

  TemporaryDirectory home_;
  std::unique_ptr<AgentCore> core_;
  ActionDatabase::Owner* owner_ = nullptr;
};
