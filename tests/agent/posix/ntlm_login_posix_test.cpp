// Log-ins checked by the accepting side of GSSAPI's NTLMSSP mechanism, which finds the passwords in
// a file that NTLM_USER_FILE names; and what the environment must not change.

#include <gssapi/gssapi.h>
#include <gssapi/gssapi_ext.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>
#include <stdexcept>
#include <string>

#include "agent/libZel/smb/ntlm_login.h"
#include "tests/agent/ntlm_verifier.h"
#include "tests/agent/temporary_directory.h"

// LeakSanitizer's, in the builds that have it.
extern "C" {
__attribute__((weak)) void __lsan_disable();
__attribute__((weak)) void __lsan_enable();
}

namespace {

/// What no memory may hold when it is given back; nothing while it is empty.
std::u16string secretInFreedMemory;
std::atomic<bool> isSecretFreed{false};

void LookAtFreed(const void* memory) {
  if (memory == nullptr || secretInFreedMemory.empty()) return;
  const size_t sizeBytes = secretInFreedMemory.size() * sizeof(char16_t);
  if (memmem(memory, malloc_usable_size(const_cast<void*>(memory)), secretInFreedMemory.data(),
             sizeBytes) != nullptr)
    isSecretFreed = true;
}

}  // namespace

// All of the program's memory goes through these, that of libZel included.
void* operator new(size_t sizeBytes) {
  if (void* const memory = std::malloc(std::max<size_t>(sizeBytes, 1))) return memory;
  throw std::bad_alloc();
}
void* operator new(size_t sizeBytes, const std::nothrow_t&) noexcept {
  return std::malloc(std::max<size_t>(sizeBytes, 1));
}
void operator delete(void* memory) noexcept {
  LookAtFreed(memory);
  std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
  operator delete(memory);
}

namespace {

using smb::Bytes;
using smb::NtlmLogin;

gss_OID_desc ntlmMechanism = {10, const_cast<char*>("\x2b\x06\x01\x04\x01\x82\x37\x02\x02\x0a")};
gss_OID_desc sessionKeyQuestion = {
    11, const_cast<char*>("\x2a\x86\x48\x86\xf7\x12\x01\x02\x02\x05\x05")};

/// The mechanism forgets the name that it makes for a server.
struct LibraryLeak {
  LibraryLeak() {
    if (__lsan_disable) __lsan_disable();
  }
  ~LibraryLeak() {
    if (__lsan_enable) __lsan_enable();
  }
};

class EnvironmentVariable {
 public:
  EnvironmentVariable(const char* name, const std::string& value) : name_(name) {
    setenv(name, value.c_str(), 1);
  }
  ~EnvironmentVariable() { unsetenv(name_); }
  EnvironmentVariable(const EnvironmentVariable&) = delete;
  EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

 private:
  const char* name_;
};

class Acceptor {
 public:
  Acceptor() {
    gss_OID_set_desc mechanisms = {1, &ntlmMechanism};
    OM_uint32 minor = 0;
    const LibraryLeak allowed;
    if (GSS_ERROR(gss_acquire_cred(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, &mechanisms,
                                   GSS_C_ACCEPT, &credentials_, nullptr, nullptr)))
      throw std::runtime_error("the mechanism takes no server");
  }
  ~Acceptor() {
    OM_uint32 minor = 0;
    if (context_ != GSS_C_NO_CONTEXT) gss_delete_sec_context(&minor, &context_, nullptr);
    gss_release_cred(&minor, &credentials_);
  }
  Acceptor(const Acceptor&) = delete;
  Acceptor& operator=(const Acceptor&) = delete;

  bool IsSatisfied() const { return status_ == GSS_S_COMPLETE; }

  Bytes Next(Bytes received) {
    gss_buffer_desc input = {received.size(), received.data()};
    gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
    OM_uint32 minor = 0;
    status_ =
        gss_accept_sec_context(&minor, &context_, credentials_, &input, GSS_C_NO_CHANNEL_BINDINGS,
                               nullptr, nullptr, &output, nullptr, nullptr, nullptr);
    const auto* const first = static_cast<const uint8_t*>(output.value);
    Bytes token(first, first + output.length);
    gss_release_buffer(&minor, &output);
    return token;
  }

  Bytes SessionKey() const {
    gss_buffer_set_t keys = GSS_C_NO_BUFFER_SET;
    OM_uint32 minor = 0;
    if (GSS_ERROR(gss_inquire_sec_context_by_oid(&minor, context_, &sessionKeyQuestion, &keys)))
      return {};
    const auto* const first = static_cast<const uint8_t*>(keys->elements[0].value);
    Bytes key(first, first + keys->elements[0].length);
    gss_release_buffer_set(&minor, &keys);
    return key;
  }

 private:
  gss_cred_id_t credentials_ = GSS_C_NO_CREDENTIAL;
  gss_ctx_id_t context_ = GSS_C_NO_CONTEXT;
  OM_uint32 status_ = GSS_S_FAILURE;
};

class NtlmLoginOnPosix : public testing::Test {
 protected:
  /// Whether the acceptor takes the log-in.
  bool Accepts(NtlmLogin& login) {
    const Bytes challenge = acceptor_.Next(login.Next({}));
    acceptor_.Next(login.Next(challenge));
    return acceptor_.IsSatisfied();
  }
  bool Accepts(const char* user, const char* password) {
    NtlmLogin login(user, password, "127.0.0.1");
    return Accepts(login);
  }

  std::string MakeUserFile() {
    // With the passwords' digests: the mechanism loses memory whenever it digests one itself.
    WriteFile(directory_.Native() / "users",
              "OFFICE\\ann:0:X:32DD88BA05015976331DD499DE64E9D9:\n"
              "OFFICE\\bob:0:X:3A3017E31332A6AD93D55C12E5544D91:\n");
    return (directory_.Native() / "users").string();
  }

  TemporaryDirectory directory_;
  EnvironmentVariable userFile_{"NTLM_USER_FILE", MakeUserFile()};
  Acceptor acceptor_;
};

TEST_F(NtlmLoginOnPosix, IsAcceptedWithTheRightPassword) {
  EXPECT_TRUE(Accepts("OFFICE\\ann", "Secret-1"));
}

TEST_F(NtlmLoginOnPosix, SharesItsSessionKeyWithTheAcceptor) {
  NtlmLogin login("OFFICE\\bob", "Secret-2", "127.0.0.1");
  ASSERT_TRUE(Accepts(login));
  EXPECT_EQ(acceptor_.SessionKey(), login.SessionKey());
  EXPECT_EQ(16u, login.SessionKey().size());
}

TEST_F(NtlmLoginOnPosix, TakesAnEmptyPassword) {
  constexpr std::array<uint8_t, 16> kNoPasswordHash = {0x31, 0xD6, 0xCF, 0xE0, 0xD1, 0x6A,
                                                       0xE9, 0x31, 0xB7, 0x3C, 0x59, 0xD7,
                                                       0xE0, 0xC0, 0x89, 0xC0};
  NtlmLogin login("ann", "", "127.0.0.1");
  login.Next({});
  EXPECT_TRUE(NtlmVerifier(login.Next(NtlmVerifier::Challenge())).IsMadeWith(kNoPasswordHash));
}

// The file that the mechanism would take passwords from is there, with the right one.
TEST_F(NtlmLoginOnPosix, UsesTheGivenPasswordAndNoOther) {
  EXPECT_FALSE(Accepts("OFFICE\\ann", "Secret-2"));
}

TEST_F(NtlmLoginOnPosix, UsesTheGivenPasswordEvenWhenItIsEmpty) {
  EXPECT_FALSE(Accepts("OFFICE\\ann", ""));
}

TEST_F(NtlmLoginOnPosix, UsesTheGivenNameAndNoOther) {
  const EnvironmentVariable user("NTLMUSER", "bob");
  EXPECT_FALSE(Accepts("OFFICE\\ann", "Secret-2"));
}

/// Says on standard error how a log-in fails that the system wants to make by version 1.
[[noreturn]] void LogInByVersionOne() {
  setenv("LM_COMPAT_LEVEL", "2", 1);
  try {
    NtlmLogin login("ann", "Secret-1", "127.0.0.1");
    login.Next({});
    login.Next(NtlmVerifier::Challenge());
  } catch (const std::runtime_error& error) {
    std::cerr << error.what() << std::endl;
  }
  _exit(0);
}

// In a process of its own: the mechanism loses memory by what it does for version 1.
TEST_F(NtlmLoginOnPosix, RefusesToAnswerByVersionOne) {
  EXPECT_EXIT(LogInByVersionOne(), testing::ExitedWithCode(0),
              "^this system does not log in with version 2 of NTLM\n$");
}

TEST_F(NtlmLoginOnPosix, RefusesWhatIsNotUnicode) {
  EXPECT_THROW(NtlmLogin("ann", "\xff", "127.0.0.1"), std::runtime_error);
  EXPECT_THROW(NtlmLogin("\xff", "Secret-1", "127.0.0.1"), std::runtime_error);
}

// ZelString would keep a copy in UTF-16 and give its memory back as it is.
TEST_F(NtlmLoginOnPosix, LeavesNoPasswordInUtf16Behind) {
  secretInFreedMemory = u"a secret of the user's";
  {
    const ZelString password("a secret of the user's");
    NtlmLogin login("ann", password, "127.0.0.1");
    login.Next({});
    login.Next(NtlmVerifier::Challenge());
  }
  EXPECT_FALSE(isSecretFreed);
  // As it would be noticed.
  { EXPECT_NE(ZelString("a secret of the user's").GetTCHAR(), nullptr); }
  EXPECT_TRUE(isSecretFreed);
  secretInFreedMemory.clear();
}

}  // namespace
