#pragma once

#include <sys/socket.h>

#include <string>
#include <vector>

#include "platform/FileDescriptor.h"
#include "platform/QSError.h"

namespace quillsift {

// The listening stream socket that the service manager passed under `name` (LISTEN_PID,
// LISTEN_FDS, LISTEN_FDNAMES), taken over by the caller. Nothing and no error when none was passed
// under that name; nothing and `error` when what was passed is something else. Once for a name.
FileDescriptor takePassedSocket(const std::string& name, QSError* error);

// All that was passed under `name`, whatever it is, taken over by the caller. Once for a name.
std::vector<FileDescriptor> takePassedDescriptors(const std::string& name);

// Binds a socket of this type to `path` and listens on it; nothing and `error` when that fails. The
// directory is made (0755) if it is missing. A socket that is there already is replaced only if
// nobody answers on it (else EADDRINUSE), a lock beside it keeping two starts at once apart; any
// other file is left alone. The socket may be connected to by everybody (0666): who is served is
// decided by credentials.
FileDescriptor bindEndpointSocket(const std::string& path, QSError* error, int type = SOCK_STREAM);

}  // namespace quillsift
