// What can be seen only from outside a process: its exit, its children, its environment, its idle
// rest. Each mode does one thing and reports it by exit code and output.
//   http_client_program MODE URL CA_FILE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "quenor_base/platform/http_client.h"
#include "quenor_base/platform/network_change.h"
#include "tests/integration/support/counted_calls.h"
#include "tests/integration/support/traced_getenv.h"
#include "tests/support/forked.h"

// Children that start threads are what is tested here.
extern "C" const char* __tsan_default_options() { return "die_after_fork=0"; }

// The library's calls of pthread_create come here (-Wl,--wrap).
static std::atomic<bool> g_no_threads{false};
extern "C" int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                     void* (*start)(void*), void* argument) {
  if (g_no_threads) return EAGAIN;
  return __real_pthread_create(thread, attributes, start, argument);
}

// And those that wait for no longer than some time.
static std::atomic<bool> g_time_is_up{false};
extern "C" int __real_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec*);
extern "C" int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                             const timespec* until) {
  return g_time_is_up ? ETIMEDOUT : __real_pthread_cond_timedwait(condition, mutex, until);
}

// libcurl reads files of authorities by it.
static std::atomic<int> g_authority_files{0};
static std::atomic<bool> g_authorities_are_stuck{false};
extern "C" int X509_STORE_load_file(void* store, const char* file) {
  static const auto next =
      reinterpret_cast<int (*)(void*, const char*)>(dlsym(RTLD_NEXT, "X509_STORE_load_file"));
  ++g_authority_files;
  while (g_authorities_are_stuck) pause();
  return next(store, file);
}

static std::atomic<size_t> g_allocations{0};
void* operator new(size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  void* memory = std::malloc(size);
  if (memory == nullptr) std::abort();
  return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }

QUENOR_NAMESPACE_BEGIN
namespace {

using State = HttpClient::State;

// Never destroyed: callbacks may still run while the process ends.
HttpClient::Request& g_request = *new HttpClient::Request;
HttpClient::Config& g_config = *new HttpClient::Config;

// Waits for callbacks without allocating.
class Gate {
 public:
  HttpClient::CompletionCallback Callback() {
    return [this](State state, const HttpClient::Request&,
                  std::unique_ptr<HttpClient::Response> response) {
      std::lock_guard<std::mutex> hold(mutex_);
      ++passed_;
      last_state_ = state;
      last_status_ = response == nullptr ? 0 : response->status_code;
      changed_.notify_all();
    };
  }
  void WaitFor(size_t count) {
    std::unique_lock<std::mutex> hold(mutex_);
    changed_.wait(hold, [&] { return passed_ >= count; });
  }
  State last_state() const { return last_state_; }
  int last_status() const { return last_status_; }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  size_t passed_ = 0;  // Guarded by `mutex_`, as are the next two until WaitFor() has returned.
  State last_state_ = State::kFailed;
  int last_status_ = 0;
};

bool Post(HttpClient* client) {
  Gate gate;
  if (client->SendRequest(g_request, gate.Callback()) < 1) return false;
  gate.WaitFor(1);
  return gate.last_state() == State::kCompleted && gate.last_status() == 200;
}

// The lowest number that is free: as a limit it leaves no descriptor.
rlim_t LowestFreeDescriptor() {
  const int fd = dup(0);
  close(fd);
  return static_cast<rlim_t>(fd);
}

// The I/O thread's entry in /proc/self/task; empty when there is none.
std::string IoThreadFolder() {
  std::string found;
  DIR* folder = opendir("/proc/self/task");
  while (const dirent* entry = readdir(folder)) {
    const std::string path = std::string("/proc/self/task/") + entry->d_name;
    std::string name;
    std::getline(std::ifstream(path + "/comm") >> std::ws, name);
    if (name == "quenor-http") found = path;
  }
  closedir(folder);
  return found;
}

std::string StatusOf(const std::string& folder, const std::string& field) {
  std::ifstream status(folder + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, field.size() + 1, field + ":") == 0) return line.substr(field.size() + 1);
  }
  return std::string();
}

// ---- Modes --------------------------------------------------------------------------------------

int PostOnce() {
  const auto client = HttpClientFactory::Create(g_config);
  return Post(client.get()) ? 0 : 1;
}

// Prints which environment variables a first and a second exchange ask for.
int Asked() {
  const auto client = HttpClientFactory::Create(g_config);
  if (!Post(client.get()) || !Post(client.get())) return 1;
  for (const std::string& name : test::VariablesAskedFor()) std::printf("%s\n", name.c_str());
  return 0;
}

// Connections to a server that the system's authorities do not know: their bundle is read once.
int SystemAuthorities() {
  if (!SetHttpDefaults(HttpDefaults()).empty()) return 1;
  const auto client = HttpClientFactory::Create(g_config);
  for (int i = 0; i < 3; ++i) {
    if (Post(client.get())) return 2;
  }
  std::printf("read %d times\n", g_authority_files.load());
  return g_authority_files <= 1 ? 0 : 3;
}

// main() returns while the server has not answered.
int ExitInFlight() {
  static HttpClient* const client = HttpClientFactory::Create(g_config).release();
  for (int i = 0; i < 20; ++i) client->SendRequest(g_request, nullptr);
  return 0;
}

struct Storm {
  HttpClient* client;
  std::atomic<int> answered{0};
};
void SendAgain(Storm* storm) {
  storm->client->SendRequest(
      g_request, [storm](State, const HttpClient::Request&, std::unique_ptr<HttpClient::Response>) {
        ++storm->answered;
        SendAgain(storm);
      });
}

// main() returns while TLS handshakes run at full speed.
int ExitWhileBusy() {
  g_request.headers["Connection"] = "close";
  static auto* const storm = new Storm{HttpClientFactory::Create(g_config).release(), {}};
  for (int i = 0; i < 50; ++i) SendAgain(storm);
  while (storm->answered < 100) poll(nullptr, 0, 1);
  return 0;
}

// Nanoseconds on a processor, then more.
std::string IoThreadTimes() {
  std::string times;
  std::getline(std::ifstream(IoThreadFolder() + "/schedstat"), times);
  return times;
}

// main() returns while a server has the I/O thread read a flood. The exit does not give up waiting
// for that thread: it finds it at rest.
int ExitWhileFlooded() {
  std::atexit([] {  // Before the client's own handler, and so run after it.
    std::string before = IoThreadTimes();
    for (int i = 0; i < 20; ++i) {
      poll(nullptr, 0, 50);
      const std::string after = IoThreadTimes();
      if (after == before) return;
      before = after;
    }
    _exit(2);
  });
  static HttpClient* const client = HttpClientFactory::Create(g_config).release();
  static std::atomic<bool> ended{false};
  client->SendRequest(g_request, [](State, const HttpClient::Request&,
                                    std::unique_ptr<HttpClient::Response>) { ended = true; });
  while (!ended && std::clock() < CLOCKS_PER_SEC / 5) poll(nullptr, 0, 1);
  return 0;
}

// main() returns while the I/O thread is in a step that never ends, and the time for it is up.
int ExitWhileStuck() {
  static HttpClient* const client = HttpClientFactory::Create(g_config).release();
  g_authorities_are_stuck = true;
  client->SendRequest(g_request, nullptr);
  while (g_authority_files == 0) poll(nullptr, 0, 1);
  g_time_is_up = true;
  return 0;
}

int ExitInsideCallback() {
  static HttpClient* const client = HttpClientFactory::Create(g_config).release();
  client->SendRequest(g_request, [](State, const HttpClient::Request&,
                                    std::unique_ptr<HttpClient::Response>) { std::exit(0); });
  for (;;) pause();
}

int ThrowInsideCallback() {
  static HttpClient* const client = HttpClientFactory::Create(g_config).release();
  client->SendRequest(g_request, [](State, const HttpClient::Request&,
                                    std::unique_ptr<HttpClient::Response>) { throw 5; });
  for (;;) pause();
}

// Sockets through which the kernel tells of the network.
int NetlinkSockets() {
  int count = 0;
  for (int fd = 0; fd < 100; ++fd) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    count += getsockname(fd, any, &size) == 0 && address.ss_family == AF_NETLINK;
  }
  return count;
}

// A child inherits a client in use, sends with it and with one of its own, and exits; the parent
// then goes on. Where the parent watches the network, the child does so by a socket of its own.
int Fork() {
  const auto client = HttpClientFactory::Create(g_config);
  if (!Post(client.get())) return 1;
  const int watches = NetlinkSockets();
  const int code = test::ResultOfChild([&]() -> int {
    const auto own = HttpClientFactory::Create(g_config);
    if (!Post(client.get()) || !Post(own.get()) || IoThreadFolder().empty()) std::exit(2);
    std::exit(NetlinkSockets() == 2 * watches ? 0 : 4);
  });
  return code != 0 ? code : Post(client.get()) ? 0 : 3;
}

// Children made at any moment of a storm find OpenSSL, libcurl and the engine whole, and never run
// a callback of the parent's.
int ForkWhileBusy() {
  g_request.headers["Connection"] = "close";
  static auto* const storm = new Storm{HttpClientFactory::Create(g_config).release(), {}};
  for (int i = 0; i < 20; ++i) SendAgain(storm);
  for (int i = 0; i < 20; ++i) {
    const int answered = storm->answered;
    while (storm->answered < answered + 10) poll(nullptr, 0, 1);
    const int code = test::ResultOfChild([] {
      const int before = storm->answered;
      const auto own = HttpClientFactory::Create(g_config);
      const bool posted = Post(own.get());
      delete storm->client;
      return posted && Post(own.get()) && storm->answered == before ? 0 : 2;
    });
    if (code != 0) return code;
  }
  return 0;
}

// Callbacks that fork and return in the children, too. No callback of the parent's runs there, and
// the thread that came back ends: with it the first child, which has no other; the second sends
// through a thread of its own. The parent notices nothing.
int ForkInsideCallback() {
  constexpr size_t kRequests = 20;
  static auto* const ran_in_child =
      static_cast<std::atomic<int>*>(mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                                          MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  static const pid_t parent = getpid();
  static auto& children = *new std::vector<pid_t>;
  static Gate& gate = *new Gate;  // Not destroyed by a child, in which the waiting thread is not.
  const auto client = HttpClientFactory::Create(g_config);
  const auto callback = [](State state, const HttpClient::Request& request,
                           std::unique_ptr<HttpClient::Response> response) {
    if (getpid() != parent) ++*ran_in_child;
    if (getpid() == parent && children.size() < 2) {
      const pid_t child = test::ForkAndGoOn();
      if (child == 0 && children.empty()) return;
      if (child == 0) {
        std::thread([] {
          const auto own = HttpClientFactory::Create(g_config);
          _exit(Post(own.get()) ? 0 : 2);
        }).detach();
        return;
      }
      children.push_back(child);
    }
    gate.Callback().Run(state, request, std::move(response));
  };
  for (size_t i = 0; i < kRequests; ++i) client->SendRequest(g_request, callback);
  gate.WaitFor(kRequests);
  for (const pid_t child : children) {
    const int code = test::ReapPatiently(child);
    if (code != 0) return code;
  }
  for (size_t i = 0; i < kRequests; ++i) {
    if (!Post(client.get())) return 3;
  }
  return *ran_in_child == 0 ? 0 : 4;
}

int NoThread() {
  const auto client = HttpClientFactory::Create(g_config);
  auto bound = std::make_shared<int>(0);
  const std::weak_ptr<int> watch = bound;
  g_no_threads = true;
  const int64_t id = client->SendRequest(
      g_request, [bound = std::move(bound)](State, const HttpClient::Request&,
                                            std::unique_ptr<HttpClient::Response>) { *bound = 1; });
  if (id >= 1) return 1;
  if (!watch.expired()) return 2;
  g_no_threads = false;
  return Post(client.get()) ? 0 : 3;
}

// No descriptor left before the first request, then again once the I/O thread runs; then only 0.
int NoDescriptors() {
  const auto client = HttpClientFactory::Create(g_config);
  rlimit before;
  getrlimit(RLIMIT_NOFILE, &before);
  const auto limit = [&](rlim_t count) {
    const rlimit now{count, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &now);
  };
  limit(LowestFreeDescriptor());
  const bool failed = !Post(client.get());
  limit(before.rlim_cur);
  if (!failed) return 1;
  if (!Post(client.get())) return 2;
  const auto other = HttpClientFactory::Create(g_config);
  g_request.url.replace(g_request.url.find("localhost"), 9, "127.0.0.1");  // A new connection.
  limit(LowestFreeDescriptor());
  const bool failed_again = !Post(other.get());
  limit(before.rlim_cur);
  if (!failed_again) return 3;
  close(0);  // The next connection gets its number.
  return Post(other.get()) ? 0 : 4;
}

// No thread and no library before the first request; a thread with a name and no signals after it,
// and the host's own sockets as they were.
int Lazy() {
  int hosts[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, hosts) != 0) return 5;
  const auto client = HttpClientFactory::Create(g_config);
  if (!IoThreadFolder().empty()) return 1;
  if (!Post(client.get())) return 2;
  const std::string folder = IoThreadFolder();
  if (folder.empty()) return 3;
  // All but SIGKILL, SIGSTOP and what the C library keeps for itself.
  const std::string blocked = StatusOf(folder, "SigBlk");
  if (blocked.find("fffffffe7ffbfeff") == std::string::npos) return 4;
  return fcntl(hosts[0], F_GETFD) == 0 && fcntl(hosts[1], F_GETFD) == 0 ? 0 : 6;
}

// With a connection kept open, nothing wakes the I/O thread.
int Idle() {
  const auto client = HttpClientFactory::Create(g_config);
  if (!Post(client.get())) return 1;
  const std::string folder = IoThreadFolder();
  const char kField[] = "voluntary_ctxt_switches";
  // It may still be on its way to sleep.
  std::string before;
  while (before != StatusOf(folder, kField) || StatusOf(folder, "State")[1] != 'S') {
    before = StatusOf(folder, kField);
    poll(nullptr, 0, 200);
  }
  poll(nullptr, 0, 3000);
  const std::string after = StatusOf(folder, kField);
  std::printf("voluntary switches:%s, then%s\n", before.c_str(), after.c_str());
  return before == after ? 0 : 2;
}

// A second of an upload that the server has stopped to read takes few rounds of the I/O thread.
int Stalled() {
  static HttpClient* const client = HttpClientFactory::Create(g_config).release();
  const std::string body(8 << 20, 'x');
  g_request.body = CopyOnWriteBuffer(body.data(), static_cast<uint32_t>(body.size()));
  if (client->SendRequest(g_request, nullptr) < 1) return 1;
  // On a busy machine it takes seconds until the window is shut. A client that asks again and again
  // has no calm one.
  for (int second = 0; second < 20; ++second) {
    const size_t before = test::CountedCalls();
    poll(nullptr, 0, 1000);
    const size_t calls = test::CountedCalls() - before;
    std::printf("system calls: %zu\n", calls);
    if (calls < 2000) return 0;
  }
  return 2;
}

// Prints how many of what `count` counts an exchange takes, once everything is warm.
int PrintPerExchange(size_t (*count)()) {
  const auto client = HttpClientFactory::Create(g_config);
  for (int i = 0; i < 20; ++i) {
    if (!Post(client.get())) return 1;
  }
  const size_t before = count();
  constexpr int kExchanges = 100;
  for (int i = 0; i < kExchanges; ++i) {
    if (!Post(client.get())) return 1;
  }
  std::printf("%zu\n", (count() - before) / kExchanges);
  return 0;
}

// How many times C++ code asked for memory.
int Allocations() {
  return PrintPerExchange([] { return g_allocations.load(); });
}
int SystemCalls() { return PrintPerExchange(&test::CountedCalls); }

// Where each callback sends the next request: prints how often somebody was woken for a hundred.
int Chain() {
  static HttpClient* const client = HttpClientFactory::Create(g_config).release();
  static int answered = 0;
  static size_t before = 0;
  static std::promise<size_t> writes;
  static void (*const send)() = [] {
    client->SendRequest(
        g_request, [](State, const HttpClient::Request&, std::unique_ptr<HttpClient::Response>) {
          if (++answered == 20) before = test::CountedWrites();
          if (answered == 120) writes.set_value(test::CountedWrites() - before);
          if (answered < 120) send();
        });
  };
  send();
  std::printf("%zu\n", writes.get_future().get());
  return 0;
}

int Main(int argc, char** argv) {
  if (argc != 4) return 64;
  const std::map<std::string, int (*)()> modes = {{"post", &PostOnce},
                                                  {"asked", &Asked},
                                                  {"exit-in-flight", &ExitInFlight},
                                                  {"exit-while-busy", &ExitWhileBusy},
                                                  {"exit-while-flooded", &ExitWhileFlooded},
                                                  {"exit-while-stuck", &ExitWhileStuck},
                                                  {"exit-inside-callback", &ExitInsideCallback},
                                                  {"throw-inside-callback", &ThrowInsideCallback},
                                                  {"fork", &Fork},
                                                  {"fork-while-busy", &ForkWhileBusy},
                                                  {"fork-inside-callback", &ForkInsideCallback},
                                                  {"no-thread", &NoThread},
                                                  {"no-descriptors", &NoDescriptors},
                                                  {"lazy", &Lazy},
                                                  {"idle", &Idle},
                                                  {"stalled", &Stalled},
                                                  {"allocations", &Allocations},
                                                  {"system-authorities", &SystemAuthorities},
                                                  {"system-calls", &SystemCalls},
                                                  {"chain", &Chain}};
  const auto mode = modes.find(argv[1]);
  if (mode == modes.end()) return 64;
  g_request.url = argv[2];
  g_request.method = "POST";
  g_request.body = CopyOnWriteBuffer("report", 6);
  g_config.enable_http2 = std::getenv("QUENOR_TEST_HTTP2") != nullptr;
  HttpDefaults defaults;
  defaults.ca_file = argv[3];
  const std::string problem = SetHttpDefaults(defaults);
  if (!problem.empty()) {
    std::fprintf(stderr, "%s\n", problem.c_str());
    return 64;
  }
  if (std::getenv("QUENOR_TEST_WATCH") != nullptr && !WatchNetwork(true).empty()) return 64;
  return mode->second();
}

}  // namespace
QUENOR_NAMESPACE_END

int main(int argc, char** argv) { return quenor::Main(argc, argv); }
