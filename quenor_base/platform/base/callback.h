// OnceCallback: a move-only callable that runs at most once and owns its bound values until it has
// run or is destroyed. Bound states of up to kInlineBytes live inside the object, without an
// allocation.
// Threads: one object, one thread at a time; it may be bound on one thread and run on another.
#ifndef QUENOR_BASE_PLATFORM_BASE_CALLBACK_H_
#define QUENOR_BASE_PLATFORM_BASE_CALLBACK_H_

#include <cstddef>
#include <functional>
#include <new>
#include <tuple>
#include <type_traits>
#include <utility>

#include "quenor_base/platform/base/check.h"

QUENOR_NAMESPACE_BEGIN
namespace base {

template <typename Signature>
class OnceCallback;

namespace internal {

// See OnlyPosts().
template <typename F>
struct Posting : F {
  using F::operator();
};
template <typename F>
inline constexpr bool kOnlyPosts = false;
template <typename F>
inline constexpr bool kOnlyPosts<Posting<F>> = true;

}  // namespace internal

template <typename R, typename... Args>
class OnceCallback<R(Args...)> {
 public:
  static constexpr size_t kInlineBytes = 64;

  OnceCallback() = default;
  OnceCallback(std::nullptr_t) {}  // NOLINT: a null callback is written `nullptr`.

  // Takes the callable, which is called as an rvalue: it may move its bound values into the call.
  template <typename F, typename = std::enable_if_t<!std::is_same_v<std::decay_t<F>, OnceCallback>>>
  OnceCallback(F&& callable) {  // NOLINT: lambdas convert, as to std::function.
    using Bound = std::decay_t<F>;
    if constexpr (kFitsInline<Bound>) {
      new (storage_) Bound(std::forward<F>(callable));
      ops_ = &kInlineOps<Bound>;
    } else {
      *reinterpret_cast<Bound**>(storage_) = new Bound(std::forward<F>(callable));
      ops_ = &kHeapOps<Bound>;
    }
  }

  OnceCallback(OnceCallback&& other) noexcept { MoveFrom(other); }
  OnceCallback& operator=(OnceCallback&& other) noexcept {
    if (this != &other) {
      Reset();
      MoveFrom(other);
    }
    return *this;
  }
  OnceCallback(const OnceCallback&) = delete;
  OnceCallback& operator=(const OnceCallback&) = delete;
  ~OnceCallback() { Reset(); }

  explicit operator bool() const { return ops_ != nullptr; }

  // What OnlyPosts() was promised of; false when null.
  bool only_posts() const { return ops_ != nullptr && ops_->only_posts; }

  // Runs the callable and destroys its bound values; the callback is null afterwards. Must not be
  // null. The callback object itself may be destroyed while it runs.
  R Run(Args... args) && {
    QUENOR_CHECK(ops_ != nullptr, "OnceCallback run twice or never bound");
    OnceCallback running(std::move(*this));
    return running.ops_->run(running.storage_, std::forward<Args>(args)...);
  }

  // Destroys the bound values without running.
  void Reset() {
    if (ops_ == nullptr) return;
    const Ops* ops = ops_;
    ops_ = nullptr;
    ops->destroy(storage_);
  }

 private:
  struct Ops {
    R (*run)(void*, Args&&...);
    void (*move)(void* to, void* from) noexcept;
    void (*destroy)(void*);
    bool only_posts;
  };

  template <typename Bound>
  static constexpr bool kFitsInline =
      sizeof(Bound) <= kInlineBytes &&
      alignof(Bound) <= alignof(std::max_align_t) && std::is_nothrow_move_constructible_v<Bound>;

  template <typename Bound>
  static constexpr Ops kInlineOps = {
      [](void* s, Args&&... args) -> R {
        return std::move(*static_cast<Bound*>(s))(std::forward<Args>(args)...);
      },
      [](void* to, void* from) noexcept {
        new (to) Bound(std::move(*static_cast<Bound*>(from)));
        static_cast<Bound*>(from)->~Bound();
      },
      [](void* s) { static_cast<Bound*>(s)->~Bound(); }, internal::kOnlyPosts<Bound>};

  template <typename Bound>
  static constexpr Ops kHeapOps = {
      [](void* s, Args&&... args) -> R {
        return std::move(**static_cast<Bound**>(s))(std::forward<Args>(args)...);
      },
      [](void* to, void* from) noexcept {
        *static_cast<Bound**>(to) = *static_cast<Bound**>(from);
      },
      [](void* s) { delete *static_cast<Bound**>(s); }, internal::kOnlyPosts<Bound>};

  void MoveFrom(OnceCallback& other) noexcept {
    if (other.ops_ == nullptr) return;
    ops_ = other.ops_;
    other.ops_ = nullptr;
    ops_->move(storage_, other.storage_);
  }

  const Ops* ops_ = nullptr;
  alignas(std::max_align_t) unsigned char storage_[kInlineBytes];
};

using OnceClosure = OnceCallback<void()>;
using RepeatingClosure = std::function<void()>;

// A receiver that the callback borrows: the binder promises that it outlives the run.
template <typename T>
class UnretainedWrapper {
 public:
  explicit UnretainedWrapper(T* pointer) : pointer_(pointer) {}
  T& operator*() const { return *pointer_; }

 private:
  T* pointer_;
};
template <typename T>
UnretainedWrapper<T> Unretained(T* pointer) {
  return UnretainedWrapper<T>(pointer);
}

namespace internal {

template <typename Method, typename Receiver, typename... Bound>
struct BoundMethod {
  Method method;
  Receiver receiver;
  std::tuple<Bound...> bound;

  // Bound values are moved into the call, the receiver is held until the call has returned.
  template <typename... Args>
  auto operator()(Args&&... args) && {
    return std::apply(
        [&](Bound&... values) {
          return ((*receiver).*method)(std::move(values)..., std::forward<Args>(args)...);
        },
        bound);
  }
};

}  // namespace internal

// Binds a member function to a receiver (a std::shared_ptr, held; or Unretained, borrowed) and to
// its first arguments, which are copied or moved in. The rest comes from Run().
template <typename Method, typename Receiver, typename... Bound>
auto BindOnce(Method method, Receiver&& receiver, Bound&&... bound) {
  return internal::BoundMethod<Method, std::decay_t<Receiver>, std::decay_t<Bound>...>{
      method, std::forward<Receiver>(receiver), {std::forward<Bound>(bound)...}};
}

// The same callable with a promise of its binder's: it posts, and does nothing that waits. Who runs
// several of them may wake the queues once, behind the last.
template <typename F>
auto OnlyPosts(F callable) {
  return internal::Posting<F>{std::move(callable)};
}

}  // namespace base
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_BASE_CALLBACK_H_
