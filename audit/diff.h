// talvix-audit diff: the changes between two export documents, compared as
// trees of objects keyed by id (the n-th object of an id in one document
// matches the n-th of that id in the other; a history series belongs to its
// object and is named by its id).
#ifndef TALVIX_AUDIT_DIFF_H_
#define TALVIX_AUDIT_DIFF_H_

#include <ostream>
#include <set>
#include <string>

namespace audit {

class DocumentInput;

struct DiffOptions {
  bool history = false;           // also series whose rows differ or that one side lacks
  std::set<std::string, std::less<>> ignored;  // property names (as written) left out
  bool json = false;              // JSON Lines instead of text lines
};

// Writes one record per change to `out`, in the order the objects appear in
// NEW, then the removed objects in OLD's order. Values are the written
// (escaped) attribute texts. Returns 0 without a change, 1 with one, 2 when
// a document cannot be read or has a fault (its report on `err`).
// Memory grows with the objects and properties of OLD, not with history.
int print_diff(const std::string& oldFile, const std::string& newFile, const DiffOptions& options,
               std::ostream& out, std::ostream& err);
// The same on opened inputs, named in reports by `oldName` and `newName`.
int print_diff(DocumentInput& oldInput, const std::string& oldName, DocumentInput& newInput,
               const std::string& newName, const DiffOptions& options, std::ostream& out,
               std::ostream& err);

}  // namespace audit

#endif  // TALVIX_AUDIT_DIFF_H_
