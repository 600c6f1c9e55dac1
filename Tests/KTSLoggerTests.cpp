#include <filesystem>

#include "KTSLogger.h"
#include "OndrelTest.h"

namespace ondrel {
namespace {

using test::OndrelTest;

class KTSLoggerTest : public OndrelTest {};

TEST_F(KTSLoggerTest, SyslogLinesCarryNameTagAndOptionalSource) {
  auto logger = KTSLogger::loggerWithSourceLogType("ondrd_syncd", 0);
  logger->logError("disk low", std::string("PREF"));
  setUserDefaults(false, true);
  logger->logWarning("disk low", std::string("PREF"));
  logger->logNotice("started");
  logger->logInfo("no source here", std::nullopt);
  logger->logBreak();
  logger->logMessageWithLevelSource("odd level", 9, std::nullopt);
  EXPECT_EQ(logLines(), (std::vector<std::string>{
                            "ondrd_syncd[ERR]: disk low", "ondrd_syncd[WRN]: disk low PREF",
                            "ondrd_syncd[NOT]: started", "ondrd_syncd[INF]: no source here",
                            "ondrd_syncd[INF]:  ", "ondrd_syncd[INF]: odd level"}));
  for (const LogEntry& entry : entries_) {
    EXPECT_EQ(entry.channel, LogEntry::Channel::Syslog);
    EXPECT_EQ(entry.priority, 13);
  }
}

TEST_F(KTSLoggerTest, DebugSwitchIsReadBeforeEveryMessage) {
  auto logger = KTSLogger::loggerWithSourceLogType("ondrd_syncd", 0);
  logger->logDebug("hidden: no preferences folder yet", std::nullopt);
  setUserDefaults(false);
  logger->logDebug("hidden", std::nullopt);
  setUserDefaults(true);
  logger->logDebug("shown", std::nullopt);
  writeFile(KTSLogger::userDefaultsPath(), "corrupt <plist");
  logger->logDebug("hidden again", std::nullopt);
  EXPECT_FALSE(logger->enableDebugLogging());
  setUserDefaults(true);
  logger->setEnableDebugLogging(false);
  logger->logDebug("re-read wins over the property", std::nullopt);
  // The folder itself replaced: the change is still seen.
  std::string folder = std::filesystem::path(KTSLogger::userDefaultsPath()).parent_path();
  std::filesystem::remove_all(folder);
  logger->logDebug("hidden with the folder gone", std::nullopt);
  std::filesystem::create_directories(folder);
  setUserDefaults(true);
  logger->logDebug("shown in the new folder", std::nullopt);
  EXPECT_EQ(logLines(),
            (std::vector<std::string>{"ondrd_syncd[DBG]: shown",
                                      "ondrd_syncd[DBG]: re-read wins over the property",
                                      "ondrd_syncd[DBG]: shown in the new folder"}));
}

TEST_F(KTSLoggerTest, JournalModeMapsPrioritiesAndHoldsBackDebug) {
  setUserDefaults(true, true);
  auto logger = KTSLogger::loggerWithSourceLogType("ondrd_syncd", 1);
  EXPECT_FALSE(logger->hasVSLClient());
  logger->logInfo("i");
  logger->logNotice("n");
  logger->logWarning("w", std::string("SRC"));
  logger->logError("e");
  logger->logDebug("d", std::nullopt);
  EXPECT_TRUE(logger->hasVSLClient());
  ASSERT_EQ(entries_.size(), 4u);
  EXPECT_EQ(entries_[0].priority, 6);
  EXPECT_EQ(entries_[1].priority, 5);
  EXPECT_EQ(entries_[2].priority, 4);
  EXPECT_EQ(entries_[2].text, "w SRC");
  EXPECT_EQ(entries_[3].priority, 3);
  for (const LogEntry& entry : entries_) EXPECT_EQ(entry.channel, LogEntry::Channel::Journal);
  logger->closeVSLLog();
  EXPECT_FALSE(logger->hasVSLClient());
}

}  // namespace
}  // namespace ondrel
