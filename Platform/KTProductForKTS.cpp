#include "KTProductForKTS.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdlib>
#include <pugixml.hpp>

#include "FileIO.h"
#include "KTCatalogKeys.h"
#include "Transfer.h"

namespace ondrel {

namespace {

constexpr std::chrono::seconds kIdleTimeout(60);
constexpr std::chrono::milliseconds kEventLoopSlice(100);

// Fetches one small file into path, giving up once more than the limit has arrived.
class DistributionFetch : public TransferReceiver {
 public:
  std::optional<KTProductForKTS::Error> run(const Url& url, const std::string& path) {
    std::unique_ptr<Transfer> transfer = Transfer::create(url, kIdleTimeout, this);
    if (!transfer) {
      return KTProductForKTS::Error{KTProductForKTS::kErrorTransferFailed,
                                    "The distribution file cannot be requested: " + url.text()};
    }
    transfer->setDestination(path);
    transfer->start();
    while (!done_ && received_ <= KTProductForKTS::kMaximumDocumentSize) {
      transfer->runEventLoopFor(kEventLoopSlice);
    }
    if (received_ > KTProductForKTS::kMaximumDocumentSize) {
      return KTProductForKTS::Error{KTProductForKTS::kErrorBadDistribution,
                                    "The distribution file is larger than 1 MiB."};
    }
    return error_;
  }

 private:
  void transferDidReceiveResponse(const TransferResponse&) override { received_ = 0; }
  void transferDidReceiveDataOfLength(std::uint64_t length) override { received_ += length; }
  void transferDidFinish() override { done_ = true; }
  void transferDidFailWithError(const TransferError& error) override {
    done_ = true;
    bool missing = error.httpStatus == 404 || error.httpStatus == 410;
    error_ = KTProductForKTS::Error{
        missing ? KTProductForKTS::kErrorNoDistribution : KTProductForKTS::kErrorTransferFailed,
        fmt::format("The distribution file could not be fetched ({}).", error.description)};
  }
  void transferWillRedirect(const std::string&) override {}

  bool done_ = false;
  std::uint64_t received_ = 0;
  std::optional<KTProductForKTS::Error> error_;
};

const Plist* chosenDistribution(const Plist& distributions,
                                const std::optional<std::string>& localization) {
  if (localization) {
    return distributions.contains(*localization) ? &distributions[*localization] : nullptr;
  }
  for (const char* language : {"English", "en"}) {
    if (distributions.contains(language)) return &distributions[language];
  }
  return distributions.size() > 0 ? &distributions.items().begin()->second : nullptr;
}

std::int64_t restartActionValue(std::string_view name) {
  static constexpr std::string_view kNames[] = {"NoRestart", "RecommendRestart", "RequireLogout",
                                                "RequireRestart", "RequireShutdown"};
  for (std::int64_t i = 0; i < 5; ++i) {
    if (kNames[i] == name) return i;
  }
  return 0;
}

}  // namespace

std::unique_ptr<KTProductForKTS>
KTProductForKTS::initWithProductKeyCatalogProductDictionaryLocalization(
    const std::string& productKey, const Plist& catalogProductDictionary,
    const std::optional<std::string>& localization, const LocalPathForURL& localPathForURL,
    Error* error) {
  auto fail = [error](std::int64_t code, std::string description) {
    if (error) *error = Error{code, std::move(description)};
    return nullptr;
  };
  const Plist* chosen = chosenDistribution(
      catalogProductDictionary[KTCatalogProductDistributionsDictKey], localization);
  std::optional<Url> url = chosen ? Url::parse(chosen->stringValue()) : std::nullopt;
  if (!url) return fail(kErrorNoDistribution, "The product has no distribution file.");

  std::string document;
  std::string reason;
  std::optional<std::string> localPath = localPathForURL ? localPathForURL(*url) : std::nullopt;
  if (localPath && ::access(localPath->c_str(), F_OK) == 0) {
    if (!readWholeFile(*localPath, &document, &reason, kMaximumDocumentSize)) {
      return fail(kErrorBadDistribution, "The distribution file cannot be read: " + reason);
    }
  } else {
    std::string temporary = fmt::format("{}/ondrel-dist.XXXXXX",
                                        std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp");
    int fd = ::mkstemp(temporary.data());
    if (fd < 0) return fail(kErrorTransferFailed, "No temporary file for the distribution.");
    ::close(fd);
    std::optional<Error> fetchError = DistributionFetch().run(*url, temporary);
    bool read = !fetchError && readWholeFile(temporary, &document, &reason, kMaximumDocumentSize);
    ::unlink(temporary.c_str());
    if (fetchError) return fail(fetchError->code, fetchError->description);
    if (!read)
      return fail(kErrorBadDistribution, "The distribution file cannot be read: " + reason);
  }

  std::unique_ptr<KTProductForKTS> product(new KTProductForKTS());
  product->productKey_ = productKey;
  if (!product->parseDistribution(document, error)) return nullptr;
  return product;
}

bool KTProductForKTS::parseDistribution(const std::string& document, Error* error) {
  pugi::xml_document parsed;
  pugi::xml_parse_result result = parsed.load_buffer(document.data(), document.size());
  pugi::xml_node root = parsed.document_element();
  if (!result || std::string_view(root.name()) != "vantor-distribution") {
    if (error) {
      *error = Error{kErrorBadDistribution,
                     result ? "The distribution file has another root element."
                            : fmt::format("The distribution file is not well-formed ({}).",
                                          result.description())};
    }
    return false;
  }
  if (pugi::xml_node title = root.child("title")) displayName_ = title.text().get();
  if (pugi::xml_node version = root.child("version")) displayVersion_ = version.text().get();
  if (pugi::xml_node description = root.child("description")) {
    description_ = description.text().get();
    if (pugi::xml_attribute type = description.attribute("mime-type")) {
      descriptionMimeType_ = type.value();
    }
  }
  restartAction_ = restartActionValue(root.child("restart").attribute("action").value());
  return true;
}

std::optional<Plist::Bytes> KTProductForKTS::descriptionDataReturningMIMEType(
    std::string* mimeType) const {
  if (!description_) return std::nullopt;
  if (mimeType) *mimeType = descriptionMimeType_;
  return Plist::Bytes(description_->begin(), description_->end());
}

}  // namespace ondrel
