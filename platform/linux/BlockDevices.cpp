#include "platform/linux/BlockDevices.h"

#include <systemd/sd-device.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/linux/ProbeWithLimit.h"
#include "platform/linux/VolumeProbe.h"

namespace quillsift {

namespace {

constexpr const char* kDirectory = "/sys/class/block";
// A disk that sleeps takes up to ten seconds to be ready.
constexpr std::chrono::seconds kProbeLimit{12};

struct DeviceReleaser {
  void operator()(sd_device* device) const { ::sd_device_unref(device); }
};
using Device = std::unique_ptr<sd_device, DeviceReleaser>;

Device deviceNamed(const std::string& name) {
  sd_device* device = nullptr;
  if (::sd_device_new_from_subsystem_sysname(&device, "block", name.c_str()) < 0) return nullptr;
  return Device(device);
}

std::string property(const Device& device, const char* name) {
  const char* text = nullptr;
  return ::sd_device_get_property_value(device.get(), name, &text) < 0 ? "" : text;
}

bool hasMedium(const Device& device) {
  const char* size = nullptr;
  if (::sd_device_get_sysattr_value(device.get(), "size", &size) < 0) return true;
  return std::string_view(size) != "0";
}

std::optional<VolumeFacts> recordedFacts(const Device& device) {
  if (::sd_device_get_is_initialized(device.get()) <= 0) return std::nullopt;
  return VolumeFacts{.use = property(device, "ID_FS_USAGE"),
                     .type = property(device, "ID_FS_TYPE"),
                     .fileSystemUUID = property(device, "ID_FS_UUID"),
                     .label = property(device, "ID_FS_LABEL"),
                     .partitionType = property(device, "ID_PART_ENTRY_TYPE"),
                     .partitionUUID = property(device, "ID_PART_ENTRY_UUID"),
                     .role = property(device, "QS_VOLUME_ROLE")};
}

class LinuxBlockDevices : public BlockDevices {
 public:
  explicit LinuxBlockDevices(std::shared_ptr<const PlatformTree> tree) : tree_(std::move(tree)) {}

  std::optional<std::vector<std::string>> names() override {
    const auto directory = tree_->resolve(kDirectory);
    if (!directory) return std::nullopt;
    std::error_code error;
    std::vector<std::string> names;
    for (std::filesystem::directory_iterator entry(*directory, error), end; !error && entry != end;
         entry.increment(error))
      names.push_back(entry->path().filename().string());
    if (error) return std::nullopt;
    std::sort(names.begin(), names.end());
    return names;
  }

  std::optional<BlockDevice> device(const std::string& name) override {
    const Device found = deviceNamed(name);
    const char* kernelName = nullptr;  // with "/" where a file's name has "!"
    if (!found || ::sd_device_get_sysname(found.get(), &kernelName) < 0) return std::nullopt;
    return BlockDevice{
        .name = kernelName, .hasMedium = hasMedium(found), .recorded = recordedFacts(found)};
  }

  std::optional<VolumeFacts> probe(const BlockDevice& device) override {
    return probe_("/dev/" + device.name);
  }

 private:
  const std::shared_ptr<const PlatformTree> tree_;
  ProbeWithLimit probe_{probeVolume, kProbeLimit};
};

}  // namespace

std::unique_ptr<BlockDevices> linuxBlockDevices(std::shared_ptr<const PlatformTree> tree) {
  return std::make_unique<LinuxBlockDevices>(std::move(tree));
}

}  // namespace quillsift
