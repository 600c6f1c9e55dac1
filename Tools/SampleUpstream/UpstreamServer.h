// Serves a sample tree with a real Apache httpd on a loopback address: the configuration, PID
// file, error log and request log ("access.log": method, path, status, bytes) live in the tree's
// own ".sample-upstream" folder, which is never served.
// Used by the sample upstream's serve and stop commands. One thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace ondrel::sample {

// HTTPS instead of HTTP: the certificate and key files, whether HTTP/2 is offered, and how many
// streams at once an HTTP/2 connection may carry.
struct TlsSetting {
  std::string certificatePath;
  std::string keyPath;
  bool http2 = true;
  int http2Streams = 128;
};

// Starts Apache for folder on address:port and returns its PID; throws std::runtime_error with
// a message when the address is not a loopback one, the port is taken or Apache does not start.
pid_t serveTree(const std::string& folder, const std::string& address, int port,
                const std::optional<TlsSetting>& tls = std::nullopt);

// Stops the Apache serving folder, if any; true when one was running.
bool stopServingTree(const std::string& folder);

}  // namespace ondrel::sample
