#include "daemon/ClientList.h"

#include <algorithm>
#include <utility>

#include "daemon/QSServiceClient.h"

namespace quillsift {

ClientList::ClientList() : published_(std::make_shared<const Clients>()) {}

void ClientList::append(const std::shared_ptr<QSServiceClient>& client) {
  MutexLock lock(monitor_);
  if (client->removedFromList()) return;
  auto clients = std::make_shared<Clients>(*snapshot());
  clients->push_back(client);
  publish(std::move(clients));
}

void ClientList::remove(QSServiceClient& client) {
  MutexLock lock(monitor_);
  client.setRemovedFromList();
  auto clients = std::make_shared<Clients>(*snapshot());
  std::erase_if(*clients, [&](const auto& other) { return other.get() == &client; });
  publish(std::move(clients));
}

std::shared_ptr<const ClientList::Clients> ClientList::snapshot() const {
  MutexLock lock(publishedMutex_);
  return published_;
}

void ClientList::forEach(const std::function<void(QSServiceClient& client)>& visit) const {
  const auto clients = snapshot();  // kept until the last has been visited
  for (const auto& client : *clients)
    visit(*client);
}

void ClientList::publish(std::shared_ptr<const Clients> clients) {
  // Swapped, not assigned: the old list, and perhaps a client with it, goes outside the mutex.
  MutexLock lock(publishedMutex_);
  published_.swap(clients);
}

}  // namespace quillsift
