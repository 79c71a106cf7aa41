#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "client/Output.h"
#include "platform/FileDescriptor.h"

namespace quillsift {

// An Output whose text a test can look at.
class CapturedOutput {
 public:
  CapturedOutput() : file_(::memfd_create("captured output", MFD_CLOEXEC)), output_(file_.get()) {
    if (!file_.valid()) throw std::runtime_error("no memory file");
  }

  Output& output() { return output_; }

  // What has been written since the last take.
  std::string take() {
    std::string text(64 * 1024, '\0');
    const ssize_t length = ::pread(file_.get(), text.data(), text.size(), taken_);
    if (length < 0) throw std::runtime_error("cannot read back");
    taken_ += length;
    text.resize(static_cast<std::size_t>(length));
    return text;
  }

 private:
  FileDescriptor file_;
  Output output_;
  off_t taken_ = 0;
};

}  // namespace quillsift
