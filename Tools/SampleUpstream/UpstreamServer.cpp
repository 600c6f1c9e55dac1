#include "UpstreamServer.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace ondrel::sample {

namespace {

constexpr const char* kServerFolder = ".sample-upstream";

std::string serverFolder(const std::string& folder) {
  return (std::filesystem::absolute(folder) / kServerFolder).string();
}

bool isLoopbackAddress(const std::string& address) {
  in_addr parsed{};
  return inet_pton(AF_INET, address.c_str(), &parsed) == 1 && (ntohl(parsed.s_addr) >> 24) == 127;
}

// True when something already listens on address:port.
bool portTaken(const std::string& address, int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in socketAddress{};
  socketAddress.sin_family = AF_INET;
  socketAddress.sin_port = htons(static_cast<std::uint16_t>(port));
  inet_pton(AF_INET, address.c_str(), &socketAddress.sin_addr);
  int yes = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  bool taken = ::bind(fd, reinterpret_cast<sockaddr*>(&socketAddress), sizeof socketAddress) != 0;
  ::close(fd);
  return taken;
}

bool answers(const std::string& address, int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in socketAddress{};
  socketAddress.sin_family = AF_INET;
  socketAddress.sin_port = htons(static_cast<std::uint16_t>(port));
  inet_pton(AF_INET, address.c_str(), &socketAddress.sin_addr);
  bool connected =
      ::connect(fd, reinterpret_cast<sockaddr*>(&socketAddress), sizeof socketAddress) == 0;
  ::close(fd);
  return connected;
}

pid_t runningPid(const std::string& folder) {
  pid_t pid = 0;
  std::ifstream(serverFolder(folder) + "/httpd.pid") >> pid;
  return pid > 0 && ::kill(pid, 0) == 0 ? pid : 0;
}

// The lines that make the server speak HTTPS, and HTTP/2 over it when asked.
std::string tlsConfiguration(const std::optional<TlsSetting>& tls) {
  if (!tls) return "";
  return fmt::format(
      "LoadModule ssl_module /usr/lib/apache2/modules/mod_ssl.so\n"
      "LoadModule http2_module /usr/lib/apache2/modules/mod_http2.so\n"
      "SSLEngine on\nSSLCertificateFile \"{}\"\nSSLCertificateKeyFile \"{}\"\n"
      "Protocols {}http/1.1\nH2MaxSessionStreams {}\n",
      tls->certificatePath, tls->keyPath, tls->http2 ? "h2 " : "", tls->http2Streams);
}

std::string configuration(const std::string& root, const std::string& server,
                          const std::string& address, int port,
                          const std::optional<TlsSetting>& tls) {
  std::string user = ::geteuid() == 0 ? "User _ondrel\nGroup _ondrel\n" : "";
  return fmt::format(
      "# Written by ondrel-sample-upstream serve; replaced on every start.\n"
      "LoadModule mpm_event_module /usr/lib/apache2/modules/mod_mpm_event.so\n"
      "LoadModule authz_core_module /usr/lib/apache2/modules/mod_authz_core.so\n"
      "LoadModule mime_module /usr/lib/apache2/modules/mod_mime.so\n"
      "ServerName localhost\n{}"
      "ServerTokens Prod\nTraceEnable Off\nKeepAlive On\nMaxKeepAliveRequests 0\n"
      "KeepAliveTimeout 15\nPidFile \"{}/httpd.pid\"\nMutex file:{} default\n"
      "ErrorLog \"{}/httpd_error.log\"\nLogLevel warn\nListen {}:{}\n"
      "LogFormat \"%m %U%q %>s %B %H\" requests\nCustomLog \"{}/access.log\" requests\n"
      "TypesConfig /etc/mime.types\nAddType text/xml .ktcatalog .dist .pkm .smd .plist\n"
      "AddType application/octet-stream .pkg\n"
      "<Directory />\n    Options None\n    AllowOverride None\n    Require all denied\n"
      "</Directory>\nDocumentRoot \"{}\"\n<Directory \"{}\">\n    Options None\n"
      "    AllowOverride None\n    Require all granted\n</Directory>\n"
      "<FilesMatch \"^\\.\">\n    Require all denied\n</FilesMatch>\n"
      "<DirectoryMatch \"/\\.\">\n    Require all denied\n</DirectoryMatch>\n{}",
      user, server, server, server, address, port, server, root, root, tlsConfiguration(tls));
}

}  // namespace

pid_t serveTree(const std::string& folder, const std::string& address, int port,
                const std::optional<TlsSetting>& tls) {
  if (!isLoopbackAddress(address)) {
    throw std::runtime_error(fmt::format(
        "{} is not a loopback address; the sample upstream listens on 127.0.0.0/8 only", address));
  }
  if (port < 1 || port > 65535) throw std::runtime_error(fmt::format("{} is not a port", port));
  if (!std::filesystem::is_directory(folder)) {
    throw std::runtime_error(fmt::format("{} is not a folder; generate a tree first", folder));
  }
  if (pid_t running = runningPid(folder)) {
    throw std::runtime_error(
        fmt::format("{} is already served (PID {}); stop it first", folder, running));
  }
  if (portTaken(address, port)) {
    throw std::runtime_error(fmt::format("{}:{} is already in use", address, port));
  }
  std::string root = std::filesystem::absolute(folder).lexically_normal().string();
  if (root.size() > 1 && root.back() == '/') root.pop_back();
  std::string server = serverFolder(folder);
  std::filesystem::create_directories(server);
  std::filesystem::remove(server + "/httpd.pid");
  std::ofstream(server + "/httpd.conf") << configuration(root, server, address, port, tls);
  std::string command =
      fmt::format("apache2 -d '{}' -f '{}/httpd.conf' -k start 2>&1", server, server);
  std::FILE* pipe = ::popen(command.c_str(), "r");
  std::string output;
  char buffer[512];
  while (pipe != nullptr && std::fgets(buffer, sizeof buffer, pipe) != nullptr) output += buffer;
  if (pipe != nullptr) ::pclose(pipe);
  for (int attempt = 0; attempt < 400; ++attempt) {
    pid_t pid = runningPid(folder);
    if (pid > 0 && answers(address, port)) return pid;
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  std::ifstream log(server + "/httpd_error.log");
  std::stringstream errors;
  errors << log.rdbuf();
  throw std::runtime_error("Apache did not start: " + output + errors.str());
}

bool stopServingTree(const std::string& folder) {
  pid_t pid = runningPid(folder);
  if (pid == 0) return false;
  ::kill(pid, SIGTERM);
  for (int attempt = 0; attempt < 400 && ::kill(pid, 0) == 0; ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  if (::kill(pid, 0) == 0) ::kill(pid, SIGKILL);
  std::filesystem::remove(serverFolder(folder) + "/httpd.pid");
  return true;
}

}  // namespace ondrel::sample
