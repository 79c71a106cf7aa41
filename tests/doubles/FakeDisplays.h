#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Displays.h"

namespace quillsift {

// Displays as the test lists them. Set up before use; one thread at a time.
class FakeDisplays : public Displays {
 public:
  struct Display {
    std::uint32_t identifier = 0;
    bool mirrors = false;
    bool capturable = true;
    std::optional<std::string> png = "png";  // none: the encoder cannot finish
  };

  std::vector<Display> displays;
  int error = 0;  // of activeDisplays
  std::vector<std::size_t> roomsAsked;
  std::vector<std::uint32_t> captured;

  int activeDisplays(std::size_t room, std::vector<std::uint32_t>* out) override {
    roomsAsked.push_back(room);
    if (error != 0) return error;
    out->clear();
    for (std::size_t i = 0; i < std::min(room, displays.size()); ++i)
      out->push_back(displays[i].identifier);
    return 0;
  }

  bool mirrorsAnother(std::uint32_t display) override {
    const Display* found = find(display);
    return found != nullptr && found->mirrors;
  }

  std::unique_ptr<ScreenImage> capture(std::uint32_t display) override {
    captured.push_back(display);
    const Display* found = find(display);
    if (found == nullptr || !found->capturable) return nullptr;
    return std::make_unique<Image>(found->png);
  }

 private:
  class Image : public ScreenImage {
   public:
    explicit Image(std::optional<std::string> png) : png_(std::move(png)) {}

    std::optional<QSData> encodeAsPNG() override {
      if (!png_) return std::nullopt;
      return QSData(*png_);
    }

   private:
    const std::optional<std::string> png_;
  };

  const Display* find(std::uint32_t identifier) const {
    const auto found = std::find_if(displays.begin(), displays.end(), [=](const Display& display) {
      return display.identifier == identifier;
    });
    return found == displays.end() ? nullptr : &*found;
  }
};

}  // namespace quillsift
