#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "platform/Mutex.h"

namespace quillsift {

class QSServiceClient;

// The connected clients, in order of admission. Changes happen inside the list's monitor and
// publish a new list; a broadcast walks the list that stood when it began, without the monitor.
// Any thread.
class ClientList {
 public:
  using Clients = std::vector<std::shared_ptr<QSServiceClient>>;

  ClientList();

  // Appends a client, unless it was removed before it could be appended: a peer may hang up while
  // it is still being admitted.
  void append(const std::shared_ptr<QSServiceClient>& client);
  void remove(QSServiceClient& client);
  std::shared_ptr<const Clients> snapshot() const;
  // Visits the clients of this moment, whatever becomes of the list meanwhile.
  void forEach(const std::function<void(QSServiceClient& client)>& visit) const;

 private:
  void publish(std::shared_ptr<const Clients> clients);

  Mutex monitor_;
  mutable Mutex publishedMutex_;  // guards the pointer only, for the time of a copy
  std::shared_ptr<const Clients> published_ QS_GUARDED_BY(publishedMutex_);
};

}  // namespace quillsift
