// What libcurl has in hand: the transfers under way, their connections and the multi handle that
// drives them. Internal to the HTTP client on libcurl. Threads: the I/O thread, save where it is
// said. Life cycle: as the I/O thread. See docs/design/http-client.md.
#ifndef SERVICES_HTTP_CLIENT_CURL_MULTI_H_
#define SERVICES_HTTP_CLIENT_CURL_MULTI_H_

#include <curl/curl.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "services/http_client_curl/sockets/network_linux.h"
#include "services/http_client_curl/transfer.h"

QUENOR_NAMESPACE_BEGIN
namespace http_engine {

class Multi {
 public:
  Multi() = default;
  ~Multi();
  Multi(const Multi&) = delete;
  Multi& operator=(const Multi&) = delete;

  // The thread that makes the I/O thread. False, and what is missing, without memory or
  // descriptors.
  bool Open(std::string* problem);

  // Gives libcurl the transfer; false when that is not possible or its client is closed. It is
  // borrowed until one of the next three has appended it to `ended`.
  bool Start(Transfer* transfer);
  // Lets libcurl work.
  void Perform(std::vector<Transfer*>* ended);
  // Takes from libcurl those whose deadline has passed ...
  void Expire(int64_t now_ms, std::vector<Transfer*>* ended);
  // ... and those whose client was destroyed.
  void CancelClosed(std::vector<Transfer*>* ended);

  // Opens or closes the watch for changes of the network.
  void WatchNetwork(bool on);
  // Acts on a change, if the watch has seen one or `is_told`: see NetworkChanged(). Appends to
  // `ended` what cannot be begun anew.
  void FollowNetwork(bool is_told, std::vector<Transfer*>* ended);

  // After each step, with whether an exchange ended in it: true when the next is not to wait.
  bool LookAgain(bool any_ended);
  // Closes kept connections that their servers have closed.
  void CloseHungUp();

  // No transfer's deadline is earlier; kNever without one.
  int64_t next_deadline_ms() const { return next_deadline_ms_; }
  // Sleeps until a socket or libcurl's own time limits need this thread, somebody wakes it or
  // `until_ms` comes.
  void Wait(int64_t until_ms);

  // Any thread. Cannot fail: the counter never comes near its limit.
  void WakeUp() const;
  // Any thread.
  HttpSockets* sockets() { return &connections_.sockets; }

 private:
  void LimitHostConnections(uint32_t count);
  // What the exchanges of one set share: connections, TLS sessions, addresses of names.
  struct Shared {
    std::weak_ptr<const HttpSet> set;
    CURLSH* handle;
    size_t users;
  };
  bool Join(Transfer* transfer);
  void Leave(Transfer* transfer);
  void CutStranded();
  void CutIdle();
  bool BeginAnew(Transfer* transfer);
  void CloseUnused();
  bool EndedByCut(CURL* easy, CURLcode code) const;
  bool IsUsed(int fd, int64_t before_ms) const;
  void CutBadConnection(const Transfer& transfer);
  void Finish(Transfer* transfer, std::vector<Transfer*>* ended);

  CURLM* multi_ = nullptr;
  int wake_fd_ = -1;  // An eventfd: cheaper to write and to empty than libcurl's own pair.
  Connections connections_;
  std::vector<Shared> shared_;
  std::vector<Transfer*> active_;  // That libcurl has; each knows its index.
  int64_t next_deadline_ms_ = http_lines::kNever;
  uint32_t host_connections_ = 0;  // As last set in the multi handle.
  http_network::Watch watch_;
  http_network::Watch::Change network_ = http_network::Watch::Change::kNone;  // To be acted on.
  int64_t watched_at_ms_ = 0;  // When it was asked last.
  bool any_hung_up_ = false;   // One of the sockets may be.
  bool look_again_ = false;    // A connection may have become free unnoticed.
  uint64_t progress_at_wait_ = 0;
  int fruitless_rounds_ = 0;  // Sleeps in a row that ended at once and brought nothing.
};

}  // namespace http_engine
QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_MULTI_H_
