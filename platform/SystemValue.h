#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <variant>
#include <vector>

#include "platform/QSData.h"
#include "platform/QSDate.h"

namespace quillsift {

// A value as the host's services hand them out: of any shape, its texts of any bytes. Whoever
// passes it on looks what is fit for that.
struct SystemValue {
  using UUID = std::array<std::uint8_t, 16>;
  using Array = std::vector<SystemValue>;
  using Dictionary = std::map<std::string, SystemValue>;

  // The first is "nothing", which some services know.
  std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::string, QSData,
               QSDate, UUID, Array, Dictionary>
      value;
};

}  // namespace quillsift
