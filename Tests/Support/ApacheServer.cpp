#include "ApacheServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace ondrel::test {

namespace {

bool answers(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return connected;
}

std::string commandOutput(const std::string& command, int* status) {
  std::string output;
  FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return "cannot run " + command;
  std::array<char, 4096> buffer{};
  while (std::fgets(buffer.data(), buffer.size(), pipe) != nullptr) output += buffer.data();
  *status = ::pclose(pipe);
  return output;
}

std::string fileText(const std::string& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

// Whether the CGI daemon of a configuration that loads mod_cgid listens yet (its socket is in
// the runtime folder, beside the PID file): until it does, Apache answers a CGI's URL with 503.
bool cgiDaemonListens(const std::string& runtimeFolder, const std::string& configPath) {
  if (fileText(configPath).find("cgid_module") == std::string::npos) return true;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(runtimeFolder, error), end; !error && entry != end;
       entry.increment(error)) {
    if (entry->path().filename().string().starts_with("cgid.sock")) return true;
  }
  return false;
}

}  // namespace

int freeLoopbackPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);
  return ntohs(address.sin_port);
}

ApacheServer::ApacheServer(std::string serviceRoot, std::string configPath)
    : serviceRoot_(std::move(serviceRoot)), configPath_(std::move(configPath)) {}

ApacheServer::~ApacheServer() { stop(); }

bool ApacheServer::checkSyntax(std::string* output) const {
  int status = 0;
  *output = commandOutput("apache2 -d '" + serviceRoot_ + "' -f '" + configPath_ + "' -t", &status);
  return status == 0;
}

bool ApacheServer::start(int port, std::string* failure) {
  int status = 0;
  std::string output =
      commandOutput("apache2 -d '" + serviceRoot_ + "' -f '" + configPath_ + "' -k start", &status);
  const std::string pidFile = serviceRoot_ + "/Status/httpd.pid";
  for (int attempt = 0; attempt < 200; ++attempt) {
    std::ifstream(pidFile) >> pid_;
    if (pid_ > 0 && answers(port) && cgiDaemonListens(serviceRoot_ + "/Status", configPath_))
      return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  *failure = output + fileText(serviceRoot_ + "/Status/httpd_error.log");
  return false;
}

void ApacheServer::stop() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGTERM);
  for (int attempt = 0; attempt < 400 && ::kill(pid_, 0) == 0; ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  if (::kill(pid_, 0) == 0) ::kill(pid_, SIGKILL);
  pid_ = 0;
}

}  // namespace ondrel::test
