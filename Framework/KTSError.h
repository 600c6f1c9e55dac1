// KTSError is an error that travels: a domain, a code, a description and a property-list user
// info. The library's own errors use the domain "com.vantor.KTServer"; errors of the transfer
// layer keep its domain and code. A value type; thrown only where a failure must travel.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "Plist.h"

namespace ondrel {

class KTSError : public std::runtime_error {
 public:
  static constexpr const char* kDomain = "com.vantor.KTServer";

  KTSError(std::string domain, std::int64_t code, const std::string& description,
           Plist userInfo = Plist())
      : std::runtime_error(description),
        domain_(std::move(domain)),
        code_(code),
        userInfo_(std::move(userInfo)) {}

  const std::string& domain() const { return domain_; }
  std::int64_t code() const { return code_; }
  std::string description() const { return what(); }
  const Plist& userInfo() const { return userInfo_; }

 private:
  std::string domain_;
  std::int64_t code_;
  Plist userInfo_;
};

}  // namespace ondrel
