// KTSUtilities gathers the stateless file-system and property-list operations every class uses:
// existence and size tests, creating, moving, copying and removing items, handing files to the
// service account, atomic writes, property-list reads, mounted volumes and catalog dates.
// Nothing throws: each operation reports by its result and logs the cause, mostly at debug
// level, through the shared logger. Thread-safe apart from the logger it writes to, and apart
// from ItemSizes, which keeps a folder open for a run of lookups.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "FileIO.h"
#include "Plist.h"
#include "Url.h"

namespace ondrel {

class KTSUtilities {
 public:
  // Owner and group "_ondrel".
  static const Plist& defaultFileAttributes();

  static bool fileExistsAtPath(const std::string& path);
  // Without a size: as fileExistsAtPath. With one: the item's size is readable and equal.
  static bool fileExistsAtPathWithSize(const std::string& path, std::optional<std::int64_t> size);
  static std::optional<std::int64_t> fileSizeAtPath(const std::string& path);
  // fileExistsAtPath and fileSizeAtPath in one look: the size of the item at path, none when
  // nothing exists there (a symbolic link exists when what it points to does).
  static std::optional<std::int64_t> sizeOfExistingItemAtPath(const std::string& path);
  // sizeOfExistingItemAtPath for a run of paths that mostly share their folder with the one
  // before: each folder is opened once and its items are looked up from it, which in a deep tree
  // costs a quarter less than resolving every path from the root. One thread.
  class ItemSizes {
   public:
    ItemSizes() = default;
    ItemSizes(const ItemSizes&) = delete;
    ItemSizes& operator=(const ItemSizes&) = delete;
    ~ItemSizes();
    std::optional<std::int64_t> sizeOfExistingItemAtPath(const std::string& path);

   private:
    std::string folder_;
    int folderDescriptor_ = -1;
  };
  static bool directoryExistsAtPath(const std::string& path);

  static bool removePath(const std::string& path);
  // Runs "/bin/rm -R path".
  static bool removeRecursivelyAtPath(const std::string& path);
  // Creates the folder and its missing parents, owned by the service account. Refuses to build a
  // tree under a "/Library/Server" that does not exist.
  static bool createDirectoryAtPath(const std::string& path);
  static bool setDefaultFileOwnerAtPath(const std::string& path);
  // Runs "/usr/sbin/chown -R _ondrel:_ondrel path".
  static bool setDefaultFileOwnerRecursivelyAtPath(const std::string& path);
  static bool setFilePermissionsAtPath(std::int64_t permissions, const std::string& path);
  // Both fail when the destination exists.
  static bool moveItemAtPathToPath(const std::string& source, const std::string& destination);
  static bool copyItemAtPathToPath(const std::string& source, const std::string& destination);

  // Atomic writes: another process sees the old file or the new one, never a part.
  static bool writeStringToPath(const std::string& text, const std::string& path);
  static bool writeArrayToPath(const Plist& array, const std::string& path);
  static bool writeDictionaryToPath(const Plist& dictionary, const std::string& path);
  // The same, except that a file that already holds this very document is left untouched (its
  // inode and time too, so that what readers cached of it stays valid).
  static bool writeDictionaryToPathUnlessUnchanged(const Plist& dictionary,
                                                   const std::string& path);
  static bool writePropertyListToPath(const Plist& value, const std::string& path);
  // Any property-list value, or a null value when the file cannot be read or parsed.
  // Files larger than maxBytes are not read.
  static Plist readPropertyListAtPath(const std::string& path,
                                      std::size_t maxBytes = kDefaultReadLimit);
  // The value the bytes of a property-list file hold, or a null value when they hold none.
  static Plist propertyListWithData(std::string_view bytes);

  static bool isMountedVolumeAtPath(const std::string& path);
  static std::optional<std::int64_t> getFreeSpaceForVolumeAtPath(const std::string& path);
  // A volume description ("path", "format", "totalSpace", "freeSpace"), or null.
  static Plist getMountedVolumeInfoForPath(const std::string& path);
  // The visible volumes of that format (all with none), or null when none qualifies.
  static Plist getMountedVolumeListForFormat(const std::optional<std::string>& format);

  // A date from a date, an RFC 3339 string or an archive-format string; none otherwise.
  static std::optional<Date> validDateForValue(const Plist& value);
  static std::optional<Date> dateWithRFC3339DateTimeString(const std::optional<std::string>& text);
  // Formats the current time, whatever date is given: callers use it to stamp "now".
  static std::string internationalDateTimeStringWithDate(Date date);
  static std::optional<Date> dateWithInternationalDateTimeString(const std::string& text);
};

}  // namespace ondrel
