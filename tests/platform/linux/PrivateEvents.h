#pragma once

#include <optional>
#include <string>

#include "platform/FileDescriptor.h"

namespace quillsift {

// The broadcast of device events in a network of its own, where nobody else hears what a test sends
// and no device has events.
struct PrivateEvents {
  FileDescriptor receiver;  // has joined, with a buffer for some dozen events
  FileDescriptor sender;

  // None when this process may not have such a network.
  static std::optional<PrivateEvents> make();

  // Forged, as root can. False when it cannot be sent.
  bool send(const std::string& code) const;
};

}  // namespace quillsift
