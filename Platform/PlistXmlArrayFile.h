// A property-list document whose root is an array, written element by element into a file that
// is placed atomically when finished, so that a large array is never held in memory. Several can
// be written side by side, and the text of an element, made once with elementText, can go into
// each of them: the product caches of catalogs that list the same products are written so.
// Gives the same bytes as Plist::writeXmlFile of the whole array. One owner, one thread.
#pragma once

#include <string>
#include <string_view>

#include "FileIO.h"
#include "Plist.h"

namespace ondrel {

class PlistXmlArrayFile {
 public:
  explicit PlistXmlArrayFile(const std::string& path);

  // The text value has as an element of the array (replacing what text held).
  static void elementText(const Plist& value, std::string* text);

  void appendText(std::string_view elementText);
  // Ends the array and renames the file into place; durable, after its bytes reached the disk.
  // False, with the reason, when any write failed (the file is then left as it was).
  bool finish(bool durable, std::string* error);

 private:
  void put(std::string_view text);

  AtomicFileWrite write_;
  bool empty_ = true;
};

}  // namespace ondrel
