// The fixture every test uses: a fresh ONDREL_ROOT folder (with "Library/Server" in place, as on
// an installed server), the source tree's resources, a capture of every log entry, a manual clock,
// a shared default logger and a pass context made on first use. The shared preferences and logger
// are reset before and after each test.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "Clock.h"
#include "KTSPassContext.h"
#include "Plist.h"
#include "SystemLog.h"

namespace ondrel::test {

// Time that moves only when a test moves it; sleeping advances it and is recorded.
class ManualClock : public ClockSource {
 public:
  explicit ManualClock(Date start) : now_(start) {}
  Date now() override { return now_; }
  void sleepFor(std::chrono::duration<double> seconds) override;
  void advance(std::chrono::duration<double> seconds);
  const std::vector<double>& sleeps() const { return sleeps_; }

 private:
  Date now_;
  std::vector<double> sleeps_;
};

class OndrelTest : public ::testing::Test {
 public:
  static void writeFile(const std::string& path, const std::string& contents);
  static std::string readFile(const std::string& path);

 protected:
  void SetUp() override;
  void TearDown() override;

  // root_ joined with an absolute-looking path: path("/var/spool/ondrd").
  std::string path(const std::string& absolute) const;
  // The test's context, made on first use; renewContext lets it go, so that the next use reads
  // the server's files anew, as the next pass or command would.
  KTSPassContext& context();
  void renewContext();
  // Writes the logger's user-defaults file.
  void setUserDefaults(bool enableDebugLogging, bool showLogSource = false);
  // Texts of captured syslog lines, in order.
  std::vector<std::string> logLines() const;
  bool logged(const std::string& line) const;
  void clearLog() { entries_.clear(); }
  std::string root_;
  std::string resources_;
  std::vector<LogEntry> entries_;
  std::shared_ptr<ManualClock> clock_;

 private:
  std::unique_ptr<KTSPassContext> context_;
};

}  // namespace ondrel::test
