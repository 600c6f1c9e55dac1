#include "KTSUtilities.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "Clock.h"
#include "DateFormats.h"
#include "FileIO.h"
#include "HostPaths.h"
#include "KTSLogger.h"
#include "PathString.h"
#include "TaskRunner.h"
#include "Volumes.h"

namespace ondrel {

namespace fs = std::filesystem;

namespace {

bool itemExists(const std::string& path, struct stat* status) {
  return ::stat(standardizingPath(path).c_str(), status) == 0;
}

bool destinationIsFree(const std::string& destination, std::string* reason) {
  struct stat status {};
  if (::lstat(destination.c_str(), &status) == 0) {
    *reason = systemErrorText(EEXIST);
    return false;
  }
  return true;
}

}  // namespace

const Plist& KTSUtilities::defaultFileAttributes() {
  static const Plist attributes = [] {
    Plist dictionary = Plist::dictionary();
    dictionary.set("ownerAccountName", kServiceAccount);
    dictionary.set("groupOwnerAccountName", kServiceAccount);
    return dictionary;
  }();
  return attributes;
}

bool KTSUtilities::fileExistsAtPath(const std::string& path) {
  struct stat status {};
  return itemExists(path, &status);
}

bool KTSUtilities::fileExistsAtPathWithSize(const std::string& path,
                                            std::optional<std::int64_t> size) {
  if (!size) return fileExistsAtPath(path);
  std::optional<std::int64_t> actual = fileSizeAtPath(path);
  return actual && *actual == *size;
}

std::optional<std::int64_t> KTSUtilities::fileSizeAtPath(const std::string& path) {
  struct stat status {};
  if (::lstat(standardizingPath(path).c_str(), &status) != 0) return std::nullopt;
  return static_cast<std::int64_t>(status.st_size);
}

namespace {

// The size of the item name inside the folder open as folderDescriptor (AT_FDCWD: a path from
// the working folder), none when nothing exists there; a link's own size, when what it points
// to exists.
std::optional<std::int64_t> sizeOfExistingItem(int folderDescriptor, const char* name) {
  struct stat status {};
  if (::fstatat(folderDescriptor, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
  struct stat linked {};
  if (S_ISLNK(status.st_mode) && ::fstatat(folderDescriptor, name, &linked, 0) != 0) {
    return std::nullopt;
  }
  return static_cast<std::int64_t>(status.st_size);
}

}  // namespace

std::optional<std::int64_t> KTSUtilities::sizeOfExistingItemAtPath(const std::string& path) {
  return sizeOfExistingItem(AT_FDCWD, standardizingPath(path).c_str());
}

KTSUtilities::ItemSizes::~ItemSizes() {
  if (folderDescriptor_ >= 0) ::close(folderDescriptor_);
}

std::optional<std::int64_t> KTSUtilities::ItemSizes::sizeOfExistingItemAtPath(
    const std::string& path) {
  std::string target = standardizingPath(path);
  std::size_t slash = target.rfind('/');
  if (slash == std::string::npos || slash == 0 || slash + 1 == target.size()) {
    return sizeOfExistingItem(AT_FDCWD, target.c_str());
  }
  std::string_view folder(target.data(), slash);
  if (folder != folder_) {
    if (folderDescriptor_ >= 0) ::close(folderDescriptor_);
    folder_ = folder;
    folderDescriptor_ = ::open(folder_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  }
  if (folderDescriptor_ < 0) return std::nullopt;
  return sizeOfExistingItem(folderDescriptor_, target.c_str() + slash + 1);
}

bool KTSUtilities::directoryExistsAtPath(const std::string& path) {
  struct stat status {};
  return itemExists(path, &status) && S_ISDIR(status.st_mode);
}

bool KTSUtilities::removePath(const std::string& path) {
  std::string target = standardizingPath(path);
  std::error_code error;
  struct stat status {};
  if (::lstat(target.c_str(), &status) != 0) {
    error = std::error_code(errno, std::generic_category());
  } else {
    fs::remove_all(target, error);
  }
  if (error) {
    LogHandle::shared().debug("UTIL: *** remove item failed! reason: {}", error.message());
    return false;
  }
  return true;
}

bool KTSUtilities::removeRecursivelyAtPath(const std::string& path) {
  if (TaskRunner::run("/bin/rm", {"-R", path}) != 0) {
    LogHandle::shared().debug("UTIL: *** remove directory tree (deep) failed!");
    return false;
  }
  return true;
}

bool KTSUtilities::createDirectoryAtPath(const std::string& path) {
  if (directoryExistsAtPath(path)) return true;
  LogHandle log = LogHandle::shared();
  static constexpr std::string_view kServerFolder = "/Library/Server";
  std::size_t found = path.find(kServerFolder);
  if (found != std::string::npos) {
    std::string serverRoot = path.substr(0, found + kServerFolder.size());
    if (!fileExistsAtPath(serverRoot)) {
      log.error("Error creating directory: {}, {} does not exist", path, serverRoot);
      return false;
    }
  }
  // Create each missing folder from the top down, so every new one can be given to the service,
  // starting below the deepest folder that exists (most often the new folder's parent).
  std::string target = standardizingPath(path);
  std::string partial = deletingLastPathComponent(target);
  while (!partial.empty() && partial != "/" && !directoryExistsAtPath(partial)) {
    partial = deletingLastPathComponent(partial);
  }
  // An absolute path always keeps "/"; a relative one may keep nothing.
  std::size_t start = partial.size() + (partial.empty() || partial == "/" ? 0 : 1);
  while (start <= target.size()) {
    std::size_t end = target.find('/', start);
    if (end == std::string::npos) end = target.size();
    partial = appendingPathComponent(partial, target.substr(start, end - start));
    start = end + 1;
    if (::mkdir(partial.c_str(), 0777) == 0) {
      setDefaultFileOwnerAtPath(partial);
    } else if (errno != EEXIST || !directoryExistsAtPath(partial)) {
      log.debug("UTIL: *** directory create failed! reason: {}",
                systemErrorText(errno == EEXIST ? ENOTDIR : errno));
      return false;
    }
  }
  return true;
}

bool KTSUtilities::setDefaultFileOwnerAtPath(const std::string& path) {
  std::string reason;
  if (!setServiceOwner(path, &reason)) {
    LogHandle::shared().debug("UTIL: warning - unable to set file owner. reason: {}", reason);
    return false;
  }
  return true;
}

bool KTSUtilities::setDefaultFileOwnerRecursivelyAtPath(const std::string& path) {
  if (TaskRunner::run("/usr/sbin/chown", {"-R", "_ondrel:_ondrel", path}) != 0) {
    LogHandle::shared().debug("UTIL: *** set file owner (deep) failed!");
    return false;
  }
  return true;
}

bool KTSUtilities::setFilePermissionsAtPath(std::int64_t permissions, const std::string& path) {
  if (::chmod(path.c_str(), static_cast<mode_t>(permissions)) != 0) {
    LogHandle::shared().debug("UTIL: *** set file perms failed! reason: {}",
                              systemErrorText(errno));
    return false;
  }
  return true;
}

bool KTSUtilities::moveItemAtPathToPath(const std::string& source, const std::string& destination) {
  std::string reason;
  if (destinationIsFree(destination, &reason)) {
    if (::rename(source.c_str(), destination.c_str()) == 0) return true;
    if (errno == EXDEV) {
      std::error_code error;
      fs::copy(source, destination, fs::copy_options::recursive | fs::copy_options::copy_symlinks,
               error);
      if (!error) fs::remove_all(source, error);
      if (!error) return true;
      reason = error.message();
    } else {
      reason = systemErrorText(errno);
    }
  }
  LogHandle::shared().debug("UTIL: *** move item failed! reason: {}", reason);
  return false;
}

bool KTSUtilities::copyItemAtPathToPath(const std::string& source, const std::string& destination) {
  std::string reason;
  if (destinationIsFree(destination, &reason)) {
    std::error_code error;
    fs::copy(source, destination, fs::copy_options::recursive | fs::copy_options::copy_symlinks,
             error);
    if (!error) return true;
    reason = error.message();
  }
  LogHandle::shared().debug("UTIL: *** copy item failed! reason: {}", reason);
  return false;
}

bool KTSUtilities::writeStringToPath(const std::string& text, const std::string& path) {
  std::string reason;
  if (!writeStringAtomically(path, text, &reason)) {
    LogHandle::shared().debug("UTIL: write string failed! reason: {}", reason);
    return false;
  }
  return true;
}

bool KTSUtilities::writeArrayToPath(const Plist& array, const std::string& path) {
  if (!array.isArray() || !array.writeXmlFile(path, nullptr)) {
    LogHandle::shared().debug("UTIL: array write failed!");
    return false;
  }
  return true;
}

bool KTSUtilities::writeDictionaryToPath(const Plist& dictionary, const std::string& path) {
  if (!dictionary.isDictionary() || !dictionary.writeXmlFile(path, nullptr)) {
    LogHandle::shared().debug("UTIL: dictionary write failed! Path = {}", path);
    return false;
  }
  return true;
}

bool KTSUtilities::writeDictionaryToPathUnlessUnchanged(const Plist& dictionary,
                                                        const std::string& path) {
  bool replaced = false;
  if (!dictionary.isDictionary() ||
      !dictionary.writeXmlFileUnlessUnchanged(path, &replaced, nullptr)) {
    LogHandle::shared().debug("UTIL: dictionary write failed! Path = {}", path);
    return false;
  }
  return true;
}

bool KTSUtilities::writePropertyListToPath(const Plist& value, const std::string& path) {
  if (value.isNull()) {
    LogHandle::shared().debug("UTIL: write property list data conversion failed! reason: {}",
                              "no value to write");
    return false;
  }
  std::string reason;
  if (!value.writeXmlFile(path, &reason)) {
    LogHandle::shared().debug("UTIL: write property list data write failed! reason: {}", reason);
    return false;
  }
  return true;
}

Plist KTSUtilities::readPropertyListAtPath(const std::string& path, std::size_t maxBytes) {
  std::string contents;
  std::string reason;
  if (!readWholeFile(path, &contents, &reason, maxBytes)) {
    LogHandle::shared().debug("UTIL: read property list data read failed! reason: {}", reason);
    return Plist();
  }
  return propertyListWithData(contents);
}

Plist KTSUtilities::propertyListWithData(std::string_view bytes) {
  std::string reason;
  std::optional<Plist> value = Plist::fromBytes(bytes, &reason);
  if (!value) {
    LogHandle::shared().debug("UTIL: read property list data conversion failed! reason: {}",
                              reason);
    return Plist();
  }
  return std::move(*value);
}

bool KTSUtilities::isMountedVolumeAtPath(const std::string& path) {
  return !getMountedVolumeInfoForPath(path).isNull();
}

std::optional<std::int64_t> KTSUtilities::getFreeSpaceForVolumeAtPath(const std::string& path) {
  Plist volume = getMountedVolumeInfoForPath(path);
  if (volume.isNull()) return std::nullopt;
  return volume["freeSpace"].integerValue();
}

Plist KTSUtilities::getMountedVolumeInfoForPath(const std::string& path) {
  if (path.rfind("/Network", 0) == 0) return Plist();
  Plist volumes = getMountedVolumeListForFormat(std::nullopt);
  for (const Plist& volume : volumes.elements()) {
    const std::string& mountPoint = volume["path"].stringValue();
    if (mountPoint.rfind("/Volumes", 0) == 0) {
      if (path.rfind(mountPoint, 0) == 0) return volume;
    } else if (path.rfind("/Volumes", 0) != 0) {
      return volume;
    }
  }
  return Plist();
}

Plist KTSUtilities::getMountedVolumeListForFormat(const std::optional<std::string>& format) {
  LogHandle log = LogHandle::shared();
  Plist list = Plist::array();
  for (const MountedVolume& volume : Volumes::mounted()) {
    if (volume.hidden) continue;
    if (volume.format.empty()) {
      log.debug("UTIL: can't access format description for volume: \"{}\" reason: {}",
                volume.mountPoint, "unknown file system");
      continue;
    }
    if (format && volume.format != *format) continue;
    std::uint64_t total = 0, available = 0;
    std::string reason;
    if (!Volumes::capacity(volume.mountPoint, &total, &available, &reason)) {
      log.debug("UTIL: can't access total space for volume: \"{}\" reason: {}", volume.mountPoint,
                reason);
      continue;
    }
    Plist description = Plist::dictionary();
    description.set("path", volume.mountPoint);
    description.set("format", volume.format);
    description.set("totalSpace", Plist::integer(static_cast<std::int64_t>(total)));
    description.set("freeSpace", Plist::integer(static_cast<std::int64_t>(available)));
    list.append(std::move(description));
  }
  return list.size() == 0 ? Plist() : list;
}

std::optional<Date> KTSUtilities::validDateForValue(const Plist& value) {
  if (value.isDate()) return value.dateValue();
  LogHandle log = LogHandle::shared();
  if (value.isString()) {
    if (std::optional<Date> date = dateWithRFC3339DateTimeString(value.stringValue())) {
      log.debug("Created substitute NSDate from source RFC 3339 date format \"{}\"", value);
      return date;
    }
    if (std::optional<Date> date = dateWithInternationalDateTimeString(value.stringValue())) {
      log.debug("Created substitute NSDate from source archive date format \"{}\"", value);
      return date;
    }
  }
  log.debug("Unable to create NSDate - unrecognized source date format \"{}\"", value);
  return std::nullopt;
}

std::optional<Date> KTSUtilities::dateWithRFC3339DateTimeString(
    const std::optional<std::string>& text) {
  if (!text || text->empty()) return std::nullopt;
  return parseRfc3339Date(*text);
}

std::string KTSUtilities::internationalDateTimeStringWithDate(Date) {
  return formatArchiveDate(Clock::now());
}

std::optional<Date> KTSUtilities::dateWithInternationalDateTimeString(const std::string& text) {
  return parseArchiveDate(text);
}

}  // namespace ondrel
