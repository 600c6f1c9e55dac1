#include "KTSHostConfiguration.h"

#include <algorithm>

#include "Clock.h"
#include "FileIO.h"
#include "HostPaths.h"
#include "KTSCatalogSets.h"
#include "KTSUtilities.h"
#include "PathString.h"
#include "Utf8.h"

namespace ondrel {

namespace {

// The file's text when it can be read and is valid UTF-8.
std::optional<std::string> readUtf8File(const std::string& path, std::string* reason) {
  std::string contents;
  if (!readWholeFile(path, &contents, reason)) return std::nullopt;
  if (!isValidUtf8(contents)) {
    *reason = "The file is not valid UTF-8 text.";
    return std::nullopt;
  }
  return contents;
}

ConfigLines splitLines(const std::string& text) {
  ConfigLines lines;
  std::size_t start = 0;
  for (;;) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      lines.push_back(text.substr(start));
      return lines;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
}

}  // namespace

std::shared_ptr<KTSHostConfiguration> KTSHostConfiguration::configurationWithPath(
    const std::string& path) {
  return std::make_shared<KTSHostConfiguration>(path);
}

KTSHostConfiguration::KTSHostConfiguration(std::string path)
    : configPath_(std::move(path)), log_(LogHandle::shared()) {}

void KTSHostConfiguration::unload() {
  configLines_.reset();
  configHasChanged_ = false;
}

bool KTSHostConfiguration::loadWithPreferences(const Plist* preferences) {
  if (!checkFile()) {
    unload();
    return false;
  }
  if (!KTSUtilities::fileExistsAtPath(configPath_)) {
    logLoadErrorWithReason("missing file");
    unload();
    return false;
  }
  std::string reason;
  std::optional<Date> modified = modificationDate(configPath_, &reason);
  if (!modified) {
    logLoadErrorWithReason(reason);
    unload();
    return false;
  }
  // Reload only when the last load or save is at least as late as the file's modification.
  if (loadDate_ && *modified > *loadDate_) {
    log_.debug("CONF: config data current, load skipped");
    return true;
  }
  std::optional<std::string> text = readUtf8File(configPath_, &reason);
  if (!text) {
    logLoadErrorWithReason(reason);
    unload();
    return false;
  }
  configLines_ = splitLines(*text);
  applyUpgradesWithPreferences(preferences);
  loadDate_ = Clock::now();
  configHasChanged_ = false;
  log_.debug("CONF: config loaded from disk");
  return true;
}

// A file that loads mod_bw, the prefork MPM of an older shipped file (which served catalogs
// through a process per request and held a process per connection), or serves catalogs itself
// whether or not rings are defined (which would keep every client from its ring), or sends no
// request for a missing product file to the fetch-on-miss CGI, is obsolete: it
// is kept beside as ".obsolete" and the shipped file takes its place, with the lines the
// preferences decide written into it again by the commit that loads it.
bool KTSHostConfiguration::checkFile() {
  std::string ignored;
  std::optional<std::string> text = readUtf8File(configPath_, &ignored);
  auto holds = [&text](const char* line) { return text->find(line) != std::string::npos; };
  if (text && !text->empty() &&
      (holds("mod_bw") || holds("\nLoadModule mpm_prefork_module ") ||
       (holds("OndrelServerGetCatalog$ /content/catalogs/others/") &&
        (!holds("/content/catalogs/rings !-d") || !holds(" /cgi-bin/nph-OndrelServerFetch$1 "))))) {
    log_.warning("Removing obsolete {} configuration.", lastPathComponent(configPath_));
    std::string obsoletePath = appendingPathExtension(configPath_, "obsolete");
    if (KTSUtilities::fileExistsAtPath(obsoletePath)) KTSUtilities::removePath(obsoletePath);
    KTSUtilities::moveItemAtPathToPath(configPath_, obsoletePath);
  }
  if (KTSUtilities::fileExistsAtPath(configPath_)) return true;
  log_.warning("Restoring missing {} from default configuration.", configPath_);
  std::string reason;
  std::string contents;
  if (!readWholeFile(resourcePath("ondrd", "conf"), &contents, &reason) ||
      !writeStringAtomically(configPath_, contents, &reason)) {
    log_.error("Error restoring default configuration {} (err=\"{}\")", configPath_, reason);
    return false;
  }
  KTSUtilities::setDefaultFileOwnerAtPath(configPath_);
  return true;
}

void KTSHostConfiguration::applyUpgradesWithPreferences(const Plist* preferences) {
  if (preferences == nullptr || !configLines_) return;
  ConfigLines& lines = *configLines_;
  if (!KTSConfigLines::containsSectionTypeWithIdentifier(lines, "<IfModule", "mod_rewrite.c")) {
    lines.push_back("### mod_rewrite section auto-generated");
    lines.push_back("<IfModule mod_rewrite.c>");
    lines.push_back("</IfModule>");
    log_.info("Configuration feature added: mod_rewrite.");
  }
  ConfigLines block = {"    RewriteEngine On"};
  const Plist& configured = (*preferences)["otherCatalogs"];
  for (const std::string& name : KTSCatalogSets::supportedCatalogNames()) {
    if (!configured.containsElement(Plist(name))) continue;
    block.push_back("    RewriteCond %{HTTP_USER_AGENT} Taltos/" +
                    KTSCatalogSets::taltosNameForCatalogName(name).value_or(""));
    block.push_back(
        "    RewriteRule ^/index\\.ktcatalog$ "
        "http://%{HTTP_HOST}/cgi-bin/OndrelServerGetCatalog?/" +
        name);
  }
  KTSConfigLines::replaceContentForSectionTypeWithIdentifier(lines, block, "<IfModule",
                                                             "mod_rewrite.c");
  KTSConfigLines::removeTrailingBlankLines(lines);
  log_.info("Updated mod_rewrite for configured catalogs.");
}

std::optional<std::string> KTSHostConfiguration::valueForPrefix(const std::string& prefix) const {
  if (!configLines_) return std::nullopt;
  for (const std::string& line : *configLines_) {
    if (line.rfind(prefix, 0) == 0) return line.substr(prefix.size());
  }
  return std::nullopt;
}

void KTSHostConfiguration::setValueForPrefix(const std::string& value, const std::string& prefix) {
  setValueForPrefixUsingQuotes(value, prefix, false);
}

void KTSHostConfiguration::replaceLine(std::size_t index, std::string line) {
  log_.debug("CONF: SET: {}", line);
  (*configLines_)[index] = std::move(line);
  configHasChanged_ = true;
}

void KTSHostConfiguration::setValueForPrefixUsingQuotes(const std::string& value,
                                                        const std::string& prefix,
                                                        bool usingQuotes) {
  if (!configLines_) return;
  std::string written = usingQuotes ? "\"" + value + "\"" : value;
  for (std::size_t i = 0; i < configLines_->size(); ++i) {
    if ((*configLines_)[i].rfind(prefix, 0) == 0) replaceLine(i, prefix + " " + written);
  }
}

void KTSHostConfiguration::setValueForNodePrefixUsingQuotes(const std::string& value,
                                                            const std::string& prefix,
                                                            bool usingQuotes) {
  if (!configLines_) return;
  std::string matched = prefix;
  if (usingQuotes && (matched.size() < 2 || matched.compare(matched.size() - 2, 2, " \"") != 0)) {
    matched += " \"";
  }
  std::string line = usingQuotes ? matched + value + "\">" : matched + value + ">";
  for (std::size_t i = 0; i < configLines_->size(); ++i) {
    if ((*configLines_)[i].rfind(matched, 0) == 0) replaceLine(i, line);
  }
}

namespace {

// Values written into directives must be valid for them: anything else could end the directive
// early or add lines of its own to the configuration.
bool isSafeDirectivePath(const std::string& path) {
  if (path.empty() || path.front() != '/') return false;
  return std::none_of(path.begin(), path.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7F || c == '"' || c == '\\';
  });
}

// The decimal text of a non-negative integer held as a number or as a string of digits.
std::optional<std::string> nonNegativeIntegerText(const Plist& value) {
  if (value.type() == Plist::Type::Integer && !value.isLargeUnsignedInteger()) {
    if (value.integerValue() < 0) return std::nullopt;
    return value.integerText();
  }
  const std::string& text = value.stringValue();
  if (!value.isString() || text.empty() || text.size() > 18 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  return std::to_string(std::stoll(text));
}

}  // namespace

void KTSHostConfiguration::setDocumentRoot(const std::string& updatesFolder) {
  std::string documentRoot = appendingPathComponent(updatesFolder, "html");
  if (!isSafeDirectivePath(documentRoot)) {
    log_.error("Document root \"{}\" is not a usable absolute path; ondrd.conf keeps its value.",
               documentRoot);
    return;
  }
  setValueForPrefixUsingQuotes(documentRoot, "DocumentRoot", true);
  setValueForNodePrefixUsingQuotes(documentRoot, "<Directory", true);
  if (KTSUtilities::directoryExistsAtPath(documentRoot)) return;
  if (!KTSUtilities::createDirectoryAtPath(documentRoot)) {
    log_.warning("Unable to create configured document root folder \"{}\"", documentRoot);
    log_.warning("Ondrel Server may fail to start.");
    return;
  }
  KTSUtilities::setDefaultFileOwnerAtPath(documentRoot);
}

void KTSHostConfiguration::setListenPort(const Plist& port) {
  std::optional<std::string> number = nonNegativeIntegerText(port);
  if (!number || std::stoll(*number) < 1 || std::stoll(*number) > 65535) {
    log_.error("Port \"{}\" is not a port from 1 to 65535; ondrd.conf keeps its value.", port);
    return;
  }
  setValueForPrefix("*:" + *number, "Listen");
}

void KTSHostConfiguration::setEnableBandwidthLimitForDocumentRoot(
    bool enable, const Plist& limit, const std::string& updatesFolder) {
  if (!configLines_) return;
  std::optional<std::string> limitText = nonNegativeIntegerText(limit);
  if (!limitText) {
    log_.error("Bandwidth limit \"{}\" is not a non-negative integer; ondrd.conf keeps its value.",
               limit);
    return;
  }
  std::string documentRoot = appendingPathComponent(updatesFolder, "html");
  ConfigLines content = KTSConfigLines::contentForSectionTypeWithIdentifier(
      *configLines_, "<Directory", documentRoot);
  if (content.empty()) return;
  const std::string marker = enable ? "" : "#";
  ConfigLines edited = content;
  // Both positions come from the content as it was; see the note on the only-SetEnv case below.
  std::size_t filterIndex =
      KTSConfigLines::indexOfEntryNamedWithIdentifier(content, "SetOutputFilter", "RATE_LIMIT");
  if (filterIndex != KTSConfigLines::kNotFound) {
    edited.erase(edited.begin() + static_cast<std::ptrdiff_t>(filterIndex));
  } else {
    filterIndex = 0;
  }
  edited.insert(edited.begin() + static_cast<std::ptrdiff_t>(filterIndex),
                marker + "    SetOutputFilter RATE_LIMIT");
  // When only the SetEnv line exists, the insertion above shifts it down by one, so the line
  // removed here is the one above it and the old SetEnv line stays. That is the intended rule.
  std::size_t envIndex =
      KTSConfigLines::indexOfEntryNamedWithIdentifier(content, "SetEnv", "rate-limit");
  if (envIndex != KTSConfigLines::kNotFound) {
    edited.erase(edited.begin() + static_cast<std::ptrdiff_t>(envIndex));
  } else {
    envIndex = filterIndex + 1;
  }
  edited.insert(edited.begin() + static_cast<std::ptrdiff_t>(envIndex),
                marker + "    SetEnv rate-limit " + *limitText);
  KTSConfigLines::replaceContentForSectionTypeWithIdentifier(*configLines_, edited, "<Directory",
                                                             documentRoot);
}

bool KTSHostConfiguration::logLoadErrorWithReason(const std::optional<std::string>& reason) {
  log_.error("Read failed for host configuration {} (reason: {})", configPath_,
             reason.value_or("unknown"));
  return false;
}

bool KTSHostConfiguration::save() {
  if (!configHasChanged_ || !configLines_) return false;
  log_.debug("CONF: saving {}", configPath_);
  std::string previousPath = configPath_ + ".previous";
  // The replaced file is kept under ".previous" by a link (or a copy) made just before the new
  // file is renamed into place, so the configuration path never stands empty or half written.
  auto keepPrevious = [this, &previousPath] { keepPreviousVersion(configPath_, previousPath); };
  std::string reason;
  bool written = writeFileAtomically(
      configPath_,
      [this](std::FILE* file) {
        for (const std::string& line : *configLines_) {
          if (std::fwrite(line.data(), 1, line.size(), file) != line.size() ||
              std::fputc('\n', file) == EOF) {
            return false;
          }
        }
        return true;
      },
      &reason, keepPrevious);
  if (!written) {
    log_.debug("CONF: save of {} failed (reason: {})", configPath_, reason);
    return false;
  }
  log_.info("Host configuration updated.");
  configHasChanged_ = false;
  loadDate_ = Clock::now();
  return true;
}

}  // namespace ondrel
