#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/FileDescriptor.h"
#include "platform/KernelMessageLayout.h"

namespace quillsift {

// Joins the kernel's broadcast of device events. Invalid, with errno set, on failure.
FileDescriptor openKernelEvents();

// Makes a socket that is already open ready for use: not blocking, with credentials on every event,
// and with room for a burst. False with errno.
bool prepareKernelEvents(int socket);

// The token of a sender that is not the kernel. Never all zero: its first word says that there is
// no audit identity.
AuditToken foreignToken(std::uint32_t process, std::uint32_t user, std::uint32_t group);

// Reads events, one at a time. Not thread-safe.
class KernelEventReader {
 public:
  struct Event {
    std::string_view text;  // its lines, each with a NUL behind it; until the next event is read
    AuditToken sender{};    // zero if the kernel itself sent it
  };

  // The next event; nothing when none waits. Events that were lost, because they came faster than
  // they were read, or do not fit are passed over.
  std::optional<Event> next(int socket);

 private:
  std::array<char, 16384> buffer_{};  // the kernel makes none above 4 KiB
};

// The value of a line "NAME=value"; none without such a line. The first line, which names the
// device, is none.
std::optional<std::string_view> valueInEvent(std::string_view text, std::string_view name);

// The code that an event carries for the daemon: QSEVENT of a driver, or of somebody who wrote it
// to a device's uevent file. None for the events of everyday life and for what is no number.
std::optional<std::int32_t> eventCodeIn(std::string_view text);

}  // namespace quillsift
