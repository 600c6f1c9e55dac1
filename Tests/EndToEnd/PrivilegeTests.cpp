// The service account must not be a way to root: everything under the service root is the
// account's to write (the daemon, its hooks and the web server's CGIs run as it), so whatever it
// plants there must never be read, run or followed by root. Here the account plants a piped
// logger, a log file linked into a root-only folder, a link where a CGI is installed, a metrics
// file and a hook aimed outside; then root runs every entry point it has.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "ApacheServer.h"
#include "OndrelTest.h"
#include "ProgramRunner.h"
#include "ServiceAccount.h"

namespace ondrel {
namespace {

using test::runProgram;

class PrivilegeTest : public test::OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    char pattern[] = "/tmp/ondrel-root-only-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    outside_ = pattern;
    writeFile(outside_ + "/victim", "root's own\n");
  }
  void TearDown() override {
    runProgram(ONDREL_CTL, {"web", "stop"});
    std::filesystem::remove_all(outside_);
    OndrelTest::TearDown();
  }

  std::string service(const std::string& tail) const {
    return path("/Library/Server/Ondrel/" + tail);
  }
  // A shell command that records who ran it where the account may write, then tries the
  // root-only folder.
  std::string recordAndEscape(const std::string& name) const {
    return "id -u >> " + ranAs() + "; id -u > " + outside_ + "/" + name;
  }
  std::string ranAs() const { return service("Status/ran-as"); }

  std::set<std::string> outsideEntries() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(outside_)) {
      names.insert(entry.path().filename());
    }
    return names;
  }

  std::string outside_;
};

TEST_F(PrivilegeTest, NothingTheServiceAccountPlantsRunsOrIsFollowedAsRoot) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  auto ctl = [](const std::vector<std::string>& arguments) {
    return runProgram(ONDREL_CTL, arguments);
  };
  auto passwd = [](const std::string& user, const std::string& password) {
    return runProgram("/bin/sh",
                      {"-c", "echo " + password + " | " ONDREL_CTL " web passwd " + user});
  };
  const std::string port = std::to_string(test::freeLoopbackPort());
  for (const auto& [key, value] : std::vector<std::pair<std::string, std::string>>{
           {"portToUse", port},
           {"adminPort", std::to_string(test::freeLoopbackPort())},
           {"publicHostName", "127.0.0.1"},
           {"metaIndexURL", "http://127.0.0.1:1/content/meta/config.plist"}}) {
    ASSERT_EQ(ctl({"config", "set", key, value}).exitStatus, 0) << key;
  }
  ASSERT_EQ(passwd("admin", "a-long-password").exitStatus, 0);
  ASSERT_EQ(ctl({"web", "prepare"}).exitStatus, 0);

  // What the account plants: a piped logger, the CGI installer's temporary file linked to a
  // root file, a hook, and a metrics file outside.
  const std::string conf = service("Config/ondrd.conf");
  const std::string cleanConf = readFile(conf);
  writeFile(conf, cleanConf + "ErrorLog \"|/bin/sh -c '" + recordAndEscape("logger") + "'\"\n");
  std::filesystem::remove(service("cgi-bin/OndrelServerGetCatalog"));
  std::filesystem::create_symlink(outside_ + "/victim",
                                  service("cgi-bin/OndrelServerGetCatalog.installing"));
  writeFile(service("Config/hooks.d/10-escape"), "#!/bin/sh\n" + recordAndEscape("hook") + "\n");
  std::filesystem::permissions(service("Config/hooks.d/10-escape"),
                               std::filesystem::perms::owner_all);
  ASSERT_EQ(ctl({"config", "set", "metricsFile", outside_ + "/metrics.prom"}).exitStatus, 0);

  // Every way root acts on the server: the command (logrotate reloads through it), the daemon.
  EXPECT_EQ(ctl({"web", "start"}).exitStatus, 0);
  EXPECT_EQ(ctl({"web", "status"}).output.find("running"), 0u);
  // A member of the service group (who may write the service folder, as on an installed server)
  // sees it running too, though it may not signal it.
  ASSERT_EQ(::chmod(path("/Library/Server/Ondrel").c_str(), 02770), 0);
  std::vector<std::string> member = {"--reuid=nobody", "--regid=nogroup", "--groups=_ondrel",
                                     ONDREL_CTL, "web"};
  member.push_back("status");
  EXPECT_EQ(runProgram("/usr/bin/setpriv", member).output.find("running"), 0u);
  member.back() = "reload";
  EXPECT_NE(runProgram("/usr/bin/setpriv", member).output.find("only root and _ondrel may reload"),
            std::string::npos);
  EXPECT_EQ(ctl({"web", "reload"}).exitStatus, 0);
  EXPECT_EQ(ctl({"web", "prepare"}).exitStatus, 0);
  EXPECT_EQ(ctl({"config", "set", "syncBandwidth", "100"}).exitStatus, 0);
  EXPECT_EQ(passwd("other", "another-long-one").exitStatus, 0);
  EXPECT_EQ(ctl({"sync"}).exitStatus, 0);
  EXPECT_EQ(ctl({"status"}).exitStatus, 0);
  runProgram(ONDREL_SYNCD, {"--once"});
  EXPECT_EQ(ctl({"web", "stop"}).exitStatus, 0);

  // The error log linked into the root-only folder, then the web server started and reloaded.
  writeFile(conf, cleanConf);
  std::filesystem::remove(service("Status/httpd_error.log"));
  std::filesystem::create_symlink(outside_ + "/error.log", service("Status/httpd_error.log"));
  ctl({"web", "start"});
  ctl({"web", "reload"});
  ctl({"web", "stop"});

  EXPECT_EQ(outsideEntries(), std::set<std::string>{"victim"});
  EXPECT_TRUE(readFile(outside_ + "/victim") == "root's own\n") << "the root file was overwritten";
  // What was planted did run, as the account.
  const std::string account = std::to_string(serviceAccountIds()->uid);
  std::ifstream records(ranAs());
  std::set<std::string> runners;
  for (std::string line; std::getline(records, line);) runners.insert(line);
  EXPECT_EQ(runners, std::set<std::string>{account});
  // Whoever ran the commands, what they made is the account's.
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root_)) {
    struct stat status {};
    ASSERT_EQ(::lstat(entry.path().c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, serviceAccountIds()->uid) << entry.path();
  }
}

}  // namespace
}  // namespace ondrel
