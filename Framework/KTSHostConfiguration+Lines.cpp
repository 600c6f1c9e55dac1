// The line operations of the web server configuration.
#include <algorithm>

#include "KTSHostConfiguration.h"

namespace ondrel::KTSConfigLines {

namespace {

std::string withoutSpaces(const std::string& line) {
  std::string result;
  result.reserve(line.size());
  std::copy_if(line.begin(), line.end(), std::back_inserter(result),
               [](char c) { return c != ' '; });
  return result;
}

bool isClosingLine(const std::string& line) {
  std::string compact = withoutSpaces(line);
  return !compact.empty() && compact.front() != '#' && compact.rfind("</", 0) == 0;
}

std::size_t indexOfOpeningLine(const ConfigLines& lines, const std::string& type,
                               const std::string& identifier) {
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].find(type) != std::string::npos &&
        lines[i].find(identifier) != std::string::npos) {
      return i;
    }
  }
  return kNotFound;
}

}  // namespace

bool isCommentLine(const std::string& line) {
  std::string compact = withoutSpaces(line);
  return !compact.empty() && compact.front() == '#';
}

bool containsSectionTypeWithIdentifier(const ConfigLines& lines, const std::string& type,
                                       const std::string& identifier) {
  return indexOfOpeningLine(lines, type, identifier) != kNotFound;
}

Range rangeOfContentForSectionTypeWithIdentifier(const ConfigLines& lines, const std::string& type,
                                                 const std::string& identifier) {
  std::size_t opening = indexOfOpeningLine(lines, type, identifier);
  if (opening == kNotFound) return {};
  std::size_t first = opening + 1;
  std::size_t end = first;
  while (end < lines.size() && !isClosingLine(lines[end])) ++end;
  return {first, end - first};
}

ConfigLines contentForSectionTypeWithIdentifier(const ConfigLines& lines, const std::string& type,
                                                const std::string& identifier) {
  Range range = rangeOfContentForSectionTypeWithIdentifier(lines, type, identifier);
  if (range.location == kNotFound) return {};
  auto first = lines.begin() + static_cast<std::ptrdiff_t>(range.location);
  return ConfigLines(first, first + static_cast<std::ptrdiff_t>(range.length));
}

void replaceContentForSectionTypeWithIdentifier(ConfigLines& lines, const ConfigLines& content,
                                                const std::string& type,
                                                const std::string& identifier) {
  Range range = rangeOfContentForSectionTypeWithIdentifier(lines, type, identifier);
  if (range.location == kNotFound || range.length == 0) return;
  auto first = lines.begin() + static_cast<std::ptrdiff_t>(range.location);
  first = lines.erase(first, first + static_cast<std::ptrdiff_t>(range.length));
  lines.insert(first, content.begin(), content.end());
}

std::size_t indexOfEntryNamedWithIdentifier(const ConfigLines& lines, const std::string& name,
                                            const std::string& identifier) {
  for (std::size_t i = 0; i < lines.size(); ++i) {
    std::size_t namePosition = lines[i].find(name);
    std::size_t identifierPosition = lines[i].find(identifier);
    if (namePosition != std::string::npos && identifierPosition != std::string::npos &&
        identifierPosition > namePosition) {
      return i;
    }
  }
  return kNotFound;
}

void removeTrailingBlankLines(ConfigLines& lines) {
  auto lastFilled = std::find_if(lines.rbegin(), lines.rend(), [](const std::string& line) {
    return !withoutSpaces(line).empty();
  });
  if (lastFilled == lines.rend()) return;
  lines.erase(lastFilled.base(), lines.end());
}

}  // namespace ondrel::KTSConfigLines
