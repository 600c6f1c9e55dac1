#include "ProductId.h"

namespace ondrel {

namespace {

bool isAlphanumeric(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

}  // namespace

bool isValidProductId(std::string_view productId) {
  if (productId.empty() || productId.size() > 128 || !isAlphanumeric(productId.front())) {
    return false;
  }
  for (char c : productId.substr(1)) {
    if (!isAlphanumeric(c) && c != '.' && c != '_' && c != '-') return false;
  }
  return true;
}

}  // namespace ondrel
