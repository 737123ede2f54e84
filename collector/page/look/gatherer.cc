#include "collector/page/look/gatherer.h"

#include <chrono>
#include <utility>

namespace quenor::collector {
namespace {

constexpr std::chrono::seconds kEvery{1};

}  // namespace

Gatherer::Gatherer(const std::vector<std::string>& collectors,
                   const std::vector<std::string>& nodes, const std::string& store, Asking asking)
    : asking_(std::move(asking)), store_(store) {
  for (const std::string& url : collectors) collectors_.emplace_back(url);
  for (const std::string& url : nodes) nodes_.emplace_back(url);
  auto collector = collectors_.begin();
  for (const std::string& url : collectors) {
    History<CollectorLook>* const history = &*collector++;
    threads_.emplace_back([this, history, url] {
      Follow<CollectorLook>(history, [&] { return asking_.collector(url); });
    });
  }
  auto node = nodes_.begin();
  for (const std::string& url : nodes) {
    History<NodeState>* const history = &*node++;
    threads_.emplace_back(
        [this, history, url] { Follow<NodeState>(history, [&] { return asking_.node(url); }); });
  }
  threads_.emplace_back([this] { Follow<StoreLook>(&store_, asking_.store); });
}

Gatherer::~Gatherer() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ends_ = true;
  }
  end_cv_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

template <typename Look>
void Gatherer::Follow(History<Look>* history, const std::function<Look()>& ask) {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!ends_) {
    lock.unlock();
    Look look = ask();
    const Time at = asking_.now();
    const int64_t unix_s = asking_.unix_s();
    lock.lock();
    history->Add(std::move(look), at, unix_s);
    end_cv_.wait_for(lock, kEvery, [this] { return ends_; });
  }
}

Gathered Gatherer::Get() const {
  Gathered gathered;
  const std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& history : collectors_) gathered.collectors.push_back(history.Get());
  for (const auto& history : nodes_) gathered.nodes.push_back(history.Get());
  gathered.store = store_.Get();
  return gathered;
}

}  // namespace quenor::collector
