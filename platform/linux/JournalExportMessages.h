#pragma once

#include <optional>
#include <string>

#include "platform/FileDescriptor.h"

namespace quillsift {

// What the program that reads the journal tells the daemon, one packet a message, over a socket
// that is its standard output. Whatever else a library prints there comes as `other`.
struct JournalExportMessage {
  enum class Kind {
    member,   // `text` is its path, `descriptor` the file
    warning,  // `text` for the log
    end,      // `text` is an errno value in decimal, 0 for success; the last message
    other,
  };

  Kind kind = Kind::other;
  std::string text;  // cut at kMostJournalExportText bytes
  FileDescriptor descriptor = {};
};

inline constexpr std::size_t kMostJournalExportText = 4096;

// Sends a message, waiting until there is room. The descriptor stays open here. 0, or an errno
// value: EPIPE when nobody listens any more.
int sendJournalExportMessage(int socket, const JournalExportMessage& message);

// Takes the next message, which must be there or on its way. None at the end, errno 0, or when it
// cannot be had, errno set: EMFILE when this process has no room for the descriptor.
std::optional<JournalExportMessage> receiveJournalExportMessage(int socket);

}  // namespace quillsift
