#include "platform/linux/OutgoingQueue.h"

#include <algorithm>
#include <utility>

#include "platform/linux/BusMarshalling.h"

namespace quillsift {

namespace {

// A queue that held more than this leaves enough free memory behind to be worth giving back.
constexpr std::size_t kWorthTrimming = std::size_t{8} << 20;

}  // namespace

OutgoingQueue::OutgoingQueue(std::shared_ptr<OutgoingBudget> budget, std::function<void()> giveUp)
    : budget_(std::move(budget)), account_(budget_->open(std::move(giveUp))) {}

OutgoingQueue::~OutgoingQueue() {
  budget_->close(account_);
}

bool OutgoingQueue::push(OutgoingMessage message) {
  message.bytes = sizeof(message) + heldBytes(message.values);
  // Charged first and without our lock: giving up a peer closes its queue, perhaps this one.
  if (!budget_->charge(account_, message.bytes)) return false;
  MutexLock lock(mutex_);
  if (closed_) return false;
  queued_ += message.bytes;
  peak_ = std::max(peak_, queued_ + popped_);
  messages_.push_back(std::move(message));
  return true;
}

std::optional<OutgoingMessage> OutgoingQueue::pop() {
  const MutexLock lock(mutex_);
  if (messages_.empty()) return std::nullopt;
  std::optional<OutgoingMessage> message(std::move(messages_.front()));
  messages_.pop_front();
  queued_ -= message->bytes;
  popped_ += message->bytes;
  return message;
}

bool OutgoingQueue::settle() {
  MutexLock lock(mutex_);
  const std::size_t settled = std::exchange(popped_, 0);
  const bool trim =
      messages_.empty() && std::exchange(peak_, messages_.empty() ? 0 : peak_) > kWorthTrimming;
  lock.unlock();
  if (settled > 0) budget_->release(account_, settled);
  return trim;
}

bool OutgoingQueue::close() {
  std::deque<OutgoingMessage> dropped;
  MutexLock lock(mutex_);
  closed_ = true;
  dropped.swap(messages_);
  queued_ = 0;
  popped_ = 0;
  const bool trim = std::exchange(peak_, 0) > kWorthTrimming;
  lock.unlock();
  budget_->close(account_);
  return trim;
}

}  // namespace quillsift
