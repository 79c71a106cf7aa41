#pragma once

namespace quillsift {

// Opens the front end, so that whoever asked for a collection at the machine itself sees it.
class QSGUILauncher {
 public:
  QSGUILauncher() = delete;

  // Starts the front end unless one that was started here still runs. Returns at once; how it went
  // stands in the system log. Any thread.
  static void launch();
};

}  // namespace quillsift
