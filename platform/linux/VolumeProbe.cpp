#include "platform/linux/VolumeProbe.h"

#include <blkid/blkid.h>

#include <cerrno>
#include <memory>

#include "platform/linux/FileReading.h"

namespace quillsift {

namespace {

struct ProbeFreer {
  void operator()(blkid_probe probe) const { ::blkid_free_probe(probe); }
};
using Probe = std::unique_ptr<blkid_struct_probe, ProbeFreer>;

std::string value(const Probe& probe, const char* name) {
  const char* text = nullptr;
  if (::blkid_probe_lookup_value(probe.get(), name, &text, nullptr) != 0) return "";
  return text;
}

}  // namespace

std::optional<VolumeFacts> probeVolume(const std::string& path) {
  const FileDescriptor device = openForReading(path);
  if (!device.valid()) return std::nullopt;
  const Probe probe(::blkid_new_probe());
  if (!probe) {
    errno = ENOMEM;
    return std::nullopt;
  }
  errno = 0;
  if (::blkid_probe_set_device(probe.get(), device.get(), 0, 0) != 0) {
    if (errno == 0) errno = EIO;
    return std::nullopt;
  }
  ::blkid_probe_enable_superblocks(probe.get(), 1);
  ::blkid_probe_set_superblocks_flags(
      probe.get(), BLKID_SUBLKS_UUID | BLKID_SUBLKS_LABEL | BLKID_SUBLKS_TYPE | BLKID_SUBLKS_USAGE);
  ::blkid_probe_enable_partitions(probe.get(), 1);
  ::blkid_probe_set_partitions_flags(probe.get(), BLKID_PARTS_ENTRY_DETAILS);
  // 0: something, 1: nothing, -2: signatures that contradict each other, -1: failed.
  const int result = ::blkid_do_safeprobe(probe.get());
  if (result == -1) {
    if (errno == 0) errno = EIO;
    return std::nullopt;
  }
  if (result != 0) return VolumeFacts();
  return VolumeFacts{.use = value(probe, "USAGE"),
                     .type = value(probe, "TYPE"),
                     .fileSystemUUID = value(probe, "UUID"),
                     .label = value(probe, "LABEL"),
                     .partitionType = value(probe, "PART_ENTRY_TYPE"),
                     .partitionUUID = value(probe, "PART_ENTRY_UUID"),
                     .role = ""};
}

}  // namespace quillsift
