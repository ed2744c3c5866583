// The walk's decisions, written once: which requests the walk makes, which
// objects it visits and in which order, what it writes of each.
//
// Two engines run on these functions: the writer (porter/walk.h), which
// takes the answers in document order and writes the document, and the
// planner of the pipelined source (porter/pipelined_source.h), which follows
// the answers as they arrive to ask for the later ones early. Both reach
// every decision through this file, so the pipelined export asks exactly the
// requests of the sequential one.
//
// Everything here is a pure function of its arguments; no reference is kept.
#ifndef TALVIX_PORTER_WALK_RULES_H_
#define TALVIX_PORTER_WALK_RULES_H_

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "porter/class_filter.h"

namespace client {
class Request;
class ResultObject;
}  // namespace client
namespace protocol {
class Property;
}

namespace porter {

// Classes that are never exported unless they lie below a class named with
// "+" in -I.
inline constexpr char DEFAULT_IGNORED_CLASSES[] =
    "ClusterConfig,ReportSelection,NetworkScan,NetworkScanWork,SnmpScan,NotificationJob,"
    "ForecastModel";

// The order in which children are walked: these classes first, in this
// order, then every other class in the server's order.
inline constexpr const char* CLASS_ORDER[] = {"User",      "AlertGroup", "MibModule",
                                              "MibObject", "Node",       "Domain"};

// The kinds of request an export makes. The kind, not the pattern text,
// tells requests apart.
enum class RequestKind {
  kDomainLookup,  // the driver's search for the export domain; `argument` is the pattern
  kReselect,      // an object with its children: ".! > ."
  kFallback,      // an object alone, when kReselect did not find it: ".!"
  kMibSelection,  // the MIB modules and objects below the MIB root
  kHistory,       // one history series; `argument` is the index property's name
};

struct WalkRequest {
  RequestKind kind;
  std::string startId;   // the object asked about
  std::string argument;  // see RequestKind; empty for the other kinds

  bool operator==(const WalkRequest&) const = default;
};

// The client request for `request`: a client::Select of the kind's pattern
// (flags 0), or a client::GetData of the whole stored history (from 0 to
// 2147483647, step 1, no limit, with intervals). Not yet sent.
std::shared_ptr<client::Request> make_request(const WalkRequest& request);

// What the walk's decisions depend on besides the answers; fixed for one
// export.
struct WalkSettings {
  ClassFilter filter;     // the user's filter with DEFAULT_IGNORED_CLASSES added
  bool history = true;    // false with -c
  std::string mibRootId;  // start of the MIB selection (the session's)
};

// One object the walk will visit, as its parent's answer showed it.
struct Visit {
  std::string id;
  std::string className;
  bool isRootExport = false;  // the export root of a whole-database export, or a MIB object below it
  bool inSubtree = false;     // below an object of a class named with "+"
};

// The visit of `object` when the class filter lets it through (the walk's
// first decision, made before any request), else false.
bool admit(const WalkSettings& settings, const client::ResultObject& object, bool isRootExport,
           bool inSubtree, Visit& visit);

// What the walk does with a visited object once its answer is final.
struct ObjectPlan {
  bool written = false;    // false: dropped (MIB rule, duplicate or unusable siblingName)
  bool isDomain = false;   // its progress mark is a domain line
  std::string treeLabel;   // of a domain
  bool selectMib = false;  // the MIB selection follows its history series
  bool childrenInSubtree = false;
  std::vector<std::string> historySeries;  // index property names, by name; empty with -c
  std::vector<Visit> children;             // admitted children, in walk order
};

// Decides about `visit` from its answer `found` (null when neither select
// found the object). `siblingNames` holds the siblingNames already written
// under the same parent; a written object's name is added. Throws the walk's
// failure for the object: util::EFatal "Couldn't get object <id> from
// database", util::EFatal "Couldn't get siblingName for <id> of class
// <class>", and util::EObjectError for an unreadable siblingName or a
// domain's missing treeLabel; `siblingNames` may then have changed.
ObjectPlan plan_object(const WalkSettings& settings, const Visit& visit,
                       const client::ResultObject* found, std::set<std::string>& siblingNames);

// The admitted MIB modules and objects of the MIB selection's answer
// `mibRoot` (null when the MIB root was not found), in the server's order.
std::vector<Visit> mib_children(const WalkSettings& settings, const client::ResultObject* mibRoot,
                                bool childrenInSubtree);

// Whether a property of a written object becomes a Property element: not an
// index property (those are history series), not null, not "parentId", and
// not computed unless it is "siblingName" or "snmpId". The writer may still
// leave out what it cannot render.
bool is_written_property(const protocol::Property& property);

}  // namespace porter

#endif  // TALVIX_PORTER_WALK_RULES_H_
