#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/KernelMessages.h"

namespace quillsift {

// A port whose messages the test makes. Set up before use; one thread at a time.
class FakeKernelMessages : public KernelMessages {
 public:
  int checkInCode = 0;
  int queueLimitCode = 0;
  int resumeCode = 0;
  std::vector<std::string> calls;  // such as "checkIn io.vantor.quillsiftd.kernel"
  std::shared_ptr<SerialQueue> queue;
  KernelPort::Handler handler;  // empty unless a port is open

  // Has the port handle a message as it would one that arrived.
  KernelReply deliver(const KernelMessage& message) {
    KernelReply reply{};
    queue->sync([&] { reply = handler(message); });
    return reply;
  }

  std::unique_ptr<KernelPort> checkIn(const std::string& portName, int* code) override {
    calls.push_back("checkIn " + portName);
    *code = checkInCode;
    return checkInCode == 0 ? std::make_unique<Port>(*this) : nullptr;
  }

 private:
  class Port : public KernelPort {
   public:
    explicit Port(FakeKernelMessages& owner) : owner_(owner) {}
    ~Port() override {
      owner_.calls.emplace_back("drop");
      owner_.handler = nullptr;
      owner_.queue = nullptr;
    }
    int setQueueLimit(std::size_t messages) override {
      owner_.calls.push_back("setQueueLimit " + std::to_string(messages));
      return owner_.queueLimitCode;
    }
    int resume(std::shared_ptr<SerialQueue> onQueue, Handler withHandler) override {
      owner_.calls.push_back("resume " + onQueue->label());
      if (owner_.resumeCode == 0) {
        owner_.queue = std::move(onQueue);
        owner_.handler = std::move(withHandler);
      }
      return owner_.resumeCode;
    }

   private:
    FakeKernelMessages& owner_;
  };
};

}  // namespace quillsift
