#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "platform/Mutex.h"

namespace quillsift {

// Counts the bytes that wait to be read by the peers, and gives up the peer that holds too many.
// Any thread. Its lock is a leaf: what is called when a peer is given up runs without it.
class OutgoingBudget {
 public:
  // What one peer holds. Only the budget looks inside.
  struct Account {
    bool isOpen = true;
    std::size_t bytes = 0;
    std::function<void()> giveUp;
  };
  using AccountPointer = std::shared_ptr<Account>;

  // The bounds in bytes: for one peer, and for all peers together.
  OutgoingBudget(std::size_t forOne, std::size_t forAll);

  // `giveUp` is called at most once, by whichever thread passes a bound, after the account has been
  // closed.
  AccountPointer open(std::function<void()> giveUp);
  // Adds to an account. An account past its own bound is closed and given up; while all together
  // are past theirs, so is the one that holds most. False when this account is closed (now or
  // before): nothing is counted then.
  [[nodiscard]] bool charge(const AccountPointer& account, std::size_t bytes);
  // Takes back what was charged. Nothing happens on a closed account.
  void release(const AccountPointer& account, std::size_t bytes);
  // Everything that the account holds counts no more.
  void close(const AccountPointer& account);

  std::size_t total() const;

 private:
  void closeLocked(const AccountPointer& account) QS_REQUIRES(mutex_);
  // Who must go, if anybody.
  AccountPointer pastBound(const AccountPointer& charged) const QS_REQUIRES(mutex_);

  const std::size_t forOne_;
  const std::size_t forAll_;
  mutable Mutex mutex_;
  std::size_t total_ QS_GUARDED_BY(mutex_) = 0;
  std::vector<AccountPointer> accounts_ QS_GUARDED_BY(mutex_);
};

}  // namespace quillsift
