#include "agent/task_database/store_pool.h"

#include <algorithm>
#include <exception>
#include <utility>

std::chrono::milliseconds Remaining(Deadline deadline) {
  using std::chrono::milliseconds;
  const auto left =
      std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
  return std::max(left, milliseconds(1));
}

ConnectionPool::Loan::Loan(ConnectionPool* pool, std::unique_ptr<StoreConnection> connection,
                           bool isNew)
    : pool_(pool),
      connection_(std::move(connection)),
      isNew_(isNew),
      exceptions_(std::uncaught_exceptions()) {}

ConnectionPool::Loan::~Loan() {
  if (std::uncaught_exceptions() > exceptions_) connection_.reset();
  pool_->GiveBack(std::move(connection_));
}

ConnectionPool::ConnectionPool(uint32_t size, Connect connect)
    : size_(std::max(size, 1u)), connect_(std::move(connect)) {
  idle_.reserve(size_);
}

ConnectionPool::Loan ConnectionPool::Take(Deadline deadline) {
  std::unique_ptr<StoreConnection> connection = TakeIdle(deadline);
  if (connection && connection->IsAlive()) return {this, std::move(connection), false};

  try {
    connection.reset();
    return {this, connect_(deadline), true};
  } catch (...) {
    GiveBack(nullptr);
    throw;
  }
}

void ConnectionPool::CloseIdle() {
  std::vector<std::unique_ptr<StoreConnection>> closing;
  const std::lock_guard lock(mutex_);
  closing.swap(idle_);
  idle_.reserve(size_);
}

/// Counts the caller as a user; nothing when it must connect.
std::unique_ptr<StoreConnection> ConnectionPool::TakeIdle(Deadline deadline) {
  std::unique_lock lock(mutex_);
  if (!freed_.wait_until(lock, deadline, [this] { return used_ < size_; })) {
    throw StoreError("the database is busy: none of its connections became free in time");
  }
  ++used_;
  if (idle_.empty()) return nullptr;
  std::unique_ptr<StoreConnection> connection = std::move(idle_.back());
  idle_.pop_back();
  return connection;
}

void ConnectionPool::GiveBack(std::unique_ptr<StoreConnection> connection) {
  {
    const std::lock_guard lock(mutex_);
    --used_;
    if (connection) idle_.push_back(std::move(connection));
  }
  freed_.notify_one();
}
