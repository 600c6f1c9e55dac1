// ondrelctl verify: checks the product files the server keeps against the digests recorded as
// they arrived, holding the pass lock so that no pass changes them meanwhile.
#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <set>

#include "Ctl.h"
#include "KTSDigestManifests.h"
#include "KTSFileDigests.h"
#include "KTSFileVerifier.h"
#include "KTSPassContext.h"
#include "KTSServerLayout.h"
#include "PassLock.h"
#include "PathString.h"

namespace ondrel::ctl {

namespace {

using Clock = std::chrono::steady_clock;

// A line on the terminal, rewritten at most twice a second: bytes read, speed and time left.
class ProgressLine {
 public:
  explicit ProgressLine(std::uint64_t total) : total_(total), shown_(::isatty(STDERR_FILENO)) {}
  ~ProgressLine() {
    if (drawn_) std::fputs("\r\033[K", stderr);
  }
  void add(std::uint64_t bytes) {
    read_ += bytes;
    Clock::time_point now = Clock::now();
    if (!shown_ || now - lastDrawn_ < std::chrono::milliseconds(500)) return;
    lastDrawn_ = now;
    double seconds = std::chrono::duration<double>(now - started_).count();
    double speed = seconds > 0 ? static_cast<double>(read_) / seconds : 0;
    double left = speed > 0 && total_ > read_ ? static_cast<double>(total_ - read_) / speed : 0;
    std::fprintf(stderr, "\r\033[Kverify: %s of %s, %s/s, %.0f s left",
                 programs::humanBytes(read_).c_str(), programs::humanBytes(total_).c_str(),
                 programs::humanBytes(static_cast<std::uint64_t>(speed)).c_str(), left);
    std::fflush(stderr);
    drawn_ = true;
  }

 private:
  std::uint64_t total_;
  std::uint64_t read_ = 0;
  bool shown_;
  bool drawn_ = false;
  Clock::time_point started_ = Clock::now();
  Clock::time_point lastDrawn_;
};

struct Problem {
  KTSFileVerifier::KeptFile file;
  KTSFileVerifier::Result result;
};

// The path under the served tree, as the product's URL names it.
std::string servedPath(const std::string& path, const KTSServerLayout& layout) {
  std::string html = standardizingPath(layout.htmlFolder()) + "/";
  return path.rfind(html, 0) == 0 ? path.substr(html.size()) : path;
}

Plist summaryAsPlist(const KTSFileVerifier::Summary& summary, std::size_t unchecked, double seconds,
                     const std::vector<Problem>& problems, const KTSServerLayout& layout) {
  auto integer = [](std::uint64_t value) {
    return Plist::integer(static_cast<std::int64_t>(value));
  };
  Plist out = Plist::dictionary();
  out.set("checked", integer(summary.checked));
  out.set("good", integer(summary.good));
  out.set("firstDigests", integer(summary.firstDigests));
  out.set("missing", integer(summary.missing));
  out.set("changed", integer(summary.changed));
  out.set("unchecked", integer(unchecked));
  out.set("bytesRead", integer(summary.bytesRead));
  out.set("seconds", Plist::real(seconds));
  Plist list = Plist::array();
  for (const Problem& problem : problems) {
    Plist item = Plist::dictionary();
    item.set("productId", problem.file.productId);
    item.set("path", servedPath(problem.file.path, layout));
    item.set("finding", KTSFileVerifier::findingName(problem.result.finding));
    item.set("reason", problem.result.reason);
    list.append(item);
  }
  out.set("problems", list);
  return out;
}

void printSummary(const KTSFileVerifier::Summary& summary, std::size_t unchecked, double seconds) {
  std::string read;
  if (summary.bytesRead > 0) {
    read = fmt::format(" ({} in {:.1f} s, {}/s)", programs::humanBytes(summary.bytesRead), seconds,
                       programs::humanBytes(static_cast<std::uint64_t>(
                           static_cast<double>(summary.bytesRead) / std::max(seconds, 0.001))));
  }
  std::string good = fmt::format("{} good", summary.good);
  if (summary.firstDigests > 0) {
    good += fmt::format(" ({} digests taken for the first time)", summary.firstDigests);
  }
  std::printf("Checked %llu files%s: %s, %llu missing, %llu changed.\n",
              static_cast<unsigned long long>(summary.checked), read.c_str(), good.c_str(),
              static_cast<unsigned long long>(summary.missing),
              static_cast<unsigned long long>(summary.changed));
  if (unchecked > 0) {
    std::printf("Stopped at the time limit: %zu files were not checked.\n", unchecked);
  }
}

// What one run of the checks found.
struct Checked {
  KTSFileVerifier::Summary summary;
  std::vector<Problem> problems;
  std::size_t unchecked = 0;
  double seconds = 0;
};

Checked checkFiles(const std::vector<KTSFileVerifier::KeptFile>& files, KTSFileDigests& digests,
                   const KTSServerLayout& layout, const VerifyRequest& request) {
  KTSFileVerifier verifier(
      digests, layout,
      request.quick ? KTSFileVerifier::Depth::Quick : KTSFileVerifier::Depth::Full);
  std::uint64_t total = 0;
  for (const auto& file : files) total += static_cast<std::uint64_t>(file.size.value_or(0));
  Clock::time_point started = Clock::now();
  std::optional<Clock::time_point> deadline;
  if (request.maxSeconds) deadline = started + std::chrono::seconds(*request.maxSeconds);
  Checked checked;
  std::size_t next = 0;
  {
    ProgressLine progress(request.quick || request.json ? 0 : total);
    for (; next < files.size() && (!deadline || Clock::now() < *deadline); ++next) {
      KTSFileVerifier::Result result =
          verifier.check(files[next], [&progress](std::uint64_t bytes) { progress.add(bytes); });
      if (result.finding == KTSFileVerifier::Finding::Missing ||
          result.finding == KTSFileVerifier::Finding::Changed) {
        checked.problems.push_back({files[next], result});
      }
    }
  }
  checked.summary = verifier.summary();
  checked.unchecked = files.size() - next;
  checked.seconds = std::chrono::duration<double>(Clock::now() - started).count();
  return checked;
}

void printProblems(const std::vector<Problem>& problems, const KTSServerLayout& layout) {
  for (const Problem& problem : problems) {
    std::string reason = problem.result.reason.empty() ? "" : " (" + problem.result.reason + ")";
    std::printf("%-8s %s %s%s\n", KTSFileVerifier::findingName(problem.result.finding),
                problem.file.productId.c_str(), servedPath(problem.file.path, layout).c_str(),
                reason.c_str());
  }
}

// The files checked again once the pass that was to fetch them ended: those still missing or
// changed could not be repaired.
std::vector<Problem> stillDamaged(KTSPassContext& context, const std::vector<Problem>& problems) {
  const KTSServerLayout& layout = context.layout();
  // The record is written back: no pass may change the files or the record meanwhile (one that
  // has started holds them only until it ends).
  programs::PassLock lock(layout.filesLockPath());
  lock.waitUntilHeld([] { return true; });
  KTSFileDigests digests(KTSFileDigests::storePathForDocumentRoot(layout.documentRoot()));
  KTSFileVerifier verifier(digests, layout, KTSFileVerifier::Depth::Full);
  std::vector<Problem> left;
  for (const Problem& problem : problems) {
    KTSFileVerifier::Result result = verifier.check(problem.file);
    if (result.finding == KTSFileVerifier::Finding::Missing ||
        result.finding == KTSFileVerifier::Finding::Changed) {
      left.push_back({problem.file, result});
    }
  }
  digests.save();
  if (!digests.productsChanged().empty()) {
    KTSDigestManifests::publish(layout, digests, context.workingSet(), context.log());
  }
  return left;
}

// What a repair came to: the files still damaged after the pass that was to fetch them again,
// and why that pass gave no good outcome, when it did not.
struct Repair {
  std::vector<Problem> left;
  std::optional<std::string> passProblem;
};

// Asks for a pass to fetch the removed files again, waits for it, and checks them once more.
// Products whose files are still not back are not served: a served catalog names only products
// whose files are all in place.
std::optional<Repair> repair(KTSPassContext& context, const std::vector<Problem>& problems,
                             const VerifyRequest& request, std::string* error) {
  KTSSyncStatus& status = context.status();
  std::optional<Date> before = status.getLastRunTime();
  if (!programs::postSyncRequest(context, request.requester, error)) {
    *error = "the damaged files were removed, but no pass could be asked for: " + *error;
    return std::nullopt;
  }
  Repair outcome;
  outcome.passProblem = waitForPassAfter(status, before, [&request](const std::string& line) {
    if (request.json) return;
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  });
  if (outcome.passProblem && outcome.passProblem->rfind("no pass started", 0) == 0) {
    *error = "the damaged files were removed; " + *outcome.passProblem +
             " (ondrd_syncd --once fetches them again)";
    return std::nullopt;
  }
  outcome.left = stillDamaged(context, problems);
  return outcome;
}

std::set<std::string> productsOf(const std::vector<Problem>& problems) {
  std::set<std::string> ids;
  for (const Problem& problem : problems) ids.insert(problem.file.productId);
  return ids;
}

void printRepair(const Repair& outcome, std::size_t damaged, const KTSServerLayout& layout) {
  std::printf("Repaired %zu of %zu files.\n", damaged - outcome.left.size(), damaged);
  printProblems(outcome.left, layout);
  for (const std::string& productId : productsOf(outcome.left)) {
    std::printf("Could not repair %s: it is not served until its files are back.\n",
                productId.c_str());
  }
  if (outcome.passProblem) std::printf("The pass reported: %s\n", outcome.passProblem->c_str());
}

}  // namespace

int verify(const VerifyRequest& request) {
  KTSPassContext context;
  const KTSServerLayout& layout = context.layout();
  Checked checked;
  {
    programs::PassLock lock(layout.filesLockPath());
    // The daemon's scrub lets go of the files every few seconds; a pass holds them to its end.
    Clock::time_point giveUp = Clock::now() + std::chrono::seconds(6);
    if (!lock.waitUntilHeld([giveUp] { return Clock::now() < giveUp; })) {
      std::fprintf(stderr,
                   "ondrelctl: a pass, or the daemon's check of a large file, holds the kept "
                   "files (PID %d); verify once it has ended\n",
                   static_cast<int>(lock.holder().value_or(0)));
      return kExitBusy;
    }
    std::set<std::string> ids(request.productIds.begin(), request.productIds.end());
    KTSFileDigests digests(KTSFileDigests::storePathForDocumentRoot(layout.documentRoot()));
    // A quick check looks at what the record holds; a full one at every kept file, to take the
    // digests of those kept from before.
    std::vector<KTSFileVerifier::KeptFile> files =
        request.quick ? KTSFileVerifier::recordedFiles(context, digests, ids)
                      : KTSFileVerifier::keptFiles(context, ids);
    checked = checkFiles(files, digests, layout, request);
    if (request.repair) {
      for (const Problem& problem : checked.problems) {
        KTSFileVerifier::takeOut(layout, digests, problem.file.path);
      }
    }
    if (!digests.save()) return fail("the digests taken could not be recorded");
    if (!digests.productsChanged().empty()) {
      KTSDigestManifests::publish(layout, digests, context.workingSet(), context.log());
    }
  }
  if (!request.json) {
    printProblems(checked.problems, layout);
    printSummary(checked.summary, checked.unchecked, checked.seconds);
  }
  std::optional<Repair> repaired;
  if (request.repair && !checked.problems.empty()) {
    std::string error;
    repaired = repair(context, checked.problems, request, &error);
    if (!repaired) return fail(error);
    if (!request.json) printRepair(*repaired, checked.problems.size(), layout);
  }
  if (request.json) {
    Plist out = summaryAsPlist(checked.summary, checked.unchecked, checked.seconds,
                               checked.problems, layout);
    if (repaired) {
      out.set("repaired", Plist::integer(static_cast<std::int64_t>(checked.problems.size() -
                                                                   repaired->left.size())));
      Plist names = Plist::array();
      for (const std::string& productId : productsOf(repaired->left)) names.append(productId);
      out.set("notRepaired", names);
    }
    printJson(out);
  }
  if (repaired) return repaired->left.empty() ? 0 : kExitFilesDiffer;
  if (!checked.problems.empty()) return kExitFilesDiffer;
  return checked.unchecked > 0 ? kExitNotAllChecked : 0;
}

}  // namespace ondrel::ctl
