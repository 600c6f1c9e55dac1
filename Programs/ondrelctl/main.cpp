// ondrelctl: the Ondrel Server administration command. It meets the sync daemon only through the
// files they share: it reads the working set and the status files, posts change and sync
// requests with job tickets, edits the preferences and drives the web server.
// Exit status: 0 done, 1 the job failed (one line on standard error says why), 2 bad usage.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "Ctl.h"
#include "Json.h"
#include "KTSLogger.h"
#include "KTSSettings.h"
#include "RootHelper.h"
#include "ServiceRoot.h"

namespace ondrel::ctl {

int fail(const std::string& message) {
  std::fprintf(stderr, "ondrelctl: %s\n", message.c_str());
  return kExitFailed;
}

void printJson(const Plist& value) { std::printf("%s\n", ondrel::toJson(value).c_str()); }

}  // namespace ondrel::ctl

namespace {

using namespace ondrel::ctl;

// What the command line asked for: the subcommand given, and the values of its arguments.
struct CommandLine {
  bool json = false;
  ondrel::programs::ProductFilter filter;
  std::string productId;
  std::vector<std::string> productIds;
  std::string action;  // mirror, enable, disable or remove
  std::string policy;  // how a mirror's files come
  bool wait = false;
  std::string key;
  std::string value;
  std::string webAction;
  std::string passwordUser;
  bool deleteUser = false;
  CLI::App* status = nullptr;
  CLI::App* products = nullptr;
  CLI::App* product = nullptr;
  CLI::App* sync = nullptr;
  CLI::App* configShow = nullptr;
  CLI::App* configGet = nullptr;
  CLI::App* configSet = nullptr;
  CLI::App* web = nullptr;
  CLI::App* password = nullptr;
  CLI::App* plan = nullptr;
  CLI::App* metrics = nullptr;
  CLI::App* log = nullptr;
  CLI::App* verify = nullptr;
  VerifyRequest verifyRequest;
  CLI::App* rings = nullptr;
  RingsRequest ringsRequest;
  std::string maxDuration;
  std::size_t limit = 50;
  std::string requester;
};

// ondrelctl rings and its commands; options given fill the request in.
void defineRingCommands(CLI::App& app, CommandLine& line) {
  line.rings = app.add_subcommand(
      "rings", "Staged rollout: the rings of clients by address, and where products stand");
  RingsRequest& request = line.ringsRequest;
  auto command = [&line, &request](const char* name, const char* help) {
    CLI::App* added = line.rings->add_subcommand(name, help);
    added->callback([&request, name] { request.command = name; });
    return added;
  };
  command("list", "The rings and the trusted proxies")->add_flag("--json", line.json, "JSON");
  CLI::App* set = command("set", "Add a ring, or change one (what is not given stays)");
  set->add_option("NAME", request.name, "Lowercase letters, digits, hyphens")->required();
  set->add_option_function<std::vector<std::string>>(
      "--blocks", [&request](const std::vector<std::string>& blocks) { request.blocks = blocks; },
      "Address blocks (CIDR or one address), comma-separated; \"\" for none");
  set->add_option_function<std::string>(
      "--delay", [&request](const std::string& delay) { request.delay = delay; },
      "After a product is served, how long until this ring sees it (e.g. 0, 12h, 3d)");
  set->add_option_function<int>(
      "--share", [&request](int share) { request.share = share; },
      "Percent of the clients no block names that fall in this ring");
  set->add_option_function<std::size_t>(
      "--position", [&request](std::size_t position) { request.position = position; },
      "Place in the order, from 0 (first match wins)");
  command("remove", "Remove a ring")->add_option("NAME", request.name)->required();
  command("trust", "The reverse proxies whose X-Forwarded-For is believed (none: no proxy)")
      ->add_option_function<std::vector<std::string>>(
          "BLOCK", [&request](const std::vector<std::string>& blocks) { request.blocks = blocks; });
  CLI::App* which = command("which", "The ring of a client address");
  which->add_option("ADDRESS", request.address)->required();
  which->add_option("--forwarded-for", request.forwardedFor, "As a proxy would send it");
  command("status", "Where each product being rolled out stands, and who did what")
      ->add_flag("--json", line.json, "JSON");
  for (const auto& [name, help] :
       {std::pair{"hold", "Keep a product where it has reached"},
        std::pair{"resume", "Let a held or rolled-back product go on by its schedule"},
        std::pair{"advance", "Open the next ring (or RING and those before it) now"},
        std::pair{"open", "Open a product to every ring now"},
        std::pair{"rollback", "Withdraw a product from every ring but RING"}}) {
    CLI::App* action = command(name, help);
    action->add_option("ID", request.productId, "Product id")->required();
    action->add_option("RING", request.ring, "Ring name");
  }
}

void defineCommands(CLI::App& app, CommandLine& line) {
  app.require_subcommand(1);
  auto withJson = [&line](CLI::App* command) {
    command->add_flag("--json", line.json, "Print JSON");
    return command;
  };
  line.status = withJson(app.add_subcommand("status", "Sync state, products, space"));
  line.status->add_flag("--watch", line.wait, "Show the pass under way every 2 s until it ends");
  line.products = withJson(app.add_subcommand("products", "List the products"));
  line.products->add_option("--state", line.filter.state, "Mirror state or catalog state");
  line.products->add_flag("--enabled", line.filter.enabledOnly, "Only products offered to clients");
  line.products->add_option("--catalog", line.filter.catalog, "Only products of this catalog");
  line.products->add_option("--search", line.filter.search, "Text in id, family, version or title");
  line.product = withJson(app.add_subcommand("product", "One product in detail"));
  line.product->add_option("ID", line.productId, "Product id")->required();
  for (const char* name : {"mirror", "enable", "disable", "remove"}) {
    CLI::App* change =
        app.add_subcommand(name, std::string("Ask the daemon to ") + name + " products");
    change->add_option("ID", line.productIds, "Product ids")->required();
    change->callback([&line, name] { line.action = name; });
    if (std::string_view(name) == "mirror") {
      change
          ->add_option("--policy", line.policy,
                       "immediate: every file before clients see it; on-demand: served now, each "
                       "file fetched when a client first asks; background: both, the passes "
                       "filling in the rest")
          ->check(CLI::IsMember({"immediate", "on-demand", "background"}));
    }
  }
  line.sync = app.add_subcommand("sync", "Ask the daemon for a pass now");
  line.sync->add_flag("--wait", line.wait, "Follow the pass and exit with its outcome");
  CLI::App* config = app.add_subcommand("config", "Show, get or set preferences");
  config->require_subcommand(1);
  line.configShow = withJson(config->add_subcommand("show", "All settings"));
  line.configGet = withJson(config->add_subcommand("get", "One setting"));
  line.configGet->add_option("KEY", line.key)->required();
  line.configSet = config->add_subcommand("set", "Set one setting (checked), rewrite ondrd.conf");
  line.configSet->add_option("KEY", line.key)->required();
  line.configSet->add_option("VALUE", line.value)->required();
  line.web = app.add_subcommand("web", "The Apache httpd that serves clients");
  line.web
      ->add_option("ACTION", line.webAction,
                   "start, stop, reload or status (prepare: write what it needs, then check it)")
      ->check(CLI::IsMember({"start", "stop", "reload", "status", "prepare"}));
  line.password = line.web->add_subcommand(
      "passwd",
      "Set a user's password for the administration page (read from the terminal, "
      "or one line of standard input)");
  line.password->add_option("USER", line.passwordUser)->required();
  line.password->add_flag("--delete", line.deleteUser,
                          "Remove the user: their sessions end, and with the last one the page "
                          "is off");
  line.plan = withJson(app.add_subcommand("plan", "What the next pass downloads"));
  line.metrics = app.add_subcommand("metrics", "Status as Prometheus text");
  line.log = withJson(app.add_subcommand("log", "Who posted which change, when (newest first)"));
  line.log->add_option("--limit", line.limit, "How many entries")->check(CLI::Range(1, 100000));
  line.verify = withJson(app.add_subcommand(
      "verify", "Check the kept product files against their recorded SHA-256 digests"));
  line.verify->add_flag("--quick", line.verifyRequest.quick,
                        "Compare size and modification time only; read nothing");
  line.verify->add_option("--max-duration", line.maxDuration,
                          "Stop after this long (seconds, or e.g. 30m, 2h)");
  line.verify->add_flag("--repair", line.verifyRequest.repair,
                        "Remove what is missing or changed, have a pass fetch it again, and check "
                        "it once more; what cannot be repaired is not served");
  line.verify->add_option("ID", line.verifyRequest.productIds, "Only these products");
  defineRingCommands(app, line);
}

int carryOut(const CommandLine& line) {
  if (*line.status) return line.wait ? watchStatus() : status(line.json);
  if (*line.products) return products(line.filter, line.json);
  if (*line.product) return product(line.productId, line.json);
  if (!line.action.empty())
    return postChanges(line.action, line.productIds, line.requester, line.policy);
  if (*line.sync) return sync(line.wait, line.requester);
  if (*line.log) return auditLog(line.limit, line.json);
  if (*line.configShow) return configShow(line.json);
  if (*line.configGet) return configGet(line.key, line.json);
  if (*line.configSet) return configSet(line.key, line.value, line.requester);
  if (*line.password) {
    return line.deleteUser ? webPasswordDelete(line.passwordUser) : webPassword(line.passwordUser);
  }
  if (*line.web) {
    if (line.webAction.empty()) return fail("web needs an action: start, stop, reload or status");
    return web(line.webAction);
  }
  if (*line.rings) {
    RingsRequest request = line.ringsRequest;
    request.json = line.json;
    request.requester = line.requester;
    return rings(request);
  }
  if (*line.plan) return plan(line.json);
  if (*line.metrics) return metrics();
  if (*line.verify) {
    VerifyRequest request = line.verifyRequest;
    request.json = line.json;
    request.requester = line.requester;
    if (!line.maxDuration.empty()) {
      request.maxSeconds = ondrel::KTSSettings::durationSeconds(line.maxDuration);
      if (!request.maxSeconds || *request.maxSeconds == 0) {
        std::fprintf(stderr, "ondrelctl: --max-duration takes a duration such as 90, 30m or 2h\n");
        return kExitUsage;
      }
    }
    return verify(request);
  }
  return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "Ondrel Server administration. Output is text; with --json it is JSON: status an object, "
      "products an array of working-set records, product one record, plan an object with "
      "\"products\", \"files\", \"bytes\", \"freeBytes\", \"reserveBytes\" and \"fits\"."};
  CommandLine line;
  defineCommands(app, line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kExitUsage;
  }
  // Who asked, as the command's user before it acts as the service account.
  line.requester = ondrel::programs::invokingUser();
  return runAsServiceAccount([&line] {
    if (std::optional<std::string> problem = ondrel::programs::administratorProblem()) {
      return fail(*problem);
    }
    ondrel::programs::adoptServiceGroupPermissions();
    if (std::optional<std::string> problem = ondrel::programs::serviceRootProblem()) {
      return fail(*problem);
    }
    try {
      return carryOut(line);
    } catch (const std::exception&) {
      return fail("the command could not be completed; see the system log");
    }
  });
}
