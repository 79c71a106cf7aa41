#pragma once

#include <string>
#include <vector>

#include "tools/DeviceWalk.h"
#include "tools/Output.h"
#include "tools/PropertyListWriter.h"

namespace quillsift::tools {

// Devices as an indented tree, each with its attributes below it.
class DeviceTextWriter : public DeviceVisitor {
 public:
  explicit DeviceTextWriter(Output& output) : output_(output) {}
  void beginDevice(const Device& device) override;
  void endDevice() override { --depth_; }

 private:
  Output& output_;  // not owned
  std::size_t depth_ = 0;
};

// Devices as dictionaries: "name", "subsystem", "driver", "attributes" (a dictionary), "children"
// (an array); what a device lacks has no key.
class DevicePropertyListWriter : public DeviceVisitor {
 public:
  explicit DevicePropertyListWriter(PropertyListWriter& list) : list_(list) {}
  void beginDevice(const Device& device) override;
  void endDevice() override;

 private:
  PropertyListWriter& list_;       // not owned
  std::vector<bool> hasChildren_;  // of the devices begun, outermost first
};

// `bytes` as lines to print: one line of text, several, or hexadecimal digits for what is no text.
std::vector<std::string> printableLines(std::string_view bytes);

}  // namespace quillsift::tools
