#pragma once

#include <array>

namespace quillsift {

// What a parameterised flash is given; what the values mean is the platform's affair.
using FlashParameters = std::array<double, 7>;

// Makes the whole display flash, for somebody who looks at it while nothing else can be shown. The
// two kinds must look different. Returns when the flash is over; a host without a display returns
// at once. One thread at a time.
class VisualFlash {
 public:
  virtual ~VisualFlash() = default;

  virtual void flash() = 0;
  virtual void flash(const FlashParameters& parameters) = 0;
};

}  // namespace quillsift
