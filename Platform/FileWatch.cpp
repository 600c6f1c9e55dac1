#include "FileWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cstring>

#include "PathString.h"

namespace ondrel {

namespace {

constexpr std::uint32_t kWatchedChanges = IN_CREATE | IN_DELETE | IN_MODIFY | IN_ATTRIB |
                                          IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO |
                                          IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// Anything that ends the watch or loses events means the file must be looked at.
constexpr std::uint32_t kWatchLost = IN_Q_OVERFLOW | IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF;

}  // namespace

FileWatch::~FileWatch() { stopWatching(); }

bool FileWatch::mayHaveChanged(const std::string& path) {
  if (path != path_) {
    stopWatching();
    path_ = path;
    fileName_ = lastPathComponent(path);
    watch();
    return true;
  }
  if (descriptor_ < 0) {
    watch();
    return true;
  }
  return drainChanges();
}

void FileWatch::watch() {
  descriptor_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (descriptor_ < 0) return;
  std::string folder = deletingLastPathComponent(path_);
  if (inotify_add_watch(descriptor_, folder.empty() ? "." : folder.c_str(), kWatchedChanges) < 0) {
    stopWatching();
  }
}

void FileWatch::stopWatching() {
  if (descriptor_ >= 0) ::close(descriptor_);
  descriptor_ = -1;
}

bool FileWatch::drainChanges() {
  bool changed = false;
  bool lost = false;
  alignas(inotify_event) char buffer[4096];
  for (;;) {
    ssize_t length = ::read(descriptor_, buffer, sizeof buffer);
    if (length <= 0) break;
    for (ssize_t offset = 0; offset < length;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
      if (event->mask & kWatchLost) lost = true;
      if (event->len > 0 && std::strcmp(event->name, fileName_.c_str()) == 0) changed = true;
      offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
  if (lost) stopWatching();
  return changed || lost;
}

}  // namespace ondrel
