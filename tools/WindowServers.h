#pragma once

#include <string>
#include <vector>

#include "tools/Host.h"
#include "tools/SeparateWork.h"

namespace quillsift::tools {

// An X server that runs on this machine.
struct WindowServer {
  std::string display = {};        // ":0"
  std::string authorityFile = {};  // what admits to it; empty: nothing is needed
  Account account = {};            // whose process it is: all but this is the process's own word
};

// Anybody can start what looks like servers. The others of a user who has more are left out; of too
// many users, those with the highest numbers.
inline constexpr std::size_t kMostServersOfOneUser = 8;
inline constexpr std::size_t kMostServers = 32;

// The X servers among the processes, by the number of their display.
std::vector<WindowServer> windowServers(const Host& host);

}  // namespace quillsift::tools
