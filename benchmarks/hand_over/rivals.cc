#include <concurrentqueue/blockingconcurrentqueue.h>
#include <spdlog/async.h>
#include <spdlog/sinks/null_sink.h>

#include <asio.hpp>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "benchmarks/hand_over/contenders.h"
#include "benchmarks/support/area.h"

namespace quenor::bench {
namespace {

using Bytes = std::vector<uint8_t>;

void Refuse(Bytes message) { Keep(message); }

// A rival whose senders need nothing of their own.
class Plain : public HandOver {
 public:
  std::unique_ptr<Sender> MakeSender() final { return std::make_unique<PlainSender>(this); }

 protected:
  virtual void Send(const uint8_t* bytes, uint32_t size) = 0;

 private:
  class PlainSender : public Sender {
   public:
    explicit PlainSender(Plain* rival) : rival_(rival) {}
    void Send(const uint8_t* bytes, uint32_t size) override { rival_->Send(bytes, size); }

   private:
    Plain* const rival_;
  };
};

class MutexDeque : public Plain {
 public:
  MutexDeque() : thread_([this] { Run(); }) {}
  ~MutexDeque() override {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      stop_ = true;
    }
    changed_.notify_one();
    thread_.join();
  }

 private:
  void Send(const uint8_t* bytes, uint32_t size) override {
    Bytes copy(bytes, bytes + size);
    {
      std::lock_guard<std::mutex> hold(mutex_);
      messages_.push_back(std::move(copy));
    }
    changed_.notify_one();
  }

  void Run() {
    std::deque<Bytes> batch;
    std::unique_lock<std::mutex> hold(mutex_);
    for (;;) {
      changed_.wait(hold, [this] { return stop_ || !messages_.empty(); });
      if (messages_.empty()) return;
      batch.swap(messages_);
      hold.unlock();
      for (Bytes& message : batch) Refuse(std::move(message));
      batch.clear();
      hold.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Bytes> messages_;
  bool stop_ = false;
  std::thread thread_;
};

class LockFree : public HandOver {
 public:
  LockFree() : thread_([this] { Run(); }) {}
  ~LockFree() override {
    queue_.enqueue(Bytes());  // Nobody else sends an empty one.
    thread_.join();
  }

  std::unique_ptr<Sender> MakeSender() override { return std::make_unique<Token>(&queue_); }

 private:
  using Queue = moodycamel::BlockingConcurrentQueue<Bytes>;

  class Token : public Sender {
   public:
    explicit Token(Queue* queue) : queue_(queue), token_(*queue) {}
    void Send(const uint8_t* bytes, uint32_t size) override {
      queue_->enqueue(token_, Bytes(bytes, bytes + size));
    }

   private:
    Queue* const queue_;
    moodycamel::ProducerToken token_;
  };

  void Run() {
    moodycamel::ConsumerToken token(queue_);
    std::vector<Bytes> batch(256);
    for (;;) {
      const size_t count = queue_.wait_dequeue_bulk(token, batch.begin(), batch.size());
      for (size_t i = 0; i < count; ++i) {
        if (batch[i].empty()) return;
        Refuse(std::move(batch[i]));
      }
    }
  }

  Queue queue_;
  std::thread thread_;
};

class FixedParts : public HandOver {
 public:
  FixedParts() : channel_(std::make_shared<Channel>()), thread_([this] { Run(); }) {
    channel_->weak = channel_;
  }
  ~FixedParts() override {
    channel_->queue->enqueue(Task());  // Nobody else sends one without a channel.
    thread_.join();
  }

  std::unique_ptr<Sender> MakeSender() override { return std::make_unique<Caller>(channel_.get()); }

 private:
  struct Channel;
  struct Task {
    std::shared_ptr<Channel> channel;
    Bytes message;
  };
  using Queue = moodycamel::BlockingConcurrentQueue<Task>;
  struct Channel {
    std::mutex mutex;  // Guards queue.
    std::shared_ptr<Queue> queue = std::make_shared<Queue>();
    std::weak_ptr<Channel> weak;
  };

  class Caller : public Sender {
   public:
    explicit Caller(Channel* channel) : channel_(channel), token_(*channel->queue) {}
    void Send(const uint8_t* bytes, uint32_t size) override {
      std::shared_ptr<Queue> queue;
      {
        std::lock_guard<std::mutex> hold(channel_->mutex);
        queue = channel_->queue;
      }
      queue->enqueue(token_, Task{channel_->weak.lock(), Bytes(bytes, bytes + size)});
    }

   private:
    Channel* const channel_;
    moodycamel::ProducerToken token_;
  };

  void Run() {
    moodycamel::ConsumerToken token(*channel_->queue);
    std::vector<Task> batch(256);
    for (;;) {
      const size_t count = channel_->queue->wait_dequeue_bulk(token, batch.begin(), batch.size());
      for (size_t i = 0; i < count; ++i) {
        Task task = std::move(batch[i]);
        if (task.channel == nullptr) return;
        Refuse(std::move(task.message));
      }
    }
  }

  const std::shared_ptr<Channel> channel_;
  std::thread thread_;
};

class Asio : public Plain {
 public:
  Asio() : work_(asio::make_work_guard(context_)), thread_([this] { context_.run(); }) {}
  ~Asio() override {
    work_.reset();
    thread_.join();
  }

 private:
  void Send(const uint8_t* bytes, uint32_t size) override {
    asio::post(context_,
               [copy = Bytes(bytes, bytes + size)]() mutable { Refuse(std::move(copy)); });
  }

  asio::io_context context_{1};  // One thread runs it.
  asio::executor_work_guard<asio::io_context::executor_type> work_;
  std::thread thread_;
};

class Spdlog : public Plain {
 public:
  Spdlog()
      : pool_(std::make_shared<spdlog::details::thread_pool>(8192, 1)),
        logger_(std::make_shared<spdlog::async_logger>(
            "bench", std::make_shared<spdlog::sinks::null_sink_mt>(), pool_,
            spdlog::async_overflow_policy::block)) {}

 private:
  void Send(const uint8_t* bytes, uint32_t size) override {
    logger_->log(spdlog::level::info,
                 spdlog::string_view_t(reinterpret_cast<const char*>(bytes), size));
  }

  const std::shared_ptr<spdlog::details::thread_pool> pool_;
  const std::shared_ptr<spdlog::async_logger> logger_;
};

}  // namespace

std::unique_ptr<HandOver> MakeMutexDeque() { return std::make_unique<MutexDeque>(); }
std::unique_ptr<HandOver> MakeLockFree() { return std::make_unique<LockFree>(); }
std::unique_ptr<HandOver> MakeFixedParts() { return std::make_unique<FixedParts>(); }
std::unique_ptr<HandOver> MakeAsio() { return std::make_unique<Asio>(); }
std::unique_ptr<HandOver> MakeSpdlog() { return std::make_unique<Spdlog>(); }

}  // namespace quenor::bench
