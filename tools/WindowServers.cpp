#include "tools/WindowServers.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <filesystem>
#include <map>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/linux/X11Authority.h"
#include "tools/Files.h"

namespace quillsift::tools {

namespace {

constexpr std::array<std::string_view, 8> kServers = {"Xorg",   "X",    "Xvfb",      "Xwayland",
                                                      "Xephyr", "Xvnc", "Xtigervnc", "Xorg.bin"};

constexpr std::size_t kSocketTableLimit = std::size_t{4} * 1024 * 1024;

bool isNumber(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::vector<std::string_view> argumentsIn(std::string_view commandLine) {
  std::vector<std::string_view> arguments;
  while (!commandLine.empty()) {
    const std::size_t end = std::min(commandLine.find('\0'), commandLine.size());
    arguments.push_back(commandLine.substr(0, end));
    commandLine.remove_prefix(std::min(end + 1, commandLine.size()));
  }
  return arguments;
}

// Displays by the kernel's numbers of the sockets at which servers listen for their clients.
std::map<std::string, std::string> displaysBySocket(const Host& host) {
  constexpr std::string_view kSocketPath = "/tmp/.X11-unix/X";
  std::map<std::string, std::string> displays;
  const std::string table = readFile(host.path("/proc/net/unix"), kSocketTableLimit).value_or("");
  for (const std::string_view line : linesOf(table)) {
    const std::size_t path = line.rfind(kSocketPath);
    if (path == std::string_view::npos) continue;
    const std::string_view number = line.substr(path + kSocketPath.size());
    // In front of the path, which may begin with an "@": the number of the socket.
    std::string_view rest = line.substr(0, line.find_last_of(' ', path));
    rest = rest.substr(0, rest.find_last_not_of(' ') + 1);
    const std::string socket(rest.substr(rest.rfind(' ') + 1));
    if (isNumber(number)) displays["socket:[" + socket + "]"] = ":" + std::string(number);
  }
  return displays;
}

// The display whose socket the process holds, for a server that chose its number itself.
std::optional<std::string> displayServedBy(const std::string& process,
                                           const std::map<std::string, std::string>& displays) {
  const std::string descriptors = pathIn(process, "fd");
  for (const std::string& name : namesIn(descriptors).value_or(Names{})) {
    std::error_code error;
    const auto display =
        displays.find(std::filesystem::read_symlink(pathIn(descriptors, name), error));
    if (display != displays.end()) return display->second;
  }
  return std::nullopt;
}

// A server's settings, its display empty when the words do not tell it; none for another program.
std::optional<WindowServer> serverOf(const std::string& commandLine) {
  const std::vector<std::string_view> arguments = argumentsIn(commandLine);
  if (arguments.empty()) return std::nullopt;
  const std::string_view name = arguments[0].substr(arguments[0].rfind('/') + 1);
  if (std::find(kServers.begin(), kServers.end(), name) == kServers.end()) return std::nullopt;
  WindowServer server{.authorityFile = authorityFileIn(commandLine).value_or("")};
  for (const std::string_view argument : arguments) {
    if (argument.starts_with(':') && isNumber(argument.substr(1))) server.display = argument;
  }
  return server;
}

// The effective one of the identifiers that a line of a process's state tells: real, effective,
// saved, and that for files.
std::optional<id_t> effectiveIdentifier(std::string_view state, std::string_view label) {
  for (const std::string_view line : linesOf(state)) {
    if (!line.starts_with(label)) continue;
    const std::string_view real = trimmed(line.substr(label.size()));
    const std::string_view effective = trimmed(real.substr(std::min(real.find('\t'), real.size())));
    id_t identifier = 0;
    const auto end = effective.data() + effective.size();
    if (std::from_chars(effective.data(), end, identifier).ec != std::errc()) return std::nullopt;
    return identifier;
  }
  return std::nullopt;
}

// Not the owner of the process's directory, which a process can make root.
std::optional<Account> accountOf(const std::string& process) {
  const std::string state = readFile(pathIn(process, "status")).value_or("");
  const auto user = effectiveIdentifier(state, "Uid:");
  const auto group = effectiveIdentifier(state, "Gid:");
  if (!user || !group) return std::nullopt;
  return Account{*user, *group};
}

void sortByDisplay(std::vector<WindowServer>* servers) {
  const auto number = [](const WindowServer& server) {
    return std::pair(server.display.size(), server.display);  // as numbers without leading zeros
  };
  std::stable_sort(servers->begin(), servers->end(),
                   [&](const WindowServer& first, const WindowServer& second) {
                     return number(first) < number(second);
                   });
}

// The highest numbers of users are those that namespaces lend, of which anybody has many.
std::vector<WindowServer> withoutCrowds(std::vector<WindowServer> servers) {
  std::stable_sort(servers.begin(), servers.end(),
                   [](const WindowServer& first, const WindowServer& second) {
                     return first.account.user < second.account.user;
                   });
  std::vector<WindowServer> kept;
  std::map<uid_t, std::size_t> counts;
  for (WindowServer& server : servers) {
    if (kept.size() == kMostServers) break;
    if (++counts[server.account.user] <= kMostServersOfOneUser) kept.push_back(std::move(server));
  }
  return kept;
}

}  // namespace

std::vector<WindowServer> windowServers(const Host& host) {
  std::vector<WindowServer> servers;
  const std::string processes = host.path("/proc");
  const std::map<std::string, std::string> displays = displaysBySocket(host);
  for (const std::string& name : namesIn(processes).value_or(Names{})) {
    if (!isNumber(name)) continue;
    const std::string process = pathIn(processes, name);
    const auto commandLine = readFile(pathIn(process, "cmdline"));
    auto server = serverOf(commandLine.value_or(""));
    const auto account = accountOf(process);
    if (!server || !account) continue;
    server->account = *account;
    if (server->display.empty())
      server->display = displayServedBy(process, displays).value_or(":0");
    servers.push_back(std::move(*server));
  }
  sortByDisplay(&servers);
  servers = withoutCrowds(std::move(servers));
  sortByDisplay(&servers);
  return servers;
}

}  // namespace quillsift::tools
