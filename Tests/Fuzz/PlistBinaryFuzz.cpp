// libFuzzer target: the binary property-list reader must refuse or read any input in linear time.
// Inputs are given the binary header, so the fuzzer spends its time past it.
#include <cstddef>
#include <cstdint>
#include <string>

#include "PlistBinaryReader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string bytes = "bplist00";
  bytes.append(reinterpret_cast<const char*>(data), size);
  ondrel::readBinaryPlist(bytes, nullptr);
  return 0;
}
