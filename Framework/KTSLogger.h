// KTSLogger is the server's one logging facility: text lines to syslog, or entries to the
// structured log facility. Programs create the shared default logger once at start; every class
// keeps the logger it found at construction in a LogHandle, which does nothing when there is none.
// The debug and source-tag switches are re-read from the user-defaults file before every message
// in which it changed (a FileWatch makes asking cheap).
// Not thread-safe: each process logs from one thread.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "FileWatch.h"
#include "SystemLog.h"

namespace ondrel {

class KTSLogger {
 public:
  enum Level : std::int64_t { Info = 0, Notice = 1, Warning = 2, Error = 3, Debug = 4 };

  // The first call creates the shared logger; later calls return it and ignore their arguments.
  static std::shared_ptr<KTSLogger> defaultLoggerForSourceLogType(const std::string& sourceName,
                                                                  std::int64_t logType);
  // The shared logger, or none before defaultLoggerForSourceLogType was called.
  static std::shared_ptr<KTSLogger> defaultLogger();
  static std::shared_ptr<KTSLogger> loggerWithSourceLogType(const std::string& sourceName,
                                                            std::int64_t logType);
  // The user-defaults file that holds "enableDebugLogging" and "showLogSource".
  static std::string userDefaultsPath();

  // logType 0 writes syslog lines; any other value writes to the structured log facility.
  KTSLogger(std::string sourceName, std::int64_t logType);
  ~KTSLogger();
  KTSLogger(const KTSLogger&) = delete;
  KTSLogger& operator=(const KTSLogger&) = delete;

  void logInfo(const std::string& message, const std::optional<std::string>& source = {});
  void logNotice(const std::string& message, const std::optional<std::string>& source = {});
  void logWarning(const std::string& message, const std::optional<std::string>& source = {});
  void logError(const std::string& message, const std::optional<std::string>& source = {});
  // Written only when "enableDebugLogging" is true in the user defaults.
  void logDebug(const std::string& message, const std::optional<std::string>& source);
  // A line holding one space, at info level; does not re-read the user defaults.
  void logBreak();
  void logMessageWithLevelSource(const std::string& message, std::int64_t level,
                                 const std::optional<std::string>& source);
  // Reads the switches again when the user-defaults file changed since the last read (reported
  // by the watch of its folder, then told by its modification time at full resolution, its inode
  // or its size).
  void refreshUserDefaults();
  // Whether a debug message would reach the log. The journal's filter holds debug back whatever
  // the switch says, so only a syslog logger refreshes the switches to answer.
  bool writesDebugMessages() {
    if (logType_ != 0) return false;
    refreshUserDefaults();
    return enableDebugLogging_;
  }
  bool openVSLLog();
  void closeVSLLog();

  const std::string& sourceName() const { return sourceName_; }
  void setSourceName(std::string sourceName) { sourceName_ = std::move(sourceName); }
  std::int64_t logType() const { return logType_; }
  void setLogType(std::int64_t logType) { logType_ = logType; }
  bool enableDebugLogging() const { return enableDebugLogging_; }
  void setEnableDebugLogging(bool enable) { enableDebugLogging_ = enable; }
  bool showLogSource() const { return showLogSource_; }
  void setShowLogSource(bool show) { showLogSource_ = show; }
  bool hasVSLClient() const { return vslClient_ != nullptr; }

 private:
  std::string sourceName_;
  std::int64_t logType_;
  std::unique_ptr<JournalConnection> vslClient_;
  bool enableDebugLogging_ = false;
  bool showLogSource_ = false;
  std::optional<std::string> userDefaultsStamp_;
  FileWatch userDefaultsWatch_;
};

// A class's hold on the logger it found at construction. Formats with fmt and forwards to the
// logger; with no logger every call does nothing.
class LogHandle {
 public:
  LogHandle() = default;
  explicit LogHandle(std::shared_ptr<KTSLogger> logger) : logger_(std::move(logger)) {}
  // A handle on the shared default logger as it is now.
  static LogHandle shared() { return LogHandle(KTSLogger::defaultLogger()); }

  const std::shared_ptr<KTSLogger>& logger() const { return logger_; }

  template <typename... Args>
  void info(fmt::format_string<Args...> format, Args&&... args) const {
    if (logger_) logger_->logInfo(fmt::format(format, std::forward<Args>(args)...));
  }
  template <typename... Args>
  void notice(fmt::format_string<Args...> format, Args&&... args) const {
    if (logger_) logger_->logNotice(fmt::format(format, std::forward<Args>(args)...));
  }
  template <typename... Args>
  void warning(fmt::format_string<Args...> format, Args&&... args) const {
    if (logger_) logger_->logWarning(fmt::format(format, std::forward<Args>(args)...));
  }
  template <typename... Args>
  void error(fmt::format_string<Args...> format, Args&&... args) const {
    if (logger_) logger_->logError(fmt::format(format, std::forward<Args>(args)...));
  }
  // The message is formatted only when it would be written.
  template <typename... Args>
  void debug(fmt::format_string<Args...> format, Args&&... args) const {
    if (!logger_ || !logger_->writesDebugMessages()) return;
    logger_->logMessageWithLevelSource(fmt::format(format, std::forward<Args>(args)...),
                                       KTSLogger::Debug, std::nullopt);
  }

 private:
  std::shared_ptr<KTSLogger> logger_;
};

}  // namespace ondrel
