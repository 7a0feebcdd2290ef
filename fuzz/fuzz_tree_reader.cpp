// libFuzzer target: any bytes as a forest in the tree text format. A library
// exception or the bare string "unbalanced parentheses" is an ordinary
// outcome of bad input; a crash, a sanitizer report, a leak, another
// exception escaping or a broken invariant is a finding.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tree_invariants.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string fault = VelmotFuzz::tree_reading_fault(std::string(reinterpret_cast<const char*>(data), size));
  if (!fault.empty()) {
    fprintf(stderr, "tree reader: %s\n", fault.c_str());
    abort();
  }
  return 0;
}
