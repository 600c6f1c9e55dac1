// An in-process HTTP or HTTPS server on a loopback address for tests, with per-test routes
// (cpp-httplib). HTTPS uses a throw-away certificate for 127.0.0.1 made at test time.
#pragma once

#include <httplib.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

namespace ondrel::test {

struct Certificate {
  std::string certificatePath;
  std::string keyPath;
};

// A self-signed certificate for 127.0.0.1 to 127.0.0.20 and localhost, written into folder.
Certificate makeThrowAwayCertificate(const std::string& folder);

class LoopbackServer {
 public:
  // Plain HTTP; with a certificate, HTTPS.
  explicit LoopbackServer(const Certificate* certificate = nullptr);
  ~LoopbackServer();

  httplib::Server& routes() { return *server_; }
  // Listens on address:port (0 picks a free port). False when the port cannot be bound.
  bool start(const std::string& address = "127.0.0.1", int port = 0);
  void stop();
  int port() const { return port_; }
  // "http://127.0.0.1:<port><path>" (or https).
  std::string url(const std::string& path) const;
  int requestCount() const { return requests_; }

 private:
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  std::string scheme_;
  std::string address_;
  int port_ = 0;
  std::atomic<int> requests_{0};
};

}  // namespace ondrel::test
