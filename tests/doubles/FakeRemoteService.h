#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/FileDescriptor.h"
#include "platform/RemoteService.h"

namespace quillsift {

// A daemon made of a script, for clients: each turn in which the client waits for events runs the
// next step of the script, and a clock that only waiting moves stands in for time. One thread.
class FakeRemoteDaemon {
 public:
  using Results = std::optional<std::vector<WireValue>>;
  // Answers one call; none and `error` to fail it.
  using Answer = std::function<Results(const std::vector<WireValue>& arguments, QSError* error)>;
  using Step = std::function<void()>;

  struct Call {
    std::string method;
    std::vector<WireValue> arguments;
  };

  FakeRemoteDaemon();

  // --- How it answers ---

  // What a query tells: records of jobs, and the date once the session has finished.
  std::vector<WireDictionary> jobs;
  std::optional<double> dateFinished;
  // The next call of `method` gets this answer; the ones after it those added later, then again
  // what the daemon answers by itself: the query the two members above, starts and saves true.
  void answerNext(const std::string& method, Answer answer);
  void answerNext(const std::string& method, bool flag);
  void failNext(const std::string& method, int code);  // an errno value
  // Connecting fails with this errno value.
  void refuseConnections(int code) { connectFailure_ = code; }

  // --- What happens while the client waits ---

  FakeRemoteDaemon& then(Step step);
  // Steps that are at hand now: notifications go out in the turn in which they are told.
  void started();
  void cleared();
  void jobChanged(const WireDictionary& job);
  void saveReported(double progress, std::int64_t state, const std::string& path);
  void notify(const std::string& name, std::vector<WireValue> arguments);
  void disconnect() { connected_ = false; }
  void interrupt();

  // --- What a test looks at ---

  const std::vector<Call>& calls() const { return calls_; }
  std::size_t callsOf(const std::string& method) const;
  bool scriptHasEnded() const { return script_.empty(); }
  int interruptDescriptor() const { return interruptRead_.get(); }
  std::chrono::steady_clock::time_point now() const { return now_; }
  void advance(std::chrono::nanoseconds time) { now_ += time; }
  std::unique_ptr<RemoteServiceConnector> connector();

  // A record as the daemon sends it.
  static WireDictionary job(const std::string& uuid, const std::string& path, std::int64_t status,
                            std::uint64_t size = 0, const std::string& reason = "",
                            bool sensitive = false);

 private:
  class Connector;
  class Service;

  Results answer(const Call& call, QSError* error);
  Results answerByItself(const std::string& method);
  RemoteService::Wake turn(const RemoteService::NotificationHandler& handler,
                           std::chrono::nanoseconds limit, int wakeDescriptor);
  bool deliver(const RemoteService::NotificationHandler& handler);

  std::map<std::string, std::deque<Answer>> answers_;
  std::deque<Step> script_;
  std::deque<std::pair<std::string, std::vector<WireValue>>> notifications_;
  std::vector<Call> calls_;
  int connectFailure_ = 0;
  bool connected_ = true;
  int idleTurns_ = 0;
  std::chrono::steady_clock::time_point now_{std::chrono::hours(1)};
  FileDescriptor interruptRead_;
  FileDescriptor interruptWrite_;
};

}  // namespace quillsift
