// libFuzzer target: any bytes as a description file. A library exception is
// an ordinary outcome of bad input; a crash, a sanitizer report, a standard
// exception escaping or a broken invariant is a finding.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "description_invariants.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string fault =
      VelmotFuzz::description_reading_fault(std::string(reinterpret_cast<const char*>(data), size));
  if (!fault.empty()) {
    fprintf(stderr, "description reader: %s\n", fault.c_str());
    abort();
  }
  return 0;
}
