#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include "platform/FileDescriptor.h"
#include "platform/linux/BusPointers.h"

namespace quillsift {

// Messages need a bus; this one is connected to nobody who listens.
class IdleBus {
 public:
  IdleBus() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    other_ = FileDescriptor(ends[1]);
    sd_bus* bus = nullptr;
    EXPECT_GE(sd_bus_new(&bus), 0);
    bus_.reset(bus);
    EXPECT_GE(sd_bus_negotiate_fds(bus, 1), 0);
    EXPECT_GE(sd_bus_set_fd(bus, ends[0], ends[0]), 0);
    EXPECT_GE(sd_bus_start(bus), 0);
  }

  BusMessagePointer newMessage() {
    sd_bus_message* message = nullptr;
    EXPECT_GE(sd_bus_message_new_signal(bus_.get(), &message, "/a", "a.b", "c"), 0);
    return BusMessagePointer(message);
  }

 private:
  FileDescriptor other_;
  BusPointer bus_;
};

}  // namespace quillsift
