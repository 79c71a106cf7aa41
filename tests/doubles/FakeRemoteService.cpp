#include "tests/doubles/FakeRemoteService.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "daemon/protocol/QSServiceProtocols.h"

namespace quillsift {

namespace {

// A client that has waited so often after the script's end would wait for ever.
constexpr int kMostIdleTurns = 100000;

bool canBeRead(int descriptor) {
  pollfd request{.fd = descriptor, .events = POLLIN, .revents = 0};
  return ::poll(&request, 1, 0) == 1;
}

std::vector<WireValue> oneValue(WireValue value) {
  std::vector<WireValue> values;
  values.push_back(std::move(value));
  return values;
}

}  // namespace

class FakeRemoteDaemon::Service : public RemoteService {
 public:
  explicit Service(FakeRemoteDaemon& daemon) : daemon_(daemon) {}

  void setNotificationHandler(NotificationHandler handler) override {
    handler_ = std::move(handler);
  }
  std::optional<std::vector<WireValue>> call(const std::string& method,
                                             const std::vector<WireValue>& arguments,
                                             std::chrono::nanoseconds, QSError* error) override {
    return daemon_.answer({method, arguments}, error);
  }
  Wake processEvents(std::chrono::nanoseconds limit, int wakeDescriptor) override {
    return daemon_.turn(handler_, limit, wakeDescriptor);
  }

 private:
  FakeRemoteDaemon& daemon_;
  NotificationHandler handler_;
};

class FakeRemoteDaemon::Connector : public RemoteServiceConnector {
 public:
  explicit Connector(FakeRemoteDaemon& daemon) : daemon_(daemon) {}

  std::unique_ptr<RemoteService> connect(const std::string& path, const WireInterface&,
                                         const WireInterface&, QSError* error) override {
    if (daemon_.connectFailure_ == 0) return std::make_unique<Service>(daemon_);
    setError(error, QSError::posix(daemon_.connectFailure_, path));
    return nullptr;
  }

 private:
  FakeRemoteDaemon& daemon_;
};

FakeRemoteDaemon::FakeRemoteDaemon() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe for the interrupts");
  interruptRead_ = FileDescriptor(ends[0]);
  interruptWrite_ = FileDescriptor(ends[1]);
}

void FakeRemoteDaemon::answerNext(const std::string& method, Answer answer) {
  answers_[method].push_back(std::move(answer));
}

void FakeRemoteDaemon::answerNext(const std::string& method, bool flag) {
  answerNext(method, [flag](const auto&, QSError*) { return oneValue(WireValue(flag)); });
}

void FakeRemoteDaemon::failNext(const std::string& method, int code) {
  answerNext(method, [code](const auto&, QSError* error) {
    setError(error, QSError::posix(code));
    return std::nullopt;
  });
}

FakeRemoteDaemon& FakeRemoteDaemon::then(Step step) {
  script_.push_back(std::move(step));
  return *this;
}

void FakeRemoteDaemon::started() {
  notify(wire::kQuillsiftStarted, {});
}

void FakeRemoteDaemon::cleared() {
  jobs.clear();
  dateFinished.reset();
  notify(wire::kQuillsiftDataCleared, {});
}

void FakeRemoteDaemon::jobChanged(const WireDictionary& job) {
  const auto known = std::find_if(jobs.begin(), jobs.end(), [&](const WireDictionary& other) {
    return other.at("QSJobInfoUUID") == job.at("QSJobInfoUUID");
  });
  if (known == jobs.end()) {
    jobs.push_back(job);
  } else {
    *known = job;
  }
  notify(wire::kJobStatusChanged, oneValue(WireValue(job)));
}

void FakeRemoteDaemon::saveReported(double progress, std::int64_t state, const std::string& path) {
  notify(wire::kReportSaveProgress, {WireValue(progress), WireValue(state), WireValue(path)});
}

void FakeRemoteDaemon::notify(const std::string& name, std::vector<WireValue> arguments) {
  notifications_.emplace_back(name, std::move(arguments));
}

void FakeRemoteDaemon::interrupt() {
  const char byte = 0;
  if (::write(interruptWrite_.get(), &byte, 1) != 1) throw std::runtime_error("cannot interrupt");
}

std::size_t FakeRemoteDaemon::callsOf(const std::string& method) const {
  return static_cast<std::size_t>(std::count_if(
      calls_.begin(), calls_.end(), [&](const Call& call) { return call.method == method; }));
}

std::unique_ptr<RemoteServiceConnector> FakeRemoteDaemon::connector() {
  return std::make_unique<Connector>(*this);
}

WireDictionary FakeRemoteDaemon::job(const std::string& uuid, const std::string& path,
                                     std::int64_t status, std::uint64_t size,
                                     const std::string& reason, bool sensitive) {
  WireDictionary record = {
      {"QSJobInfoUUID", WireValue(uuid)},
      {"QSJobInfoRelativeFilePathAndName", WireValue(path)},
      {"QSJobInfoSize", WireValue(size)},
      {"QSJobInfoJobStatus", WireValue(status)},
      {"QSJobInfoSensitive", WireValue(sensitive)},
  };
  if (!reason.empty()) record.emplace("QSJobInfoFailureReason", reason);
  return record;
}

FakeRemoteDaemon::Results FakeRemoteDaemon::answer(const Call& call, QSError* error) {
  calls_.push_back(call);
  if (!connected_) {
    setError(error, QSError::posix(ECONNRESET));
    return std::nullopt;
  }
  auto& answers = answers_[call.method];
  if (answers.empty()) return answerByItself(call.method);
  const Answer next = std::move(answers.front());
  answers.pop_front();
  return next(call.arguments, error);
}

FakeRemoteDaemon::Results FakeRemoteDaemon::answerByItself(const std::string& method) {
  if (method == wire::kQueryJobStatusInformation) {
    WireArray records;
    for (const WireDictionary& job : jobs)
      records.emplace_back(job);
    WireArray dates;
    if (dateFinished) dates.emplace_back(*dateFinished);
    return std::vector<WireValue>{WireValue(std::move(records)), WireValue(std::move(dates))};
  }
  if (method == wire::kClearQuillsiftData) {
    if (!jobs.empty() || dateFinished) cleared();
    return std::vector<WireValue>{};
  }
  return oneValue(WireValue(true));
}

RemoteService::Wake FakeRemoteDaemon::turn(const RemoteService::NotificationHandler& handler,
                                           std::chrono::nanoseconds limit, int wakeDescriptor) {
  using Wake = RemoteService::Wake;
  if (deliver(handler)) return Wake::event;
  if (!connected_) return Wake::disconnected;
  if (wakeDescriptor != -1 && canBeRead(wakeDescriptor)) return Wake::descriptor;
  if (limit == std::chrono::nanoseconds::zero()) return Wake::timeout;
  if (!script_.empty()) {
    const Step step = std::move(script_.front());
    script_.pop_front();
    step();
    if (deliver(handler)) return Wake::event;
    if (!connected_) return Wake::disconnected;
    if (wakeDescriptor != -1 && canBeRead(wakeDescriptor)) return Wake::descriptor;
  } else if (++idleTurns_ > kMostIdleTurns) {
    throw std::runtime_error("the client waits for something that is not in the script");
  }
  now_ += limit;
  return Wake::timeout;
}

bool FakeRemoteDaemon::deliver(const RemoteService::NotificationHandler& handler) {
  bool delivered = false;
  while (!notifications_.empty()) {
    const auto [name, arguments] = std::move(notifications_.front());
    notifications_.pop_front();
    if (handler) handler(name, arguments);
    delivered = true;
  }
  return delivered;
}

}  // namespace quillsift
