// Checks, before a program loads the preferences, that the service root can hold them: the
// folder it lives in exists (made when missing) and, on a root without preferences yet, the
// shipped defaults can be found. Without this check the library would load (and a command save)
// its "InvalidPreferenceFile" stand-in. Used by ondrelctl and ondrd_syncd at start. One thread.
#pragma once

#include <optional>
#include <string>

namespace ondrel::programs {

// None when the preferences can be loaded; otherwise one line saying what is wrong and what to
// do about it. Creates the service root's parent folder when it is missing.
std::optional<std::string> serviceRootProblem();

}  // namespace ondrel::programs
