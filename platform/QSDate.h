#pragma once

#include <string>

namespace quillsift {

// A wall-clock instant as seconds since 1970-01-01 UTC. A double on purpose: it is what crosses
// the connection, and its rounding is part of the time stamps that end up in an archive.
struct QSDate {
  double secondsSince1970 = 0;

  bool operator==(const QSDate&) const = default;

  // "YYYY-MM-DD HH:MM:SS +0000".
  std::string description() const;
};

}  // namespace quillsift
