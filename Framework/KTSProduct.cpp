// The product record: construction from a catalog entry, states, comparisons and the archive
// form kept by the product index cache.
#include "KTSProduct.h"

#include "Clock.h"
#include "KTCatalogKeys.h"
#include "KTSPassMemo.h"
#include "KTSServerMetadata.h"
#include "KTSUtilities.h"
#include "ProductId.h"

namespace ondrel {

namespace {

const std::string kNoId;

std::optional<std::string> optionalString(const Plist& value) {
  if (!value.isString()) return std::nullopt;
  return value.stringValue();
}

}  // namespace

std::shared_ptr<KTSProduct>
KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
    const std::string& productId, const Plist& dictionary,
    const std::optional<Url>& serverMetadataURL, KTSPassServices pass) {
  return std::make_shared<KTSProduct>(productId, dictionary, serverMetadataURL, pass);
}

std::shared_ptr<KTSProduct> KTSProduct::productWithArchiveRepresentation(
    const Plist& archive, const KTSServerLayout& layout) {
  return std::make_shared<KTSProduct>(archive, layout);
}

KTSProduct::KTSProduct(const std::string& productId, const Plist& dictionary,
                       const std::optional<Url>& serverMetadataURL, KTSPassServices pass)
    : initStatus_(1),
      masterRepresentation_(dictionary),
      layout_(pass.layout),
      log_(LogHandle::shared()) {
  facts_->productId = productId;
  // The id becomes part of file names: one that could name another folder is never used.
  if (!isValidProductId(productId)) {
    log_.error("Refusing product with an invalid product id: \"{}\"", productId);
    initStatus_ = 0;
    return;
  }
  if (!serverMetadataURL) {
    log_.debug("PROD: {}: * * * WARNING! Missing smdURL for product init.", productId);
  }
  KTSServerMetadata found(productId, masterRepresentation_, *layout_, log_);
  Plist metadata = found.getServerMetadataForURL(serverMetadataURL, pass);
  // Nothing shares the facts of a product being made.
  facts_->smdPath = found.smdPath();
  if (found.productIsDead()) initStatus_ = -1;
  if (!metadata.isDictionary()) {
    log_.error("Unable to download or create .smd file for product {}.", productId);
    log_.error("Product {} will not be available for installation.", productId);
    if (initStatus_ == 1) initStatus_ = 0;
    return;
  }
  Facts& facts = *facts_;
  facts.version = optionalString(metadata["CFBundleShortVersionString"]);
  facts.localization = metadata["localization"];
  if (!metadata.contains("localization")) {
    log_.debug("PROD: ERROR - Product SMD file missing key (localization).");
    log_.error("*** Product missing essential data (SMD).");
  }
  // Within a pass, equal values of one product share their storage.
  KTSPassMemo* memo = pass.memo;
  auto shared = [&](KTSPassMemo::ProductValue kind, Plist value) {
    return memo != nullptr ? memo->shareEqualValue(productId, kind, std::move(value)) : value;
  };
  facts.bundleNames = shared(KTSPassMemo::ProductValue::BundleNames,
                             KTSServerMetadata::getServerMetadataBundleTitles(metadata));
  facts.descriptions = shared(KTSPassMemo::ProductValue::Descriptions,
                              KTSServerMetadata::getServerMetadataDescriptions(metadata));

  const Plist& posted = dictionary[KTCatalogProductPostDateKey];
  facts.postDate = KTSUtilities::validDateForValue(posted);
  if (!facts.postDate) {
    log_.debug("PROD: WARNING - Product posting date cannot be converted into NSDate value.");
    log_.warning(
        "*** Product ID: \"{}\" posted date value is not a valid date format. (value = "
        "\"{}\")",
        productId, posted);
    log_.info("*** Product ID: \"{}\" will assume posting date of 'now'.", productId);
    facts.postDate = Clock::now();
    facts.postDateAssumed = true;
  }

  facts.productFamily = optionalString(metadata["IFPkgFlagProductFamily"]);
  if (!facts.productFamily) deriveProductFamily();
  facts.deprecatedProducts = dictionary["DeprecatedProducts"];
  facts.deprecators = dictionary["Deprecators"];
  if (facts.installedSize.isNull()) facts.installedSize = metadata["IFPkgFlagInstalledSize"];
  if (!facts.restartAction) {
    facts.restartAction = optionalString(metadata["IFPkgFlagRestartAction"]);
  }
  adoptMadeMirrorFiles(shared(KTSPassMemo::ProductValue::MirrorFiles, makeMirrorFiles()));
  state_.progress().totalDownloadSize = getTotalMirrorSize();
}

void KTSProduct::deriveProductFamily() {
  Facts& facts = mutableFacts();
  const Plist* language = nullptr;
  for (const char* name : {"English", "en"}) {
    if (facts.localization.contains(name)) {
      language = &facts.localization[name];
      break;
    }
  }
  if (language == nullptr) return;
  facts.productFamily = optionalString((*language)["title"]);
  if (!facts.productFamily || !facts.version) return;
  const std::string& version = *facts.version;
  if (facts.productFamily->rfind("Vantor OS", 0) != 0 || version.rfind("10", 0) != 0 ||
      version.rfind("10.4", 0) == 0) {
    return;
  }
  std::size_t dot = version.find('.');
  if (dot == std::string::npos) return;
  std::string second = version.substr(dot + 1, version.find('.', dot + 1) - dot - 1);
  facts.productFamily = fmt::format("{} (10.{})", *facts.productFamily, second);
  log_.debug("PROD: disambiguated family \"{}\"", *facts.productFamily);
}

KTSProduct::KTSProduct(const Plist& archive, const KTSServerLayout& layout)
    : layout_(&layout), log_(LogHandle::shared()) {
  restoreFromArchiveRepresentation(archive);
}

const std::string& KTSProduct::id() const { return facts_->productId ? *facts_->productId : kNoId; }

std::int64_t KTSProduct::getCompositeProductState() const {
  return masterRepresentation_["CompositeProductState"].integerValue();
}

std::string KTSProduct::getEffectiveRestartAction() const {
  if (state_.isDownloading()) return "IncompleteDownload";
  return facts_->restartAction.value_or("NoRestart");
}

Plist KTSProduct::archiveRepresentation() const {
  Plist archive = Plist::dictionary();
  archive.set("mirror", state_.mirrorDescription());
  archive.set("enabled", Plist::boolean(state_.enabled()));
  archive.set("enableWhenMirrored", Plist::boolean(state_.enableWhenMirrored()));
  if (state_.fetchPolicy() != KTSProductState::FetchPolicy::Immediate) {
    archive.set("fetchPolicy", KTSProductState::fetchPolicyName(state_.fetchPolicy()));
  }
  auto setIfPresent = [&archive](const char* key, const Plist& value) {
    if (!value.isNull()) archive.set(key, value);
  };
  auto setStringIfPresent = [&archive](const char* key, const std::optional<std::string>& value) {
    if (value) archive.set(key, *value);
  };
  setStringIfPresent("productId", facts_->productId);
  setStringIfPresent("productFamily", facts_->productFamily);
  setStringIfPresent("version", facts_->version);
  setIfPresent("installedSize", facts_->installedSize);
  if (facts_->postDate) archive.set("postDate", Plist::date(*facts_->postDate));
  setStringIfPresent("restartAction", facts_->restartAction);
  setIfPresent("deprecatedProducts", facts_->deprecatedProducts);
  setIfPresent("deprecators", facts_->deprecators);
  setIfPresent("bundleNames", facts_->bundleNames);
  setIfPresent("descriptions", facts_->descriptions);
  setIfPresent("localization", facts_->localization);
  setIfPresent("masterRepresentation", masterRepresentation_);
  setIfPresent("totalDownloadSize", state_.progress().totalDownloadSize);
  setIfPresent("downloadedSize", state_.progress().downloadedSize);
  archive.set("downloadStatus", Plist::integer(state_.progress().downloadStatus));
  if (facts_->smdPath && facts_->smdPath->parentServerURL()) {
    archive.set("smdPath", facts_->smdPath->parentServerURL()->text());
  } else {
    log_.debug("PROD: {}: * * * WARNING! Missing smdURL (smdPath) for generated archive.", id());
  }
  if (facts_->mirrorFiles.size() == 0) return archive;

  if (!facts_->mirrorFilesArchivable) {
    log_.error("*** Internal error creating cache data for product {}.", id());
    log_.debug("PROD: {}: archive failed! Reason: {}", id(),
               "a mirror file record has no usable URL or local path");
    return Plist();
  }
  // A record holds just what its archive keeps: the URL, the local path, the size and whether
  // to replace the file.
  archive.set("mirrorFiles", facts_->mirrorFiles);
  return archive;
}

void KTSProduct::setMirrorFiles(Plist files) {
  Facts& facts = mutableFacts();
  facts.mirrorFiles = std::move(files);
  facts.mirrorFilesArchivable = true;
  for (const Plist& record : facts.mirrorFiles.elements()) {
    const Plist& url = record[kFileURLKey];
    if (!url.isString() || !Url::parse(url.stringValue()) ||
        !record[kFileLocalPathKey].isString()) {
      facts.mirrorFilesArchivable = false;
      return;
    }
  }
}

// A record made from the catalog has a local path exactly when its URL parsed, so that the
// URLs need not be parsed a second time here.
void KTSProduct::adoptMadeMirrorFiles(Plist files) {
  Facts& facts = mutableFacts();
  facts.mirrorFiles = std::move(files);
  facts.mirrorFilesArchivable = true;
  for (const Plist& record : facts.mirrorFiles.elements()) {
    if (record[kFileLocalPathKey].stringValue().empty()) {
      facts.mirrorFilesArchivable = false;
      return;
    }
  }
}

void KTSProduct::restoreFromArchiveRepresentation(const Plist& archive) {
  Facts& facts = mutableFacts();
  facts.productId = optionalString(archive["productId"]);
  for (const char* key : {"mirror", "enabled", "enableWhenMirrored"}) {
    if (!archive.contains(key)) {
      log_.debug("PROD: {}: * * * WARNING! Missing archive value: {}.", id(), key);
      break;
    }
  }
  state_.restore(KTSProductState::mirrorStateForString(optionalString(archive["mirror"])),
                 archive["enabled"].boolValue());
  state_.restorePendingEnable(archive["enableWhenMirrored"].boolValue());
  state_.restoreFetchPolicy(archive["fetchPolicy"]);
  facts.productFamily = optionalString(archive["productFamily"]);
  facts.version = optionalString(archive["version"]);
  facts.deprecatedProducts = archive["deprecatedProducts"];
  facts.deprecators = archive["deprecators"];
  facts.bundleNames = archive["bundleNames"];
  facts.descriptions = archive["descriptions"];
  facts.installedSize = archive["installedSize"];
  facts.localization = archive["localization"];
  facts.postDate = archive["postDate"].dateValue();
  facts.restartAction = optionalString(archive["restartAction"]);
  masterRepresentation_ = archive["masterRepresentation"];
  state_.progress().totalDownloadSize = archive["totalDownloadSize"];
  state_.progress().downloadedSize = archive["downloadedSize"];
  state_.progress().downloadStatus = archive["downloadStatus"].integerValue();
  if (archive["smdPath"].isString()) {
    facts.smdPath =
        std::make_shared<const KTSPath>(KTSPath::pathWithString(archive["smdPath"].stringValue()));
  } else {
    log_.debug("PROD: {}: * * * WARNING! Missing archive value: smdPath.", id());
  }
  if (archive["mirrorFiles"].size() == 0) return;
  Plist files = Plist::array();
  for (const Plist& archived : archive["mirrorFiles"].elements()) {
    Plist record = Plist::dictionary();
    record.set(kFileURLKey, archived[kFileURLKey]);
    record.set(kFileLocalPathKey, archived[kFileLocalPathKey]);
    if (archived.contains(kFileSizeKey)) record.set(kFileSizeKey, archived[kFileSizeKey]);
    if (archived.contains(kFileReplaceKey)) record.set(kFileReplaceKey, archived[kFileReplaceKey]);
    files.append(std::move(record));
  }
  setMirrorFiles(std::move(files));
}

}  // namespace ondrel
