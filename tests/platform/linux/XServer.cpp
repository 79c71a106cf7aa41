#include "tests/platform/linux/XServer.h"

#include <gtest/gtest.h>

#include <utility>

namespace quillsift::testing {

namespace {

constexpr const char* kOutputs = R"(
Section "ServerFlags"
  Option "AutoAddDevices" "false"
  Option "AutoAddGPU" "false"
EndSection
Section "Device"
  Identifier "card"
  Driver "dummy"
  VideoRam 65536
EndSection
Section "Monitor"
  Identifier "monitor"
  HorizSync 5-200
  VertRefresh 5-200
EndSection
Section "Screen"
  Identifier "screen"
  Device "card"
  Monitor "monitor"
  DefaultDepth 24
  SubSection "Display"
    Depth 24
    Virtual 2048 1024
    Modes "640x480"
  EndSubSection
EndSection
)";

}  // namespace

XServer::XServer(const std::string& command, std::unique_ptr<ScratchTree> files)
    : files_(std::move(files)),
      server_(std::make_unique<XServerProcess>(command)),
      display_(server_->display()) {
  if (!server_->runs()) ADD_FAILURE() << command << " did not start";
}

std::unique_ptr<XServer> XServer::virtualScreen(const std::string& screen,
                                                const std::string& options) {
  return std::unique_ptr<XServer>(new XServer("Xvfb -screen 0 " + screen + " " + options, nullptr));
}

std::unique_ptr<XServer> XServer::withOutputs() {
  auto files = std::make_unique<ScratchTree>();
  // On a seat of its own it leaves the machine's console alone.
  const std::string command = "Xorg -seat quillsift-test -config " +
                              files->write("xorg.conf", kOutputs) + " -configdir " +
                              files->makeDirectory("none") + " -logfile " + files->at("log");
  return std::unique_ptr<XServer>(new XServer(command, std::move(files)));
}

void XServer::putInto(const ScratchTree& tree, int number) const {
  server_->linkSocket(tree.makeDirectory("tmp/.X11-unix") + "/X" + std::to_string(number));
}

void XServer::run(const std::string& command) const {
  const CommandResult result = runCommand("env DISPLAY=" + display_ + " " + command);
  if (result.status != 0) ADD_FAILURE() << command << ": " << result.output;
}

void XServer::turnOn(const std::string& output, const std::string& mode,
                     const std::string& place) const {
  run("xrandr --addmode " + output + " " + mode);
  run("xrandr --output " + output + " --mode " + mode + " " + place);
}

void XServer::draw(const std::string& rectangles) const {
  run(std::string(DRAW_ON_SCREEN) + " " + rectangles);
}

}  // namespace quillsift::testing
