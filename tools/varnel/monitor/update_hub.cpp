#include "monitor/update_hub.h"

#include <algorithm>
#include <utility>

namespace varnel_cli::monitor {

void ClientQueue::push(std::shared_ptr<const std::string> update) {
  {
    std::lock_guard lock(mutex_);
    if (closed_) return;
    if (updates_.size() >= max_updates_) {
      updates_.pop_front();
      ++dropped_;
      // the lost update may have held the only copy of a table row: send everything again
      wants_full_ = true;
    }
    updates_.push_back(std::move(update));
  }
  ready_.notify_one();
}

std::optional<ClientQueue::Delivery> ClientQueue::pop(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  if (!ready_.wait_for(lock, timeout, [&] { return closed_ || !updates_.empty(); }) || closed_)
    return std::nullopt;
  Delivery delivery{std::move(updates_.front()), dropped_};
  updates_.pop_front();
  return delivery;
}

bool ClientQueue::take_wants_full() {
  std::lock_guard lock(mutex_);
  return std::exchange(wants_full_, false);
}

bool ClientQueue::wants_full() const {
  std::lock_guard lock(mutex_);
  return wants_full_;
}

void ClientQueue::close() {
  {
    std::lock_guard lock(mutex_);
    closed_ = true;
    updates_.clear();
  }
  ready_.notify_all();
}

bool ClientQueue::closed() const {
  std::lock_guard lock(mutex_);
  return closed_;
}

size_t ClientQueue::queued() const {
  std::lock_guard lock(mutex_);
  return updates_.size();
}

std::shared_ptr<ClientQueue> UpdateHub::connect() {
  std::lock_guard lock(mutex_);
  if (clients_.size() >= max_clients_) return nullptr;
  clients_.push_back(std::make_shared<ClientQueue>(max_updates_));
  return clients_.back();
}

void UpdateHub::disconnect(const std::shared_ptr<ClientQueue>& client) {
  client->close();
  std::lock_guard lock(mutex_);
  clients_.erase(std::remove(clients_.begin(), clients_.end(), client), clients_.end());
}

bool UpdateHub::any_wants_full() const {
  std::lock_guard lock(mutex_);
  return std::any_of(clients_.begin(), clients_.end(), [](auto& c) { return c->wants_full(); });
}

void UpdateHub::publish(const std::shared_ptr<const std::string>& delta,
                        const std::shared_ptr<const std::string>& full) {
  std::lock_guard lock(mutex_);
  for (auto& client : clients_) {
    if (full && client->take_wants_full())
      client->push(full);
    else
      client->push(delta);
  }
}

void UpdateHub::close_all() {
  std::lock_guard lock(mutex_);
  for (auto& client : clients_) client->close();
}

size_t UpdateHub::clients() const {
  std::lock_guard lock(mutex_);
  return clients_.size();
}

}  // namespace varnel_cli::monitor
