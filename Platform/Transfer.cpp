#include "Transfer.h"

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "FileIO.h"
#include "HttpConditions.h"
#include "Sha256.h"
#include "Sha256Pipeline.h"

namespace ondrel {

namespace {

// The process's transfer state: one multi handle, whose connection cache keeps connections
// alive from one transfer to the next, and a share for TLS sessions and host names.
class TransferSession {
 public:
  static TransferSession& shared() {
    static TransferSession session;
    return session;
  }
  CURLM* multi() const { return multi_; }
  CURLSH* share() const { return share_; }
  void setConnectionsPerHost(std::size_t connections) {
    auto limit = static_cast<long>(std::max<std::size_t>(connections, 1));
    curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, limit);
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, limit);
  }
  // Set when a transfer's response was delivered, so that the event loop hands control back to
  // its caller, who may want no more than the response.
  bool responseDelivered = false;

 private:
  TransferSession() {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    multi_ = curl_multi_init();
    setConnectionsPerHost(kDefaultConnectionsPerHost);
    share_ = curl_share_init();
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
  }
  static constexpr std::size_t kDefaultConnectionsPerHost = 16;
  CURLM* multi_;
  CURLSH* share_;
};

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
  if (text.size() < prefix.size()) return false;
  for (std::size_t i = 0; i < prefix.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(text[i])) != prefix[i]) return false;
  }
  return true;
}

// Bytes received per read from the connection, and written per write to the file: large blocks
// keep a 100 MiB download to about 800 of each instead of thousands.
constexpr std::size_t kReceiveBufferSize = 128 * 1024;
// An error page up to this size is read to its end and dropped, so that the connection serves
// the next request (a product that fails is asked for again on every pass); a longer one ends
// the connection instead.
constexpr std::uint64_t kErrorPageLimit = 64 * 1024;

// A connection not made in this time is not made at all: the kernel has long given up resending
// its first packet by then on any link a server is reached over.
constexpr std::chrono::seconds kLongestConnect(30);

// Set from a signal handler to end every transfer of the process at its next slice.
std::atomic<bool> transfersCancelled{false};

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
    text.remove_suffix(1);
  return text;
}

// A validator is sent back in a request header exactly as received, so it must be printable
// text of a sensible length; anything else is treated as absent.
constexpr std::size_t kValidatorLengthLimit = 512;

bool isSendableValidator(std::string_view value) {
  if (value.empty() || value.size() > kValidatorLengthLimit) return false;
  return std::all_of(value.begin(), value.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
}

std::int64_t secondsNow() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// Whether a Last-Modified lies after reference (the response's Date, or now): an upstream whose
// clock ran ahead would answer 304 to it until that date, and no change would ever arrive.
bool isLaterThan(std::string_view lastModified, std::int64_t reference) {
  std::optional<std::int64_t> date = parseHttpDate(lastModified);
  return date && *date > reference;
}

}  // namespace

class Transfer::Impl {
 public:
  Impl(CURL* easy, TransferReceiver* receiver) : easy_(easy), receiver_(receiver) {}

  ~Impl() {
    if (started_ && !finished_) curl_multi_remove_handle(TransferSession::shared().multi(), easy_);
    curl_easy_cleanup(easy_);
    curl_slist_free_all(conditions_);
    closeFile();
  }

  void configure(const Url& url, std::chrono::seconds idleTimeout) {
    curl_easy_setopt(easy_, CURLOPT_URL, url.text().c_str());
    curl_easy_setopt(easy_, CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(easy_, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy_, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy_, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy_, CURLOPT_MAXREDIRS, 20L);
    curl_easy_setopt(easy_, CURLOPT_CONNECTTIMEOUT,
                     static_cast<long>(std::min(idleTimeout, kLongestConnect).count()));
    curl_easy_setopt(easy_, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(easy_, CURLOPT_LOW_SPEED_TIME, static_cast<long>(idleTimeout.count()));
    curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy_, CURLOPT_TCP_KEEPALIVE, 1L);
    // Over TLS, a transfer to a host whose connection may turn out to speak HTTP/2 waits for a
    // stream on it rather than opening a connection of its own. Plain HTTP is HTTP/1.1, where
    // waiting would only queue the transfer behind another's response.
    if (url.scheme() == "https") curl_easy_setopt(easy_, CURLOPT_PIPEWAIT, 1L);
    curl_easy_setopt(easy_, CURLOPT_USERAGENT, "OndrelServer/0.1");
    curl_easy_setopt(easy_, CURLOPT_SHARE, TransferSession::shared().share());
    curl_easy_setopt(easy_, CURLOPT_ERRORBUFFER, errorBuffer_);
    curl_easy_setopt(easy_, CURLOPT_HEADERFUNCTION, &Impl::onHeader);
    curl_easy_setopt(easy_, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(easy_, CURLOPT_WRITEFUNCTION, &Impl::onData);
    curl_easy_setopt(easy_, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(easy_, CURLOPT_BUFFERSIZE, static_cast<long>(kReceiveBufferSize));
    curl_easy_setopt(easy_, CURLOPT_PRIVATE, this);
    // The extra bundle is trusted beside the system's certificate folder.
    if (const char* bundle = std::getenv("ONDREL_CA_BUNDLE"); bundle != nullptr && *bundle) {
      curl_easy_setopt(easy_, CURLOPT_CAINFO, bundle);
      curl_easy_setopt(easy_, CURLOPT_CAPATH, "/etc/ssl/certs");
    }
  }

  void setDestination(std::string path) { destination_ = std::move(path); }
  void setDestinationReadAsItGrows() { flushEachBlock_ = true; }

  void setConditions(const std::string& etag, const std::string& lastModified) {
    curl_slist_free_all(conditions_);
    conditions_ = nullptr;
    if (isSendableValidator(etag)) {
      conditions_ = curl_slist_append(conditions_, ("If-None-Match: " + etag).c_str());
    }
    if (isSendableValidator(lastModified) && !isLaterThan(lastModified, secondsNow())) {
      conditions_ = curl_slist_append(conditions_, ("If-Modified-Since: " + lastModified).c_str());
    }
    curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, conditions_);
  }

  void setDestinationInMemory(std::string* body, std::size_t limit) {
    body_ = body;
    setLengthLimit(limit);
  }

  void setLengthLimit(std::uint64_t bytes) { lengthLimit_ = std::min(lengthLimit_, bytes); }

  void setHeadOnly() { curl_easy_setopt(easy_, CURLOPT_NOBODY, 1L); }

  void resumeFrom(std::uint64_t offset, const std::string& ifRange) {
    if (offset == 0 || !isSendableValidator(ifRange)) return;
    resumeOffset_ = offset;
    range_ = std::to_string(offset) + "-";
    curl_easy_setopt(easy_, CURLOPT_RANGE, range_.c_str());
    conditions_ = curl_slist_append(conditions_, ("If-Range: " + ifRange).c_str());
    curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, conditions_);
  }

  void setTimeLimits(std::chrono::seconds deadline, std::uint64_t lowestSpeed,
                     std::chrono::seconds window) {
    curl_easy_setopt(easy_, CURLOPT_TIMEOUT, static_cast<long>(deadline.count()));
    curl_easy_setopt(easy_, CURLOPT_LOW_SPEED_LIMIT,
                     static_cast<long>(std::clamp<std::uint64_t>(lowestSpeed, 1, LONG_MAX)));
    curl_easy_setopt(easy_, CURLOPT_LOW_SPEED_TIME, static_cast<long>(window.count()));
  }

  void start() {
    started_ = true;
    curl_multi_add_handle(TransferSession::shared().multi(), easy_);
  }

  void runEventLoopFor(std::chrono::milliseconds slice) {
    if (!started_ || finished_) return;
    CURLM* multi = TransferSession::shared().multi();
    auto deadline = std::chrono::steady_clock::now() + slice;
    for (;;) {
      if (transfersCancelled.load(std::memory_order_relaxed)) {
        failure_ = "interrupted";
        return complete(CURLE_ABORTED_BY_CALLBACK);
      }
      TransferSession::shared().responseDelivered = false;
      int running = 0;
      curl_multi_perform(multi, &running);
      // The multi handle drives every started transfer; each that ended is told, whichever
      // transfer's loop is running.
      bool anyEnded = false;
      int queued = 0;
      while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
        if (message->msg != CURLMSG_DONE) continue;
        Impl* ended = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &ended);
        if (ended == nullptr) continue;
        ended->complete(message->data.result);
        anyEnded = true;
      }
      if (anyEnded || TransferSession::shared().responseDelivered) return;
      auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (remaining.count() <= 0) return;
      curl_multi_poll(multi, nullptr, 0, static_cast<int>(std::min<long>(remaining.count(), 100)),
                      nullptr);
    }
  }

  bool isFinished() const { return finished_; }
  const std::optional<std::string>& destinationDigest() const { return destinationDigest_; }

 private:
  static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* context) {
    auto* self = static_cast<Impl*>(context);
    std::size_t length = size * count;
    return self->handleHeaderLine(std::string_view(data, length)) ? length : 0;
  }

  static std::size_t onData(char* data, std::size_t size, std::size_t count, void* context) {
    auto* self = static_cast<Impl*>(context);
    std::size_t length = size * count;
    // One call of the event loop may deliver many blocks of many transfers: after a cancel none
    // of them is taken, so the receivers do no more work (nor pace any more) for them.
    if (transfersCancelled.load(std::memory_order_relaxed)) {
      self->failure_ = "interrupted";
      return 0;
    }
    if (self->droppingErrorPage_) {
      self->errorPageLength_ += length;
      return self->errorPageLength_ <= kErrorPageLimit ? length : 0;
    }
    if (!self->store(std::string_view(data, length))) return 0;
    self->receiver_->transferDidReceiveDataOfLength(length);
    return length;
  }

  bool store(std::string_view data) {
    if (data.size() > lengthLimit_ - received_) return refuseLength();
    received_ += data.size();
    if (body_ != nullptr) {
      body_->append(data);
      return true;
    }
    if (file_ == nullptr || std::fwrite(data.data(), 1, data.size(), file_) != data.size() ||
        (flushEachBlock_ && std::fflush(file_) != 0)) {
      return refuse("Writing " + destination_ + " failed: " + systemErrorText(errno));
    }
    if (digest_) digest_->add(data);
    return true;
  }

  // Ends the transfer for a reason of this side's or the server's: what was received is no sound
  // part of the body.
  bool refuse(std::string why) {
    refused_ = true;
    failure_ = std::move(why);
    return false;
  }

  bool refuseLength() {
    return refuse("Response body larger than " + std::to_string(lengthLimit_) + " bytes");
  }

  // Opens the destination for the body: emptied, or kept and appended to when the body continues
  // it from resumedFrom.
  bool openDestination(std::uint64_t resumedFrom) {
    received_ = resumedFrom;
    if (body_ != nullptr) {
      body_->clear();
      return true;
    }
    closeFile();
    // The digest covers the whole file: a continued body adds to that of the part kept, read
    // once now (none when it cannot be read).
    digest_.reset();
    if (resumedFrom == 0) {
      digest_.emplace();
    } else if (std::optional<Sha256> prefix = Sha256::ofFilePrefix(destination_, resumedFrom)) {
      digest_.emplace(std::move(*prefix));
    }
    file_ = std::fopen(destination_.c_str(), resumedFrom > 0 ? "ab" : "wb");
    if (file_ == nullptr) {
      return refuse("Cannot create " + destination_ + ": " + systemErrorText(errno));
    }
    // A received block as large as the buffer goes to the file in one write, not three.
    fileBuffer_.resize(kReceiveBufferSize);
    std::setvbuf(file_, fileBuffer_.data(), _IOFBF, fileBuffer_.size());
    return true;
  }

  // Collects one response's status and headers; acts when its header block ends.
  bool handleHeaderLine(std::string_view line) {
    if (startsWithIgnoringCase(line, "http/")) {
      std::size_t space = line.find(' ');
      status_ = space == std::string_view::npos ? 0 : std::atol(line.data() + space + 1);
      contentLength_ = -1;
      hasLocation_ = false;
      etag_.clear();
      lastModified_.clear();
      date_.clear();
      contentRange_.clear();
      retryAfter_.clear();
    } else if (startsWithIgnoringCase(line, "content-length:")) {
      contentLength_ = std::atoll(std::string(trimmed(line.substr(15))).c_str());
    } else if (startsWithIgnoringCase(line, "etag:")) {
      etag_ = validatorOrEmpty(line.substr(5));
    } else if (startsWithIgnoringCase(line, "last-modified:")) {
      lastModified_ = validatorOrEmpty(line.substr(14));
    } else if (startsWithIgnoringCase(line, "date:")) {
      date_ = trimmed(line.substr(5));
    } else if (startsWithIgnoringCase(line, "content-range:")) {
      contentRange_ = trimmed(line.substr(14));
    } else if (startsWithIgnoringCase(line, "retry-after:")) {
      retryAfter_ = trimmed(line.substr(12));
    } else if (startsWithIgnoringCase(line, "location:")) {
      hasLocation_ = !trimmed(line.substr(9)).empty();
    } else if (trimmed(line).empty()) {
      return endOfHeaders();
    }
    return true;
  }

  bool endOfHeaders() {
    if (status_ >= 100 && status_ < 200) return true;
    if (status_ >= 300 && status_ < 400 && hasLocation_) {
      char* next = nullptr;
      curl_easy_getinfo(easy_, CURLINFO_REDIRECT_URL, &next);
      if (next != nullptr) receiver_->transferWillRedirect(next);
      return true;
    }
    if (status_ >= 400) {
      refuse("HTTP status " + std::to_string(status_));
      droppingErrorPage_ = contentLength_ <= static_cast<std::int64_t>(kErrorPageLimit);
      return droppingErrorPage_;
    }
    std::uint64_t resumedFrom = 0;
    if (status_ == 206) {
      if (resumeOffset_ == 0 || body_ != nullptr ||
          contentRange_.rfind("bytes " + range_, 0) != 0) {
        return refuse("The partial answer does not continue the file");
      }
      resumedFrom = resumeOffset_;
      if (resumedFrom > lengthLimit_) return refuseLength();
    }
    if (contentLength_ >= 0 && static_cast<std::uint64_t>(contentLength_) >
                                   lengthLimit_ - std::min(resumedFrom, lengthLimit_)) {
      return refuseLength();
    }
    // A 304 has no body: the kept copy stays as it is.
    if (status_ != 304 && !openDestination(resumedFrom)) return false;
    if (isLaterThan(lastModified_, parseHttpDate(date_).value_or(secondsNow()))) {
      lastModified_.clear();
    }
    char* effectiveUrl = nullptr;
    curl_easy_getinfo(easy_, CURLINFO_EFFECTIVE_URL, &effectiveUrl);
    receiver_->transferDidReceiveResponse({status_, effectiveUrl ? effectiveUrl : "",
                                           contentLength_, etag_, lastModified_, resumedFrom});
    TransferSession::shared().responseDelivered = true;
    return true;
  }

  // What a 429 or 503 asks for in Retry-After: delay-seconds, or an HTTP-date measured from the
  // response's Date (or now).
  std::optional<std::int64_t> retryAfterSeconds() const {
    if ((status_ != 429 && status_ != 503) || retryAfter_.empty()) return std::nullopt;
    if (retryAfter_.size() <= 9 &&
        retryAfter_.find_first_not_of("0123456789") == std::string::npos) {
      return std::stoll(retryAfter_);
    }
    std::optional<std::int64_t> when = parseHttpDate(retryAfter_);
    if (!when) return std::nullopt;
    return std::max<std::int64_t>(0, *when - parseHttpDate(date_).value_or(secondsNow()));
  }

  static std::string validatorOrEmpty(std::string_view value) {
    value = trimmed(value);
    return isSendableValidator(value) ? std::string(value) : std::string();
  }

  bool closeFile() {
    if (file_ == nullptr) return true;
    bool closed = std::fclose(file_) == 0;
    file_ = nullptr;
    return closed;
  }

  void complete(CURLcode result) {
    curl_multi_remove_handle(TransferSession::shared().multi(), easy_);
    finished_ = true;
    if (!closeFile() && result == CURLE_OK) {
      refuse("Writing " + destination_ + " failed: " + systemErrorText(errno));
      result = CURLE_WRITE_ERROR;
    }
    if (digest_ && result == CURLE_OK) destinationDigest_ = digest_->hexDigest();
    digest_.reset();
    if (result == CURLE_OK) {
      if (!droppingErrorPage_) return receiver_->transferDidFinish();
      // The error page was read to its end; the answer is still a failure.
      result = CURLE_HTTP_RETURNED_ERROR;
    }
    std::string description = failure_;
    if (description.empty()) {
      description = curl_easy_strerror(result);
      if (errorBuffer_[0] != '\0') description += std::string(" (") + errorBuffer_ + ")";
    }
    bool refused = refused_ || status_ >= 400;
    receiver_->transferDidFailWithError(
        {static_cast<int>(result), description, status_ >= 400 ? status_ : 0,
         result == CURLE_OPERATION_TIMEDOUT, !refused, retryAfterSeconds()});
  }

  CURL* easy_;
  TransferReceiver* receiver_;
  std::string destination_;
  bool flushEachBlock_ = false;
  std::string* body_ = nullptr;
  std::uint64_t lengthLimit_ = UINT64_MAX;
  std::uint64_t received_ = 0;
  std::FILE* file_ = nullptr;
  std::vector<char> fileBuffer_;
  std::optional<Sha256Pipeline> digest_;
  std::optional<std::string> destinationDigest_;
  bool started_ = false;
  bool finished_ = false;
  long status_ = 0;
  std::int64_t contentLength_ = -1;
  bool hasLocation_ = false;
  std::string etag_;
  std::string lastModified_;
  std::string date_;
  std::string contentRange_;
  std::string retryAfter_;
  // The body was refused here (its length, a partial answer that does not continue the file,
  // the destination) rather than cut short.
  bool refused_ = false;
  // The answer is an error status whose page is read and dropped; its length so far.
  bool droppingErrorPage_ = false;
  std::uint64_t errorPageLength_ = 0;
  std::uint64_t resumeOffset_ = 0;
  std::string range_;
  curl_slist* conditions_ = nullptr;
  std::string failure_;
  char errorBuffer_[CURL_ERROR_SIZE] = {};
};

std::unique_ptr<Transfer> Transfer::create(const Url& url, std::chrono::seconds idleTimeout,
                                           TransferReceiver* receiver) {
  if (receiver == nullptr || (url.scheme() != "http" && url.scheme() != "https")) return nullptr;
  TransferSession::shared();
  CURL* easy = curl_easy_init();
  if (easy == nullptr) return nullptr;
  auto impl = std::make_unique<Impl>(easy, receiver);
  impl->configure(url, idleTimeout);
  return std::unique_ptr<Transfer>(new Transfer(std::move(impl)));
}

Transfer::Transfer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Transfer::~Transfer() = default;

void Transfer::setDestination(std::string path) { impl_->setDestination(std::move(path)); }
void Transfer::setDestinationReadAsItGrows() { impl_->setDestinationReadAsItGrows(); }
void Transfer::setDestinationInMemory(std::string* body, std::size_t limit) {
  impl_->setDestinationInMemory(body, limit);
}
void Transfer::setLengthLimit(std::uint64_t bytes) { impl_->setLengthLimit(bytes); }
void Transfer::setHeadOnly() { impl_->setHeadOnly(); }
void Transfer::resumeFrom(std::uint64_t offset, const std::string& ifRange) {
  impl_->resumeFrom(offset, ifRange);
}
void Transfer::setTimeLimits(std::chrono::seconds deadline, std::uint64_t lowestSpeed,
                             std::chrono::seconds window) {
  impl_->setTimeLimits(deadline, lowestSpeed, window);
}
void Transfer::setConditions(const std::string& etag, const std::string& lastModified) {
  impl_->setConditions(etag, lastModified);
}
void Transfer::setConnectionsPerHost(std::size_t connections) {
  TransferSession::shared().setConnectionsPerHost(connections);
}
void Transfer::start() { impl_->start(); }
const std::optional<std::string>& Transfer::destinationDigest() const {
  return impl_->destinationDigest();
}
void Transfer::runEventLoopFor(std::chrono::milliseconds slice) { impl_->runEventLoopFor(slice); }
void Transfer::cancelAll() { transfersCancelled.store(true, std::memory_order_relaxed); }
bool Transfer::isCancelled() { return transfersCancelled.load(std::memory_order_relaxed); }
bool Transfer::isFinished() const { return impl_->isFinished(); }

}  // namespace ondrel
