#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "platform/FileDescriptor.h"
#include "platform/Mutex.h"
#include "platform/RemoteDevices.h"

namespace quillsift {

// A device behind the socket `name` of a directory. Connected means that somebody accepts there,
// who is root or this process's user. Any thread.
class LinuxRemoteDevice : public RemoteDevice {
 public:
  // `limit` is for each of the two questions.
  LinuxRemoteDevice(FileDescriptor directory, std::string name, std::chrono::milliseconds limit);

  std::string name() const override { return name_; }
  // None when nobody answers in time, or the answer is an error or beyond the limits of
  // RemotePropertyReader.h.
  std::optional<SystemValue::Dictionary> properties() override;
  RemoteDeviceState state() override;
  std::shared_ptr<RemoteDeviceService> service(const std::string& name) override;

 private:
  FileDescriptor connect() const;

  const FileDescriptor directory_;
  const std::string name_;
  const std::chrono::milliseconds limit_;
  Mutex mutex_;
  // From the question for the state until a service takes it, so that a device sees one peer.
  FileDescriptor socket_ QS_GUARDED_BY(mutex_);
};

}  // namespace quillsift
