// The document reader of talvix-audit on arbitrary bytes: verify them, and
// compare them (split before a second XML declaration, or in the middle, as
// OLD and NEW) with history and JSON output. Any outcome but a crash, a hang or a
// sanitizer report is fine; faults are the expected answer to most inputs.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string_view>

#include "audit/diff.h"
#include "audit/document_input.h"
#include "audit/document_reader.h"
#include "audit/faults.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  {
    audit::DocumentInput input(audit::DocumentInput::InMemory{}, bytes);
    audit::DocumentEvents nothing;
    try {
      audit::read_document(input, nothing);
    } catch (const audit::Fault&) {
    }
  }
  size_t split = bytes.find("<?xml", 1);
  if (split == std::string_view::npos) split = size / 2;
  audit::DocumentInput oldInput(audit::DocumentInput::InMemory{}, bytes.substr(0, split));
  audit::DocumentInput newInput(audit::DocumentInput::InMemory{}, bytes.substr(split));
  audit::DiffOptions options;
  options.history = true;
  options.json = (size & 1) != 0;
  options.ignored = {"siblingName"};
  std::ostringstream out, err;
  audit::print_diff(oldInput, "old", newInput, "new", options, out, err);
  return 0;
}
