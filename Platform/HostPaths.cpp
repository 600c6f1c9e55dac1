#include "HostPaths.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "FileIO.h"
#include "PathString.h"
#include "ServiceAccount.h"

#ifndef ONDREL_DEFAULT_ROOT
#define ONDREL_DEFAULT_ROOT ""
#endif

#ifndef ONDREL_RESOURCE_INSTALL_DIR
#define ONDREL_RESOURCE_INSTALL_DIR "/usr/local/share/ondrel"
#endif

namespace ondrel {

std::string fixedPath(std::string_view absolutePath) {
  const char* root = std::getenv("ONDREL_ROOT");
  if (root == nullptr || *root == '\0') root = ONDREL_DEFAULT_ROOT;
  if (*root == '\0') return std::string(absolutePath);
  return appendingPathComponent(root, absolutePath);
}

std::string resourcePath(std::string_view name, std::string_view type) {
  const char* folder = std::getenv("ONDREL_RESOURCES");
  std::string base = folder != nullptr && *folder != '\0' ? folder : ONDREL_RESOURCE_INSTALL_DIR;
  return appendingPathComponent(base, appendingPathExtension(name, type));
}

bool setServiceOwner(const std::string& path, std::string* error) {
  std::optional<AccountIds> account = serviceAccountIds();
  if (!account) {
    if (error) *error = std::string("no such account ") + kServiceAccount;
    return false;
  }
  if (::chown(path.c_str(), account->uid, account->gid) != 0) {
    if (error) *error = systemErrorText(errno);
    return false;
  }
  return true;
}

}  // namespace ondrel
