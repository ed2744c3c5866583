#include "porter/export_object.h"

#include <ostream>

#include "client/get_data.h"
#include "client/select.h"
#include "client/session.h"
#include "porter/export_base.h"
#include "porter/export_state.h"
#include "protocol/messages.h"
#include "util/error.h"
#include "util/format.h"

namespace porter {

namespace {

constexpr uint32_t kEnumeration = 0x10000;
constexpr uint32_t kComputed = 0x80000;
constexpr uint32_t kTypeMask = 0x1FFFF;  // type code (or enum number) and the enumeration bit
constexpr uint32_t kIndexType = 10;
constexpr uint32_t kNotRenderedType = 9;
constexpr uint32_t kSkipChild = 1;  // flag bit of children that are never walked

bool is_mib_class(const std::string& className) {
  return className == "MibObject" || className == "MibModule";
}

// The object with the given id from a select of `pattern`, or nullptr; the
// select is kept in `holder` as long as the object is used.
const client::ResultObject* reselect(WalkSource& source, const std::string& id,
                                     const std::string& pattern,
                                     std::shared_ptr<client::Select>& holder) {
  holder = source.select(id, pattern);
  return holder->find_result_opt(id);
}

// Writes the history series of every index property of `object`.
void export_history(const client::ResultObject& object, const std::vector<std::string>& indexNames,
                    OutStream& stream, const ExportBase& prototype) {
  ExportState& state = export_state();
  for (const std::string& indexName : indexNames) {
    state.events->history_started(object.id());
    std::shared_ptr<client::GetData> data = state.source->history(object.id(), indexName);
    if (data->error != 0 || data->intervals.empty()) continue;
    std::unique_ptr<ExportBase> wrapper = prototype.create(ElementKind::Object);
    wrapper->setAttribute(Attrib::Type, "Data");
    wrapper->setAttribute(Attrib::Datatype, util::datatype_name(data->dataType));
    wrapper->setAttribute(Attrib::Id, indexName);
    wrapper->open(stream);
    prototype.create(ElementKind::Object)
        ->writeData(stream, static_cast<int32_t>(data->dataType), data->intervals);
    wrapper->close(stream);
  }
  state.events->histories_done();
}

}  // namespace

bool passes_class_filter(const ClassFilter& filter, const std::string& className,
                         bool isRootExport, bool inSubtree) {
  if (inSubtree) return true;
  const bool filteredOut =
      (!filter.included.empty() && filter.included.count(className) == 0) ||
      filter.ignored.count(className) != 0;
  if (!filteredOut) return true;
  // The export root of a whole-database export is written whatever its class.
  return isRootExport && !is_mib_class(className);
}

bool is_index_property(const protocol::Property& property) {
  return (property.type & kTypeMask) == kIndexType;
}

bool is_written_property(const protocol::Property& property) {
  if (is_index_property(property) || protocol::is_null_value(property)) return false;
  if (property.name == "parentId") return false;
  const bool computed = (property.type & kComputed) != 0;
  if (computed && property.name != "siblingName" && property.name != "snmpId") return false;
  const bool enumeration = (property.type & kEnumeration) != 0;
  if (!computed && !enumeration && (property.type & kTypeMask) == kNotRenderedType) return false;
  return true;
}

std::vector<const client::ResultObject*> walk_order(const client::ResultObject& object) {
  std::vector<const client::ResultObject*> rest;
  for (const auto& child : object.children()) {
    if ((child->flags() & kSkipChild) == 0) rest.push_back(child.get());
  }
  std::vector<const client::ResultObject*> order;
  order.reserve(rest.size());
  for (const char* className : CLASS_ORDER) {
    auto it = rest.begin();
    for (const client::ResultObject* child : rest) {
      if (child->className() == className) {
        order.push_back(child);
      } else {
        *it++ = child;
      }
    }
    rest.erase(it, rest.end());
  }
  order.insert(order.end(), rest.begin(), rest.end());
  return order;
}

void export_object(const client::ResultObject& object, OutStream& stream,
                   const ExportBase& prototype, std::set<std::string>& visited, bool isRootExport,
                   bool inSubtree) {
  ExportState& state = export_state();
  if (!passes_class_filter(state.filter, object.className(), isRootExport, inSubtree)) return;
  const bool childrenInSubtree =
      inSubtree || state.filter.includedWithSubtree.count(object.className()) != 0;

  const std::string id = object.id();
  std::shared_ptr<client::Select> select;
  const client::ResultObject* found = reselect(*state.source, id, ".! > .", select);
  if (found == nullptr) found = reselect(*state.source, id, ".!", select);
  if (found == nullptr) throw util::EFatal("Couldn't get object " + id + " from database");
  const client::ResultObject& r = *found;

  // MIB modules and objects are written only through the MIB selection.
  if (is_mib_class(r.className())) {
    if (!isRootExport) return;
    isRootExport = false;
  }

  if (r.has_property("siblingName") && !r.is_null("siblingName")) {
    if (!visited.insert(r.get_string("siblingName")).second) return;  // a duplicate name
  } else if (r.className() == "AlertPathUsage" || r.className() == "NodeAgentStatus" ||
             r.has_property("siblingName")) {
    return;
  } else {
    throw util::EFatal("Couldn't get siblingName for " + id + " of class " + r.className());
  }

  const bool isDomain = r.className() == "Domain";
  if (isDomain) {
    state.events->domain_started(r.get_string("treeLabel"));
  } else {
    state.events->object_started();
  }

  std::unique_ptr<ExportBase> element = prototype.create(ElementKind::Object);
  element->setAttribute(Attrib::Type, r.className());
  element->setAttribute(Attrib::Id, r.id());
  element->open(stream);

  std::vector<std::string> indexNames;
  for (const auto& [name, property] : r.properties()) {
    if (is_index_property(*property)) {
      indexNames.push_back(name);
    } else if (is_written_property(*property)) {
      std::unique_ptr<ExportBase> leaf = prototype.create(ElementKind::Property);
      if (leaf->addProperty(*property) == 0) leaf->writeLeaf(stream);
    }
  }

  if (state.history && !indexNames.empty()) export_history(r, indexNames, stream, prototype);

  std::set<std::string> childVisited;
  if (isRootExport) {
    const std::string& mibRootId = state.session->mibRootId;
    std::shared_ptr<client::Select> mibSelect;
    const client::ResultObject* mibRoot =
        reselect(*state.source, mibRootId, ".! > (MibModule | MibObject)", mibSelect);
    if (mibRoot != nullptr) {
      for (const auto& child : mibRoot->children()) {
        export_object(*child, stream, prototype, childVisited, true, childrenInSubtree);
      }
    }
  }

  for (const client::ResultObject* child : walk_order(r)) {
    export_object(*child, stream, prototype, childVisited, false, childrenInSubtree);
  }

  if (isDomain) state.events->domain_done();
  element->close(stream);
}

}  // namespace porter
