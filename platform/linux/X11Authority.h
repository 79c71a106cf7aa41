#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quillsift {

// How a client of an X server proves that it may talk to it.
inline constexpr std::string_view kMagicCookie = "MIT-MAGIC-COOKIE-1";

// The file behind "-auth" in a server's argument list, whose arguments each end in a NUL. None
// without one, and for a path that is not absolute.
std::optional<std::string> authorityFileIn(std::string_view argumentList);

// The first magic cookie in an authority file. Whose display it is for does not matter: a server
// accepts every cookie in its own file. None when there is none before the file ends or makes no
// sense.
std::optional<std::string> magicCookieIn(std::string_view authorityFile);

}  // namespace quillsift
