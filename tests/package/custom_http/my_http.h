// An HTTP client without a network: each request goes to one function of this process.
#ifndef MY_HTTP_H_
#define MY_HTTP_H_

#include <quenor_base/platform/http_client.h>

#include <functional>
#include <map>
#include <string>

// What becomes of a request. With the status 0 it fails.
struct MyAnswer {
  int status = 200;
  std::map<std::string, std::string> headers;
  std::string body;
  bool comes = true;  // False: the client waits for ever.
};

// Any thread. Called with each request, on the clients' thread; null: 200 for each, as before.
void SetMyServer(std::function<MyAnswer(const quenor::HttpClient::Request&)> server);

#endif  // MY_HTTP_H_
