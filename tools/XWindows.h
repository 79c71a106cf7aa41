#pragma once

#include "tools/Host.h"
#include "tools/PropertyListWriter.h"
#include "tools/WindowServers.h"

namespace quillsift::tools {

// Writes what an X server shows as one dictionary: its screens, their outputs, and the tree of
// their windows with places, sizes and classes. No titles: they tell what people work on. False,
// with nothing written, when the server does not let us in, or when others listen in its place.
//
// Waits for the server as long as it likes, and takes in as much as it sends: for work of its own.
bool writeWindowsOf(const WindowServer& server, const Host& host, PropertyListWriter* list);

}  // namespace quillsift::tools
