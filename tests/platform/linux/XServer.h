#pragma once

#include <memory>
#include <string>

#include "tests/platform/linux/ScratchTree.h"
#include "tests/platform/linux/XServerProcess.h"

namespace quillsift::testing {

// A real X server on a display of its own, which shows what was drawn until it is killed at the
// end.
class XServer {
 public:
  // A virtual framebuffer; `screen` is "640x480x24".
  static std::unique_ptr<XServer> virtualScreen(const std::string& screen,
                                                const std::string& options = {});
  // Xorg's dummy driver with outputs DUMMY0 to DUMMY15, the first of them on. Root only.
  static std::unique_ptr<XServer> withOutputs();

  // Makes it a display of the tree, and of no other server's when it has been killed.
  void putInto(const ScratchTree& tree, int number = 0) const;
  // Runs a client of this server to its end; the test fails when it does not exit with 0.
  void run(const std::string& command) const;
  // Turns an output on: "DUMMY1 --right-of DUMMY0".
  void turnOn(const std::string& output, const std::string& mode, const std::string& place) const;
  // Fills rectangles of the screen, each "x y width height RRGGBB".
  void draw(const std::string& rectangles) const;
  void kill() { server_.reset(); }

 private:
  explicit XServer(const std::string& command, std::unique_ptr<ScratchTree> files);

  std::unique_ptr<ScratchTree> files_;  // what it reads; may be null
  std::unique_ptr<XServerProcess> server_;
  std::string display_;
};

}  // namespace quillsift::testing
