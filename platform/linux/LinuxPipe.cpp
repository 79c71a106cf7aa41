#include "platform/linux/LinuxPipe.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>
#include <system_error>
#include <utility>

#include "platform/linux/OutputBuffer.h"
#include "platform/linux/WakeDescriptor.h"

namespace quillsift {

namespace {

// What a pipe holds unless somebody enlarges it; nobody has the descriptors of this one but us.
constexpr std::size_t kPipeLength = std::size_t{64} * 1024;

// A closed descriptor's number may be another file's at once, so the one that a reader uses is the
// reader's own until it has left.
class LinuxPipeReadHandle : public PipeReadHandle {
 public:
  LinuxPipeReadHandle(FileDescriptor descriptor, WakeDescriptor closed, std::size_t longest)
      : closedSignal_(std::move(closed)), longest_(longest), descriptor_(std::move(descriptor)) {}

  bool valid() const override {
    MutexLock lock(mutex_);
    return !closed_;
  }

  void close() override {
    FileDescriptor unused;
    MutexLock lock(mutex_);
    closed_ = true;
    unused = std::move(descriptor_);
    closedSignal_.wake();
  }

  std::optional<QSData> readToEnd(QSError* error) override {
    const FileDescriptor descriptor = takeDescriptor();
    int failure = descriptor.valid() ? 0 : EBADF;
    OutputBuffer buffer;
    try {
      if (failure == 0) failure = readAll(descriptor.get(), &buffer);
      if (failure == 0) return buffer.take();
    } catch (const std::bad_alloc&) {
      failure = ENOMEM;
    } catch (const std::system_error& thrown) {
      failure = thrown.code().value();
    }
    setError(error, QSError::posix(failure));
    return std::nullopt;
  }

 private:
  FileDescriptor takeDescriptor() {
    MutexLock lock(mutex_);
    return std::move(descriptor_);
  }

  // 0 at the end of the file, or an errno value.
  int readAll(int descriptor, OutputBuffer* buffer) {
    // Once closed, what was in the pipe at that time is still read: no more than fits into it.
    std::optional<std::size_t> last;
    for (;;) {
      if (!last && !valid()) last = buffer->length() + kPipeLength;
      const auto room = buffer->room();
      const ssize_t count = ::read(descriptor, room.data(), room.size());
      if (count == 0) return 0;
      if (count > 0) {
        buffer->commit(static_cast<std::size_t>(count));
        if (buffer->length() > longest_) return EFBIG;
        if (last && buffer->length() > *last) return EBADF;
      } else if (errno == EAGAIN) {
        if (last) return EBADF;
        const int failure = waitUnlessWoken(descriptor, POLLIN, closedSignal_);
        if (failure != 0 && failure != ECANCELED) return failure;
      } else if (errno != EINTR) {
        return errno;
      }
    }
  }

  const WakeDescriptor closedSignal_;
  const std::size_t longest_;
  mutable Mutex mutex_;
  bool closed_ QS_GUARDED_BY(mutex_) = false;
  FileDescriptor descriptor_ QS_GUARDED_BY(mutex_);  // until a reader takes it
};

}  // namespace

std::optional<Pipe> makeLinuxPipe(std::size_t longestTransfer) {
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return std::nullopt;
  FileDescriptor readEnd(ends[0]);
  FileDescriptor writeEnd(ends[1]);
  WakeDescriptor closed;
  if (!closed.valid()) return std::nullopt;
  return Pipe{.readHandle = std::make_shared<LinuxPipeReadHandle>(
                  std::move(readEnd), std::move(closed), longestTransfer),
              .writeHandle = std::make_shared<PipeWriteHandle>(std::move(writeEnd))};
}

}  // namespace quillsift
