#include "porter/pipelined_source.h"

#include <algorithm>
#include <deque>
#include <exception>
#include <map>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "client/get_data.h"
#include "client/request.h"
#include "client/select.h"
#include "client/session.h"
#include "porter/export_object.h"
#include "util/error.h"

namespace porter {

namespace {

// The walk's patterns.
constexpr char kWithChildren[] = ".! > .";
constexpr char kAlone[] = ".!";
constexpr char kMibSelection[] = ".! > (MibModule | MibObject)";

// The parameters of every history request of the export.
constexpr int32_t kFrom = 0;
constexpr int32_t kTo = 2147483647;
constexpr int32_t kStep = 1;
constexpr int32_t kLast = 0;

// A position in document order: requests compare lexicographically by key.
// An object visited at key P asks, in this order, P.0 (".! > ."), P.1 (".!"),
// P.2.i (history series i), P.3 (the MIB selection); its MIB children are
// visited at P.4.k and its other children at P.5.k.
using Key = std::vector<uint32_t>;
enum Step : uint32_t {
  kReselectStep = 0,
  kFallbackStep = 1,
  kHistoryStep = 2,
  kMibStep = 3,
  kMibChildStep = 4,
  kChildStep = 5,
};

Key extend(const Key& key, std::initializer_list<uint32_t> steps) {
  Key result = key;
  result.insert(result.end(), steps);
  return result;
}

bool is_mib_class(const std::string& className) {
  return className == "MibObject" || className == "MibModule";
}

struct Visit;

// The children of one parent, in the order the walk visits them, with the
// siblingNames already taken: the walk's `visited` set, replayed.
struct SiblingGroup {
  std::set<std::string> names;
  // Visits whose duplicate rule is still to be applied, in walk order. A
  // visit is kept alive by its own requests until it is decided.
  std::deque<std::weak_ptr<Visit>> undecided;
  bool awaitingMib = false;  // the MIB children, which come first, are not known yet
  bool stopped = false;      // the walk fails at a member; the rest is never visited
};

// One call of export_object that the walk will make (the class filter passed).
struct Visit {
  std::string id;
  std::string className;  // as found in the parent's result
  bool isRootExport = false;
  bool inSubtree = false;
  Key key;
  std::shared_ptr<SiblingGroup> group;
  // Set once the object's own select answer is final; `answer` holds it
  // until the visit is decided (null when the object could not be found).
  bool final = false;
  std::shared_ptr<client::Select> answer;
};

enum class Kind { kReselect, kFallback, kMib, kHistory };

// One request of the walk.
struct Slot {
  Kind kind;
  Key key;
  std::string startId;
  std::string argument;  // pattern of a select, index name of a history series
  std::shared_ptr<Visit> visit;         // the object asking (for the MIB selection: its parent)
  std::shared_ptr<SiblingGroup> group;  // kMib: the group its children join
  bool childrenInSubtree = false;       // kMib
  std::shared_ptr<client::Request> request;  // once sent
  bool answered = false;
  std::exception_ptr failure;  // the request's own failure, raised when it is taken
};

struct SlotOrder {
  bool operator()(const Slot* a, const Slot* b) const { return a->key < b->key; }
};

}  // namespace

class PipelinedSource::Planner {
 public:
  Planner(client::Session& session, uint32_t depth, PipelineStats* stats)
      : session_(session), depth_(std::max<uint32_t>(depth, 1)), stats_(stats ? stats : &own_) {}

  void start(const client::ResultObject& root, bool isRootExport) {
    const ExportState& state = export_state();
    filter_ = state.filter;
    history_ = state.history;
    mibRootId_ = state.session != nullptr ? state.session->mibRootId : session_.mibRootId;
    planning_ = true;
    if (!passes_class_filter(filter_, root.className(), isRootExport, false)) return;
    add_visit(root.id(), root.className(), isRootExport, false, Key{},
              std::make_shared<SiblingGroup>(), false);
    fill();
  }

  std::shared_ptr<client::Request> take(Kind kind, const std::string& startId,
                                        const std::string& argument) {
    if (planning_ && !matches_head(kind, startId, argument)) abandon();
    if (!planning_) return sequential(kind, startId, argument);

    Slot& head = *pending_.begin()->second;
    while (!head.request && outstanding_ >= depth_) pump();
    if (!head.request && !send(head)) {
      // The connection broke while writing. Its reading side reports the
      // break as the sequential walk would meet it: read until it does.
      for (;;) pump();
    }
    while (!head.answered) pump();

    std::unique_ptr<Slot> taken = std::move(pending_.begin()->second);
    pending_.erase(pending_.begin());
    --held_;
    ++stats_->taken;
    if (taken->failure) std::rethrow_exception(taken->failure);
    fill();
    return std::move(taken->request);
  }

 private:
  bool matches_head(Kind kind, const std::string& startId, const std::string& argument) const {
    if (pending_.empty()) return false;
    const Slot& head = *pending_.begin()->second;
    const bool sameKind = (kind == Kind::kHistory) == (head.kind == Kind::kHistory);
    return sameKind && head.startId == startId && head.argument == argument;
  }

  // Forgets the plan; the requests still outstanding are left to the session.
  void abandon() {
    planning_ = false;
    ++stats_->abandoned;
    unsent_.clear();
    outstandingSlots_.clear();
    pending_.clear();
    outstanding_ = 0;
    held_ = 0;
  }

  std::shared_ptr<client::Request> sequential(Kind kind, const std::string& startId,
                                              const std::string& argument) {
    std::shared_ptr<client::Request> request = make_request(kind, startId, argument);
    client::send(session_, request);
    ++stats_->sent;
    client::await(session_, *request);
    ++stats_->taken;
    return request;
  }

  static std::shared_ptr<client::Request> make_request(Kind kind, const std::string& startId,
                                                       const std::string& argument) {
    if (kind == Kind::kHistory) {
      return std::make_shared<client::GetData>(startId, argument, kFrom, kTo, kStep, kLast, true);
    }
    return std::make_shared<client::Select>(startId, argument, 0);
  }

  Slot& add_slot(Kind kind, Key key, std::string startId, std::string argument,
                 std::shared_ptr<Visit> visit) {
    auto slot = std::make_unique<Slot>();
    slot->kind = kind;
    slot->key = std::move(key);
    slot->startId = std::move(startId);
    slot->argument = std::move(argument);
    slot->visit = std::move(visit);
    Slot& result = *slot;
    unsent_.insert(&result);
    pending_.emplace(result.key, std::move(slot));
    return result;
  }

  // A visit that joins `group` (at the back, or collected by the caller for
  // the front when `mibMember`) and asks for its object with its children.
  std::shared_ptr<Visit> add_visit(const std::string& id, const std::string& className,
                                   bool isRootExport, bool inSubtree, Key key,
                                   std::shared_ptr<SiblingGroup> group, bool mibMember) {
    auto visit = std::make_shared<Visit>();
    visit->id = id;
    visit->className = className;
    visit->isRootExport = isRootExport;
    visit->inSubtree = inSubtree;
    visit->key = std::move(key);
    visit->group = std::move(group);
    if (!mibMember) visit->group->undecided.push_back(visit);
    add_slot(Kind::kReselect, extend(visit->key, {kReselectStep}), id, kWithChildren, visit);
    return visit;
  }

  // Sends `slot`; false when writing failed. Such a failure is not raised:
  // the connection is broken, and reading reports it.
  bool send(Slot& slot) {
    std::shared_ptr<client::Request> request = make_request(slot.kind, slot.startId, slot.argument);
    try {
      client::send(session_, request);
    } catch (const util::ESystemError&) {
      sendFailed_ = true;
      return false;
    }
    ++stats_->sent;
    if (!anySent_ || maxSentKey_ < slot.key) maxSentKey_ = slot.key;
    anySent_ = true;
    unsent_.erase(&slot);
    slot.request = std::move(request);
    outstandingSlots_.emplace(slot.request.get(), &slot);
    ++outstanding_;
    stats_->peakOutstanding = std::max(stats_->peakOutstanding, outstanding_);
    stats_->peakAhead = std::max(stats_->peakAhead, outstanding_ + held_);
    return true;
  }

  // Sends the earliest requests of the plan while the bounds allow.
  void fill() {
    while (!sendFailed_ && !unsent_.empty() && may_send_ahead(**unsent_.begin())) {
      send(**unsent_.begin());
    }
  }

  // Up to 2N requests may be outstanding or held ahead of the walk. A request
  // that comes before one already sent (the children and history of an
  // object whose later siblings were asked first) is needed sooner than those
  // siblings' answers, so it may go beyond that, up to 4N; otherwise the held
  // answers of far siblings would leave the walk one round trip per step.
  bool may_send_ahead(const Slot& next) const {
    if (outstanding_ >= depth_) return false;
    const uint32_t ahead = outstanding_ + held_;
    if (ahead < 2 * depth_) return true;
    return ahead < 4 * depth_ && anySent_ && next.key < maxSentKey_;
  }

  // Reads and dispatches one answer and plans what it shows.
  void pump() {
    std::shared_ptr<client::Request> answered;
    try {
      answered = client::processResponse(session_);
    } catch (const util::Exception&) {
      // A request that could not decode its answer is answered but still
      // outstanding; its failure belongs to the moment the walk takes it.
      // Anything else (transport, a message that is no Response) is raised.
      Slot* culprit = nullptr;
      for (const auto& [request, slot] : outstandingSlots_) {
        if (request->state == client::Request::kAnswered) culprit = slot;
      }
      if (culprit == nullptr) throw;
      culprit->failure = std::current_exception();
      client::forget(session_, *culprit->request);
      mark_answered(*culprit);
      return;
    }
    if (!answered) return;
    auto found = outstandingSlots_.find(answered.get());
    if (found == outstandingSlots_.end()) return;  // asked for before the plan was dropped
    Slot& slot = *found->second;
    mark_answered(slot);
    plan(slot);
    fill();
  }

  void mark_answered(Slot& slot) {
    outstandingSlots_.erase(slot.request.get());
    slot.answered = true;
    --outstanding_;
    ++held_;
    stats_->peakHeld = std::max(stats_->peakHeld, held_);
  }

  // What the answer of `slot` shows about the requests to come.
  void plan(Slot& slot) {
    switch (slot.kind) {
      case Kind::kReselect:
      case Kind::kFallback: {
        Visit& visit = *slot.visit;
        auto select = std::dynamic_pointer_cast<client::Select>(slot.request);
        if (select->find_result_opt(visit.id) != nullptr) {
          visit.answer = select;
        } else if (slot.kind == Kind::kReselect) {
          add_slot(Kind::kFallback, extend(visit.key, {kFallbackStep}), visit.id, kAlone,
                   slot.visit);
          return;
        }
        visit.final = true;
        advance(*visit.group);
        return;
      }
      case Kind::kMib: {
        SiblingGroup& group = *slot.group;
        auto select = std::dynamic_pointer_cast<client::Select>(slot.request);
        std::vector<std::shared_ptr<Visit>> members;
        if (const client::ResultObject* mibRoot = select->find_result_opt(mibRootId_)) {
          uint32_t index = 0;
          for (const auto& child : mibRoot->children()) {
            const uint32_t k = index++;
            if (!passes_class_filter(filter_, child->className(), true, slot.childrenInSubtree)) {
              continue;
            }
            members.push_back(add_visit(child->id(), child->className(), true,
                                        slot.childrenInSubtree,
                                        extend(slot.visit->key, {kMibChildStep, k}), slot.group,
                                        true));
          }
        }
        group.undecided.insert(group.undecided.begin(), members.begin(), members.end());
        group.awaitingMib = false;
        advance(group);
        return;
      }
      case Kind::kHistory:
        return;
    }
  }

  // Applies the duplicate rule to the members of `group` whose answers are
  // final, in walk order, as far as the answers allow.
  void advance(SiblingGroup& group) {
    while (!group.stopped && !group.awaitingMib && !group.undecided.empty()) {
      std::shared_ptr<Visit> visit = group.undecided.front().lock();
      if (visit && !visit->final) return;
      group.undecided.pop_front();
      if (visit && !decide(visit, group)) {
        group.stopped = true;
        group.undecided.clear();
      }
    }
  }

  // The walk's decisions for one object whose answer is final; plans its
  // subtree when it will be written. False when the walk fails at it.
  bool decide(const std::shared_ptr<Visit>& visit, SiblingGroup& group) {
    std::shared_ptr<client::Select> select = std::move(visit->answer);
    const client::ResultObject* r = select ? select->find_result_opt(visit->id) : nullptr;
    if (r == nullptr) return false;  // "Couldn't get object"

    bool isRootExport = visit->isRootExport;
    if (is_mib_class(r->className())) {
      if (!isRootExport) return true;  // dropped: reached outside the MIB selection
      isRootExport = false;
    }
    try {
      if (r->has_property("siblingName") && !r->is_null("siblingName")) {
        if (!group.names.insert(r->get_string("siblingName")).second) return true;  // duplicate
      } else if (r->className() == "AlertPathUsage" || r->className() == "NodeAgentStatus" ||
                 r->has_property("siblingName")) {
        return true;  // left out silently
      } else {
        return false;  // "Couldn't get siblingName"
      }
      if (r->className() == "Domain") r->get_string("treeLabel");
    } catch (const util::Exception&) {
      return false;  // the walk raises the same when it reads the answer
    }
    expand(visit, *r, isRootExport);
    return true;
  }

  // The requests of an object that will be written: its history series, the
  // MIB selection, and the re-selects of the children it will visit.
  void expand(const std::shared_ptr<Visit>& owner, const client::ResultObject& r,
              bool isRootExport) {
    const Visit& visit = *owner;
    const bool childrenInSubtree =
        visit.inSubtree || filter_.includedWithSubtree.count(visit.className) != 0;

    if (history_) {
      uint32_t index = 0;
      for (const auto& [name, property] : r.properties()) {
        if (!is_index_property(*property)) continue;
        add_slot(Kind::kHistory, extend(visit.key, {kHistoryStep, index++}), visit.id, name, owner);
      }
    }

    auto children = std::make_shared<SiblingGroup>();
    if (isRootExport) {
      Slot& mib = add_slot(Kind::kMib, extend(visit.key, {kMibStep}), mibRootId_, kMibSelection,
                           owner);
      mib.group = children;
      mib.childrenInSubtree = childrenInSubtree;
      children->awaitingMib = true;
    }
    uint32_t index = 0;
    for (const client::ResultObject* child : walk_order(r)) {
      const uint32_t k = index++;
      if (!passes_class_filter(filter_, child->className(), false, childrenInSubtree)) continue;
      add_visit(child->id(), child->className(), false, childrenInSubtree,
                extend(visit.key, {kChildStep, k}), children, false);
    }
  }

  client::Session& session_;
  const uint32_t depth_;
  PipelineStats own_;
  PipelineStats* stats_;

  ClassFilter filter_;
  bool history_ = true;
  std::string mibRootId_;
  bool planning_ = false;
  bool sendFailed_ = false;
  // The latest key in document order of any request sent so far.
  bool anySent_ = false;
  Key maxSentKey_{};

  // Every planned request not yet taken by the walk, in document order.
  std::map<Key, std::unique_ptr<Slot>> pending_;
  // Those of them not sent yet, earliest first.
  std::set<Slot*, SlotOrder> unsent_;
  // Those sent and not answered, by request.
  std::unordered_map<const client::Request*, Slot*> outstandingSlots_;
  uint32_t outstanding_ = 0;
  uint32_t held_ = 0;  // answered, not yet taken
};

PipelinedSource::PipelinedSource(client::Session& session, uint32_t depth, PipelineStats* stats)
    : planner_(std::make_unique<Planner>(session, depth, stats)) {}

PipelinedSource::~PipelinedSource() = default;

std::shared_ptr<client::Select> PipelinedSource::select(const std::string& startId,
                                                        const std::string& pattern) {
  const Kind kind = pattern == kAlone ? Kind::kFallback : Kind::kReselect;
  return std::dynamic_pointer_cast<client::Select>(planner_->take(kind, startId, pattern));
}

std::shared_ptr<client::GetData> PipelinedSource::history(const std::string& objectId,
                                                          const std::string& indexName) {
  return std::dynamic_pointer_cast<client::GetData>(
      planner_->take(Kind::kHistory, objectId, indexName));
}

void PipelinedSource::walk_starts(const client::ResultObject& root, bool isRootExport) {
  planner_->start(root, isRootExport);
}

}  // namespace porter
