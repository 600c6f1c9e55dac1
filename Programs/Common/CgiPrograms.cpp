#include "CgiPrograms.h"

#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "KTSLogger.h"
#include "KTSServerLayout.h"

namespace ondrel::programs {

namespace {

constexpr const char* kCgiNames[] = {"OndrelServerGetCatalog", "OndrelServerHealth",
                                     "OndrelServerAdmin", "nph-OndrelServerFetch"};
constexpr const char* kServiceTail = "/Library/Server/Ondrel/cgi-bin/";

void installCgi(const std::string& name) {
  namespace fs = std::filesystem;
  std::error_code error;
  fs::path source = fs::read_symlink("/proc/self/exe", error).parent_path() / name;
  if (!fs::exists(source, error)) source = fs::path(ONDREL_CGI_INSTALL_DIR) / name;
  fs::path target = KTSServerLayout::cgiPath(name);
  if (!fs::exists(source, error)) return;
  if (fs::exists(target, error) && fs::file_size(target, error) == fs::file_size(source, error) &&
      fs::last_write_time(target, error) >= fs::last_write_time(source, error)) {
    return;
  }
  fs::create_directories(target.parent_path(), error);
  fs::path temporary = target.string() + ".installing";
  fs::copy_file(source, temporary, fs::copy_options::overwrite_existing, error);
  fs::permissions(temporary,
                  fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                      fs::perms::others_read | fs::perms::others_exec,
                  error);
  if (!error) fs::rename(temporary, target, error);
  if (error) {
    LogHandle::shared().warning("The CGI {} could not be installed in {}: {}", name,
                                target.parent_path().string(), error.message());
  }
}

}  // namespace

void installCgiPrograms() {
  for (const char* name : kCgiNames) installCgi(name);
}

void finishResponse() {
  std::fflush(stdout);
  // What is unread arrives at once; a client that keeps sending is not waited for long.
  constexpr int kWaitMilliseconds = 200;
  constexpr std::size_t kMostDiscarded = std::size_t{16} << 20;
  char buffer[1 << 16];
  struct pollfd input = {STDIN_FILENO, POLLIN, 0};
  for (std::size_t discarded = 0; discarded < kMostDiscarded;) {
    if (::poll(&input, 1, kWaitMilliseconds) <= 0) return;
    ssize_t count = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (count <= 0) return;
    discarded += static_cast<std::size_t>(count);
  }
}

std::string cgiVariable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

void locateServiceRootOfCgi(const char* argv0) {
  const char* root = std::getenv("ONDREL_ROOT");
  if (root != nullptr && *root != '\0') return;
  const char* script = std::getenv("SCRIPT_FILENAME");
  std::string self = script != nullptr && *script != '\0' ? script : argv0;
  std::size_t tail = self.rfind(kServiceTail);
  if (tail != std::string::npos) ::setenv("ONDREL_ROOT", self.substr(0, tail).c_str(), 1);
}

}  // namespace ondrel::programs
