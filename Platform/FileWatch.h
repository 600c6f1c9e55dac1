// FileWatch tells cheaply whether a file may have changed since it was last asked: the kernel
// reports every change among the entries of the file's folder (inotify), so asking costs one
// read that finds nothing instead of a look-up of the whole path. Where no watch can be set up
// (the folder does not exist yet, the kernel refuses one) it answers "may have changed" every
// time, and its caller looks at the file itself. A folder that is moved away together with one
// of its parents is not noticed. Used by KTSLogger for the user-defaults file. One thread.
#pragma once

#include <string>

namespace ondrel {

class FileWatch {
 public:
  FileWatch() = default;
  ~FileWatch();
  FileWatch(const FileWatch&) = delete;
  FileWatch& operator=(const FileWatch&) = delete;

  // True unless path is the path of the last call and nothing was created, written, renamed,
  // deleted or had its attributes changed under its name since then.
  bool mayHaveChanged(const std::string& path);

 private:
  void watch();
  void stopWatching();
  // Reads the reported changes; true when one concerns the file or the watch ended.
  bool drainChanges();

  std::string path_;
  std::string fileName_;
  int descriptor_ = -1;
};

}  // namespace ondrel
