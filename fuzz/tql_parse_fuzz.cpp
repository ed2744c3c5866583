// Feeds arbitrary text to the TQL pattern parser. Every malformed pattern
// must surface as an util::Exception carrying the pattern as context, never
// as a crash, hang or runaway allocation.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "tql/parser.h"
#include "util/error.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Long BigNum constants cost quadratic time; bound the input so the fuzzer
  // explores structure rather than digit strings.
  if (size > 4096) return 0;
  const std::string text(reinterpret_cast<const char*>(data), size);
  try {
    tql::parse(text);
  } catch (const util::Exception& e) {
    const std::string context = ": parsing " + text;
    if (e.detail.size() < context.size() ||
        e.detail.compare(e.detail.size() - context.size(), context.size(), context) != 0) {
      std::abort();  // every failure must name the pattern it came from
    }
  }
  return 0;
}
