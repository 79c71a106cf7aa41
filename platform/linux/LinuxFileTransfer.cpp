#include "platform/linux/LinuxFileTransfer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <span>
#include <string>
#include <utility>

#include "platform/linux/BackgroundThread.h"

namespace quillsift {

namespace {

constexpr std::size_t kPieceLength = std::size_t{64} * 1024;

// Others have no end.
bool isStream(int socket) {
  int type = 0;
  socklen_t length = sizeof type;
  return ::getsockopt(socket, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM;
}

// A descriptor whose reads never wait, however many other readers the device has kept.
class TransferSource {
 public:
  // 0 or an errno value.
  int open(FileDescriptor passed) {
    struct stat status {};
    const int flags = ::fcntl(passed.get(), F_GETFL);
    if (flags < 0 || ::fstat(passed.get(), &status) != 0) return errno;
    if (S_ISDIR(status.st_mode)) return EISDIR;
    socket_ = S_ISSOCK(status.st_mode);
    const bool pipe = S_ISFIFO(status.st_mode);
    if (socket_ && !isStream(passed.get())) return EINVAL;
    if (!socket_ && !pipe && !S_ISREG(status.st_mode)) return EINVAL;
    if ((flags & O_ACCMODE) == O_WRONLY || (flags & O_PATH) != 0) return EBADF;
    if (!pipe) {
      descriptor_ = std::move(passed);
      return 0;
    }
    // The flag for that belongs to all who share the open file; this is one of our own.
    const std::string path = "/proc/self/fd/" + std::to_string(passed.get());
    descriptor_ = FileDescriptor(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    return descriptor_.valid() ? 0 : errno;
  }

  int get() const { return descriptor_.get(); }

  ssize_t read(std::span<std::byte> piece) const {
    return socket_ ? ::recv(get(), piece.data(), piece.size(), MSG_DONTWAIT)
                   : ::read(get(), piece.data(), piece.size());
  }

 private:
  FileDescriptor descriptor_;
  bool socket_ = false;
};

// 0 or an errno value.
int writeAll(int destination, std::span<const std::byte> bytes, const WakeDescriptor& cancelled) {
  while (!bytes.empty()) {
    const int failure = waitUnlessWoken(destination, POLLOUT, cancelled);
    if (failure != 0) return failure;
    const ssize_t count = ::write(destination, bytes.data(), bytes.size());
    if (count >= 0) {
      bytes = bytes.subspan(static_cast<std::size_t>(count));
    } else if (errno != EAGAIN && errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

// 0 or an errno value.
int copy(FileDescriptor passed, int destination, const WakeDescriptor& cancelled) {
  TransferSource source;
  int failure = source.open(std::move(passed));
  std::array<std::byte, kPieceLength> piece;
  while (failure == 0) {
    failure = waitUnlessWoken(source.get(), POLLIN, cancelled);
    if (failure != 0) break;
    const ssize_t count = source.read(piece);
    if (count == 0) return 0;
    if (count > 0) {
      failure =
          writeAll(destination, std::span(piece).first(static_cast<std::size_t>(count)), cancelled);
    } else if (errno != EAGAIN && errno != EINTR) {
      failure = errno;
    }
  }
  return failure;
}

struct Transfer {
  FileDescriptor source;
  FileDescriptor destination;
  RemoteFileTransfer::Completion completion;
  std::shared_ptr<const WakeDescriptor> cancelled;

  void run() { end(copy(std::move(source), destination.get(), *cancelled)); }
  // The outcome first: whoever reads to the end of the file then asks for it.
  void end(int error) {
    completion(error);
    destination.reset();
  }
};

}  // namespace

LinuxFileTransfer::LinuxFileTransfer(FileDescriptor source,
                                     std::shared_ptr<const WakeDescriptor> cancelled)
    : cancelled_(std::move(cancelled)), source_(std::move(source)) {}

void LinuxFileTransfer::writeTo(FileDescriptor destination, Completion completion) {
  FileDescriptor source;
  {
    MutexLock lock(mutex_);
    source = std::move(source_);
  }
  const auto transfer = std::make_shared<Transfer>(Transfer{.source = std::move(source),
                                                            .destination = std::move(destination),
                                                            .completion = std::move(completion),
                                                            .cancelled = cancelled_});
  if (!transfer->source.valid() || !transfer->destination.valid()) return transfer->end(EBADF);
  if (!startBackgroundThread([transfer] { transfer->run(); })) transfer->end(EAGAIN);
}

}  // namespace quillsift
