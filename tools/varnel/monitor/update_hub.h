// The page's push channel on the server side: each connected page has its own bounded queue of
// updates. A page that reads slowly (or not at all) loses its oldest updates, never slows the
// capture and never makes the server grow; it is told how many it lost and gets the whole state
// again with its next update.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace varnel_cli::monitor {

class ClientQueue {
 public:
  explicit ClientQueue(size_t max_updates) : max_updates_(max_updates) {}

  struct Delivery {
    std::shared_ptr<const std::string> update;
    uint64_t dropped_total = 0;  // updates this page has lost since it connected
  };
  void push(std::shared_ptr<const std::string> update);
  // The oldest queued update, waiting at most `timeout`; nullopt on time-out or once closed.
  std::optional<Delivery> pop(std::chrono::milliseconds timeout);
  // True once, after updates were dropped (or before the first one): the next update for this
  // page must carry the whole state.
  bool take_wants_full();
  bool wants_full() const;
  void close();
  bool closed() const;
  size_t queued() const;

 private:
  mutable std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::shared_ptr<const std::string>> updates_;
  size_t max_updates_;
  uint64_t dropped_ = 0;
  bool wants_full_ = true, closed_ = false;
};

class UpdateHub {
 public:
  UpdateHub(size_t max_clients, size_t max_updates_per_client)
      : max_clients_(max_clients), max_updates_(max_updates_per_client) {}

  // A queue for a new page; nullptr when `max_clients` are connected already.
  std::shared_ptr<ClientQueue> connect();
  void disconnect(const std::shared_ptr<ClientQueue>& client);
  bool any_wants_full() const;
  // `full` (the whole state) to pages that need it, `delta` to the others. `full` may be null
  // when no page wants it.
  void publish(const std::shared_ptr<const std::string>& delta,
               const std::shared_ptr<const std::string>& full);
  void close_all();
  size_t clients() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<ClientQueue>> clients_;
  size_t max_clients_, max_updates_;
};

}  // namespace varnel_cli::monitor
