// The two ways a check of a document can end badly, kept apart because they
// give different exit codes: a Fault is something wrong with the document
// (exit 1), Trouble keeps the check from being made at all (exit 2).
#ifndef TALVIX_AUDIT_FAULTS_H_
#define TALVIX_AUDIT_FAULTS_H_

#include <cstdint>
#include <stdexcept>
#include <string>

namespace audit {

// The first fault of a document: its 1-based line and the 0-based offset of
// the offending byte in the document text (after decompression). A fault of
// the compressed container carries the position the text had reached.
class Fault : public std::runtime_error {
 public:
  Fault(uint64_t line, uint64_t offset, const std::string& what)
      : std::runtime_error(what), line(line), offset(offset) {}
  uint64_t line;
  uint64_t offset;
};

// A file that cannot be opened or read, or a bad command line.
class Trouble : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// "<file>:<line>: byte <offset>: <what>", the one form of a fault's report.
inline std::string fault_text(const std::string& file, const Fault& fault) {
  return file + ':' + std::to_string(fault.line) + ": byte " + std::to_string(fault.offset) + ": " +
         fault.what();
}

}  // namespace audit

#endif  // TALVIX_AUDIT_FAULTS_H_
