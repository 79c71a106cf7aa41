#include "platform/linux/OutgoingBudget.h"

#include <algorithm>
#include <utility>

namespace quillsift {

OutgoingBudget::OutgoingBudget(std::size_t forOne, std::size_t forAll)
    : forOne_(forOne), forAll_(forAll) {}

OutgoingBudget::AccountPointer OutgoingBudget::open(std::function<void()> giveUp) {
  auto account = std::make_shared<Account>();
  account->giveUp = std::move(giveUp);
  const MutexLock lock(mutex_);
  accounts_.push_back(account);
  return account;
}

bool OutgoingBudget::charge(const AccountPointer& account, std::size_t bytes) {
  bool charged = false;
  for (;;) {
    std::function<void()> giveUp;
    {
      const MutexLock lock(mutex_);
      if (!account->isOpen) return false;
      if (!std::exchange(charged, true)) {
        account->bytes += bytes;
        total_ += bytes;
      }
      const AccountPointer victim = pastBound(account);
      if (!victim) return true;
      giveUp = std::move(victim->giveUp);
      closeLocked(victim);
    }
    if (giveUp) giveUp();
  }
}

void OutgoingBudget::release(const AccountPointer& account, std::size_t bytes) {
  const MutexLock lock(mutex_);
  if (!account->isOpen) return;
  account->bytes -= bytes;
  total_ -= bytes;
}

void OutgoingBudget::close(const AccountPointer& account) {
  const MutexLock lock(mutex_);
  if (!account->isOpen) return;
  closeLocked(account);
  account->giveUp = nullptr;
}

std::size_t OutgoingBudget::total() const {
  const MutexLock lock(mutex_);
  return total_;
}

void OutgoingBudget::closeLocked(const AccountPointer& account) {
  total_ -= account->bytes;
  account->bytes = 0;
  account->isOpen = false;
  std::erase(accounts_, account);
}

OutgoingBudget::AccountPointer OutgoingBudget::pastBound(const AccountPointer& charged) const {
  if (charged->bytes > forOne_) return charged;
  if (total_ <= forAll_) return nullptr;
  return *std::max_element(accounts_.begin(), accounts_.end(),
                           [](const auto& a, const auto& b) { return a->bytes < b->bytes; });
}

}  // namespace quillsift
