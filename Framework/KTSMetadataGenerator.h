// KTSMetadataGenerator writes substitute server metadata for a product whose catalog entry names
// none: it asks the update-client product class to interpret the entry (display version, name,
// description, restart action) and builds the metadata dictionary from that. KTSProduct makes
// one for each generation; its fields hold one generation at a time. It reads the distribution
// files where the server's layout puts them. One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "KTProductForKTS.h"
#include "KTSLogger.h"
#include "KTSServerLayout.h"
#include "Plist.h"

namespace ondrel {

class KTSMetadataGenerator {
 public:
  // Requires: layout outlives the generator.
  explicit KTSMetadataGenerator(const KTSServerLayout& layout);

  // The generated dictionary, or null; smdResult() then says why (-1 the entry could not be
  // interpreted, -2 it has no distribution file).
  Plist createMetadataWithDictionaryIdentifier(const Plist& dictionary,
                                               const std::string& identifier);

  // The steps of a generation, usable alone once identifier and dictionary are set.
  void initReferenceProduct();
  Plist getDownloadSize() const;
  std::string getRestartActionDescription() const;
  Plist getLocalizedStrings() const;

  std::int64_t smdResult() const { return smdResult_; }
  void setSmdResult(std::int64_t result) { smdResult_ = result; }
  const std::optional<std::string>& productIdentifier() const { return productIdentifier_; }
  void setProductIdentifier(std::optional<std::string> id) { productIdentifier_ = std::move(id); }
  const Plist& productDictionary() const { return productDictionary_; }
  void setProductDictionary(Plist dictionary) { productDictionary_ = std::move(dictionary); }
  const KTProductForKTS* referenceProduct() const { return referenceProduct_.get(); }
  const LogHandle& logger() const { return log_; }

 private:
  std::int64_t smdResult_ = 0;
  std::optional<std::string> productIdentifier_;
  Plist productDictionary_;
  std::unique_ptr<KTProductForKTS> referenceProduct_;
  const KTSServerLayout& layout_;
  LogHandle log_;
};

}  // namespace ondrel
