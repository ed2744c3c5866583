// The object tree walk: writes the export root and, recursively, everything
// below it, taking the answers from a WalkSource in document order.
//
// For each visited object the walk takes its answer (".! > .", then ".!"
// when that did not find it), lets the walk's rules decide (porter/walk_rules.h),
// writes its element with its properties and the history of its index
// properties, then the MIB selection of a whole-database export and its
// children in walk order. It writes progress through WalkEvents.
#ifndef TALVIX_PORTER_WALK_H_
#define TALVIX_PORTER_WALK_H_

#include <set>
#include <string>

#include "porter/walk_events.h"
#include "porter/walk_rules.h"
#include "porter/walk_source.h"
#include "porter/xml_export.h"

namespace porter {

// What one export's walk works with. Built by the driver; everything
// referenced must outlive the walk.
struct ExportContext {
  const WalkSettings& settings;
  WalkSource& source;
  XMLExport& writer;
  WalkEvents& events;
};

// Writes `root` (as found in the answer of its ".! > ." select; only its
// class and id are read) and its subtree. `isRootExport` is true for the
// root domain of a whole-database export. Tells the source where the walk
// starts first. Failures are thrown and leave what was written in the
// document, with its elements open.
void walk_export(const ExportContext& context, const client::ResultObject& root,
                 bool isRootExport);

}  // namespace porter

#endif  // TALVIX_PORTER_WALK_H_
