#include "porter/class_filter.h"

#include <vector>

#include "util/format.h"

namespace porter {

namespace {

// Class lists are written "A,B", "A, B" or "A B".
const char kListSeparators[] = ", ";

std::vector<std::string> class_names(const std::string& list) {
  std::vector<std::string> names;
  util::split_any(list, kListSeparators, names);
  return names;
}

}  // namespace

void add_ignored_classes(ClassFilter& filter, const std::string& list) {
  for (std::string& name : class_names(list)) filter.ignored.insert(std::move(name));
}

void add_included_classes(ClassFilter& filter, const std::string& list) {
  for (std::string& name : class_names(list)) {
    if (!name.empty() && name.back() == '+') {
      name.pop_back();
      filter.includedWithSubtree.insert(name);
    }
    filter.included.insert(std::move(name));
  }
}

}  // namespace porter
