// PageServer: the page over HTTP. Each connection has a thread of its own, of which there are few,
// so that one that waits for the store, or takes the page's events, holds up none of the others.
// What a connection may take of memory and time is bounded. Page: docs/guide/collectors.md.
// Life: one per process. Threads: the handlers are called on any.
#ifndef COLLECTOR_PAGE_SERVER_H_
#define COLLECTOR_PAGE_SERVER_H_

#include <microhttpd.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "collector/page/control_pages.h"
#include "collector/page/form.h"
#include "collector/page/guard.h"

namespace quenor::collector {

struct PageHandlers {
  std::function<std::string()> page;   // The whole of it.
  std::function<std::string()> event;  // What changes, every second; the page's script reads it.
  std::function<PageAnswer(const Form& form)> form;
};

class PageServer {
 public:
  // Listens and serves. `guard` outlives it. Throws Fatal.
  PageServer(const std::string& host, int port, const Guard& guard, PageHandlers handlers);
  ~PageServer();
  PageServer(const PageServer&) = delete;
  PageServer& operator=(const PageServer&) = delete;

  int port() const { return port_; }
  std::string url() const;

 private:
  struct Request;
  struct Stream;

  static MHD_Result OnRequest(void* self, MHD_Connection* connection, const char* path,
                              const char* method, const char* version, const char* data,
                              size_t* data_bytes, void** request);
  static void OnCompleted(void* self, MHD_Connection* connection, void** request,
                          MHD_RequestTerminationCode code);
  static ssize_t OnStream(void* stream, uint64_t position, char* buffer, size_t most_bytes);
  static void OnStreamEnd(void* stream);

  MHD_Result Answer(MHD_Connection* connection, const Request& request);
  MHD_Result AnswerForm(MHD_Connection* connection, const Request& request);
  MHD_Result AnswerEvents(MHD_Connection* connection);
  // Waits for the time of the next event. False: there is none, the server ends.
  bool WaitForNext();

  const std::string host_;
  int port_ = 0;
  const Guard& guard_;
  const PageHandlers handlers_;
  std::mutex mutex_;  // Guards the end.
  std::condition_variable end_cv_;
  bool ends_ = false;
  std::atomic<int> streams_{0};
  MHD_Daemon* daemon_ = nullptr;
};

}  // namespace quenor::collector

#endif  // COLLECTOR_PAGE_SERVER_H_
