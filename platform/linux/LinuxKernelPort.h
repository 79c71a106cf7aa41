#pragma once

#include <cstddef>
#include <memory>
#include <thread>

#include "platform/FileDescriptor.h"
#include "platform/KernelMessages.h"

namespace quillsift {

struct KernelPortSockets {
  FileDescriptor events;    // the kernel's broadcast; not blocking, with credentials
  FileDescriptor listener;  // of local senders; not blocking
};

// A thread that turns what arrives into messages for the queue. The limit of waiting messages holds
// for the kernel and for the local senders each, so that these cannot crowd it out:
// - an event above it is lost, as one would be that nobody listens to, so a burst costs no more
//   than its reading;
// - a local sender waits, its request staying in its socket.
class LinuxKernelPort : public KernelPort {
 public:
  explicit LinuxKernelPort(KernelPortSockets sockets);
  ~LinuxKernelPort() override;
  LinuxKernelPort(const LinuxKernelPort&) = delete;
  LinuxKernelPort& operator=(const LinuxKernelPort&) = delete;

  int setQueueLimit(std::size_t messages) override;
  int resume(std::shared_ptr<SerialQueue> queue, Handler handler) override;

 private:
  class Receiver;

  KernelPortSockets sockets_;
  std::size_t queueLimit_ = 1;
  std::shared_ptr<Receiver> receiver_;
  std::thread thread_;
};

}  // namespace quillsift
