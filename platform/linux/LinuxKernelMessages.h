#pragma once

#include <memory>
#include <string>

#include "platform/KernelMessages.h"

namespace quillsift {

// A port with two sources:
// - the kernel's broadcast of device events, each event with a code for us being one message whose
//   sender the kernel itself proves;
// - a local socket of sequenced packets, which takes raw requests from any process and answers
//   them. Such a sender is never the kernel.
//
// Each source is what the service manager passed under the port's name, and where it passed none is
// opened here: the socket at <directory>/<port name>. A source that cannot be had fails the
// check-in.
class LinuxKernelMessages : public KernelMessages {
 public:
  explicit LinuxKernelMessages(std::string socketDirectory);

  std::unique_ptr<KernelPort> checkIn(const std::string& portName, int* code) override;

 private:
  const std::string socketDirectory_;
};

}  // namespace quillsift
