#include "Volumes.h"

#include <sys/statvfs.h>

#include <cerrno>
#include <fstream>
#include <set>
#include <sstream>

#include "FileIO.h"

namespace ondrel {

namespace {

const std::set<std::string, std::less<>> kPseudoFileSystems = {
    "autofs",     "binfmt_misc", "bpf",      "cgroup",   "cgroup2", "configfs",
    "debugfs",    "devpts",      "devtmpfs", "efivarfs", "fusectl", "hugetlbfs",
    "mqueue",     "nsfs",        "proc",     "pstore",   "ramfs",   "rpc_pipefs",
    "securityfs", "selinuxfs",   "sysfs",    "tmpfs",    "tracefs"};

// Mount points escape blanks and a few other characters as three octal digits.
std::string unescapedMountPoint(const std::string& field) {
  std::string result;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      int value = 0;
      bool octal = true;
      for (std::size_t j = 1; j <= 3; ++j) {
        char c = field[i + j];
        if (c < '0' || c > '7') octal = false;
        value = value * 8 + (c - '0');
      }
      if (octal) {
        result += static_cast<char>(value);
        i += 3;
        continue;
      }
    }
    result += field[i];
  }
  return result;
}

}  // namespace

std::vector<MountedVolume> Volumes::mounted() {
  std::vector<MountedVolume> volumes;
  std::ifstream mountInfo("/proc/self/mountinfo");
  std::string line;
  while (std::getline(mountInfo, line)) {
    std::istringstream fields(line);
    std::string id, parent, device, root, mountPoint;
    fields >> id >> parent >> device >> root >> mountPoint;
    std::size_t separator = line.find(" - ");
    if (mountPoint.empty() || separator == std::string::npos) continue;
    std::istringstream tail(line.substr(separator + 3));
    std::string format;
    tail >> format;
    volumes.push_back(
        {unescapedMountPoint(mountPoint), format, kPseudoFileSystems.count(format) != 0});
  }
  return volumes;
}

bool Volumes::capacity(const std::string& mountPoint, std::uint64_t* totalBytes,
                       std::uint64_t* freeBytes, std::string* error) {
  struct statvfs status {};
  if (::statvfs(mountPoint.c_str(), &status) != 0) {
    if (error) *error = systemErrorText(errno);
    return false;
  }
  *totalBytes = static_cast<std::uint64_t>(status.f_blocks) * status.f_frsize;
  *freeBytes = static_cast<std::uint64_t>(status.f_bavail) * status.f_frsize;
  return true;
}

}  // namespace ondrel
