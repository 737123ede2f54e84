// Ways to hand bytes over to a thread that does with them what a channel without a server does:
// looks at the message, keeps nothing of it and frees it.
// Threads: a contender is made and destroyed by one thread; a Sender belongs to the thread that
// sends through it. Destroying a contender waits until its thread has ended.
#ifndef QUENOR_BENCHMARKS_HAND_OVER_CONTENDERS_H_
#define QUENOR_BENCHMARKS_HAND_OVER_CONTENDERS_H_

#include <cstdint>
#include <memory>

namespace quenor::bench {

class Sender {
 public:
  virtual ~Sender() = default;
  // Borrows the bytes for the length of the call.
  virtual void Send(const uint8_t* bytes, uint32_t size) = 0;
};

class HandOver {
 public:
  virtual ~HandOver() = default;
  virtual std::unique_ptr<Sender> MakeSender() = 0;
};

// SendPacket of a channel whose URL is empty: each message crosses the queue and is refused there,
// so that nothing but the hand-over is measured: no store, no timer, no HTTP client. Null when the
// channel's thread cannot be made.
std::unique_ptr<HandOver> MakeChannel();
// The same over `channels` channels in turn.
std::unique_ptr<HandOver> MakeChannels(int channels);
// A channel that holds `pending` messages (fewer than 200) in its store, and then loses its URL.
std::unique_ptr<HandOver> MakeChannelWithPending(int pending);

// A copy in a deque under a mutex, with a condition variable: what anyone would write first. The
// receiver swaps the whole deque out.
std::unique_ptr<HandOver> MakeMutexDeque();
// A copy in moodycamel's BlockingConcurrentQueue, with a token per thread, as its documentation
// recommends; the receiver takes messages in bulk. It keeps the order of each thread's messages
// and no other, which is less than a channel promises.
std::unique_ptr<HandOver> MakeLockFree();
// The same queue behind what the channel's class fixes for each call: the queue's pointer is copied
// out of a holder that a mutex guards, and the message goes with a strong reference to its channel,
// made from a weak one. What is left to win is the queue.
std::unique_ptr<HandOver> MakeFixedParts();
// A copy in a lambda, posted to an io_context that one thread runs.
std::unique_ptr<HandOver> MakeAsio();
// spdlog's asynchronous logger, blocking when full, with one thread and a sink that does nothing.
std::unique_ptr<HandOver> MakeSpdlog();

}  // namespace quenor::bench

#endif  // QUENOR_BENCHMARKS_HAND_OVER_CONTENDERS_H_
