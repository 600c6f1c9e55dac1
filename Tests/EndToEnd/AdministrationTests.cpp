// ondrelctl and the catalog CGI as programs: what an administrator sees and steers, and what a
// client fetches through a real Apache.
#include <grp.h>
#include <httplib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <tuple>

#include "ApacheServer.h"
#include "DateFormats.h"
#include "KTSJobTicketManager.h"
#include "KTSPassHistory.h"
#include "KTSPassProgress.h"
#include "KTSPreferences.h"
#include "KTSProduct.h"
#include "KTSRequestManager.h"
#include "KTSServerLayout.h"
#include "KTSSyncPass.h"
#include "KTSSyncStatus.h"
#include "KTSWorkingSet.h"
#include "LoopbackServer.h"
#include "OndrelTest.h"
#include "ProductArchives.h"
#include "ProgramRunner.h"
#include "SampleTree.h"
#include "UpstreamServer.h"

namespace ondrel {
namespace {

using test::OndrelTest;
using test::runProgram;

const std::string kNewest =
    "index-10.12-10.11-10.10-10.9-dogwood-cedar-birch-alder.merged-1.ktcatalog";

test::ProgramResult ctl(const std::vector<std::string>& arguments) {
  return runProgram(ONDREL_CTL, arguments);
}

class AdministrationTest : public OndrelTest {
 protected:
  // A working set of three products, written by the library as the daemon would.
  void writeWorkingSet() {
    KTSWorkingSet::ProductsById products;
    for (const auto& [id, mirror, enabled] :
         std::vector<std::tuple<std::string, const char*, bool>>{
             {"VT-000001", "Mirrored", true},
             {"VT-000002", "PleaseMirror", false},
             {"VT-000003", "DoNotMirror", false}}) {
      Plist archive = test::productArchive(id, mirror, enabled);
      archive.set("version", "1.2");
      Plist english = Plist::dictionary();
      english.set("title", id == "VT-000002" ? "Vantor Zarrow Update" : "Vantor Quendel Update");
      archive.mutableValue("localization").set("English", english);
      archive.set("totalDownloadSize", Plist::integer(4096));
      products[id] = KTSProduct::productWithArchiveRepresentation(archive, context().layout());
    }
    auto workingSet = (&context().workingSet());
    ASSERT_TRUE(
        workingSet->updateWithProductsAndRevocationsArchivingPrevious(products, Plist(), false));
    for (const auto& [id, product] : products) workingSet->updateProductStatus(*product);
    ASSERT_TRUE(workingSet->saveProductsArchivingPrevious(false));
  }
};

TEST_F(AdministrationTest, StatusProductsAndMetricsReadTheSharedFiles) {
  test::ProgramResult fresh = ctl({"status", "--json"});
  ASSERT_EQ(fresh.exitStatus, 0) << fresh.output;
  EXPECT_NE(fresh.output.find("\"syncState\": \"never run\""), std::string::npos) << fresh.output;

  writeWorkingSet();
  // A full pass failed (as the pass records it), then one that carried out changes succeeded:
  // both are told, and neither contradicts the other.
  KTSPassOutcome failed;
  failed.failures.push_back("the upstream example does not answer; catalogs served as they were");
  context().status().setUpdateErrorWithNote(true, failed.note());
  KTSPassHistory history(KTSPassHistory::defaultPath(context().layout()));
  KTSPassHistory::Pass changes;
  changes.started = Clock::now();
  changes.ended = changes.started;
  changes.fullSync = false;
  changes.bytesStillToFetch = 12'500'000;
  ASSERT_TRUE(history.record(changes));
  test::ProgramResult status = ctl({"status"});
  EXPECT_NE(status.output.find("Products:        3, 1 enabled"), std::string::npos)
      << status.output;
  EXPECT_NE(status.output.find("Last pass:       succeeded (changes only), "), std::string::npos)
      << status.output;
  EXPECT_NE(status.output.find("(12.5 MB still to mirror)"), std::string::npos) << status.output;
  EXPECT_NE(status.output.find("Daemon:          not running"), std::string::npos);
  KTSPassProgress(KTSPassProgress::defaultPath(context().layout())).passStarted();
  EXPECT_EQ(ctl({"status"}).output.find("Pass under way"), std::string::npos)
      << "the progress a daemon that is gone left behind";
  // Mirroring and enabling on its own, yet MANUAL: the status names the missing setting.
  ASSERT_EQ(ctl({"config", "set", "autoMirror", "true"}).exitStatus, 0);
  ASSERT_EQ(ctl({"config", "set", "autoEnable", "true"}).exitStatus, 0);
  std::string manual = ctl({"status"}).output;
  EXPECT_NE(manual.find("Mode:            MANUAL (auto-download ON)\n                 AUTOMATIC "
                        "also needs PurgeUnused true: ondrelctl config set PurgeUnused true\n"),
            std::string::npos)
      << manual;
  EXPECT_NE(status.output.find("\nFailure:         the upstream example does not answer; catalogs "
                               "served as they were (until a full pass succeeds)\n"),
            std::string::npos)
      << status.output;
  EXPECT_NE(status.output.find("1 DoNotMirror, 1 Mirrored, 1 PleaseMirror"), std::string::npos);

  test::ProgramResult mirrored = ctl({"products", "--state", "mirrored", "--json"});
  EXPECT_NE(mirrored.output.find("VT-000001"), std::string::npos);
  EXPECT_EQ(mirrored.output.find("VT-000002"), std::string::npos);
  test::ProgramResult search = ctl({"products", "--search", "zarrow"});
  EXPECT_NE(search.output.find("VT-000002"), std::string::npos);
  EXPECT_NE(search.output.find("1 products"), std::string::npos) << search.output;
  EXPECT_EQ(ctl({"products", "--enabled"}).output.find("VT-000003"), std::string::npos);
  EXPECT_NE(ctl({"product", "VT-000002"}).output.find("Vantor Zarrow Update"), std::string::npos);
  EXPECT_EQ(ctl({"product", "VT-999999"}).exitStatus, 1);
  EXPECT_EQ(ctl({"products", "--bogus"}).exitStatus, 2);

  // Prometheus text: every sample line names a metric declared by HELP and TYPE lines.
  test::ProgramResult metrics = ctl({"metrics"});
  ASSERT_EQ(metrics.exitStatus, 0);
  std::regex sample(R"(^([a-zA-Z_:][a-zA-Z0-9_:]*)(\{[a-z_]+="[^"]*"\})? -?[0-9.e+]+$)");
  std::set<std::string> declared;
  std::istringstream lines(metrics.output);
  std::size_t samples = 0;
  for (std::string line; std::getline(lines, line);) {
    std::smatch match;
    if (line.rfind("# TYPE ", 0) == 0) {
      declared.insert(line.substr(7, line.find(' ', 7) - 7));
    } else if (line.rfind("# HELP ", 0) != 0) {
      ASSERT_TRUE(std::regex_match(line, match, sample)) << line;
      EXPECT_TRUE(declared.count(match[1])) << line;
      ++samples;
    }
  }
  EXPECT_GT(samples, 10u);
  EXPECT_NE(metrics.output.find("ondrel_products{mirror_state=\"PleaseMirror\"} 1"),
            std::string::npos);
}

TEST_F(AdministrationTest, OnlyRootAndTheServiceGroupAdminister) {
  writeWorkingSet();
  ASSERT_EQ(ctl({"status"}).exitStatus, 0);
  // As on an installed server: the service folder belongs to the group, others get nothing.
  namespace fs = std::filesystem;
  for (std::string folder = root_; folder != "/"; folder = fs::path(folder).parent_path()) {
    fs::permissions(folder, fs::perms::others_exec, fs::perm_options::add);
  }
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root_)) {
    ASSERT_EQ(::chown(entry.path().c_str(), 0, ::getgrnam("_ondrel")->gr_gid), 0);
    fs::permissions(entry.path(), fs::perms::group_all, fs::perm_options::add);
    fs::permissions(entry.path(), fs::perms::others_all, fs::perm_options::remove);
  }
  auto asNobody = [](const std::vector<std::string>& groups, const std::vector<std::string>& rest) {
    std::vector<std::string> arguments = {"--reuid=nobody", "--regid=nogroup"};
    arguments.insert(arguments.end(), groups.begin(), groups.end());
    arguments.push_back(ONDREL_CTL);
    arguments.insert(arguments.end(), rest.begin(), rest.end());
    return runProgram("/usr/bin/setpriv", arguments);
  };
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"status"}, {"mirror", "VT-000002"}}) {
    test::ProgramResult refused = asNobody({"--clear-groups"}, command);
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_EQ(refused.output,
              "ondrelctl: only root and members of group _ondrel may administer this server, and "
              "nobody is neither; an administrator can add you with \"adduser nobody _ondrel\" "
              "(it counts from your next login)\n");
  }
  test::ProgramResult member = asNobody({"--groups=_ondrel"}, {"status"});
  EXPECT_EQ(member.exitStatus, 0) << member.output;
  EXPECT_NE(member.output.find("Products:        3, 1 enabled"), std::string::npos);
}

TEST_F(AdministrationTest, ChangesArePostedMergedWithTicketsAndNeverLost) {
  writeWorkingSet();
  test::ProgramResult unknown = ctl({"mirror", "VT-000001", "VT-404"});
  EXPECT_EQ(unknown.exitStatus, 1);
  EXPECT_NE(unknown.output.find("no product VT-404"), std::string::npos) << unknown.output;
  for (const std::string& hostile :
       {std::string("../x"), std::string("VT/000001"), std::string("VT-000001\nVT-000002"),
        std::string(100000, 'V'), std::string("-rf"), std::string("")}) {
    test::ProgramResult refused = ctl({"enable", hostile});
    EXPECT_NE(refused.exitStatus, 0) << hostile.substr(0, 40);
    EXPECT_LT(refused.output.size(), 2000u) << "one clear line, not the id echoed at length";
  }
  EXPECT_FALSE((&context().requests())->hasPendingRequests()) << "nothing posted";

  ASSERT_EQ(ctl({"mirror", "VT-000002", "VT-000003"}).exitStatus, 0);
  ASSERT_EQ(ctl({"enable", "VT-000003"}).exitStatus, 0) << "in the same second, kept too";
  Plist merged = (&context().requests())->getPendingChangeRequestsDeletingSource(true);
  EXPECT_TRUE(merged["VT-000002"]["mirror"].boolValue());
  EXPECT_TRUE(merged["VT-000003"]["enable"].boolValue());
  auto tickets = (&context().tickets());
  tickets->refresh();
  EXPECT_TRUE(tickets->hasTicketOfTypeForProduct(KTSJobTicket::Mirror, "VT-000002"));
  EXPECT_TRUE(tickets->hasTicketOfTypeForProduct(KTSJobTicket::Enable, "VT-000003"));
  // Who asked for what is kept, newest first; a line that is not an entry is left out.
  std::ofstream(context().layout().statusPath("audit.log"), std::ios::app)
      << "garbage\nnot a date\tx\ty\tz\n";
  std::string log = ctl({"log"}).output;
  std::regex entry(R"(^\S+Z  root.*enable +VT-000003\n\S+Z  root.*mirror +VT-000002 VT-000003\n$)");
  EXPECT_TRUE(std::regex_search(log, entry)) << log;
}

// Catalog requests answered, bytes and distinct clients per catalog, from the web server's log:
// the newest day in the metrics; anything else in the log is not counted.
TEST_F(AdministrationTest, MetricsCountTheClientsOfEachCatalog) {
  const std::string cgi = "GET /cgi-bin/OndrelServerGetCatalog?/" + kNewest + " HTTP/1.1";
  auto line = [](const std::string& client, const std::string& day, const std::string& request,
                 const std::string& status, const std::string& bytes) {
    return client + " - - [" + day + ":10:00:00 +0000] \"" + request + "\" " + status + " " +
           bytes + " \"Vantor-Update/1.0 Taltos/16.0.0\"\n";
  };
  std::string log =
      line("10.0.0.1", "24/Nov/2026", cgi, "200", "5000") +
      line("10.0.0.1", "25/Nov/2026", cgi, "200", "5000") +
      line("10.0.0.2", "25/Nov/2026", cgi, "304", "-") +
      line("10.0.0.1", "25/Nov/2026", cgi, "304", "-") +
      line("10.0.0.3", "25/Nov/2026", "GET /content/catalogs/others/index.ktcatalog HTTP/1.1",
           "200", "70") +
      line("10.0.0.4", "25/Nov/2026", cgi, "404", "20") +
      line("10.0.0.5", "25/Nov/2026", "GET /index.ktcatalog HTTP/1.1", "302", "0") +
      line("10.0.0.6", "25/Nov/2026", "GET /content/downloads/a.pkg HTTP/1.1", "200", "9999") +
      "garbage\n" + std::string(20000, 'x') + "\n" +
      line("10.0.0.7\t", "25/Nov/2026", cgi, "200", "1");
  writeFile(path("/Library/Server/Ondrel/Status/httpd_access.log"), log);
  std::string metrics = ctl({"metrics"}).output;
  EXPECT_NE(metrics.find("ondrel_catalog_requests_day{catalog=\"" + kNewest +
                         "\",day=\"2026-11-25\"} 3\n"),
            std::string::npos)
      << metrics;
  EXPECT_NE(metrics.find("ondrel_catalog_clients_day{catalog=\"" + kNewest +
                         "\",day=\"2026-11-25\"} 2\n"),
            std::string::npos);
  EXPECT_NE(metrics.find("ondrel_catalog_bytes_day{catalog=\"" + kNewest +
                         "\",day=\"2026-11-25\"} 5000\n"),
            std::string::npos);
  EXPECT_NE(
      metrics.find("ondrel_catalog_requests_day{catalog=\"index.ktcatalog\",day=\"2026-11-25\"} 1"),
      std::string::npos);
  EXPECT_EQ(metrics.find("2026-11-24"), std::string::npos) << "only the newest day";
}

TEST_F(AdministrationTest, ConfigSetChecksValuesAndRewritesTheWebConfiguration) {
  ASSERT_EQ(ctl({"config", "set", "portToUse", "8484"}).exitStatus, 0);
  const std::string conf = path("/Library/Server/Ondrel/Config/ondrd.conf");
  const std::string prefs = path("/Library/Server/Ondrel/Config/ondrd.plist");
  std::string confBefore = readFile(conf);
  std::string prefsBefore = readFile(prefs);
  EXPECT_NE(confBefore.find("\nListen *:8484\n"), std::string::npos);
  for (const std::vector<std::string>& bad : {std::vector<std::string>{"portToUse", "70000"},
                                              {"portToUse", "80\nInclude /x"},
                                              {"autoMirror", "maybe"},
                                              {"metaIndexURL", "ftp://host/x"},
                                              {"otherCatalogs", "index-made-up.ktcatalog"},
                                              {"volumeReserve", "101"},
                                              {"maxConcurrentDownloads", "65"},
                                              {"publicHostName", std::string(300, 'a')},
                                              {"publicHostName", "a.b\"\nInclude /x"},
                                              {"noSuchKey", "1"}}) {
    test::ProgramResult refused = ctl({"config", "set", bad[0], bad[1]});
    EXPECT_EQ(refused.exitStatus, 1) << bad[0];
    EXPECT_NE(refused.output.find("ondrelctl: "), std::string::npos);
  }
  EXPECT_EQ(readFile(conf), confBefore);
  EXPECT_EQ(readFile(prefs), prefsBefore);
  EXPECT_EQ(ctl({"config", "get", "portToUse"}).output, "8484\n");

  // A fresh service root: without the shipped defaults the command says where it looked and
  // writes nothing; with them, an empty folder is enough.
  const std::string saved = std::getenv("ONDREL_ROOT");
  const std::string resources = std::getenv("ONDREL_RESOURCES");
  ::setenv("ONDREL_ROOT", path("/fresh").c_str(), 1);
  ::setenv("ONDREL_RESOURCES", path("/no-resources").c_str(), 1);
  test::ProgramResult withoutDefaults = ctl({"config", "set", "portToUse", "18099"});
  ::setenv("ONDREL_RESOURCES", resources.c_str(), 1);
  EXPECT_EQ(withoutDefaults.exitStatus, 1);
  EXPECT_NE(withoutDefaults.output.find("shipped defaults were not found at " +
                                        path("/no-resources") + "/ondrd.plist"),
            std::string::npos)
      << withoutDefaults.output;
  EXPECT_FALSE(std::filesystem::exists(path("/fresh")));
  EXPECT_EQ(ctl({"config", "set", "portToUse", "18099"}).exitStatus, 0);
  EXPECT_EQ(ctl({"config", "get", "portToUse"}).output, "18099\n");
  EXPECT_EQ(readFile(path("/fresh/Library/Server/Ondrel/Config/ondrd.plist"))
                .find("InvalidPreferenceFile"),
            std::string::npos);
  ::setenv("ONDREL_ROOT", saved.c_str(), 1);
}

TEST_F(AdministrationTest, TheAdministrationPageOffThisMachineIsServedOnlyOverTls) {
  const std::string adminPort = std::to_string(test::freeLoopbackPort());
  ASSERT_EQ(
      ctl({"config", "set", "portToUse", std::to_string(test::freeLoopbackPort())}).exitStatus, 0);
  ASSERT_EQ(ctl({"config", "set", "adminPort", adminPort}).exitStatus, 0);
  ASSERT_EQ(runProgram("/bin/sh", {"-c", "echo admin-password | " ONDREL_CTL " web passwd admin"})
                .exitStatus,
            0);
  // Without a certificate the service account can read, an address off this machine is refused.
  bool machineCertificate =
      runProgram("/usr/bin/setpriv", {"--reuid=_ondrel", "--regid=_ondrel", "--init-groups", "test",
                                      "-r", "/etc/ssl/private/ssl-cert-snakeoil.key"})
          .exitStatus == 0;
  test::ProgramResult open = ctl({"config", "set", "adminAddress", "192.0.2.10"});
  if (!machineCertificate) {
    EXPECT_EQ(open.exitStatus, 1);
    EXPECT_NE(open.output.find("served there only over TLS"), std::string::npos) << open.output;
    EXPECT_EQ(ctl({"config", "get", "adminAddress"}).exitStatus, 1) << "nothing was changed";
  }
  test::Certificate certificate = test::makeThrowAwayCertificate(root_);
  ASSERT_FALSE(certificate.keyPath.empty());
  EXPECT_EQ(ctl({"config", "set", "adminCertificate", root_ + "/missing.pem"}).exitStatus, 1);
  test::ProgramResult named =
      ctl({"config", "set", "adminCertificate", certificate.certificatePath});
  ASSERT_EQ(named.exitStatus, 0) << named.output;
  ASSERT_EQ(ctl({"config", "set", "adminCertificateKey", certificate.keyPath}).exitStatus, 0);
  EXPECT_EQ(ctl({"config", "set", "adminAddress", "192.0.2.10"}).exitStatus, 0);

  // A named certificate serves the page over TLS on loopback too, and only so.
  ASSERT_EQ(ctl({"config", "set", "adminAddress", "127.0.0.1"}).exitStatus, 0);
  ASSERT_EQ(ctl({"web", "start"}).exitStatus, 0);
  httplib::SSLClient tls("127.0.0.1", std::stoi(adminPort));
  tls.enable_server_certificate_verification(false);
  auto page = tls.Get("/");
  ASSERT_TRUE(page);
  EXPECT_EQ(page->status, 200);
  EXPECT_NE(page->get_header_value("Strict-Transport-Security"), "");
  httplib::Client plain("127.0.0.1", std::stoi(adminPort));
  auto refused = plain.Get("/");
  EXPECT_TRUE(!refused || refused->status == 400) << "plain HTTP on the TLS port";
  EXPECT_EQ(ctl({"web", "stop"}).exitStatus, 0);
}

TEST_F(AdministrationTest, ClientsFetchServedCatalogsThroughApacheAndTheCgi) {
  int upstreamPort = test::freeLoopbackPort();
  const std::string upstream = root_ + "/upstream";
  sample::TreeOptions tree;
  tree.outputFolder = upstream;
  tree.baseURL = fmt::format("http://127.0.0.1:{}", upstreamPort);
  tree.products = 20;
  sample::generateTree(tree);
  sample::serveTree(upstream, "127.0.0.1", upstreamPort);
  int port = test::freeLoopbackPort();
  auto preferences = context().sharedPreferences();
  preferences->setValue("metaIndexURL", tree.baseURL + "/content/meta/config.plist");
  preferences->setValue("publicHostName", "127.0.0.1");
  preferences->setValue("portToUse", Plist::integer(port));
  preferences->setValue("autoMirror", Plist::boolean(true));
  preferences->setValue("autoEnable", Plist::boolean(true));
  preferences->setValue("PurgeUnused", Plist::boolean(true));
  ASSERT_TRUE(preferences->commitChanges());

  // A spool the service account cannot write (as root's mkdir leaves it) is told at once.
  const std::string spool = path("/var/spool/ondrd");
  std::filesystem::create_directories(spool);
  std::filesystem::permissions(spool, std::filesystem::perms(0555));
  test::ProgramResult started = ctl({"web", "start"});
  ASSERT_EQ(started.exitStatus, 0) << started.output;
  EXPECT_NE(started.output.find("warning: the spool " + spool + " is not writable"),
            std::string::npos)
      << started.output;
  std::filesystem::permissions(spool, std::filesystem::perms(0770));
  httplib::Client client("127.0.0.1", port);
  client.set_follow_location(true);
  httplib::Headers taltos16 = {{"User-Agent", "Vantor-Update/1.0 Taltos/16.0.0"}};
  auto early = client.Get("/index.ktcatalog", taltos16);
  ASSERT_TRUE(early);
  EXPECT_EQ(early->status, 503) << "before the first pass";
  auto unhealthy = client.Get("/health");
  ASSERT_TRUE(unhealthy);
  EXPECT_EQ(unhealthy->status, 503);
  EXPECT_NE(unhealthy->body.find("\"healthy\": false"), std::string::npos) << unhealthy->body;
  const std::string hookOutput = root_ + "/hook.env";
  writeFile(path("/Library/Server/Ondrel/Config/hooks.d/10-record"),
            "#!/bin/sh\nenv | grep ^ONDREL_PASS_ | sort > " + hookOutput + "\n");
  std::filesystem::permissions(path("/Library/Server/Ondrel/Config/hooks.d/10-record"),
                               std::filesystem::perms::owner_all);

  test::ProgramResult pass = runProgram(ONDREL_SYNCD, {"--once"});
  ASSERT_EQ(pass.exitStatus, 0) << pass.output;
  auto healthy = client.Get("/health");
  ASSERT_TRUE(healthy);
  EXPECT_EQ(healthy->status, 200) << healthy->body;
  EXPECT_EQ(healthy->get_header_value("Content-Type"), "application/json");
  EXPECT_NE(healthy->body.find("\"lastGoodPassAgeSeconds\": "), std::string::npos);
  std::string hookEnvironment = readFile(hookOutput);
  EXPECT_NE(hookEnvironment.find("ONDREL_PASS_OUTCOME=succeeded\n"), std::string::npos)
      << hookEnvironment;
  EXPECT_NE(hookEnvironment.find("ONDREL_PASS_CATALOGS=7\n"), std::string::npos);
  std::string listedNew = ctl({"products", "--state", "NEW"}).output;
  std::string newCount = listedNew.substr(listedNew.rfind('\n', listedNew.size() - 2) + 1);
  EXPECT_NE(hookEnvironment.find(
                "ONDREL_PASS_PRODUCTS_NEW=" + newCount.substr(0, newCount.find(' ')) + "\n"),
            std::string::npos)
      << hookEnvironment << newCount;
  EXPECT_EQ(hookEnvironment.find("ONDREL_PASS_BYTES_FETCHED=0\n"), std::string::npos);
  EXPECT_NE(
      readFile(path("/Library/Server/Ondrel/Status/ondrel.prom")).find("ondrel_passes_total 1"),
      std::string::npos);
  test::ProgramResult status = ctl({"status", "--json"});
  EXPECT_NE(status.output.find("\"syncState\": \"done\""), std::string::npos) << status.output;

  auto catalog = client.Get("/index.ktcatalog", taltos16);
  ASSERT_TRUE(catalog);
  ASSERT_EQ(catalog->status, 200);
  EXPECT_EQ(catalog->get_header_value("Content-Type"), "text/xml");
  std::optional<Plist> served = Plist::fromBytes(catalog->body, nullptr);
  ASSERT_TRUE(served);
  EXPECT_EQ((*served)["Products"].size(), 18u);
  // Conditions as HTTP reads them: weak and listed tags match, a date with garbage is no date.
  // (A catalog written within the last second has a weak tag.)
  std::string tag = catalog->get_header_value("ETag");
  if (tag.rfind("W/", 0) == 0) tag = tag.substr(2);
  const std::string direct = "/cgi-bin/OndrelServerGetCatalog?/" + kNewest;
  httplib::Client cgi("127.0.0.1", port);
  for (const auto& [field, value, expected] :
       std::vector<std::tuple<std::string, std::string, int>>{
           {"If-None-Match", tag, 304},
           {"If-None-Match", "\"other\", W/" + tag, 304},
           {"If-None-Match", "\"other\"", 200},
           {"If-Modified-Since", catalog->get_header_value("Last-Modified"), 304},
           {"If-Modified-Since", catalog->get_header_value("Last-Modified") + " garbage", 200}}) {
    auto again = cgi.Get(direct.c_str(), httplib::Headers{{field, value}});
    ASSERT_TRUE(again);
    EXPECT_EQ(again->status, expected) << field << ": " << value;
  }
  // The second pass changes the catalog (its NEW products become RECURRING); the third changes
  // nothing and leaves the served catalogs as they were, so what clients cached stays valid.
  ASSERT_EQ(runProgram(ONDREL_SYNCD, {"--once"}).exitStatus, 0);
  auto second = cgi.Get(direct.c_str(), httplib::Headers{{"If-None-Match", tag}});
  ASSERT_TRUE(second);
  EXPECT_EQ(second->status, 200);
  // A client that accepts gzip gets the catalog's gzip form, with a tag of its own.
  auto compressed = cgi.Get(direct.c_str(), httplib::Headers{{"Accept-Encoding", "gzip"}});
  ASSERT_TRUE(compressed);
  EXPECT_EQ(compressed->get_header_value("Content-Encoding"), "gzip");
  EXPECT_EQ(compressed->body, second->body) << "decoded by the client";
  EXPECT_LT(std::stoul(compressed->get_header_value("Content-Length")) * 5, second->body.size());
  ASSERT_EQ(runProgram(ONDREL_SYNCD, {"--once"}).exitStatus, 0);
  for (const auto& [encoding, earlier] :
       {std::pair{"identity", second->get_header_value("ETag")},
        std::pair{"gzip", compressed->get_header_value("ETag")}}) {
    auto unchanged = cgi.Get(direct.c_str(), httplib::Headers{{"Accept-Encoding", encoding},
                                                              {"If-None-Match", earlier}});
    ASSERT_TRUE(unchanged);
    EXPECT_EQ(unchanged->status, 304) << encoding;
  }
  // A link put in the catalog's place is not followed.
  const std::string place = context().layout().catalogsFolderPath(kNewest);
  std::filesystem::rename(place, place + ".kept");
  std::filesystem::create_symlink("/etc/passwd", place);
  auto linked = cgi.Get(direct.c_str());
  ASSERT_TRUE(linked);
  EXPECT_EQ(linked->status, 404);
  EXPECT_EQ(linked->body.find("root:"), std::string::npos);
  std::filesystem::remove(place);
  std::filesystem::rename(place + ".kept", place);
  const std::string longName = "/cgi-bin/OndrelServerGetCatalog?/" + std::string(65536, 'a');
  for (const std::string& hostile :
       {std::string("/cgi-bin/OndrelServerGetCatalog?/../../Config/ondrd.plist"),
        std::string("/cgi-bin/OndrelServerGetCatalog?/index-made-up.ktcatalog"),
        "/cgi-bin/OndrelServerGetCatalog?/" + kNewest + "%00.plist",
        std::string("/cgi-bin/OndrelServerGetCatalog?/%2e%2e/%2e%2e/Config/ondrd.plist"),
        longName}) {
    auto refused = client.Get(hostile);
    ASSERT_TRUE(refused) << hostile.substr(0, 100);
    EXPECT_TRUE(refused->status == 404 || refused->status == 414) << hostile.substr(0, 100);
    EXPECT_EQ(refused->body.find("<plist"), std::string::npos) << hostile.substr(0, 100);
  }
  // Garbage conditions are no conditions: the catalog itself comes back.
  for (const char* garbage : {"\"unterminated", "W/", ",,,", "\x01\x02"}) {
    auto answered = cgi.Get(direct.c_str(), httplib::Headers{{"If-None-Match", garbage}});
    ASSERT_TRUE(answered);
    // Apache itself refuses control characters in a field; the rest reach the CGI.
    EXPECT_EQ(answered->status, garbage[0] == '\x01' ? 400 : 200) << garbage;
  }
  EXPECT_EQ(ctl({"web", "stop"}).exitStatus, 0);
  sample::stopServingTree(upstream);
}

}  // namespace
}  // namespace ondrel
