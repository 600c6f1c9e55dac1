#include "OndrelTest.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "KTSLogger.h"

namespace ondrel::test {

void ManualClock::sleepFor(std::chrono::duration<double> seconds) {
  sleeps_.push_back(seconds.count());
  advance(seconds);
}

void ManualClock::advance(std::chrono::duration<double> seconds) {
  now_ += std::chrono::duration_cast<Date::duration>(seconds);
}

void OndrelTest::SetUp() {
  char pattern[] = "/tmp/ondrel-test-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  root_ = pattern;
  // Readable by the service account, which the web server runs as.
  ::chmod(root_.c_str(), 0755);
  std::filesystem::create_directories(root_ + "/Library/Server");
  std::filesystem::create_directories(root_ + "/Library/Preferences");
  resources_ = ONDREL_SOURCE_RESOURCES;
  ::setenv("ONDREL_ROOT", root_.c_str(), 1);
  ::setenv("ONDREL_RESOURCES", resources_.c_str(), 1);
  SystemLog::installCapture([this](const LogEntry& entry) { entries_.push_back(entry); });
  // Starts at the real time: file modification times, which the system sets, are compared with it.
  clock_ = std::make_shared<ManualClock>(
      std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now()));
  Clock::install(clock_);
  // The process's one logger, made by the first test; it follows each test's user defaults.
  KTSLogger::defaultLoggerForSourceLogType("ondrd_test", 0);
}

void OndrelTest::TearDown() {
  context_.reset();
  Clock::install(nullptr);
  SystemLog::installCapture(nullptr);
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
  ::unsetenv("ONDREL_ROOT");
}

std::string OndrelTest::path(const std::string& absolute) const { return root_ + absolute; }

KTSPassContext& OndrelTest::context() {
  if (!context_) context_ = std::make_unique<KTSPassContext>();
  return *context_;
}

void OndrelTest::renewContext() { context_.reset(); }

void OndrelTest::setUserDefaults(bool enableDebugLogging, bool showLogSource) {
  Plist defaults = Plist::dictionary();
  defaults.set("enableDebugLogging", Plist::boolean(enableDebugLogging));
  defaults.set("showLogSource", Plist::boolean(showLogSource));
  ASSERT_TRUE(defaults.writeXmlFile(KTSLogger::userDefaultsPath(), nullptr));
}

std::vector<std::string> OndrelTest::logLines() const {
  std::vector<std::string> lines;
  for (const LogEntry& entry : entries_) lines.push_back(entry.text);
  return lines;
}

bool OndrelTest::logged(const std::string& line) const {
  for (const LogEntry& entry : entries_) {
    if (entry.text == line) return true;
  }
  return false;
}

void OndrelTest::writeFile(const std::string& path, const std::string& contents) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << contents;
}

std::string OndrelTest::readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

}  // namespace ondrel::test
