// Text operations on file-system paths, with the conventional rules: components are joined with
// exactly one "/", a trailing "/" is not a component, and an extension is what follows the last
// "." of the last component. Pure functions; thread-safe.
#pragma once

#include <string>
#include <string_view>

namespace ondrel {

std::string appendingPathComponent(std::string_view path, std::string_view component);
// Removes redundant separators, "." components, ".." with the component before it, and a
// trailing "/". Works on the text only; symbolic links are not resolved.
std::string standardizingPath(std::string_view path);
// Whether path is its own standard form (not empty; no empty, "." or ".." component, no trailing
// separator). Most paths a pass meets are, and need not be copied to be standardised.
bool isStandardPath(std::string_view path);
std::string lastPathComponent(std::string_view path);
std::string deletingLastPathComponent(std::string_view path);
std::string pathExtension(std::string_view path);
// appendingPathExtension("x", "previous") is "x.previous".
std::string appendingPathExtension(std::string_view path, std::string_view extension);
std::string deletingPathExtension(std::string_view path);
// The path of a side file of path (a download in progress, a previous version): path with
// ".suffix" appended while the name stays within the 255 bytes a file name may have, otherwise a
// short hidden name made from the name in the same folder (".ondrel-HASH.suffix"), so that every
// valid name has its side files.
std::string sideFilePath(std::string_view path, std::string_view suffix);

}  // namespace ondrel
