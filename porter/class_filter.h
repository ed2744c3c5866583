// The class-name filter of an export: which classes of objects the tree walk
// writes, skips, or writes together with everything below them.
#ifndef TALVIX_PORTER_CLASS_FILTER_H_
#define TALVIX_PORTER_CLASS_FILTER_H_

#include <set>
#include <string>

namespace porter {

// Three sets of class names, ordered byte-wise. A plain value type: the
// command line fills one, the export driver keeps its own copy.
struct ClassFilter {
  std::set<std::string> included;             // named by -I
  std::set<std::string> ignored;              // named by -i (and the driver's defaults)
  std::set<std::string> includedWithSubtree;  // named by -I with a trailing '+'

  bool operator==(const ClassFilter&) const = default;
};

// Splits `list` at every ',' and ' ' (empty pieces dropped) and adds each
// name to filter.ignored. "Domain,,Node" and "Domain, Node" both add Domain
// and Node.
void add_ignored_classes(ClassFilter& filter, const std::string& list);

// Splits `list` like add_ignored_classes(). A name ending in '+' is added
// without the '+' to both filter.included and filter.includedWithSubtree;
// any other name to filter.included only. A lone "+" adds the empty name.
void add_included_classes(ClassFilter& filter, const std::string& list);

}  // namespace porter

#endif  // TALVIX_PORTER_CLASS_FILTER_H_
