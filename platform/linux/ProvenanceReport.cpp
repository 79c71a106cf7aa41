#include "platform/linux/ProvenanceReport.h"

#include <algorithm>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/Text.h"
#include "platform/linux/FileReading.h"
#include "platform/linux/PlainText.h"
#include "platform/linux/SMBIOSTable.h"

namespace quillsift {

namespace {

using Dictionary = SystemValue::Dictionary;

// In the order of their names; none for what is no directory.
std::vector<std::string> namesIn(const std::string& directory) {
  std::vector<std::string> names;
  std::error_code error;
  std::filesystem::directory_iterator entry(directory, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error))
    names.push_back(entry->path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

// Without what pads it: terminators, newlines, blanks.
std::string_view trimmed(std::string_view bytes) {
  constexpr std::string_view kPadding(" \t\r\n\0", 5);
  const std::size_t first = bytes.find_first_not_of(kPadding);
  if (first == std::string_view::npos) return "";
  return bytes.substr(first, bytes.find_last_not_of(kPadding) - first + 1);
}

// Nothing for bytes that say nothing.
void addText(const std::string& name, std::string_view bytes, Dictionary* entries) {
  const std::string_view text = trimmed(bytes);
  if (text.empty()) return;
  if (isPlainText(text)) {
    (*entries)[validUTF8(name)].value = std::string(text);
  } else {
    (*entries)[validUTF8(name)].value = QSData(std::string(bytes));
  }
}

template <typename Collection>
void addUnlessEmpty(const std::string& name, Collection collection, Dictionary* entries) {
  if (!collection.empty()) (*entries)[validUTF8(name)].value = std::move(collection);
}

// Those of these files that can be read and say something.
Dictionary filesIn(const std::string& directory, const std::vector<std::string>& names) {
  Dictionary entries;
  for (const std::string& name : names) {
    if (const auto content = readSmallFile(joinedPath(directory, name))) {
      addText(name, content->text(), &entries);
    }
  }
  return entries;
}

Dictionary allFilesIn(const std::string& directory,
                      std::initializer_list<std::string_view> butNot) {
  std::vector<std::string> names = namesIn(directory);
  std::erase_if(names, [&](const std::string& name) {
    return std::find(butNot.begin(), butNot.end(), name) != butNot.end();
  });
  return filesIn(directory, names);
}

// The serial number of a SCSI or ATA disk stands in a page of its own: four bytes of header, the
// last of which is the length, and the number.
void addSerialPage(const std::string& device, Dictionary* entries) {
  const auto page = readSmallFile(joinedPath(device, "vpd_pg80"));
  if (!page || page->length() < 4 || entries->contains("serial")) return;
  const auto length = static_cast<unsigned char>(page->text()[3]);
  addText("serial", page->text().substr(4, length), entries);
}

Dictionary blockDevices(const std::string& directory) {
  Dictionary disks;
  for (const std::string& name : namesIn(directory)) {
    const std::string disk = joinedPath(directory, name);
    const std::string device = joinedPath(disk, "device");
    Dictionary facts = filesIn(device, {"vendor", "model", "serial", "rev", "firmware_rev", "wwid",
                                        "name", "cid", "fwrev", "manfid", "oemid"});
    facts.merge(filesIn(disk, {"serial", "wwid"}));
    addSerialPage(device, &facts);
    addUnlessEmpty(name, std::move(facts), &disks);
  }
  return disks;
}

// The address an interface was made with: of one that goes by another for the time being, as the
// members of a bond do, and not that which a program or chance gave it.
Dictionary networkInterfaces(const std::string& directory) {
  constexpr std::string_view kPermanent = "0";
  Dictionary interfaces;
  for (const std::string& name : namesIn(directory)) {
    const std::string interface = joinedPath(directory, name);
    const auto own = readSmallFile(joinedPath(interface, "bonding_slave/perm_hwaddr"));
    const auto origin = readSmallFile(joinedPath(interface, "addr_assign_type"));
    const auto address = readSmallFile(joinedPath(interface, "address"));
    const bool permanent = origin && trimmed(origin->text()) == kPermanent;
    const std::string_view text = own                    ? trimmed(own->text())
                                  : permanent && address ? trimmed(address->text())
                                                         : std::string_view();
    // The loopback has one of zeros.
    if (text.find_first_not_of("0:") != std::string_view::npos) addText(name, text, &interfaces);
  }
  return interfaces;
}

SystemValue::Array memoryModules(const std::string& path) {
  SystemValue::Array modules;
  const auto table = readSmallFile(path);
  if (!table) return modules;
  for (const MemoryModule& module : memoryModulesIn(table->text())) {
    Dictionary facts;
    addText("Locator", module.locator, &facts);
    addText("Bank", module.bank, &facts);
    addText("Manufacturer", module.manufacturer, &facts);
    addText("SerialNumber", module.serialNumber, &facts);
    addText("PartNumber", module.partNumber, &facts);
    if (module.bytes) facts["Bytes"].value = *module.bytes;
    if (!facts.empty()) modules.emplace_back().value = std::move(facts);
  }
  return modules;
}

}  // namespace

std::optional<SystemValue> provenanceReport(const PlatformTree& tree) {
  // A directory of the tree stands for the machine's as a whole; where the tree hides it nothing is
  // found.
  const auto at = [&](const char* path) { return tree.resolve(path).value_or("/dev/null"); };
  Dictionary report;
  addUnlessEmpty("DMI",
                 allFilesIn(at("/sys/class/dmi/id"), {"modalias", "uevent", "power", "subsystem"}),
                 &report);
  addUnlessEmpty("VitalProductData", allFilesIn(at("/sys/firmware/vpd/ro"), {}), &report);
  addUnlessEmpty("DeviceTree",
                 filesIn(at("/sys/firmware/devicetree/base"), {"model", "serial-number"}), &report);
  addUnlessEmpty("BlockDevices", blockDevices(at("/sys/block")), &report);
  addUnlessEmpty("NetworkInterfaces", networkInterfaces(at("/sys/class/net")), &report);
  addUnlessEmpty("MemoryModules", memoryModules(at("/sys/firmware/dmi/tables/DMI")), &report);
  std::optional<SystemValue> answer;
  if (!report.empty()) answer.emplace().value = std::move(report);
  return answer;
}

}  // namespace quillsift
