// The administration page's logins: each is a session kept as a small file in
// the status folder's admin-sessions (named by its random id; it holds the user and when the
// session ends), so that logging out, or deleting the user, ends it for good. Used by the page's
// CGI. The files are read as untrusted: anyone who can act as the service account can write them.
// One thread.
#pragma once

#include <string>

#include "KTSServerLayout.h"

namespace ondrel::programs {

// Starts a session of twelve hours for user (sessions that have ended are cleared away): its id,
// or empty with the reason when it could not be recorded.
std::string startAdminSession(const KTSServerLayout& layout, const std::string& user,
                              std::string* error);
// The user of a live session; empty when the id names none, it has ended or its user may no
// longer log in.
std::string adminSessionUser(const KTSServerLayout& layout, const std::string& session);
void endAdminSession(const KTSServerLayout& layout, const std::string& session);

}  // namespace ondrel::programs
