#include "platform/linux/ConsoleDisplay.h"

#include <linux/vt.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <optional>
#include <utility>

#include "platform/linux/ConsoleImage.h"
#include "platform/linux/FileReading.h"

namespace quillsift {

namespace {

constexpr const char* kAttributed = "/dev/vcsa";
constexpr const char* kCharacters = "/dev/vcsu";  // not before Linux 4.19
constexpr const char* kTerminal = "/dev/tty0";

std::optional<QSData> readDevice(const PlatformTree& tree, const char* path) {
  const auto place = tree.resolve(path);
  if (!place) errno = ENOENT;
  return place ? readSmallFile(*place) : std::nullopt;
}

// 0 where the font has no more than 256 glyphs, or the terminal cannot be asked.
std::uint16_t highGlyphBit(const PlatformTree& tree) {
  const FileDescriptor terminal = openForReading(tree.resolve(kTerminal).value_or(""));
  unsigned short mask = 0;
  if (!terminal.valid() || ::ioctl(terminal.get(), VT_GETHIFONTMASK, &mask) != 0) return 0;
  return mask;
}

}  // namespace

ConsoleDisplay::ConsoleDisplay(std::shared_ptr<const PlatformTree> tree) : tree_(std::move(tree)) {}

int ConsoleDisplay::list(std::vector<ActiveDisplay>* displays) {
  if (!readDevice(*tree_, kAttributed)) {
    const bool isNone = errno == ENOENT || errno == ENXIO || errno == ENODEV;
    return isNone ? ENOSYS : errno;
  }
  displays->push_back({.source = kAttributed});
  return 0;
}

std::unique_ptr<ScreenImage> ConsoleDisplay::capture(const ActiveDisplay&) {
  const auto attributed = readDevice(*tree_, kAttributed);
  if (!attributed) return nullptr;
  const auto characters = readDevice(*tree_, kCharacters).value_or(QSData());
  auto screen = parseConsoleScreen(attributed->bytes(), characters.bytes(), highGlyphBit(*tree_));
  return screen ? std::make_unique<ConsoleImage>(std::move(*screen)) : nullptr;
}

}  // namespace quillsift
