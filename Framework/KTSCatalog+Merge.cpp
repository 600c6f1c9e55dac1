// The composite merge: each upstream catalog is folded into the composite catalog, the memory
// of every product the catalog ever listed; and the queries on the deprecations list it uses.
#include "Clock.h"
#include "KTCatalogKeys.h"
#include "KTSCatalog.h"
#include "KTSError.h"
#include "KTSPassContext.h"
#include "KTSPreferences.h"
#include "KTSUtilities.h"
#include "PathString.h"
#include "ProductId.h"

namespace ondrel {

namespace {

constexpr const char* kIgnoredFilePrefixes[] = {"TestUpdate"};

}  // namespace

void KTSCatalog::setDeprecatedProducts(const Plist& deprecations) {
  deprecatedProducts_ = deprecations;
  deprecatorsById_.clear();
  for (const auto& [deprecator, deprecated] : deprecations["DeprecatedProducts"].items()) {
    for (const Plist& productId : deprecated.elements()) {
      if (productId.isString()) deprecatorsById_[productId.stringValue()].push_back(deprecator);
    }
  }
}

bool KTSCatalog::isDeprecatedProductID(const std::string& productId) const {
  return deprecatorsById_.count(productId) != 0;
}

Plist KTSCatalog::getDeprecatedProductsForProductID(const std::string& productId) const {
  const Plist& deprecated = deprecatedProducts_["DeprecatedProducts"][productId];
  return deprecated.isArray() ? deprecated : Plist();
}

Plist KTSCatalog::getDeprecatorsForProductID(const std::string& productId) const {
  auto found = deprecatorsById_.find(productId);
  if (found == deprecatorsById_.end()) return Plist();
  return Plist::stringArray(found->second);
}

void KTSCatalog::updateCompositeCatalogWithCatalog(const Plist& catalog) {
  log_.debug("CTLG: # ");
  log_.debug("CTLG: # updating composite from {}", lastPathComponent(catalogURL_.path()));
  log_.debug("CTLG: # ");
  bool purge = context_.preferences().automaticPresetsEnabled();
  Date indexDate = indexDateOfCatalog(catalog);
  // Without a post URL and a product list there is nothing to merge: the composite catalog on
  // disk and in memory stays exactly as it was, and the caller learns why.
  const Plist& postURL = catalog[KTCatalogVantorPostURLKey];
  const Plist& incoming = catalog[KTCatalogProductsDictKey];
  if (!postURL.isString() ||
      (catalog.contains(KTCatalogProductsDictKey) && !incoming.isDictionary())) {
    throw KTSError(KTSError::kDomain, -1,
                   fmt::format("The catalog {} is missing or unusable; the composite catalog is "
                               "unchanged.",
                               lastPathComponent(catalogURL_.path())));
  }

  Plist composite = compositeCatalog_.isDictionary() ? compositeCatalog_ : Plist::dictionary();
  composite.set(KTCatalogVantorPostURLKey, postURL);
  composite.set(KTCatalogIndexDateKey, Plist::date(indexDate));
  const Plist old = composite[KTCatalogProductsDictKey].isDictionary()
                        ? composite[KTCatalogProductsDictKey]
                        : Plist::dictionary();
  // The merged entries are gathered and sorted once: setting them one by one into the old
  // dictionary would move its entries for every new product.
  std::vector<Plist::Dictionary::Entry> merged;
  mergeListedProducts(incoming, old, merged);
  mergeUnlistedProducts(incoming, old, purge, merged);
  Plist result(Plist::Dictionary::fromEntries(std::move(merged)));
  composite.set(KTCatalogProductsDictKey, std::move(result));
  compositeCatalog_ = std::move(composite);
  saveMergedCompositeCatalog();
}

Date KTSCatalog::indexDateOfCatalog(const Plist& catalog) const {
  const Plist& rawIndexDate = catalog[KTCatalogIndexDateKey];
  std::optional<Date> indexDate = KTSUtilities::validDateForValue(rawIndexDate);
  if (!indexDate) {
    log_.debug("CTLG: [WARNING] Source catalog index date cannot be converted to NSDate value.");
    log_.warning("*** Source catalog index date value is not a valid date format. (value = \"{}\")",
                 rawIndexDate);
    log_.info("Source catalog will assume index date of 'now'.");
    indexDate = Clock::now();
  }
  std::optional<Date> knownDate = compositeCatalog_[KTCatalogIndexDateKey].dateValue();
  if (knownDate && *indexDate <= *knownDate) {
    log_.debug("CTLG: [NOTICE] processing catalog with unchanged index date");
  }
  return *indexDate;
}

void KTSCatalog::mergeListedProducts(const Plist& incoming, const Plist& old,
                                     std::vector<Plist::Dictionary::Entry>& merged) {
  auto keepOldEntry = [&](const std::string& productId) {
    if (old.contains(productId)) merged.emplace_back(productId, old[productId]);
  };
  for (const auto& [productId, dictionary] : incoming.items()) {
    if (!isValidProductId(productId)) {
      log_.warning("*** Ignoring catalog product with an invalid product id: \"{}\"", productId);
      keepOldEntry(productId);
      continue;
    }
    if (!dictionary.isDictionary() ||
        shouldIgnoreProductForDictionaryWithIdentifier(dictionary, productId)) {
      keepOldEntry(productId);
      continue;
    }
    bool known = old.contains(productId);
    log_.debug("CTLG: [INFO] adding {} composite product entry: {}", known ? "RECURRING" : "NEW",
               productId);
    merged.emplace_back(productId, makeCompositeProductForIDAndDictionaryProductState(
                                       productId, dictionary, known ? Recurring : New));
  }
}

void KTSCatalog::mergeUnlistedProducts(const Plist& incoming, const Plist& old, bool purge,
                                       std::vector<Plist::Dictionary::Entry>& merged) {
  for (const auto& [productId, entry] : old.items()) {
    if (incoming.contains(productId)) continue;
    bool deprecated = isDeprecatedProductID(productId);
    if (purge) {
      log_.debug("CTLG: [INFO] {} composite product entry: {}",
                 deprecated ? "auto-purging DEPRECATED" : "adding ORPHAN", productId);
      continue;
    }
    if (!entry.isDictionary() || shouldIgnoreProductForDictionaryWithIdentifier(entry, productId)) {
      merged.emplace_back(productId, entry);
      continue;
    }
    if (deprecated) {
      log_.debug("CTLG: [INFO] adding DEPRECATED composite product entry: {}", productId);
    }
    merged.emplace_back(productId, makeCompositeProductForIDAndDictionaryProductState(
                                       productId, entry, deprecated ? Deprecated : Orphaned));
  }
}

bool KTSCatalog::shouldIgnoreProductForDictionaryWithIdentifier(const Plist& dictionary,
                                                                const std::string& identifier) {
  log_.debug("CTLG: testing should ignore for product {}", identifier);
  if (dictionary.isNull()) return true;
  for (const Plist& package : dictionary["Packages"].elements()) {
    for (const auto& [key, value] : package.items()) {
      if (!value.isString()) continue;
      log_.debug("CTLG: -- testing candidate URL path {}", value);
      std::string fileName = lastPathComponent(value.stringValue());
      for (const char* prefix : kIgnoredFilePrefixes) {
        if (fileName.rfind(prefix, 0) == 0) {
          log_.debug(
              "CTLG: product {} contains files not available for installation and will be "
              "omitted from the product list)",
              identifier);
          return true;
        }
      }
    }
  }
  return false;
}

Plist KTSCatalog::makeCompositeProductForIDAndDictionaryProductState(const std::string& productId,
                                                                     const Plist& dictionary,
                                                                     std::int64_t state) const {
  Plist entry = dictionary;
  Plist deprecated = getDeprecatedProductsForProductID(productId);
  if (!deprecated.isNull()) entry.set("DeprecatedProducts", std::move(deprecated));
  Plist deprecators = getDeprecatorsForProductID(productId);
  if (!deprecators.isNull()) entry.set("Deprecators", std::move(deprecators));
  entry.set("CompositeProductState", Plist::integer(state));
  return entry;
}

}  // namespace ondrel
