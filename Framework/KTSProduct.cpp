// The product record: construction from a catalog entry, states, comparisons and the archive
// form kept by the product index cache.
#include "KTSProduct.h"

#include "Clock.h"
#include "KTCatalogKeys.h"
#include "KTSPassMemo.h"
#include "KTSUtilities.h"
#include "ProductId.h"

namespace ondrel {

namespace {

constexpr const char* kMirrorStateNames[] = {"DoNotMirror",   "PleaseMirror",    "Downloading",
                                             "Mirrored",      "LocalOnly",       "LocalDeprecated",
                                             "LocalOrphaned", "LocalNotMirrored"};

const std::string kNoId;

std::optional<std::string> optionalString(const Plist& value) {
  if (!value.isString()) return std::nullopt;
  return value.stringValue();
}

}  // namespace

std::shared_ptr<KTSProduct>
KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
    const std::string& productId, const Plist& dictionary,
    const std::optional<Url>& serverMetadataURL) {
  return std::make_shared<KTSProduct>(productId, dictionary, serverMetadataURL);
}

std::shared_ptr<KTSProduct> KTSProduct::productWithArchiveRepresentation(const Plist& archive) {
  return std::make_shared<KTSProduct>(archive);
}

std::int32_t KTSProduct::mirrorStateForString(const std::optional<std::string>& name) {
  if (!name) return DoNotMirror;
  for (std::int32_t state = 0; state <= LocalNotMirrored; ++state) {
    if (*name == kMirrorStateNames[state]) return state;
  }
  return DoNotMirror;
}

std::string KTSProduct::mirrorStringForState(std::int64_t state) {
  if (state < PleaseMirror || state > LocalNotMirrored) return kMirrorStateNames[DoNotMirror];
  return kMirrorStateNames[state];
}

// One list for every product: a catalog makes tens of thousands of them in a pass.
const std::shared_ptr<const std::vector<std::string>>& KTSProduct::requiredServerMetadataKeys() {
  static const auto keys =
      std::make_shared<const std::vector<std::string>>(std::vector<std::string>{
          "IFPkgFlagInstalledSize", "IFPkgFlagRestartAction", "localization", "platforms"});
  return keys;
}

KTSProduct::KTSProduct(const std::string& productId, const Plist& dictionary,
                       const std::optional<Url>& serverMetadataURL)
    : initStatus_(1),
      productId_(productId),
      masterRepresentation_(dictionary),
      smdValidationKeys_(requiredServerMetadataKeys()),
      log_(LogHandle::shared()) {
  // The id becomes part of file names: one that could name another folder is never used.
  if (!isValidProductId(productId)) {
    log_.error("Refusing product with an invalid product id: \"{}\"", productId);
    initStatus_ = 0;
    return;
  }
  if (!serverMetadataURL) {
    log_.debug("PROD: {}: * * * WARNING! Missing smdURL for product init.", productId);
  }
  Plist metadata = getServerMetadataForURL(serverMetadataURL);
  if (!metadata.isDictionary()) {
    log_.error("Unable to download or create .smd file for product {}.", productId);
    log_.error("Product {} will not be available for installation.", productId);
    if (initStatus_ == 1) initStatus_ = 0;
    return;
  }
  version_ = optionalString(metadata["CFBundleShortVersionString"]);
  localization_ = metadata["localization"];
  if (!metadata.contains("localization")) {
    log_.debug("PROD: ERROR - Product SMD file missing key (localization).");
    log_.error("*** Product missing essential data (SMD).");
  }
  bundleNames_ = KTSPassMemo::shareEqualValue(productId + "\nbundleNames",
                                              getServerMetadataBundleTitles(metadata));
  descriptions_ = KTSPassMemo::shareEqualValue(productId + "\ndescriptions",
                                               getServerMetadataDescriptions(metadata));

  const Plist& posted = dictionary[KTCatalogProductPostDateKey];
  postDate_ = KTSUtilities::validDateForValue(posted);
  if (!postDate_) {
    log_.debug("PROD: WARNING - Product posting date cannot be converted into NSDate value.");
    log_.warning(
        "*** Product ID: \"{}\" posted date value is not a valid date format. (value = "
        "\"{}\")",
        productId, posted);
    log_.info("*** Product ID: \"{}\" will assume posting date of 'now'.", productId);
    postDate_ = Clock::now();
  }

  productFamily_ = optionalString(metadata["IFPkgFlagProductFamily"]);
  if (!productFamily_) deriveProductFamily();
  deprecatedProducts_ = dictionary["DeprecatedProducts"];
  deprecators_ = dictionary["Deprecators"];
  if (installedSize_.isNull()) installedSize_ = metadata["IFPkgFlagInstalledSize"];
  if (!restartAction_) restartAction_ = optionalString(metadata["IFPkgFlagRestartAction"]);
  mirror_ = DoNotMirror;
  enabled_ = false;
  mirrorFiles_ = KTSPassMemo::shareEqualValue(productId + "\nmirrorFiles", makeMirrorFiles());
  totalDownloadSize_ = getTotalMirrorSize();
}

void KTSProduct::deriveProductFamily() {
  const Plist* language = nullptr;
  for (const char* name : {"English", "en"}) {
    if (localization_.contains(name)) {
      language = &localization_[name];
      break;
    }
  }
  if (language == nullptr) return;
  productFamily_ = optionalString((*language)["title"]);
  if (!productFamily_ || !version_) return;
  const std::string& version = *version_;
  if (productFamily_->rfind("Vantor OS", 0) != 0 || version.rfind("10", 0) != 0 ||
      version.rfind("10.4", 0) == 0) {
    return;
  }
  std::size_t dot = version.find('.');
  if (dot == std::string::npos) return;
  std::string second = version.substr(dot + 1, version.find('.', dot + 1) - dot - 1);
  productFamily_ = fmt::format("{} (10.{})", *productFamily_, second);
  log_.debug("PROD: disambiguated family \"{}\"", *productFamily_);
}

KTSProduct::KTSProduct(const Plist& archive) : log_(LogHandle::shared()) {
  restoreFromArchiveRepresentation(archive);
}

const std::string& KTSProduct::id() const { return productId_ ? *productId_ : kNoId; }

bool KTSProduct::isEqualState(const KTSProduct& other, std::string* changedKey) const {
  const char* changed = nullptr;
  if (mirror_ != other.mirror_) {
    changed = "mirror";
  } else if (enabled_ != other.enabled_) {
    changed = "enabled";
  } else if (enableWhenMirrored_ != other.enableWhenMirrored_) {
    changed = "enableWhenMirrored";
  }
  if (changedKey) *changedKey = changed ? changed : "";
  return changed == nullptr;
}

void KTSProduct::setStateWithProduct(const KTSProduct& other) {
  mirror_ = other.mirror_;
  enabled_ = other.enabled_;
  enableWhenMirrored_ = other.enableWhenMirrored_;
}

std::int64_t KTSProduct::getCompositeProductState() const {
  return masterRepresentation_["CompositeProductState"].integerValue();
}

bool KTSProduct::applyPendingEnable() {
  if (mirror_ < Mirrored || !enableWhenMirrored_ || enabled_) return false;
  enabled_ = true;
  enableWhenMirrored_ = false;
  log_.debug("PROD: {}: applied requested enable", id());
  return true;
}

std::string KTSProduct::getEffectiveRestartAction() const {
  if (isDownloading()) return "IncompleteDownload";
  return restartAction_.value_or("NoRestart");
}

int KTSProduct::reversePostDateCompare(const KTSProduct& other) const {
  if (postDate_ == other.postDate_) return 0;
  return postDate_ > other.postDate_ ? -1 : 1;
}

Plist KTSProduct::archiveRepresentation() const {
  Plist archive = Plist::dictionary();
  archive.set("mirror", mirrorStateDescription());
  archive.set("enabled", Plist::boolean(enabled_));
  archive.set("enableWhenMirrored", Plist::boolean(enableWhenMirrored_));
  auto setIfPresent = [&archive](const char* key, const Plist& value) {
    if (!value.isNull()) archive.set(key, value);
  };
  auto setStringIfPresent = [&archive](const char* key, const std::optional<std::string>& value) {
    if (value) archive.set(key, *value);
  };
  setStringIfPresent("productId", productId_);
  setStringIfPresent("productFamily", productFamily_);
  setStringIfPresent("version", version_);
  setIfPresent("installedSize", installedSize_);
  if (postDate_) archive.set("postDate", Plist::date(*postDate_));
  setStringIfPresent("restartAction", restartAction_);
  setIfPresent("deprecatedProducts", deprecatedProducts_);
  setIfPresent("deprecators", deprecators_);
  setIfPresent("bundleNames", bundleNames_);
  setIfPresent("descriptions", descriptions_);
  setIfPresent("localization", localization_);
  setIfPresent("masterRepresentation", masterRepresentation_);
  setIfPresent("totalDownloadSize", totalDownloadSize_);
  setIfPresent("downloadedSize", downloadedSize_);
  archive.set("downloadStatus", Plist::integer(downloadStatus_));
  if (smdPath_ && smdPath_->parentServerURL()) {
    archive.set("smdPath", smdPath_->parentServerURL()->text());
  } else {
    log_.debug("PROD: {}: * * * WARNING! Missing smdURL (smdPath) for generated archive.", id());
  }
  if (mirrorFiles_.size() == 0) return archive;

  Plist files = Plist::array();
  for (const Plist& record : mirrorFiles_.elements()) {
    const Plist& url = record[kFileURLKey];
    const Plist& localPath = record[kFileLocalPathKey];
    if (!url.isString() || !Url::parse(url.stringValue()) || !localPath.isString()) {
      log_.error("*** Internal error creating cache data for product {}.", id());
      log_.debug("PROD: {}: archive failed! Reason: {}", id(),
                 "a mirror file record has no usable URL or local path");
      return Plist();
    }
    Plist archived = Plist::dictionary();
    archived.set(kFileURLKey, url);
    archived.set(kFileLocalPathKey, localPath);
    if (record.contains(kFileSizeKey)) archived.set(kFileSizeKey, record[kFileSizeKey]);
    if (record.contains(kFileReplaceKey)) archived.set(kFileReplaceKey, record[kFileReplaceKey]);
    files.append(std::move(archived));
  }
  archive.set("mirrorFiles", std::move(files));
  return archive;
}

void KTSProduct::restoreFromArchiveRepresentation(const Plist& archive) {
  productId_ = optionalString(archive["productId"]);
  for (const char* key : {"mirror", "enabled", "enableWhenMirrored"}) {
    if (!archive.contains(key)) {
      log_.debug("PROD: {}: * * * WARNING! Missing archive value: {}.", id(), key);
      break;
    }
  }
  mirror_ = mirrorStateForString(optionalString(archive["mirror"]));
  enabled_ = archive["enabled"].boolValue();
  enableWhenMirrored_ = archive["enableWhenMirrored"].boolValue();
  productFamily_ = optionalString(archive["productFamily"]);
  version_ = optionalString(archive["version"]);
  deprecatedProducts_ = archive["deprecatedProducts"];
  deprecators_ = archive["deprecators"];
  bundleNames_ = archive["bundleNames"];
  descriptions_ = archive["descriptions"];
  installedSize_ = archive["installedSize"];
  localization_ = archive["localization"];
  postDate_ = archive["postDate"].dateValue();
  restartAction_ = optionalString(archive["restartAction"]);
  masterRepresentation_ = archive["masterRepresentation"];
  totalDownloadSize_ = archive["totalDownloadSize"];
  downloadedSize_ = archive["downloadedSize"];
  downloadStatus_ = archive["downloadStatus"].integerValue();
  if (archive["smdPath"].isString()) {
    smdPath_ =
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
  mirrorFiles_ = std::move(files);
}

}  // namespace ondrel
