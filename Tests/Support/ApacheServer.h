// A real Apache httpd for tests, started on the configuration the library wrote. The server is
// stopped by its PID when the object goes away, whether the test passed or failed.
#pragma once

#include <sys/types.h>

#include <string>

namespace ondrel::test {

// A TCP port on 127.0.0.1 that nothing listens on right now.
int freeLoopbackPort();

class ApacheServer {
 public:
  // serviceRoot is the server root (-d); configPath the configuration file (-f).
  ApacheServer(std::string serviceRoot, std::string configPath);
  ~ApacheServer();
  ApacheServer(const ApacheServer&) = delete;
  ApacheServer& operator=(const ApacheServer&) = delete;

  // Runs "apache2 -t"; false with its output in *output when the configuration is refused.
  bool checkSyntax(std::string* output) const;
  // Starts the server and waits until it answers on port; false (with the error log) otherwise.
  bool start(int port, std::string* failure);
  void stop();

 private:
  std::string serviceRoot_;
  std::string configPath_;
  pid_t pid_ = 0;
};

}  // namespace ondrel::test
