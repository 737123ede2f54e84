#include "benchmarks/footprint_support.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace quenor::bench {

void Fail(const std::string& what) {
  std::fprintf(stderr, "bench: %s\n", what.c_str());
  std::exit(1);
}

// ---- Programs -----------------------------------------------------------------------------------

Child::Child(const std::vector<std::string>& arguments) {
  int in[2];
  int out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) Fail("no descriptors are left");
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ < 0) Fail("cannot fork");
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(in[0], STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  to_ = in[1];
  from_ = out[0];
}

Child::~Child() {
  if (pid_ < 0) return;
  kill(pid_, SIGKILL);
  Finish();
}

void Child::Tell(const std::string& line) {
  const std::string text = line + "\n";
  if (write(to_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    Fail("a child does not listen");
  }
}

std::string Child::Answer() {
  size_t end;
  while ((end = read_.find('\n')) == std::string::npos) {
    char chunk[4096];
    const ssize_t size = read(from_, chunk, sizeof(chunk));
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) Fail("a child has ended without an answer");
    read_.append(chunk, static_cast<size_t>(size));
  }
  std::string line = read_.substr(0, end);
  read_.erase(0, end + 1);
  return line;
}

std::string Child::Rest() {
  char chunk[4096];
  ssize_t size;
  while ((size = read(from_, chunk, sizeof(chunk))) > 0 || (size < 0 && errno == EINTR)) {
    if (size > 0) read_.append(chunk, static_cast<size_t>(size));
  }
  return std::move(read_);
}

int Child::Finish() {
  close(to_);
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  close(from_);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string OutputOf(const std::vector<std::string>& arguments) {
  Child child(arguments);
  std::string output = child.Rest();
  const int code = child.Finish();
  if (code != 0) Fail(arguments[0] + " ended with " + std::to_string(code));
  return output;
}

std::string OwnPath() { return std::filesystem::read_symlink("/proc/self/exe").string(); }

// ---- The server ---------------------------------------------------------------------------------

namespace {

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  if (!file.flush()) Fail("cannot write " + path);
}

// A socket that keeps a free port for a server that binds with SO_REUSEADDR; it never listens.
int KeepPort(int* port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    Fail("no port is free");
  }
  *port = ntohs(address.sin_port);
  return fd;
}

bool IsListening(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  const bool is = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  close(fd);
  return is;
}

}  // namespace

void MakeCertificates(const std::string& folder) {
  WriteFile(folder + "/server.ext",
            "subjectAltName=DNS:localhost,IP:127.0.0.1\nextendedKeyUsage=serverAuth\n");
  const std::string key = " -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes ";
  OutputOf({"sh", "-c",
            "cd '" + folder + "' && exec 2>/dev/null && openssl req -x509" + key +
                "-days 2 -keyout ca.key -out ca.pem -subj '/CN=throw-away CA' "
                "-addext keyUsage=critical,keyCertSign && openssl req" +
                key +
                "-keyout server.key -out server.csr -subj /CN=server && openssl x509 -req "
                "-in server.csr -CA ca.pem -CAkey ca.key -set_serial 2 -days 2 "
                "-extfile server.ext -out server.pem"});
}

TlsServer::TlsServer() {
  MakeCertificates(folder_.path());
  int port = 0;
  placeholder_ = KeepPort(&port);
  std::string temporary;
  for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
    temporary += std::string("  ") + kind + "_temp_path " + kind + ";\n";
  }
  WriteFile(folder_.path() + "/nginx.conf",
            "daemon off; master_process off; pid nginx.pid; error_log stderr crit;\n"
            "events { worker_connections 1000; }\nhttp {\n"
            "  access_log off; keepalive_timeout 3600; keepalive_requests 100000;\n" +
                temporary + "  server {\n    listen 127.0.0.1:" + std::to_string(port) +
                " ssl http2; ssl_certificate server.pem; ssl_certificate_key server.key;\n"
                "    location / { return 200 '{\"bytes_errinfo\":\"success\"}'; }\n  }\n}\n");
  nginx_ = std::make_unique<Child>(
      std::vector<std::string>{"nginx", "-e", "stderr", "-p", folder_.path(), "-c", "nginx.conf"});
  for (int attempt = 0; !IsListening(port); ++attempt) {
    if (attempt == 1000) Fail("nginx does not listen");
    usleep(10000);
  }
  url_ = "https://127.0.0.1:" + std::to_string(port) + "/";
}

// ---- /proc --------------------------------------------------------------------------------------

Memory MemoryOf(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/smaps");
  Memory memory;
  bool is_cache_file = false;
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string key;
    double kib = 0;
    words >> key;
    if (key.back() != ':') {
      is_cache_file = line.find(".mmap") != std::string::npos;
    } else if (words >> kib) {
      if (key == "Anonymous:") memory.anonymous += kib;
      if (is_cache_file && (key == "Private_Dirty:" || key == "Private_Clean:")) {
        memory.cache_files += kib;
      }
    }
  }
  return memory;
}

std::map<pid_t, uint64_t> SwitchesOf(pid_t pid) {
  std::map<pid_t, uint64_t> switches;
  std::error_code ignored;
  const std::string folder = "/proc/" + std::to_string(pid) + "/task";
  for (const auto& task : std::filesystem::directory_iterator(folder, ignored)) {
    std::ifstream file(task.path() / "status");
    uint64_t& count = switches[std::atoi(task.path().filename().c_str())];
    for (std::string line; std::getline(file, line);) {
      if (line.find("voluntary_ctxt_switches:") == std::string::npos) continue;
      count += std::strtoull(line.c_str() + line.find(':') + 1, nullptr, 10);
    }
  }
  return switches;
}

// ---- Events -------------------------------------------------------------------------------------

void EventCounter::OnReportEvent(const ReportEvent& event) {
  std::lock_guard<std::mutex> hold(mutex_);
  ++counts_[event.kind];
  changed_.notify_all();
}

void EventCounter::WaitFor(ReportEventKind kind, uint64_t count) {
  std::unique_lock<std::mutex> hold(mutex_);
  changed_.wait(hold, [&] { return counts_[kind] >= count; });
}

void EventCounter::Reset() {
  std::lock_guard<std::mutex> hold(mutex_);
  counts_.clear();
}

}  // namespace quenor::bench
