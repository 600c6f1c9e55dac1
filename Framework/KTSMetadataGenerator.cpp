#include "KTSMetadataGenerator.h"

#include "KTCatalogKeys.h"
#include "KTSPath.h"

namespace ondrel {

KTSMetadataGenerator::KTSMetadataGenerator(const KTSServerLayout& layout)
    : layout_(layout), log_(LogHandle::shared()) {}

Plist KTSMetadataGenerator::createMetadataWithDictionaryIdentifier(const Plist& dictionary,
                                                                   const std::string& identifier) {
  productIdentifier_ = identifier;
  productDictionary_ = dictionary;
  smdResult_ = 0;
  initReferenceProduct();
  Plist metadata;
  if (smdResult_ == 0) {
    metadata = Plist::dictionary();
    if (const std::optional<std::string>& version = referenceProduct_->displayVersion()) {
      metadata.set("CFBundleShortVersionString", *version);
    }
    metadata.set("IFPkgFlagInstalledSize", getDownloadSize());
    metadata.set("IFPkgFlagRestartAction", getRestartActionDescription());
    metadata.set("localization", getLocalizedStrings());
  }
  referenceProduct_.reset();
  productDictionary_ = Plist();
  productIdentifier_.reset();
  return metadata;
}

void KTSMetadataGenerator::initReferenceProduct() {
  KTProductForKTS::Error error;
  referenceProduct_ = KTProductForKTS::initWithProductKeyCatalogProductDictionaryLocalization(
      productIdentifier_.value_or(""), productDictionary_, std::nullopt,
      [this](const Url& url) { return KTSPath(url).asLocalPath(layout_); }, &error);
  if (referenceProduct_) return;
  log_.debug("MGEN: {} KTProductForKTS init failed; reason: ({}) \"{}\"",
             productIdentifier_.value_or(""), error.code, error.description);
  smdResult_ = error.code == KTProductForKTS::kErrorNoDistribution ? -2 : -1;
}

Plist KTSMetadataGenerator::getDownloadSize() const {
  std::int64_t total = 0;
  for (const Plist& package : productDictionary_[KTCatalogProductPackagesKey].elements()) {
    total += package[KTCatalogPackageSizeKey].integerValue();
  }
  return Plist::integer(total);
}

std::string KTSMetadataGenerator::getRestartActionDescription() const {
  switch (referenceProduct_ ? referenceProduct_->restartAction() : 0) {
    case 1:
      return "RecommendRestart";
    case 2:
      return "RequireLogout";
    case 3:
      return "RequireRestart";
    case 4:
      return "RequireShutdown";
    default:
      return "NoRestart";
  }
}

Plist KTSMetadataGenerator::getLocalizedStrings() const {
  Plist strings = Plist::dictionary();
  const std::string identifier = productIdentifier_.value_or("");
  for (const auto& [language, url] :
       productDictionary_[KTCatalogProductDistributionsDictKey].items()) {
    Plist localized = Plist::dictionary();
    std::optional<std::string> title =
        referenceProduct_ ? referenceProduct_->displayName() : std::nullopt;
    if (title) {
      localized.set("title", *title);
    } else {
      localized.set("title", "*MISSING*");
      log_.error("Can't find locale display name ({}) for product {}.", language, identifier);
    }
    std::optional<Plist::Bytes> description =
        referenceProduct_ ? referenceProduct_->descriptionDataReturningMIMEType(nullptr)
                          : std::nullopt;
    if (description) {
      localized.set("description", Plist::data(std::move(*description)));
    } else {
      localized.set("description", "*MISSING*");
      log_.error("Can't find locale description ({}) for product {}.", language, identifier);
    }
    strings.set(language, std::move(localized));
  }
  return strings;
}

}  // namespace ondrel
