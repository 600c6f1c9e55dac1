#include "KTSFileDigests.h"

#include "KTSLogger.h"
#include "PathString.h"
#include "ProductId.h"
#include "Sha256.h"

namespace ondrel {

namespace {

// One line per file: path, size, modification time in nanoseconds, SHA-256 in hexadecimal,
// product id, separated by tabs.
constexpr std::string_view kHeader = "ondrel-digests 1\n";
constexpr std::size_t kStoreReadLimit = std::size_t{256} << 20;

int hexValue(char digit) { return digit <= '9' ? digit - '0' : digit - 'a' + 10; }

}  // namespace

std::optional<KTSFileDigests::Digest> KTSFileDigests::Digest::fromHex(std::string_view hex) {
  if (!Sha256::isHexDigest(hex)) return std::nullopt;
  Digest digest;
  for (std::size_t i = 0; i < digest.bytes.size(); ++i) {
    digest.bytes[i] =
        static_cast<std::uint8_t>(hexValue(hex[2 * i]) * 16 + hexValue(hex[2 * i + 1]));
  }
  return digest;
}

std::string KTSFileDigests::Digest::hex() const {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text(bytes.size() * 2, '0');
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    text[2 * i] = kDigits[bytes[i] >> 4];
    text[2 * i + 1] = kDigits[bytes[i] & 0xf];
  }
  return text;
}

KTSFileDigests::KTSFileDigests(std::string storePath) : storePath_(std::move(storePath)) {}

std::string KTSFileDigests::storePathForDocumentRoot(const std::string& documentRoot) {
  return appendingPathComponent(documentRoot, ".digests");
}

void KTSFileDigests::load() const {
  if (loaded_) return;
  loaded_ = true;
  KTSFileRecordFormat::readRecord(
      storePath_, kHeader, kStoreReadLimit, [this](const std::vector<std::string_view>& fields) {
        if (fields.size() != 5) return;
        std::optional<std::int64_t> size = KTSFileRecordFormat::parseNumber(fields[1]);
        std::optional<std::int64_t> modified = KTSFileRecordFormat::parseNumber(fields[2]);
        std::optional<Digest> digest = Digest::fromHex(fields[3]);
        if (!KTSFileRecordFormat::isRecordablePath(fields[0]) || !size || !modified || !digest ||
            !isValidProductId(std::string(fields[4]))) {
          return;
        }
        records_[Plist(fields[0])] = {*digest, {*size, *modified}, std::string(fields[4])};
      });
}

const KTSPathKeys::Map<KTSFileDigests::Record>& KTSFileDigests::records() const {
  load();
  return records_;
}

const KTSFileDigests::Record* KTSFileDigests::recordOf(std::string_view path) const {
  load();
  auto found = records_.find(path);
  return found == records_.end() ? nullptr : &found->second;
}

void KTSFileDigests::recordFile(const Plist& path, const std::string& sha256,
                                const std::string& productId) {
  const std::string& text = path.stringValue();
  std::optional<KTSFileRecordFormat::Stamp> stamp = KTSFileRecordFormat::stampOf(text);
  std::optional<Digest> digest = Digest::fromHex(sha256);
  if (!stamp || !digest || !KTSFileRecordFormat::isRecordablePath(text) ||
      !isValidProductId(productId)) {
    return forgetFile(text);
  }
  load();
  Record& record = records_[path];
  if (record.sha256 == *digest && record.stamp == *stamp && record.productId == productId) return;
  if (!record.productId.empty()) productsChanged_.insert(record.productId);
  productsChanged_.insert(productId);
  record = {*digest, *stamp, productId};
  changed_ = true;
}

void KTSFileDigests::forgetFile(std::string_view path) {
  load();
  auto found = records_.find(path);
  if (found == records_.end()) return;
  productsChanged_.insert(found->second.productId);
  records_.erase(found);
  changed_ = true;
}

bool KTSFileDigests::save() {
  if (!changed_) return true;
  std::string error;
  bool written = KTSFileRecordFormat::writeRecord(
      storePath_, kHeader,
      [this](std::FILE* file) {
        for (const auto& [path, record] : records_) {
          if (std::fprintf(file, "%s\t%lld\t%lld\t%s\t%s\n", path.stringValue().c_str(),
                           static_cast<long long>(record.stamp.size),
                           static_cast<long long>(record.stamp.modified),
                           record.sha256.hex().c_str(), record.productId.c_str()) < 0) {
            return false;
          }
        }
        return true;
      },
      &error);
  if (!written) {
    LogHandle::shared().warning("The digests of the kept files could not be saved: {}", error);
    return false;
  }
  changed_ = false;
  return true;
}

}  // namespace ondrel
