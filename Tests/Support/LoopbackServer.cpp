#include "LoopbackServer.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdlib>

namespace ondrel::test {

Certificate makeThrowAwayCertificate(const std::string& folder) {
  Certificate certificate{folder + "/test-cert.pem", folder + "/test-key.pem"};
  std::string names = "DNS:localhost";
  for (int host = 1; host <= 20; ++host) names += fmt::format(",IP:127.0.0.{}", host);
  std::string command = fmt::format(
      "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 "
      "-addext subjectAltName={} -keyout '{}' -out '{}' >/dev/null 2>&1",
      names, certificate.keyPath, certificate.certificatePath);
  if (std::system(command.c_str()) != 0) return {};
  return certificate;
}

LoopbackServer::LoopbackServer(const Certificate* certificate) {
  if (certificate != nullptr) {
    server_ = std::make_unique<httplib::SSLServer>(certificate->certificatePath.c_str(),
                                                   certificate->keyPath.c_str());
    scheme_ = "https";
  } else {
    server_ = std::make_unique<httplib::Server>();
    scheme_ = "http";
  }
  // Clients keep connections open; a short keep-alive lets the server stop promptly.
  server_->set_keep_alive_timeout(1);
  server_->set_pre_routing_handler([this](const httplib::Request&, httplib::Response&) {
    ++requests_;
    return httplib::Server::HandlerResponse::Unhandled;
  });
}

LoopbackServer::~LoopbackServer() { stop(); }

bool LoopbackServer::start(const std::string& address, int port) {
  address_ = address;
  if (port == 0) {
    port_ = server_->bind_to_any_port(address.c_str());
  } else {
    port_ = server_->bind_to_port(address.c_str(), port) ? port : -1;
  }
  if (port_ <= 0) return false;
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  for (int i = 0; i < 200 && !server_->is_running(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return server_->is_running();
}

void LoopbackServer::stop() {
  if (thread_.joinable()) {
    server_->stop();
    thread_.join();
  }
}

std::string LoopbackServer::url(const std::string& path) const {
  return fmt::format("{}://{}:{}{}", scheme_, address_, port_, path);
}

}  // namespace ondrel::test
