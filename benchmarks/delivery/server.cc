#include "benchmarks/delivery/server.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include "tests/support/loopback.h"

extern char** environ;

namespace quenor::bench {
namespace {

std::string FindProgram(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  for (const char* folder : {"/usr/sbin/", "/usr/bin/", "/usr/local/sbin/", "/usr/local/bin/"}) {
    if (access((folder + name).c_str(), X_OK) == 0) return folder + name;
  }
  return name;
}

// The body is read to its end before the answer, as a collector does: `return 200` would answer
// once the headers are there, reset the HTTP/2 stream under the upload, and take the bodies that it
// never looked at for a flood after some thousand messages. The keep-alive limits are beyond a run.
std::string Configuration(const std::string& folder, uint16_t port) {
  std::string text =
      "load_module /usr/lib/nginx/modules/ngx_http_echo_module.so;\n"
      "daemon off; worker_processes 1; pid nginx.pid; error_log stderr crit;\n"
      "events { worker_connections 1024; }\n"
      "http {\n"
      "  access_log off;\n"
      "  keepalive_requests 1000000000; keepalive_timeout 3600s; keepalive_time 24h;\n"
      "  client_body_buffer_size 64k;\n"
      "  ssl_certificate server.pem; ssl_certificate_key server.key;\n";
  for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
    text += std::string("  ") + kind + "_temp_path " + folder + "/" + kind + ";\n";
  }
  text += "  server {\n    listen 127.0.0.1:" + std::to_string(port) + " ssl http2;\n";
  text +=
      "    location / { default_type application/json; echo_read_request_body;\n"
      "      echo -n '{\"bytes_errinfo\":\"success\"}'; }\n  }\n}\n";
  return text;
}

// Lives for the program: Require() ends it with whatever is on the stack.
std::set<pid_t>& Running() {
  static std::set<pid_t>* const running = [] {
    std::atexit([] {
      for (const pid_t pid : Running()) kill(pid, SIGTERM);
      for (const pid_t pid : Running()) waitpid(pid, nullptr, 0);
    });
    return new std::set<pid_t>;
  }();
  return *running;
}

}  // namespace

void Require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "bench: delivery: %s (%s)\n", what, std::strerror(errno));
  std::exit(1);
}

Process::Process(const std::vector<std::string>& arguments,
                 const std::vector<std::pair<int, int>>& fds,
                 const std::vector<std::string>& environment) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (const std::string& entry : environment) envp.push_back(const_cast<char*>(entry.c_str()));
  for (char** entry = environ; *entry != nullptr; ++entry) envp.push_back(*entry);
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (const auto& [ours, its] : fds) posix_spawn_file_actions_adddup2(&actions, ours, its);
  const std::string program = FindProgram(arguments[0]);
  errno = posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  Require(errno == 0, program.c_str());
  Running().insert(pid_);
}

Process::~Process() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  Wait();
}

int Process::Wait() {
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  Running().erase(pid_);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string OutputOf(const std::vector<std::string>& arguments) {
  int ends[2];
  Require(pipe2(ends, O_CLOEXEC) == 0, "no pipe");
  Process process(arguments, {{ends[1], 1}});
  close(ends[1]);
  std::string output;
  char chunk[4096];
  ssize_t size;
  while ((size = read(ends[0], chunk, sizeof(chunk))) > 0) {
    output.append(chunk, static_cast<size_t>(size));
  }
  close(ends[0]);
  Require(process.Wait() == 0, arguments[0].c_str());
  return output;
}

Nginx::Nginx() {
  OutputOf(
      {"bash", "-c", "exec \"$0\" \"$1\" 2>/dev/null", QUENOR_MAKE_CERTIFICATES, folder_.path()});
  ca_file_ = folder_.File("ca.pem");
  uint16_t port = 0;
  const int listener = test::BindLoopback(&port);
  Require(listen(listener, 511) == 0, "cannot listen");
  std::ofstream(folder_.File("nginx.conf")) << Configuration(folder_.path(), port);
  // nginx takes over a socket that listens already: nobody else can have taken the port.
  constexpr int kInherited = 9;
  process_ = std::make_unique<Process>(
      std::vector<std::string>{"nginx", "-e", "stderr", "-p", folder_.path(), "-c",
                               folder_.File("nginx.conf")},
      std::vector<std::pair<int, int>>{{listener, kInherited}},
      std::vector<std::string>{"NGINX=" + std::to_string(kInherited) + ";"});
  close(listener);
  url_ = "https://127.0.0.1:" + std::to_string(port) + "/";
}

Nginx::~Nginx() = default;

}  // namespace quenor::bench
