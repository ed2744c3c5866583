// The object tree walk: writes one object of the server's tree and,
// recursively, everything below it.
//
// For each object the walk re-selects it with its children, decides whether
// it is exported (class filter, MIB rule, duplicate siblingName), writes its
// element with its properties and the history of its index properties, then
// walks its children in the fixed class order. The decisions are also
// offered as pure functions so that whoever plans requests ahead of the
// writer reaches exactly the same ones.
#ifndef TALVIX_PORTER_EXPORT_OBJECT_H_
#define TALVIX_PORTER_EXPORT_OBJECT_H_

#include <set>
#include <string>
#include <vector>

#include "porter/class_filter.h"

namespace protocol {
class Property;
}
namespace client {
class ResultObject;
}

namespace porter {

class ExportBase;

class OutStream;

// The order in which children are walked: these classes first, in this
// order, then every other class in the server's order.
inline constexpr const char* CLASS_ORDER[] = {"User",      "AlertGroup", "MibModule",
                                              "MibObject", "Node",       "Domain"};

// Writes `object` (found in its parent's result; only its class and id are
// read) and its subtree to `stream` through exporters made by `prototype`.
// `visited` holds the siblingNames already exported under the same parent.
// Reads export_state() for the source, filter, history flag and error
// stream. Failures are thrown and leave what was written in the stream.
void export_object(const client::ResultObject& object, OutStream& stream,
                   const ExportBase& prototype, std::set<std::string>& visited, bool isRootExport,
                   bool inSubtree);

// Whether the class filter lets an object of `className` through before it
// is re-selected (the walk's first decision).
bool passes_class_filter(const ClassFilter& filter, const std::string& className,
                         bool isRootExport, bool inSubtree);

// Whether the walk writes `property` as a Property element (index properties
// are not: they are history series).
bool is_written_property(const protocol::Property& property);

// Whether `property` is an index property, whose history is exported.
bool is_index_property(const protocol::Property& property);

// The children of `object` that the walk visits, in visiting order: children
// with flag bit 0 set are left out; CLASS_ORDER classes come first.
std::vector<const client::ResultObject*> walk_order(const client::ResultObject& object);

}  // namespace porter

#endif  // TALVIX_PORTER_EXPORT_OBJECT_H_
