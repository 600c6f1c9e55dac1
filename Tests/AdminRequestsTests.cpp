// The administration page's untrusted input: form bodies, cookies, the session's token, and the
// password file ondrelctl writes for it.
#include <crypt.h>

#include <filesystem>

#include "AdminRequests.h"
#include "AdminSite.h"
#include "KTSServerLayout.h"
#include "OndrelTest.h"

namespace ondrel {
namespace {

using test::OndrelTest;
using namespace programs;

TEST(AdminRequestsTest, FormBodiesDecodeOrAreRefusedWhole) {
  auto fields = parseFormBody("action=mirror&id=VT-000001&id=VT%2D000002&&note=a+b%20c");
  ASSERT_TRUE(fields);
  EXPECT_EQ((*fields)["action"], std::vector<std::string>{"mirror"});
  EXPECT_EQ((*fields)["id"], (std::vector<std::string>{"VT-000001", "VT-000002"}));
  EXPECT_EQ((*fields)["note"], std::vector<std::string>{"a b c"});
  EXPECT_TRUE(parseFormBody("")->empty());
  std::string tooMany;
  for (std::size_t i = 0; i <= kMostAdminFields; ++i) tooMany += "a&";
  for (const std::string& malformed :
       {std::string("id=%"), std::string("id=%4"), std::string("id=%G0"), std::string("id=a%00b"),
        std::string("id=a%0ab"), std::string("id=\x01"), std::string("=value"),
        std::string(kMostAdminBodyBytes + 1, 'a'), tooMany}) {
    EXPECT_FALSE(parseFormBody(malformed)) << malformed.substr(0, 20);
  }
}

TEST(AdminRequestsTest, TokensBelongToOneUserAndOneSession) {
  const std::string secret = newAdminSecret();
  const std::string session = newSessionId();
  EXPECT_TRUE(isSessionId(session));
  EXPECT_NE(session, newSessionId());
  const std::string token = csrfToken(secret, "admin", session);
  ASSERT_EQ(token.size(), 64u);
  EXPECT_TRUE(csrfTokenMatches(secret, "admin", session, token));
  EXPECT_FALSE(csrfTokenMatches(secret, "other", session, token));
  EXPECT_FALSE(csrfTokenMatches(secret, "admin", newSessionId(), token));
  EXPECT_FALSE(csrfTokenMatches(newAdminSecret(), "admin", session, token));
  EXPECT_FALSE(csrfTokenMatches(secret, "admin", session, token.substr(1)));
  EXPECT_FALSE(csrfTokenMatches(secret, "admin", session, ""));
  // Without a usable secret, session or user there is no token at all, so none can match.
  EXPECT_EQ(csrfToken("short", "admin", session), "");
  EXPECT_EQ(csrfToken(secret, "", session), "");
  EXPECT_EQ(csrfToken(secret, "admin", std::string(32, 'Z')), "");
  EXPECT_FALSE(csrfTokenMatches("", "admin", session, ""));

  EXPECT_EQ(cookieValue("a=1; ondrel_session=" + session + "; b=2", "ondrel_session"), session);
  EXPECT_EQ(cookieValue("xondrel_session=evil", "ondrel_session"), "");
  EXPECT_EQ(cookieValue("", "ondrel_session"), "");
}

class AdminSiteTest : public OndrelTest {};

TEST_F(AdminSiteTest, PasswordsAreHashedReplacedAndCheckedBeforeWriting) {
  const KTSServerLayout& layout = context().layout();
  std::string error;
  ASSERT_TRUE(setAdminPassword(layout, "admin", "first-password", &error)) << error;
  ASSERT_TRUE(setAdminPassword(layout, "second", "another-password", &error)) << error;
  ASSERT_TRUE(setAdminPassword(layout, "admin", "changed-password", &error)) << error;
  std::string file = readFile(layout.adminPasswordPath());
  EXPECT_EQ(file.find("password"), std::string::npos) << "never stored in clear";
  ASSERT_EQ(file.find("second:"), 0u) << file;
  std::string line = file.substr(file.find("admin:"));
  std::string hash = line.substr(6, line.find('\n') - 6);
  struct crypt_data work {};
  EXPECT_EQ(std::string(crypt_r("changed-password", hash.c_str(), &work)), hash);
  EXPECT_EQ(file.find("admin:", file.find("admin:") + 1), std::string::npos) << "one line a user";
  for (const auto& [user, password] :
       std::vector<std::pair<std::string, std::string>>{{"a:b", "long-enough"},
                                                        {"name\nroot", "long-enough"},
                                                        {"", "long-enough"},
                                                        {"admin", "short"},
                                                        {"admin", "two\nlines-here"}}) {
    EXPECT_FALSE(setAdminPassword(layout, user, password, &error)) << user;
  }
  EXPECT_EQ(readFile(layout.adminPasswordPath()), file);

  // Logins: only the user's own password, and a hand-edited line with no usable hash lets no one
  // in; deleting the last user removes the file.
  EXPECT_EQ(checkAdminPassword(layout, "admin", "changed-password"), LoginCheck::Accepted);
  EXPECT_EQ(checkAdminPassword(layout, "admin", "first-password"), LoginCheck::WrongPassword);
  EXPECT_EQ(checkAdminPassword(layout, "nobody", "changed-password"), LoginCheck::NoSuchUser);
  EXPECT_EQ(checkAdminPassword(layout, "../admin", "changed-password"), LoginCheck::NoSuchUser);
  writeFile(layout.adminPasswordPath(), file + "broken:*\nempty:\n");
  EXPECT_EQ(checkAdminPassword(layout, "broken", "*"), LoginCheck::WrongPassword);
  EXPECT_EQ(checkAdminPassword(layout, "empty", ""), LoginCheck::NoSuchUser);
  for (const char* user : {"broken", "empty", "second"}) {
    EXPECT_TRUE(deleteAdminUser(layout, user, &error)) << user << ": " << error;
  }
  EXPECT_FALSE(deleteAdminUser(layout, "second", &error)) << "deleted already";
  EXPECT_TRUE(isAdminUser(layout, "admin"));
  EXPECT_TRUE(deleteAdminUser(layout, "admin", &error));
  EXPECT_FALSE(std::filesystem::exists(layout.adminPasswordPath()));
}

}  // namespace
}  // namespace ondrel
