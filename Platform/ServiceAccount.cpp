#include "ServiceAccount.h"

#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "HostPaths.h"

namespace ondrel {

namespace {

std::string failure(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

// Keeps CAP_NET_BIND_SERVICE alone, effective now and ambient across exec.
bool keepLowPortBinding(std::string* error) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2] = {};
  data[0].effective = data[0].permitted = data[0].inheritable = 1u << CAP_NET_BIND_SERVICE;
  if (::syscall(SYS_capset, &header, data) != 0) {
    *error = failure("capset");
    return false;
  }
  if (::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, CAP_NET_BIND_SERVICE, 0, 0) != 0) {
    *error = failure("ambient capability");
    return false;
  }
  return true;
}

}  // namespace

std::optional<AccountIds> serviceAccountIds() {
  struct passwd user {};
  struct passwd* userFound = nullptr;
  struct group group {};
  struct group* groupFound = nullptr;
  char userBuffer[4096];
  char groupBuffer[4096];
  getpwnam_r(kServiceAccount, &user, userBuffer, sizeof userBuffer, &userFound);
  getgrnam_r(kServiceAccount, &group, groupBuffer, sizeof groupBuffer, &groupFound);
  if (userFound == nullptr || groupFound == nullptr) return std::nullopt;
  return AccountIds{user.pw_uid, group.gr_gid};
}

bool isRoot() { return ::getuid() == 0 || ::geteuid() == 0; }

bool becomeServiceAccount(std::string* error, bool keepLowPorts) {
  std::optional<AccountIds> account = serviceAccountIds();
  if (!account) {
    *error = std::string("the service account ") + kServiceAccount + " does not exist";
    return false;
  }
  if (::geteuid() != 0 && ::seteuid(0) != 0) {
    *error = failure("taking back the root user");
    return false;
  }
  if (keepLowPorts && ::prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) != 0) {
    *error = failure("keeping capabilities");
    return false;
  }
  if (::initgroups(kServiceAccount, account->gid) != 0 ||
      ::setresgid(account->gid, account->gid, account->gid) != 0 ||
      ::setresuid(account->uid, account->uid, account->uid) != 0) {
    *error = failure("changing to the service account");
    return false;
  }
  uid_t real = 0, effective = 0, saved = 0;
  if (::getresuid(&real, &effective, &saved) != 0 || real != account->uid ||
      effective != account->uid || saved != account->uid) {
    *error = "the user ids did not change";
    return false;
  }
  if (keepLowPorts) {
    ::prctl(PR_SET_KEEPCAPS, 0, 0, 0, 0);
    return keepLowPortBinding(error);
  }
  return true;
}

}  // namespace ondrel
