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
#include "RootHelper.h"
#include "ServiceRoot.h"

namespace ondrel::ctl {

int fail(const std::string& message) {
  std::fprintf(stderr, "ondrelctl: %s\n", message.c_str());
  return kExitFailed;
}

void printJson(const Plist& value) { std::printf("%s\n", ondrel::toJson(value).c_str()); }

}  // namespace ondrel::ctl

int main(int argc, char** argv) {
  using namespace ondrel::ctl;
  CLI::App app{
      "Ondrel Server administration. Output is text; with --json it is JSON: status an object, "
      "products an array of working-set records, product one record, plan an object with "
      "\"products\", \"files\", \"bytes\", \"freeBytes\", \"reserveBytes\" and \"fits\"."};
  app.require_subcommand(1);
  bool json = false;
  auto withJson = [&json](CLI::App* command) {
    command->add_flag("--json", json, "Print JSON");
    return command;
  };

  CLI::App* statusCommand = withJson(app.add_subcommand("status", "Sync state, products, space"));
  ondrel::programs::ProductFilter filter;
  CLI::App* productsCommand = withJson(app.add_subcommand("products", "List the products"));
  productsCommand->add_option("--state", filter.state, "Mirror state or catalog state");
  productsCommand->add_flag("--enabled", filter.enabledOnly, "Only products offered to clients");
  productsCommand->add_option("--catalog", filter.catalog, "Only products of this catalog");
  productsCommand->add_option("--search", filter.search, "Text in id, family, version or title");
  std::string productId;
  CLI::App* productCommand = withJson(app.add_subcommand("product", "One product in detail"));
  productCommand->add_option("ID", productId, "Product id")->required();
  std::vector<std::string> productIds;
  std::string action;
  for (const char* name : {"mirror", "enable", "disable", "remove"}) {
    CLI::App* change =
        app.add_subcommand(name, std::string("Ask the daemon to ") + name + " products");
    change->add_option("ID", productIds, "Product ids")->required();
    change->callback([&action, name] { action = name; });
  }
  bool wait = false;
  CLI::App* syncCommand = app.add_subcommand("sync", "Ask the daemon for a pass now");
  syncCommand->add_flag("--wait", wait, "Follow the pass and exit with its outcome");
  CLI::App* configCommand = app.add_subcommand("config", "Show, get or set preferences");
  configCommand->require_subcommand(1);
  CLI::App* configShowCommand = withJson(configCommand->add_subcommand("show", "All settings"));
  std::string key;
  std::string value;
  CLI::App* configGetCommand = withJson(configCommand->add_subcommand("get", "One setting"));
  configGetCommand->add_option("KEY", key)->required();
  CLI::App* configSetCommand =
      configCommand->add_subcommand("set", "Set one setting (checked), rewrite ondrd.conf");
  configSetCommand->add_option("KEY", key)->required();
  configSetCommand->add_option("VALUE", value)->required();
  std::string webAction;
  CLI::App* webCommand = app.add_subcommand("web", "The Apache httpd that serves clients");
  webCommand
      ->add_option("ACTION", webAction,
                   "start, stop, reload or status (prepare: write what it needs, then check it)")
      ->check(CLI::IsMember({"start", "stop", "reload", "status", "prepare"}));
  std::string passwordUser;
  CLI::App* passwordCommand = webCommand->add_subcommand(
      "passwd",
      "Set a user's password for the administration page (read from the terminal, "
      "or one line of standard input)");
  passwordCommand->add_option("USER", passwordUser)->required();
  bool deleteUser = false;
  passwordCommand->add_flag("--delete", deleteUser,
                            "Remove the user: their sessions end, and with the last one the page "
                            "is off");
  CLI::App* planCommand = withJson(app.add_subcommand("plan", "What the next pass downloads"));
  CLI::App* metricsCommand = app.add_subcommand("metrics", "Status as Prometheus text");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kExitUsage;
  }
  return runAsServiceAccount([&] {
    if (std::optional<std::string> problem = ondrel::programs::administratorProblem()) {
      return fail(*problem);
    }
    ondrel::programs::adoptServiceGroupPermissions();
    if (std::optional<std::string> problem = ondrel::programs::serviceRootProblem()) {
      return fail(*problem);
    }
    try {
      if (*statusCommand) return status(json);
      if (*productsCommand) return products(filter, json);
      if (*productCommand) return product(productId, json);
      if (!action.empty()) return postChanges(action, productIds);
      if (*syncCommand) return sync(wait);
      if (*configShowCommand) return configShow(json);
      if (*configGetCommand) return configGet(key, json);
      if (*configSetCommand) return configSet(key, value);
      if (*passwordCommand) {
        return deleteUser ? webPasswordDelete(passwordUser) : webPassword(passwordUser);
      }
      if (*webCommand) {
        if (webAction.empty()) return fail("web needs an action: start, stop, reload or status");
        return web(webAction);
      }
      if (*planCommand) return plan(json);
      if (*metricsCommand) return metrics();
    } catch (const std::exception&) {
      return fail("the command could not be completed; see the system log");
    }
    return kExitUsage;
  });
}
