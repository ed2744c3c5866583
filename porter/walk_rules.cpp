#include "porter/walk_rules.h"

#include "client/get_data.h"
#include "client/select.h"
#include "protocol/property_types.h"
#include "protocol/property_values.h"
#include "util/error.h"

namespace porter {

namespace {

constexpr uint32_t kSkipChild = 1;  // flag bit of children that are never walked

bool is_mib_class(const std::string& className) {
  return className == "MibObject" || className == "MibModule";
}

bool is_index_property(const protocol::Property& property) {
  return protocol::type_code(property.type) == protocol::kTypeIndex;
}

const char* pattern_of(const WalkRequest& request) {
  switch (request.kind) {
    case RequestKind::kDomainLookup: return request.argument.c_str();
    case RequestKind::kReselect: return ".! > .";
    case RequestKind::kFallback: return ".!";
    case RequestKind::kMibSelection: return ".! > (MibModule | MibObject)";
    case RequestKind::kHistory: break;
  }
  return nullptr;
}

// The children of `object` that are walked, in walking order: CLASS_ORDER
// classes first; children with the skip flag are left out.
std::vector<const client::ResultObject*> walk_order(const client::ResultObject& object) {
  std::vector<const client::ResultObject*> rest;
  for (const auto& child : object.children()) {
    if ((child->flags() & kSkipChild) == 0) rest.push_back(child.get());
  }
  std::vector<const client::ResultObject*> order;
  order.reserve(rest.size());
  for (const char* className : CLASS_ORDER) {
    auto kept = rest.begin();
    for (const client::ResultObject* child : rest) {
      if (child->className() == className) {
        order.push_back(child);
      } else {
        *kept++ = child;
      }
    }
    rest.erase(kept, rest.end());
  }
  order.insert(order.end(), rest.begin(), rest.end());
  return order;
}

}  // namespace

std::shared_ptr<client::Request> make_request(const WalkRequest& request) {
  if (request.kind == RequestKind::kHistory) {
    return std::make_shared<client::GetData>(request.startId, request.argument, 0, 2147483647, 1,
                                             0, true);
  }
  return std::make_shared<client::Select>(request.startId, pattern_of(request), 0);
}

bool admit(const WalkSettings& settings, const client::ResultObject& object, bool isRootExport,
           bool inSubtree, Visit& visit) {
  const ClassFilter& filter = settings.filter;
  const std::string& className = object.className();
  const bool filteredOut = !inSubtree && ((!filter.included.empty() &&
                                           filter.included.count(className) == 0) ||
                                          filter.ignored.count(className) != 0);
  // The export root of a whole-database export is written whatever its
  // class, unless it is a MIB class.
  if (filteredOut && !(isRootExport && !is_mib_class(className))) return false;
  visit = Visit{object.id(), className, isRootExport, inSubtree};
  return true;
}

ObjectPlan plan_object(const WalkSettings& settings, const Visit& visit,
                       const client::ResultObject* found, std::set<std::string>& siblingNames) {
  if (found == nullptr) {
    throw util::EFatal("Couldn't get object " + visit.id + " from database");
  }
  const client::ResultObject& r = *found;
  ObjectPlan plan;
  bool isRootExport = visit.isRootExport;

  // MIB modules and objects are written only through the MIB selection.
  if (is_mib_class(r.className())) {
    if (!isRootExport) return plan;
    isRootExport = false;
  }

  if (r.has_property("siblingName") && !r.is_null("siblingName")) {
    if (!siblingNames.insert(r.get_string("siblingName")).second) return plan;  // a duplicate
  } else if (r.className() == "AlertPathUsage" || r.className() == "NodeAgentStatus" ||
             r.has_property("siblingName")) {
    return plan;
  } else {
    throw util::EFatal("Couldn't get siblingName for " + visit.id + " of class " + r.className());
  }

  plan.isDomain = r.className() == "Domain";
  if (plan.isDomain) plan.treeLabel = r.get_string("treeLabel");
  plan.written = true;
  plan.selectMib = isRootExport;
  plan.childrenInSubtree =
      visit.inSubtree || settings.filter.includedWithSubtree.count(visit.className) != 0;
  if (settings.history) {
    for (const auto& [name, property] : r.properties()) {
      if (is_index_property(*property)) plan.historySeries.emplace_back(name);
    }
  }
  for (const client::ResultObject* child : walk_order(r)) {
    Visit childVisit;
    if (admit(settings, *child, false, plan.childrenInSubtree, childVisit)) {
      plan.children.push_back(std::move(childVisit));
    }
  }
  return plan;
}

std::vector<Visit> mib_children(const WalkSettings& settings, const client::ResultObject* mibRoot,
                                bool childrenInSubtree) {
  std::vector<Visit> visits;
  if (mibRoot == nullptr) return visits;
  for (const auto& child : mibRoot->children()) {
    Visit visit;
    if (admit(settings, *child, true, childrenInSubtree, visit)) visits.push_back(std::move(visit));
  }
  return visits;
}

bool is_written_property(const protocol::Property& property) {
  if (is_index_property(property) || protocol::is_null_value(property)) return false;
  if (property.name == "parentId") return false;
  const bool computed = (property.type & protocol::kPropComputed) != 0;
  return !computed || property.name == "siblingName" || property.name == "snmpId";
}

}  // namespace porter
