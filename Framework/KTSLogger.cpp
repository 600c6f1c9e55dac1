#include "KTSLogger.h"

#include <sys/stat.h>

#include <cerrno>

#include "HostPaths.h"
#include "Plist.h"
#include "SharedInstance.h"

namespace ondrel {

namespace {

// Syslog priority of every line: facility user, level notice. The tag in the text carries the
// message's own level.
constexpr int kSyslogPriority = 13;
// Lets journal priorities 0 to 6 through and holds back 7 (debug).
constexpr int kJournalFilterMask = 127;

const char* syslogTag(std::int64_t level) {
  switch (level) {
    case KTSLogger::Notice:
      return "NOT";
    case KTSLogger::Warning:
      return "WRN";
    case KTSLogger::Error:
      return "ERR";
    case KTSLogger::Debug:
      return "DBG";
    default:
      return "INF";
  }
}

int journalPriority(std::int64_t level) {
  switch (level) {
    case KTSLogger::Notice:
      return 5;
    case KTSLogger::Warning:
      return 4;
    case KTSLogger::Error:
      return 3;
    case KTSLogger::Debug:
      return 7;
    default:
      return 6;
  }
}

std::string processName() {
  std::string name = program_invocation_short_name;
  return name.empty() ? "ondrel" : name;
}

}  // namespace

std::shared_ptr<KTSLogger> KTSLogger::defaultLoggerForSourceLogType(const std::string& sourceName,
                                                                    std::int64_t logType) {
  return SharedInstance<KTSLogger>::get(
      [&] { return loggerWithSourceLogType(sourceName, logType); });
}

std::shared_ptr<KTSLogger> KTSLogger::defaultLogger() {
  return SharedInstance<KTSLogger>::current();
}

std::shared_ptr<KTSLogger> KTSLogger::loggerWithSourceLogType(const std::string& sourceName,
                                                              std::int64_t logType) {
  return std::make_shared<KTSLogger>(sourceName, logType);
}

std::string KTSLogger::userDefaultsPath() {
  return fixedPath("/Library/Preferences/com.vantor.KTServer.plist");
}

KTSLogger::KTSLogger(std::string sourceName, std::int64_t logType)
    : sourceName_(std::move(sourceName)), logType_(logType) {}

KTSLogger::~KTSLogger() { closeVSLLog(); }

void KTSLogger::logInfo(const std::string& message, const std::optional<std::string>& source) {
  refreshUserDefaults();
  logMessageWithLevelSource(message, Info, source);
}

void KTSLogger::logNotice(const std::string& message, const std::optional<std::string>& source) {
  refreshUserDefaults();
  logMessageWithLevelSource(message, Notice, source);
}

void KTSLogger::logWarning(const std::string& message, const std::optional<std::string>& source) {
  refreshUserDefaults();
  logMessageWithLevelSource(message, Warning, source);
}

void KTSLogger::logError(const std::string& message, const std::optional<std::string>& source) {
  refreshUserDefaults();
  logMessageWithLevelSource(message, Error, source);
}

void KTSLogger::logDebug(const std::string& message, const std::optional<std::string>& source) {
  refreshUserDefaults();
  if (!enableDebugLogging_) return;
  logMessageWithLevelSource(message, Debug, source);
}

void KTSLogger::logBreak() { logMessageWithLevelSource(" ", Info, std::nullopt); }

void KTSLogger::logMessageWithLevelSource(const std::string& message, std::int64_t level,
                                          const std::optional<std::string>& source) {
  std::string text = message;
  if (source && showLogSource_) text += " " + *source;
  if (logType_ != 0) {
    if (openVSLLog()) vslClient_->send(journalPriority(level), text);
    return;
  }
  SystemLog::writeSyslogLine(kSyslogPriority,
                             fmt::format("{}[{}]: {}", sourceName_, syslogTag(level), text));
}

void KTSLogger::refreshUserDefaults() {
  std::string path = userDefaultsPath();
  if (!userDefaultsWatch_.mayHaveChanged(path)) return;
  struct stat status {};
  std::string stamp = path + ": missing";
  if (::stat(path.c_str(), &status) == 0) {
    stamp = fmt::format("{}: {}.{}:{}:{}", path, status.st_mtim.tv_sec, status.st_mtim.tv_nsec,
                        status.st_ino, status.st_size);
  }
  if (stamp == userDefaultsStamp_) return;
  userDefaultsStamp_ = stamp;
  // Read quietly: the utilities that would report a bad file log through this very logger.
  std::optional<Plist> defaults = Plist::readFile(path, nullptr, kSmallFileReadLimit);
  const Plist& settings = defaults ? *defaults : Plist();
  enableDebugLogging_ = settings["enableDebugLogging"].boolValue();
  showLogSource_ = settings["showLogSource"].boolValue();
}

bool KTSLogger::openVSLLog() {
  if (vslClient_) return true;
  vslClient_ = std::make_unique<JournalConnection>(processName(), /*echoToStandardError=*/true);
  vslClient_->setFilterMask(kJournalFilterMask);
  return true;
}

void KTSLogger::closeVSLLog() { vslClient_.reset(); }

}  // namespace ondrel
