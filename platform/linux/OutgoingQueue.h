#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "platform/Mutex.h"
#include "platform/ServiceConnections.h"
#include "platform/WireValue.h"
#include "platform/linux/OutgoingBudget.h"

namespace quillsift {

// One thing to tell a peer.
struct OutgoingMessage {
  enum class Kind {
    notification,
    reply,    // to the request of that number
    failure,  // the same, when there is no answer to give
  };
  Kind kind = Kind::notification;
  std::uint64_t request = 0;
  const WireMessage* type = nullptr;  // not owned
  std::vector<WireValue> values = {};
  std::size_t bytes = 0;  // what it was charged with; set by the queue
};

// What waits to be sent to one peer, in order. Any thread may push; the service thread takes out.
class OutgoingQueue {
 public:
  OutgoingQueue(std::shared_ptr<OutgoingBudget> budget, std::function<void()> giveUp);
  ~OutgoingQueue();
  OutgoingQueue(const OutgoingQueue&) = delete;
  OutgoingQueue& operator=(const OutgoingQueue&) = delete;

  // False when the queue is closed, also when this message would have passed a bound: the peer is
  // then given up.
  [[nodiscard]] bool push(OutgoingMessage message);
  // The oldest message; what it was charged with stays charged until settle.
  std::optional<OutgoingMessage> pop();
  // What had been popped is out of our memory. True when a lot of memory has become free since the
  // queue was last empty, so that it should be given back to the system.
  bool settle();
  // Drops everything and takes no more. The same result.
  bool close();

 private:
  const std::shared_ptr<OutgoingBudget> budget_;
  const OutgoingBudget::AccountPointer account_;
  Mutex mutex_;
  std::deque<OutgoingMessage> messages_ QS_GUARDED_BY(mutex_);
  bool closed_ QS_GUARDED_BY(mutex_) = false;
  std::size_t queued_ QS_GUARDED_BY(mutex_) = 0;  // bytes of `messages_`
  std::size_t popped_ QS_GUARDED_BY(mutex_) = 0;  // bytes charged for what is out and not settled
  std::size_t peak_ QS_GUARDED_BY(mutex_) = 0;    // most bytes since it was last empty
};

}  // namespace quillsift
