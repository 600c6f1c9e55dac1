#include "OnDemandFetch.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <thread>

#include "Clock.h"
#include "FileIO.h"
#include "KTSDigestManifests.h"
#include "KTSLogger.h"
#include "KTSOnDemandFiles.h"
#include "KTSPreferences.h"
#include "KTSProductFileRules.h"
#include "KTSSettings.h"
#include "KTSUtilities.h"
#include "PathString.h"
#include "Transfer.h"

namespace ondrel::programs {

namespace {

// The most bytes handed to Apache in one go.
constexpr std::size_t kBlockBytes = 1024 * 1024;
// The most a file whose catalog names no size (a distribution, a few KB) may take.
constexpr std::int64_t kMostUnsizedBytes = std::int64_t{256} << 20;
// How often a waiting client looks for more bytes, or for the fetch's end.
constexpr auto kPollInterval = std::chrono::milliseconds(5);
// Apache gives up on a CGI silent for its Timeout (120 s): a client whose file has not begun to
// arrive by then is answered 503 instead.
constexpr auto kLongestWaitForFirstByte = std::chrono::seconds(90);
constexpr auto kLongestWaitForSlot = std::chrono::minutes(10);
constexpr std::chrono::seconds kIdleTimeout(60);
// How many times one request starts a fetch whose process ended without an outcome.
constexpr int kMostFetchStarts = 3;

struct FileToFetch {
  KTSOnDemandFiles::Entry entry;
  std::string localPath;
  std::string lockPath;
  std::string partPath;
  std::string failedPath;
};

// The outcome of the last failed fetch: the status its clients are answered, until retryAt.
struct Failure {
  int status = 503;
  std::int64_t retryAt = 0;
};

bool writeAll(std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t written = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

// The CGI's response goes to the client as it is written (a non-parsed-headers CGI): Apache
// would otherwise drop its length and send the body chunked, and a response cut short by a
// failed fetch would end like a whole one. So each response is a whole HTTP/1.1 head, and the
// connection closes after it.
std::string responseHead(int status, const char* reason, const std::string& headers) {
  std::time_t now = Clock::secondsNow();
  struct tm parts {};
  char date[64];
  std::strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S GMT", ::gmtime_r(&now, &parts));
  return fmt::format("HTTP/1.1 {} {}\r\nDate: {}\r\nConnection: close\r\n{}\r\n", status, reason,
                     date, headers);
}

int answerStatus(int status, const char* reason, const std::string& extraHeaders = "") {
  std::string body = std::string(reason) + "\n";
  writeAll(responseHead(status, reason,
                        fmt::format("Content-Type: text/plain\r\nCache-Control: no-store\r\n{}"
                                    "Content-Length: {}\r\n",
                                    extraHeaders, body.size())) +
           body);
  return 0;
}

int answerFailure(const Failure& failure) {
  std::int64_t wait = std::max<std::int64_t>(1, failure.retryAt - Clock::secondsNow());
  return answerStatus(failure.status, failure.status == 502 ? "Bad Gateway" : "Service Unavailable",
                      fmt::format("Retry-After: {}\r\n", wait));
}

// Served as Apache serves the files once they are in place.
const char* contentTypeOf(const std::string& path) {
  for (const char* extension : {".dist", ".pkm", ".smd", ".plist", ".ktcatalog"}) {
    if (path.ends_with(extension)) return "text/xml";
  }
  return "application/octet-stream";
}

// Headers for a body of size bytes (none: not known yet).
bool sendHeaders(const FileToFetch& file, std::int64_t size) {
  return writeAll(
      responseHead(200, "OK",
                   fmt::format("Content-Type: {}\r\n{}", contentTypeOf(file.localPath),
                               size >= 0 ? fmt::format("Content-Length: {}\r\n", size) : "")));
}

std::optional<Failure> lastFailure(const FileToFetch& file) {
  std::string text;
  std::string error;
  if (!readWholeFile(file.failedPath, &text, &error, 64)) return std::nullopt;
  Failure failure;
  long long retryAt = 0;
  if (std::sscanf(text.c_str(), "%d %lld", &failure.status, &retryAt) != 2 ||
      (failure.status != 502 && failure.status != 503)) {
    return std::nullopt;
  }
  failure.retryAt = retryAt;
  if (failure.retryAt <= Clock::secondsNow()) return std::nullopt;
  return failure;
}

struct Placed {
  ino_t identity;
  std::int64_t size;
};
// The placed file when it is in place: a regular file of the size the index names, if it names
// one.
std::optional<Placed> placedFile(const FileToFetch& file) {
  struct stat status {};
  if (::lstat(file.localPath.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
      (file.entry.size >= 0 && status.st_size != file.entry.size)) {
    return std::nullopt;
  }
  return Placed{status.st_ino, status.st_size};
}

class UpstreamReceiver : public TransferReceiver {
 public:
  void transferDidReceiveResponse(const TransferResponse&) override {}
  void transferDidReceiveDataOfLength(std::uint64_t) override {}
  void transferDidFinish() override {}
  void transferDidFailWithError(const TransferError& error) override { error_ = error; }
  void transferWillRedirect(const std::string&) override {}
  const std::optional<TransferError>& error() const { return error_; }

 private:
  std::optional<TransferError> error_;
};

// What the upstream published of the file's bytes, asked for beside the file (a parent mirror
// publishes each product's digests; a vendor none), so that it costs the file no round trip.
class PublishedDigest {
 public:
  PublishedDigest(const KTSOnDemandFiles::Entry& entry, const Url& fileUrl) {
    std::optional<Url> url = KTSDigestManifests::manifestUrlFor(entry.productId, fileUrl);
    if (url) transfer_ = Transfer::create(*url, kIdleTimeout, &receiver_);
    if (!transfer_) return;
    transfer_->setDestinationInMemory(&body_, KTSDigestManifests::kManifestReadLimit);
    transfer_->setTimeLimits(std::chrono::minutes(2), 0, std::chrono::minutes(2));
    transfer_->start();
  }
  // Runs the request to its end (the file's transfer drove it while it ran).
  void waitUntilFinished() {
    while (transfer_ && !transfer_->isFinished()) {
      transfer_->runEventLoopFor(std::chrono::milliseconds(500));
    }
  }
  // The SHA-256 the upstream published for the file at localPath; none when it published none
  // (or nothing readable).
  std::optional<std::string> digestOf(const KTSServerLayout& layout,
                                      const std::string& localPath) const {
    if (!transfer_ || receiver_.error()) return std::nullopt;
    std::optional<KTSDigestManifests::Manifest> manifest = KTSDigestManifests::parse(body_);
    if (!manifest) return std::nullopt;
    return KTSUpstreamDigests(layout, LogHandle::shared()).digestOf(*manifest, localPath);
  }

 private:
  UpstreamReceiver receiver_;
  std::string body_;
  std::unique_ptr<Transfer> transfer_;
};

// One of the slots that bound the fetches under way: a lock held until the process ends.
bool takeSlot(const KTSOnDemandFiles& onDemand, std::int64_t slots) {
  auto deadline = std::chrono::steady_clock::now() + kLongestWaitForSlot;
  ::mkdir(deletingLastPathComponent(onDemand.slotPath(0)).c_str(), 0770);
  while (std::chrono::steady_clock::now() < deadline) {
    for (std::int64_t slot = 0; slot < slots; ++slot) {
      int fd =
          ::open(onDemand.slotPath(slot).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0660);
      if (fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) == 0) return true;
      if (fd >= 0) ::close(fd);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

class Fetch {
 public:
  Fetch(KTSPassContext& context, const FileToFetch& file)
      : context_(context), file_(file), log_(LogHandle::shared()) {}

  // Fetches the file into its part and places it; on failure leaves the outcome for the
  // clients that come next.
  void run() {
    if (placedFile(file_)) return;
    ::unlink(file_.partPath.c_str());
    ::unlink(file_.failedPath.c_str());
    std::optional<int> failed = fetchAndPlace();
    if (!failed) return;
    ::unlink(file_.partPath.c_str());
    std::int64_t retryAt =
        Clock::secondsNow() + KTSSettings::onDemandRetrySeconds(context_.preferences().prefs());
    std::string error;
    writeStringAtomically(file_.failedPath, fmt::format("{} {}\n", *failed, retryAt), &error);
  }

 private:
  // None when placed; else the status clients are answered.
  std::optional<int> fetchAndPlace() {
    const KTSServerLayout& layout = context_.layout();
    KTSOnDemandFiles onDemand(layout);
    if (!takeSlot(onDemand, KTSSettings::maxConcurrentDownloads(context_.preferences().prefs()))) {
      return refuse(503, "no fetch slot came free");
    }
    std::optional<Url> url = Url::parse(file_.entry.url);
    if (std::optional<std::string> refusal =
            KTSProductFileRules::refusalBeforeCreatingFolder(layout, url, file_.localPath)) {
      return refuse(502, *refusal);
    }
    UpstreamReceiver receiver;
    std::unique_ptr<Transfer> transfer = Transfer::create(*url, kIdleTimeout, &receiver);
    if (!transfer) return refuse(502, "no transfer can be made for its URL");
    transfer->setDestination(file_.partPath);
    transfer->setDestinationReadAsItGrows();
    bool sized = file_.entry.size >= 0;
    transfer->setLengthLimit(
        static_cast<std::uint64_t>(sized ? file_.entry.size : kMostUnsizedBytes));
    std::int64_t lowestSpeed = context_.preferences().minimumDownloadSpeed().integerValue() * 1024;
    transfer->setTimeLimits(std::chrono::hours(12), static_cast<std::uint64_t>(lowestSpeed),
                            std::chrono::seconds(120));
    PublishedDigest published(file_.entry, *url);
    transfer->start();
    while (!transfer->isFinished()) transfer->runEventLoopFor(std::chrono::milliseconds(500));
    published.waitUntilFinished();
    if (const std::optional<TransferError>& error = receiver.error()) {
      bool answered = error->httpStatus != 0 || !error->cutShort;
      return refuse(answered && !error->tooSlow ? 502 : 503, error->description);
    }
    std::optional<std::int64_t> received = KTSUtilities::fileSizeAtPath(file_.partPath);
    if (!received || (sized && received != file_.entry.size)) {
      return refuse(502, fmt::format("received {} bytes, not the {} its catalog names",
                                     received.value_or(0), file_.entry.size));
    }
    const std::optional<std::string>& digest = transfer->destinationDigest();
    std::optional<std::string> expected = published.digestOf(layout, file_.localPath);
    if (expected && digest != expected) {
      return refuse(502, "received bytes whose SHA-256 is not the one its upstream published");
    }
    KTSUtilities::createDirectoryAtPath(deletingLastPathComponent(file_.localPath));
    if (std::optional<std::string> refusal =
            KTSProductFileRules::refusalOfTransfer(layout, url, file_.localPath)) {
      return refuse(502, *refusal);
    }
    if (std::rename(file_.partPath.c_str(), file_.localPath.c_str()) != 0) {
      return refuse(503, "placing it failed: " + systemErrorText(errno));
    }
    if (digest) {
      onDemand.recordFetched({Clock::secondsNow(), file_.entry.urlPath, *received, *digest});
    }
    log_.info("Fetched {} on demand ({} bytes).", file_.entry.urlPath, *received);
    return std::nullopt;
  }

  int refuse(int status, const std::string& why) {
    log_.warning("Fetching {} on demand from {} failed: {}", file_.entry.urlPath, file_.entry.url,
                 why);
    return status;
  }

  KTSPassContext& context_;
  const FileToFetch& file_;
  LogHandle log_;
};

// A fetch process's bounds of its own, beside its transfers' time limits: should a fault of ours
// make it spin or wait for good, the kernel ends it, which releases the file's lock, rather than
// it holding a core or the file. Fetching and hashing a file of 20 GB takes about a minute of CPU.
void boundFetchProcess() {
  constexpr rlim_t kCpuSeconds = 30 * 60;
  constexpr unsigned kWallSeconds = 13 * 3600;
  rlimit cpu{kCpuSeconds, kCpuSeconds + 10};
  ::setrlimit(RLIMIT_CPU, &cpu);
  ::alarm(kWallSeconds);
}

// Runs the fetch in a process of its own, in a session of its own and with the client's
// connection closed, so that neither the client's going away nor Apache ending this CGI stops
// it. The process holds lockFd, the file's lock, until it ends.
void startFetch(KTSPassContext& context, const FileToFetch& file, int lockFd) {
  pid_t child = ::fork();
  if (child < 0) return;
  if (child > 0) {
    ::waitpid(child, nullptr, 0);
    return;
  }
  ::setsid();
  if (::fork() != 0) ::_exit(0);
  int nothing = ::open("/dev/null", O_RDWR);
  for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) ::dup2(nothing, fd);
  if (nothing > STDERR_FILENO) ::close(nothing);
  boundFetchProcess();
  Fetch(context, file).run();
  ::close(lockFd);
  ::_exit(0);
}

// Streams the file to the client as it arrives; see the header for the order of things.
class Follower {
 public:
  Follower(KTSPassContext& context, const FileToFetch& file) : context_(context), file_(file) {}
  ~Follower() {
    if (partFd_ >= 0) ::close(partFd_);
  }

  int run() {
    auto started = std::chrono::steady_clock::now();
    while (true) {
      if (std::optional<Placed> placed = placedFile(file_)) return finish(*placed);
      if (sendNewBytes()) continue;
      if (std::optional<int> ended = whenNoFetchRuns()) return *ended;
      if (sent_ == 0 && std::chrono::steady_clock::now() - started > kLongestWaitForFirstByte) {
        return answerStatus(503, "Service Unavailable", "Retry-After: 10\r\n");
      }
      std::this_thread::sleep_for(kPollInterval);
    }
  }

 private:
  // Sends what the part holds beyond what was sent, but never its last byte: that goes out once
  // the file is placed. Nothing of a file whose size is not known goes out before: a response
  // without a length could not be told from a whole one if the fetch failed. False when there
  // was nothing new.
  bool sendNewBytes() {
    if (file_.entry.size < 0) return false;
    if (partFd_ < 0) {
      partFd_ = ::open(file_.partPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
      if (partFd_ < 0) return false;
    }
    struct stat status {};
    if (::fstat(partFd_, &status) != 0) return false;
    // A part left by a fetch that ended has been removed; the next fetch writes a new one.
    if (status.st_nlink == 0 && sent_ == 0) {
      ::close(partFd_);
      partFd_ = -1;
      return false;
    }
    std::int64_t sendable = std::min<std::int64_t>(status.st_size, file_.entry.size - 1);
    if (sendable <= sent_) return false;
    return sendFrom(partFd_, sendable, file_.entry.size) > 0;
  }

  // Sends bytes of fd from sent_ up to end of a file of size bytes; the bytes sent. Ends the
  // process when the client is gone.
  std::int64_t sendFrom(int fd, std::int64_t end, std::int64_t size) {
    if (!headersSent_) {
      if (!sendHeaders(file_, size)) ::_exit(0);
      headersSent_ = true;
    }
    // The kernel copies from the file to Apache's socket: no pass through this process.
    std::int64_t before = sent_;
    while (sent_ < end) {
      off_t offset = sent_;
      auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(end - sent_, kBlockBytes));
      ssize_t count = ::sendfile(STDOUT_FILENO, fd, &offset, wanted);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0 && errno != EAGAIN) ::_exit(0);
      if (count <= 0) break;
      sent_ += count;
    }
    return sent_ - before;
  }

  // The file is in place: the rest of it goes out, if what was sent is its beginning.
  int finish(const Placed& placed) {
    struct stat status {};
    bool followedIt =
        partFd_ >= 0 && ::fstat(partFd_, &status) == 0 && status.st_ino == placed.identity;
    if (sent_ > 0 && !followedIt) return 0;
    int fd =
        followedIt ? partFd_ : ::open(file_.localPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return answerStatus(503, "Service Unavailable", "Retry-After: 10\r\n");
    sendFrom(fd, placed.size, placed.size);
    if (fd != partFd_) ::close(fd);
    return 0;
  }

  // When no fetch runs for the file: the answer to give (a failure's, or none when a new fetch
  // was started). None too while one runs.
  std::optional<int> whenNoFetchRuns() {
    int lockFd = ::open(file_.lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0660);
    if (lockFd < 0) return answerStatus(503, "Service Unavailable", "Retry-After: 10\r\n");
    if (::flock(lockFd, LOCK_EX | LOCK_NB) != 0) {
      ::close(lockFd);
      return std::nullopt;
    }
    std::optional<int> answer;
    if (placedFile(file_)) {
      // Placed between the two looks: the next turn sends it.
    } else if (std::optional<Failure> failure = lastFailure(file_)) {
      // Bytes sent already cannot be taken back: the response is cut short instead.
      answer = sent_ > 0 ? 0 : answerFailure(*failure);
    } else if (sent_ > 0 || ++fetchesStarted_ > kMostFetchStarts) {
      answer = sent_ > 0 ? 0 : answerStatus(503, "Service Unavailable", "Retry-After: 10\r\n");
    } else {
      startFetch(context_, file_, lockFd);
    }
    ::close(lockFd);
    return answer;
  }

  KTSPassContext& context_;
  const FileToFetch& file_;
  int partFd_ = -1;
  std::int64_t sent_ = 0;
  bool headersSent_ = false;
  int fetchesStarted_ = 0;
};

}  // namespace

int answerOnDemand(KTSPassContext& context, const std::string& method, const std::string& urlPath) {
  ::signal(SIGPIPE, SIG_IGN);
  if (method != "GET" && method != "HEAD") {
    return answerStatus(405, "Method Not Allowed", "Allow: GET, HEAD\r\n");
  }
  bool headOnly = method == "HEAD";
  const KTSServerLayout& layout = context.layout();
  KTSOnDemandFiles onDemand(layout);
  std::string index;
  std::string error;
  std::optional<KTSOnDemandFiles::Entry> entry;
  if (readWholeFile(onDemand.indexPath(), &index, &error, KTSOnDemandFiles::kMostIndexBytes)) {
    entry = KTSOnDemandFiles::lookUp(index, urlPath);
  }
  std::string localPath = entry ? layout.localPathForURLPath(entry->urlPath) : "";
  if (!entry ||
      KTSProductFileRules::refusalBeforeCreatingFolder(layout, Url::parse(entry->url), localPath)) {
    return answerStatus(404, "Not Found");
  }
  ::mkdir(onDemand.folder().c_str(), 0770);
  ::mkdir(deletingLastPathComponent(onDemand.fetchPath(urlPath, "")).c_str(), 0770);
  FileToFetch file{*entry, localPath, onDemand.fetchPath(urlPath, ".lock"),
                   onDemand.fetchPath(urlPath, ".part"), onDemand.fetchPath(urlPath, ".failed")};
  if (headOnly) {
    sendHeaders(file, file.entry.size);
    return 0;
  }
  return Follower(context, file).run();
}

}  // namespace ondrel::programs
