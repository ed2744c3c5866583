#include "porter/pipelined_source.h"

#include <algorithm>
#include <deque>
#include <exception>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "client/get_data.h"
#include "client/request.h"
#include "client/select.h"
#include "client/session.h"
#include "util/error.h"

namespace porter {

namespace {

// A position in document order: requests compare lexicographically by key.
// An object visited at key P asks, in this order, P.0 (".! > ."), P.1 (".!"),
// P.2.i (history series i), P.3 (the MIB selection); its MIB children are
// visited at P.4.k and its other children at P.5.k.
//
// A key is kept as a byte string in which each step takes one to five
// octets, so that keys compare as plain byte strings (memcmp), mostly
// without an allocation of their own. The step's first octet tells its
// length, and the lengths grow with the value:
//   0xxxxxxx                      0 .. 0x7f
//   10xxxxxx xxxxxxxx             .. 0x3fff
//   110xxxxx xxxxxxxx xxxxxxxx    .. 0x1fffff
//   11100000 and four octets      the rest
// No encoding is a prefix of another and the octets of a smaller value
// compare smaller, so byte order is the order of the step sequences.
using Key = std::string;
enum Step : uint32_t {
  kReselectStep = 0,
  kFallbackStep = 1,
  kHistoryStep = 2,
  kMibStep = 3,
  kMibChildStep = 4,
  kChildStep = 5,
};

void append_step(Key& key, uint32_t step) {
  const auto octet = [](uint32_t v) { return static_cast<char>(static_cast<uint8_t>(v)); };
  if (step < 0x80) {
    key += octet(step);
  } else if (step < 0x4000) {
    key += octet(0x80 | step >> 8);
    key += octet(step);
  } else if (step < 0x200000) {
    key += octet(0xC0 | step >> 16);
    key += octet(step >> 8);
    key += octet(step);
  } else {
    key += octet(0xE0);
    for (int shift = 24; shift >= 0; shift -= 8) key += octet(step >> shift);
  }
}

Key extend(const Key& key, std::initializer_list<uint32_t> steps) {
  Key result;
  result.reserve(key.size() + 5 * steps.size());
  result = key;
  for (uint32_t step : steps) append_step(result, step);
  return result;
}

struct PlannedVisit;

// The children of one parent, in the order the walk visits them, with the
// siblingNames already taken: the walk's `visited` set, replayed.
struct SiblingGroup {
  std::set<std::string> names;
  // Visits whose duplicate rule is still to be applied, in walk order. A
  // visit is kept alive by its own requests until it is decided.
  std::deque<std::weak_ptr<PlannedVisit>> undecided;
  bool awaitingMib = false;  // the MIB children, which come first, are not known yet
  bool stopped = false;      // the walk fails at a member; the rest is never visited
};

// One visit that the walk will make (the class filter passed).
struct PlannedVisit {
  Visit visit;
  Key key;
  std::shared_ptr<SiblingGroup> group;
  // Set once the object's own select answer is final; `answer` holds it
  // until the visit is decided (null when the object could not be found).
  bool final = false;
  std::shared_ptr<client::Request> answer;
};

// One request of the walk.
struct Slot {
  WalkRequest request;
  Key key;
  std::shared_ptr<PlannedVisit> visit;  // the object asking (for the MIB selection: its parent)
  std::shared_ptr<SiblingGroup> group;  // kMibSelection: the group its children join
  bool childrenInSubtree = false;       // kMibSelection
  std::shared_ptr<client::Request> sent;  // once sent
  bool answered = false;
  std::exception_ptr failure;  // the request's own failure, raised when it is taken
};

struct SlotOrder {
  bool operator()(const Slot* a, const Slot* b) const { return a->key < b->key; }
};

}  // namespace

class PipelinedSource::Planner {
 public:
  Planner(client::Session& session, uint32_t depth, const WalkSettings& settings,
          PipelineStats* stats)
      : session_(session), depth_(std::max<uint32_t>(depth, 1)), settings_(settings),
        stats_(stats ? stats : &own_) {}

  void start(const Visit& root) {
    planning_ = true;
    add_visit(root, Key{}, std::make_shared<SiblingGroup>(), false);
    fill();
  }

  std::shared_ptr<client::Request> take(const WalkRequest& request) {
    if (planning_ && (pending_.empty() || pending_.begin()->second->request != request)) abandon();
    if (!planning_) return sequential(request);

    Slot& head = *pending_.begin()->second;
    while (!head.sent && outstanding_ >= depth_) pump();
    if (!head.sent && !send(head)) {
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
    return std::move(taken->sent);
  }

 private:
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

  std::shared_ptr<client::Request> sequential(const WalkRequest& request) {
    std::shared_ptr<client::Request> answer = make_request(request);
    client::send(session_, answer);
    ++stats_->sent;
    client::await(session_, *answer);
    ++stats_->taken;
    return answer;
  }

  Slot& add_slot(WalkRequest request, Key key, std::shared_ptr<PlannedVisit> visit) {
    auto slot = std::make_unique<Slot>();
    slot->request = std::move(request);
    slot->key = std::move(key);
    slot->visit = std::move(visit);
    Slot& result = *slot;
    unsent_.insert(&result);
    pending_.emplace(result.key, std::move(slot));
    return result;
  }

  // A visit that joins `group` (at the back, or collected by the caller for
  // the front when `mibMember`) and asks for its object with its children.
  std::shared_ptr<PlannedVisit> add_visit(const Visit& visit, Key key,
                                          std::shared_ptr<SiblingGroup> group, bool mibMember) {
    auto planned = std::make_shared<PlannedVisit>();
    planned->visit = visit;
    planned->key = std::move(key);
    planned->group = std::move(group);
    if (!mibMember) planned->group->undecided.push_back(planned);
    add_slot({RequestKind::kReselect, visit.id, {}}, extend(planned->key, {kReselectStep}),
             planned);
    return planned;
  }

  // Sends `slot`; false when writing failed. Such a failure is not raised:
  // the connection is broken, and reading reports it.
  bool send(Slot& slot) {
    std::shared_ptr<client::Request> request = make_request(slot.request);
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
    slot.sent = std::move(request);
    outstandingSlots_.emplace(slot.sent.get(), &slot);
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
      client::forget(session_, *culprit->sent);
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
    outstandingSlots_.erase(slot.sent.get());
    slot.answered = true;
    --outstanding_;
    ++held_;
    stats_->peakHeld = std::max(stats_->peakHeld, held_);
  }

  static const client::ResultObject* result(const Slot& slot, const std::string& id) {
    return static_cast<const client::Select&>(*slot.sent).find_result_opt(id);
  }

  // What the answer of `slot` shows about the requests to come.
  void plan(Slot& slot) {
    switch (slot.request.kind) {
      case RequestKind::kReselect:
      case RequestKind::kFallback: {
        PlannedVisit& planned = *slot.visit;
        if (result(slot, planned.visit.id) != nullptr) {
          planned.answer = slot.sent;
        } else if (slot.request.kind == RequestKind::kReselect) {
          add_slot({RequestKind::kFallback, planned.visit.id, {}},
                   extend(planned.key, {kFallbackStep}), slot.visit);
          return;
        }
        planned.final = true;
        advance(*planned.group);
        return;
      }
      case RequestKind::kMibSelection: {
        SiblingGroup& group = *slot.group;
        std::vector<std::shared_ptr<PlannedVisit>> members;
        uint32_t index = 0;
        for (const Visit& child : mib_children(settings_, result(slot, settings_.mibRootId),
                                               slot.childrenInSubtree)) {
          members.push_back(add_visit(child, extend(slot.visit->key, {kMibChildStep, index++}),
                                      slot.group, true));
        }
        group.undecided.insert(group.undecided.begin(), members.begin(), members.end());
        group.awaitingMib = false;
        advance(group);
        return;
      }
      case RequestKind::kHistory:
      case RequestKind::kDomainLookup:
        return;
    }
  }

  // Applies the walk's decisions to the members of `group` whose answers
  // are final, in walk order, as far as the answers allow.
  void advance(SiblingGroup& group) {
    while (!group.stopped && !group.awaitingMib && !group.undecided.empty()) {
      std::shared_ptr<PlannedVisit> planned = group.undecided.front().lock();
      if (planned && !planned->final) return;
      group.undecided.pop_front();
      if (planned && !decide(planned, group)) {
        group.stopped = true;
        group.undecided.clear();
      }
    }
  }

  // The walk's decision on one object whose answer is final; plans its
  // subtree when it will be written. False when the walk fails at it.
  bool decide(const std::shared_ptr<PlannedVisit>& planned, SiblingGroup& group) {
    std::shared_ptr<client::Request> answer = std::move(planned->answer);
    const Visit& visit = planned->visit;
    ObjectPlan plan;
    const client::ResultObject* found =
        answer ? static_cast<const client::Select&>(*answer).find_result_opt(visit.id) : nullptr;
    try {
      plan = plan_object(settings_, visit, found, group.names);
    } catch (const util::Exception&) {
      return false;  // the walk raises the same when it takes the answer
    }
    if (plan.written) expand(planned, plan);
    return true;
  }

  // The requests of an object that will be written: its history series, the
  // MIB selection, and the re-selects of the children it will visit.
  void expand(const std::shared_ptr<PlannedVisit>& owner, const ObjectPlan& plan) {
    const PlannedVisit& planned = *owner;
    uint32_t index = 0;
    for (const std::string& name : plan.historySeries) {
      add_slot({RequestKind::kHistory, planned.visit.id, name},
               extend(planned.key, {kHistoryStep, index++}), owner);
    }
    auto children = std::make_shared<SiblingGroup>();
    if (plan.selectMib) {
      Slot& mib = add_slot({RequestKind::kMibSelection, settings_.mibRootId, {}},
                           extend(planned.key, {kMibStep}), owner);
      mib.group = children;
      mib.childrenInSubtree = plan.childrenInSubtree;
      children->awaitingMib = true;
    }
    index = 0;
    for (const Visit& child : plan.children) {
      add_visit(child, extend(planned.key, {kChildStep, index++}), children, false);
    }
  }

  client::Session& session_;
  const uint32_t depth_;
  const WalkSettings& settings_;
  PipelineStats own_;
  PipelineStats* stats_;

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

PipelinedSource::PipelinedSource(client::Session& session, uint32_t depth,
                                 const WalkSettings& settings, PipelineStats* stats)
    : planner_(std::make_unique<Planner>(session, depth, settings, stats)) {}

PipelinedSource::~PipelinedSource() = default;

std::shared_ptr<client::Request> PipelinedSource::take(const WalkRequest& request) {
  return planner_->take(request);
}

void PipelinedSource::walk_starts(const Visit& root) { planner_->start(root); }

}  // namespace porter
