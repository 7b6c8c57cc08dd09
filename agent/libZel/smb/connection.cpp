#include "agent/libZel/smb/connection.h"

#include <stdexcept>

namespace smb {

namespace {

std::string DottedAddress(uint32_t address) {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    if (!text.empty()) text += '.';
    text += std::to_string(address >> shift & 0xFF);
  }
  return text;
}

}  // namespace

/// Runs one step within its time. What the server merely refuses leaves the connection usable;
/// after anything else nobody knows what would come next.
template <typename Operation>
void Connection::Guard(Operation operation) {
  try {
    operation(std::chrono::steady_clock::now() + limits_.step);
  } catch (const Refusal&) {
    hasFailed_ = true;
    throw;
  } catch (...) {
    hasFailed_ = true;
    stream_.Close();
    throw;
  }
}

template <typename Operation>
void Connection::Step(Stage needed, Stage next, Operation operation) {
  if (hasFailed_) throw std::runtime_error("a step before it has failed");
  if (stage_ != needed) throw std::runtime_error("it is not its turn");
  Guard(operation);
  stage_ = next;
}

void Connection::Connect(uint32_t address, uint16_t port) {
  Step(Stage::kNew, Stage::kConnected, [&](Deadline deadline) {
    const std::string server = DottedAddress(address);
    peer_ = server + ":" + std::to_string(port);
    stream_.Connect(address, port, deadline);
    transport_.emplace(stream_, isDirect_);
    session_.emplace(*transport_, server);
  });
  if (isDirect_) stage_ = Stage::kInSession;
}

void Connection::RequestSession(const std::string& calledName) {
  if (isDirect_ && stage_ == Stage::kInSession) return;
  Step(Stage::kConnected, Stage::kInSession,
       [&](Deadline deadline) { transport_->Request(calledName, deadline); });
}

void Connection::Negotiate() {
  Step(Stage::kInSession, Stage::kNegotiated,
       [&](Deadline deadline) { session_->Negotiate(deadline); });
}

void Connection::LogIn(const ZelString& user, const ZelString& password) {
  Step(Stage::kNegotiated, Stage::kLoggedIn,
       [&](Deadline deadline) { session_->LogIn(user, password, deadline); });
}

void Connection::OpenShare(const ZelString& share, _CsSmbTreeInfo& tree) {
  Step(Stage::kLoggedIn, Stage::kLoggedIn,
       [&](Deadline deadline) { session_->OpenShare(share, tree, deadline); });
}

void Connection::CloseShare(_CsSmbTreeInfo& tree) {
  Step(Stage::kLoggedIn, Stage::kLoggedIn,
       [&](Deadline deadline) { session_->CloseShare(tree, deadline); });
  tree = {};
}

void Connection::LogOff() {
  if (stage_ != Stage::kLoggedIn) throw std::runtime_error("nobody is logged in");
  stage_ = Stage::kOver;
  Guard([&](Deadline deadline) { session_->LogOff(deadline); });
}

void Connection::EndSession() {
  if (stage_ != Stage::kNew) stage_ = Stage::kOver;
}

void Connection::Disconnect() {
  session_.reset();
  transport_.reset();
  stream_.Close();
  peer_.clear();
  hasFailed_ = false;
  stage_ = Stage::kNew;
}

}  // namespace smb
