// Mounted file systems of this host, read from /proc/self/mountinfo, with capacities from
// statvfs. Pseudo file systems (proc, sysfs, cgroup, tmpfs and the like) count as hidden.
// Thread-safe: no shared state.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ondrel {

struct MountedVolume {
  std::string mountPoint;
  std::string format;  // the file-system type, e.g. "ext4"
  bool hidden = false;
};

namespace Volumes {
// In the system's order.
std::vector<MountedVolume> mounted();
// Total and available bytes; false with the system's reason when statvfs fails.
bool capacity(const std::string& mountPoint, std::uint64_t* totalBytes, std::uint64_t* freeBytes,
              std::string* error);
}  // namespace Volumes

}  // namespace ondrel
