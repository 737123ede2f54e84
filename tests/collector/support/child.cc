#include "tests/collector/support/child.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <thread>

#include "tests/collector/support/test_cert.h"
#include "tests/support/patience.h"

extern char** environ;

namespace quenor::collector::test {
namespace {

constexpr time_t kClientTimeoutS = 120;

void OpenPipe(int ends[2]) {
  if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("cannot make a pipe");
}

// Appends what comes next to *text. False at the end of input, or when nothing comes for too long.
bool ReadMore(int fd, std::string* text) {
  char step[4096];
  ssize_t got = 0;
  if (!quenor::test::WaitForInput(fd, std::chrono::steady_clock::now() + quenor::test::kPatience)) {
    return false;
  }
  do {
    got = ::read(fd, step, sizeof(step));
  } while (got < 0 && errno == EINTR);
  if (got > 0) text->append(step, static_cast<size_t>(got));
  return got > 0;
}

std::vector<std::string> WithTransport(const std::string& dir, Collector::Transport transport,
                                       std::vector<std::string> arguments) {
  if (transport == Collector::Transport::kTls) {
    MakeCertificate(dir + "/cert.pem", dir + "/key.pem");
    for (const std::string& word :
         {std::string("--cert"), dir + "/cert.pem", std::string("--key"), dir + "/key.pem"}) {
      arguments.push_back(word);
    }
  }
  return arguments;
}

}  // namespace

Child::Child(const std::vector<std::string>& arguments) {
  std::string path = QUENOR_COLLECTOR_PATH;
  std::vector<std::string> words = arguments;
  std::vector<char*> argv = {path.data()};
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  int out[2];
  int err[2];
  OpenPipe(out);
  OpenPipe(err);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
  // A collector that ends first must not take the test along; the collector itself starts with the
  // usual disposition.
  ::signal(SIGPIPE, SIG_IGN);
  sigset_t reset;
  sigemptyset(&reset);
  sigaddset(&reset, SIGPIPE);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setsigdefault(&attributes, &reset);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  const int error = ::posix_spawn(&pid_, path.c_str(), &actions, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  ::close(err[1]);
  out_fd_ = out[0];
  err_fd_ = err[0];
  if (error != 0) {
    pid_ = -1;
    throw std::runtime_error("cannot start " + path);
  }
}

Child::~Child() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  ::close(out_fd_);
  ::close(err_fd_);
}

std::optional<std::string> Child::ReadLine() {
  size_t end = unread_.find('\n');
  while (end == std::string::npos) {
    if (!ReadMore(out_fd_, &unread_)) return std::nullopt;
    end = unread_.find('\n');
  }
  std::string line = unread_.substr(0, end);
  unread_.erase(0, end + 1);
  return line;
}

void Child::Signal(int number) const { ::kill(pid_, number); }

void Child::LimitDescriptors(unsigned limit) const {
  rlimit limits{};
  bool done = ::prlimit(pid_, RLIMIT_NOFILE, nullptr, &limits) == 0;
  limits.rlim_cur = limit;
  done = done && ::prlimit(pid_, RLIMIT_NOFILE, &limits, nullptr) == 0;
  if (!done) {
    throw std::runtime_error("cannot limit the collector's descriptors");
  }
}

long Child::CountSleeps() const {
  return std::stol(quenor::test::StatusLine(pid_, "voluntary_ctxt_switches"));
}

Ended Child::Wait() {
  Ended ended;
  // Both pipes at once: a child that fills the one must not wait for the other.
  std::thread err_reader([&] {
    while (ReadMore(err_fd_, &ended.err)) {
    }
  });
  while (ReadMore(out_fd_, &unread_)) {
  }
  err_reader.join();
  ended.out = std::move(unread_);
  const int result = quenor::test::ReapPatiently(pid_);
  pid_ = -1;
  if (result >= 0) ended.exit_code = result;
  return ended;
}

Collector::Collector(const std::string& dir, Transport transport,
                     std::vector<std::string> arguments)
    : ca_path_(transport == Transport::kTls ? dir + "/cert.pem" : ""),
      child_(WithTransport(dir, transport, std::move(arguments))) {
  const std::string line = child_.ReadLine().value_or("");
  const std::string before = "listening url=";
  const size_t colon = line.rfind(':');
  if (line.rfind(before, 0) != 0 || line.back() != '/' || colon == std::string::npos) {
    child_.Signal(SIGKILL);
    throw std::runtime_error("collector is not up: \"" + line + "\" " + child_.Wait().err);
  }
  url_ = line.substr(before.size());
  port_ = std::stoi(line.substr(colon + 1));
}

std::unique_ptr<httplib::Client> Collector::NewClient() const {
  auto client = std::make_unique<httplib::Client>(url_.substr(0, url_.size() - 1));
  if (!ca_path_.empty()) {
    client->set_ca_cert_path(ca_path_);
    client->enable_server_certificate_verification(true);
  }
  client->set_keep_alive(true);
  client->set_tcp_nodelay(true);
  client->set_connection_timeout(kClientTimeoutS);
  client->set_read_timeout(kClientTimeoutS);
  client->set_write_timeout(kClientTimeoutS);
  return client;
}

Ended Collector::Stop() {
  child_.Signal(SIGTERM);
  return child_.Wait();
}

int Post(httplib::Client& client, const std::string& body) {
  const httplib::Result result = client.Post("/report", body, "application/octet-stream");
  return result ? result->status : 0;
}

}  // namespace quenor::collector::test
