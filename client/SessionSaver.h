#pragma once

#include <optional>
#include <string>

#include "client/Destination.h"
#include "client/ExitCode.h"
#include "client/QuillsiftService.h"
#include "client/Reporter.h"
#include "client/SaveTracker.h"
#include "client/SessionWatcher.h"

namespace quillsift {

// Has the daemon save its finished session and follows that to its end.
//
// The daemon puts a save off while another client's runs, and a save that succeeds clears the
// session: a save that waited for another would then find nothing. So one that is known to run is
// waited for here, before anything is asked; one that shows only later is told from ours by path.
class SessionSaver {
 public:
  SessionSaver(QuillsiftService& service, SessionWatcher& watcher, Reporter& reporter,
               SteadyClock now);

  // Saves the session that `watcher` knows as finished.
  Ending save(const std::string& destination, SaveForm form, bool limited);
  // After a save that succeeded: returns once the daemon has dropped the session, so that what is
  // started next finds none. Nothing more depends on it, so it ends early rather than complain.
  void waitUntilCleared();

  // What the daemon tells its clients, passed on by whoever observes it, at any time.
  void saveReported(const SaveReport& report);
  void sessionStarted();
  // Whether this is news for the caller: a save of ours that has ended clears the session too.
  bool sessionCleared();

  const OtherSaves& otherSaves() const { return others_; }

 private:
  // Each of these: none to go on.
  std::optional<Ending> waitForOtherSave();
  std::optional<Ending> request(bool limited);
  std::optional<Ending> follow();

  std::optional<Ending> afterTurn(SessionWatcher::Turn turn) const;
  Ending refused() const;
  Ending clearedBefore() const;
  Ending result() const;

  QuillsiftService& service_;
  SessionWatcher& watcher_;
  Reporter& reporter_;
  const SteadyClock now_;

  OtherSaves others_;
  std::optional<SaveTracker> ours_;
  SaveForm form_ = SaveForm::archive;  // of ours
  bool unanswered_ = false;            // the request waits in the daemon
  bool startedMeanwhile_ = false;      // a session began before our save did: it will be refused
  bool clearedBefore_ = false;         // the session was gone when our save began
};

}  // namespace quillsift
