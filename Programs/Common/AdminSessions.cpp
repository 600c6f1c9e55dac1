#include "AdminSessions.h"

#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <sstream>

#include "AdminRequests.h"
#include "AdminSite.h"
#include "Clock.h"
#include "FileIO.h"
#include "KTSServerLayout.h"

namespace ondrel::programs {

namespace {

constexpr std::chrono::hours kSessionLength{12};
constexpr std::size_t kMostSessionBytes = 256;
// Clearing away stops after this many files: a folder filled by someone else costs no more.
constexpr int kMostSessionsLookedAt = 10000;

struct Session {
  std::string user;
  std::int64_t ends = 0;
};

// The session recorded under name, or none (ends 0) when the file is not one.
Session readSession(const KTSServerLayout& layout, const std::string& name) {
  Session session;
  std::string text;
  std::string ignored;
  if (!isSessionId(name) || !readWholeFile(layout.adminSessionsFolder() + "/" + name, &text,
                                           &ignored, kMostSessionBytes)) {
    return session;
  }
  std::istringstream lines(text);
  std::string ends;
  if (!std::getline(lines, session.user) || !std::getline(lines, ends) || ends.empty() ||
      ends.size() > 12 || ends.find_first_not_of("0123456789") != std::string::npos) {
    return {};
  }
  session.ends = std::stoll(ends);
  return session;
}

void clearEndedSessions(const KTSServerLayout& layout) {
  namespace fs = std::filesystem;
  std::error_code error;
  int lookedAt = 0;
  std::int64_t now = Clock::secondsNow();
  for (auto entry = fs::directory_iterator(layout.adminSessionsFolder(), error);
       !error && entry != fs::directory_iterator() && ++lookedAt <= kMostSessionsLookedAt;
       entry.increment(error)) {
    if (readSession(layout, entry->path().filename()).ends <= now) fs::remove(entry->path(), error);
  }
}

}  // namespace

std::string startAdminSession(const KTSServerLayout& layout, const std::string& user,
                              std::string* error) {
  std::error_code ignored;
  std::filesystem::create_directory(layout.adminSessionsFolder(), ignored);
  ::chmod(layout.adminSessionsFolder().c_str(), 0770);
  clearEndedSessions(layout);
  std::string session = newSessionId();
  std::int64_t ends = Clock::secondsNow() +
                      std::chrono::duration_cast<std::chrono::seconds>(kSessionLength).count();
  if (!writeStringAtomically(layout.adminSessionsFolder() + "/" + session,
                             user + "\n" + std::to_string(ends) + "\n", error)) {
    return "";
  }
  return session;
}

std::string adminSessionUser(const KTSServerLayout& layout, const std::string& session) {
  Session found = readSession(layout, session);
  if (found.ends <= Clock::secondsNow() || !isAdminUser(layout, found.user)) return "";
  return found.user;
}

void endAdminSession(const KTSServerLayout& layout, const std::string& session) {
  if (!isSessionId(session)) return;
  std::error_code ignored;
  std::filesystem::remove(layout.adminSessionsFolder() + "/" + session, ignored);
}

}  // namespace ondrel::programs
