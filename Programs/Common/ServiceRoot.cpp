#include "ServiceRoot.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "HostPaths.h"
#include "KTSPreferences.h"
#include "KTSServerLayout.h"
#include "ServiceAccount.h"

namespace ondrel::programs {

std::optional<std::string> leaveRoot() {
  std::string error;
  if (!isRoot() || becomeServiceAccount(&error)) return std::nullopt;
  return error;
}

std::optional<std::string> administratorProblem() {
  namespace fs = std::filesystem;
  if (::geteuid() == 0) return std::nullopt;
  std::error_code error;
  fs::path folder = KTSServerLayout::serviceFolder();
  while (!fs::exists(folder, error) && folder.has_relative_path()) folder = folder.parent_path();
  if (::access(folder.c_str(), W_OK | X_OK) == 0) return std::nullopt;
  struct passwd* user = ::getpwuid(::geteuid());
  std::string name = user != nullptr ? user->pw_name : std::to_string(::geteuid());
  return fmt::format(
      "only root and members of group {0} may administer this server, and {1} is neither; an "
      "administrator can add you with \"adduser {1} {0}\" (it counts from your next login)",
      kServiceAccount, name);
}

void adoptServiceGroupPermissions() {
  struct stat folder {};
  struct group* serviceGroup = ::getgrnam(kServiceAccount);
  if (serviceGroup == nullptr || ::stat(KTSServerLayout::serviceFolder().c_str(), &folder) != 0 ||
      folder.st_gid != serviceGroup->gr_gid || (folder.st_mode & S_ISGID) == 0) {
    return;
  }
  ::umask(0007);
}

std::optional<std::string> serviceRootProblem() {
  namespace fs = std::filesystem;
  std::error_code error;
  const std::string configuration = KTSPreferences::defaultConfigurationPath();
  if (fs::exists(configuration, error)) return std::nullopt;
  const std::string defaults = resourcePath("ondrd", "plist");
  if (!fs::is_regular_file(defaults, error)) {
    return fmt::format(
        "the shipped defaults were not found at {}; set ONDREL_RESOURCES to the folder that "
        "holds ondrd.plist and ondrd.conf (Resources/ in the source tree), or install Ondrel "
        "Server. Nothing was changed",
        defaults);
  }
  const std::string parent = fixedPath("/Library/Server");
  for (const std::string& folder : {parent, fixedPath("/Library/Preferences")}) {
    if (fs::is_directory(folder, error)) continue;
    fs::create_directories(folder, error);
    if (error) {
      return fmt::format(
          "the folder {} could not be created ({}); create it, or set ONDREL_ROOT to a folder "
          "of your own",
          folder, error.message());
    }
  }
  return std::nullopt;
}

}  // namespace ondrel::programs
