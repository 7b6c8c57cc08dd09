#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "agent/task_database/store_connection.h"

/// Connections that threads take, use and give back.
class ConnectionPool {
 public:
  /// Throws StoreError.
  using Connect = std::function<std::unique_ptr<StoreConnection>(Deadline)>;

  ConnectionPool(uint32_t size, Connect connect);

  /// A connection on loan. It goes back when this object goes, or is closed when that is because of
  /// an exception.
  class Loan {
   public:
    Loan(ConnectionPool* pool, std::unique_ptr<StoreConnection> connection, bool isNew);
    ~Loan();
    Loan(const Loan&) = delete;
    Loan& operator=(const Loan&) = delete;

    StoreConnection* operator->() const { return connection_.get(); }
    StoreConnection& operator*() const { return *connection_; }
    /// Whether it was made for this loan.
    bool IsNew() const { return isNew_; }
    void Close() { connection_.reset(); }

   private:
    ConnectionPool* pool_;
    std::unique_ptr<StoreConnection> connection_;
    bool isNew_;
    int exceptions_;
  };

  /// Waits for one that is free, or makes one. Throws StoreError when that takes too long or fails.
  Loan Take(Deadline deadline);

  /// Closes those that nobody uses.
  void CloseIdle();

 private:
  std::unique_ptr<StoreConnection> TakeIdle(Deadline deadline);
  void GiveBack(std::unique_ptr<StoreConnection> connection);

  const uint32_t size_;
  const Connect connect_;
  std::mutex mutex_;
  std::condition_variable freed_;
  uint32_t used_ = 0;
  std::vector<std::unique_ptr<StoreConnection>> idle_;  ///< the one used last is at the end
};
