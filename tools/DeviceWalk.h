#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/TimeLimit.h"

namespace quillsift::tools {

// One readable attribute of a device: "vendor", or "power/control" for one in a group.
struct DeviceAttribute {
  std::string name;
  std::string value;  // its bytes without the final newline, at most DeviceWalk::kLongestValue
};

struct Device {
  bool isDevice = true;   // false for a top that is a mere directory
  std::string name;       // its path below the device above it: "0000:00:01.0", "block/vda"
  std::string subsystem;  // empty when it belongs to none
  std::string driver;     // empty when none has it
  std::vector<DeviceAttribute> attributes;
};

// Takes what a walk finds: each device, then those below it, then its end.
class DeviceVisitor {
 public:
  virtual ~DeviceVisitor() = default;
  virtual void beginDevice(const Device& device) = 0;
  virtual void endDevice() = 0;
};

// Walks the kernel's device directories, which are files one may read, files that do something when
// read, and files that hold secrets; only the first are touched. No link is followed.
class DeviceWalk {
 public:
  static constexpr std::size_t kLongestValue = 4096;  // a page, what most attributes are limited to

  // Neither is owned; both outlive the walk.
  DeviceWalk(const TimeLimit& limit, DeviceVisitor& visitor) : limit_(limit), visitor_(visitor) {}

  // Every device at and below `directory`. A device is a directory with a "uevent" file; one
  // without is either a group of attributes of the device above it or a mere branch of the tree.
  // The top is visited whether it is a device or not, and called `name`. False when it cannot be
  // opened.
  bool walk(const std::string& directory, std::string_view name);

  // Whether the walk stopped early because the time was up.
  bool stoppedEarly() const { return stoppedEarly_; }
  // How many attributes this user was not permitted to read.
  int notPermitted() const { return notPermitted_; }

 private:
  void visit(int directory, std::string_view name);
  void gather(int directory, const std::string& prefix, Device& device,
              std::vector<std::string>* children);
  void readAttribute(int directory, const char* file, const std::string& name, Device& device);
  bool mayGoOn();

  const TimeLimit& limit_;
  DeviceVisitor& visitor_;
  bool stoppedEarly_ = false;
  int notPermitted_ = 0;
};

// Whether an attribute may be read at all. `name` as in DeviceAttribute; `ofDevice` as isDevice.
bool isSafeToRead(std::string_view name, bool ofDevice = true);

}  // namespace quillsift::tools
