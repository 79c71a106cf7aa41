#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace quillsift {

// Runs `body` in a child process that has an empty /dev of its own, with a system log at /dev/log
// when `withLog` is true, and returns the datagrams that the log got. None where this process may
// not make a mount namespace. `body` returns whether all was well; the test fails when it was not.
std::optional<std::vector<std::string>> runWithPrivateDevices(bool withLog,
                                                              const std::function<bool()>& body);

}  // namespace quillsift
