#include "porter/walk.h"

#include <optional>
#include <vector>

#include "client/get_data.h"
#include "client/select.h"
#include "util/format.h"

namespace porter {

namespace {

class Walk {
 public:
  explicit Walk(const ExportContext& context) : c_(context) {}

  // Writes one visited object and its subtree; `siblingNames` is its
  // parent's set of names written.
  void visit(const Visit& visit, std::set<std::string>& siblingNames) {
    const std::optional<ObjectPlan> plan = open_object(visit, siblingNames);
    if (!plan) return;

    std::set<std::string> childNames;
    if (plan->selectMib) {
      for (const Visit& child : mib_children(plan->childrenInSubtree)) {
        this->visit(child, childNames);
      }
    }
    for (const Visit& child : plan->children) this->visit(child, childNames);

    if (plan->isDomain) c_.events.domain_done();
    c_.writer.closeObject();
  }

 private:
  // Takes the object's answer and, when the plan writes it, opens its
  // element and writes its properties and history. The answer, which holds
  // every child with its properties, is released on return: the plan is
  // all the subtree needs, so the walk keeps in memory only the plans of
  // the objects open above it, not their answers.
  std::optional<ObjectPlan> open_object(const Visit& visit, std::set<std::string>& siblingNames) {
    std::shared_ptr<client::Select> select =
        c_.source.select({RequestKind::kReselect, visit.id, {}});
    const client::ResultObject* found = select->find_result_opt(visit.id);
    if (found == nullptr) {
      select = c_.source.select({RequestKind::kFallback, visit.id, {}});
      found = select->find_result_opt(visit.id);
    }
    ObjectPlan plan = plan_object(c_.settings, visit, found, siblingNames);
    if (!plan.written) return std::nullopt;
    const client::ResultObject& r = *found;

    if (plan.isDomain) {
      c_.events.domain_started(plan.treeLabel);
    } else {
      c_.events.object_started();
    }
    c_.writer.openObject(r.className(), r.id());
    for (const auto& [name, property] : r.properties()) {
      if (is_written_property(*property)) c_.writer.writeProperty(*property);
    }
    if (!plan.historySeries.empty()) write_history(r.id(), plan.historySeries);
    return plan;
  }

  // The admitted children of the MIB selection's answer, which is released
  // before they are visited.
  std::vector<Visit> mib_children(bool childrenInSubtree) {
    const std::string& mibRootId = c_.settings.mibRootId;
    std::shared_ptr<client::Select> mib =
        c_.source.select({RequestKind::kMibSelection, mibRootId, {}});
    return porter::mib_children(c_.settings, mib->find_result_opt(mibRootId), childrenInSubtree);
  }

  void write_history(const std::string& id, const std::vector<std::string>& series) {
    for (const std::string& indexName : series) {
      c_.events.history_started(id);
      std::shared_ptr<client::GetData> data =
          c_.source.history({RequestKind::kHistory, id, indexName});
      if (data->error != 0 || data->intervals.empty()) continue;
      c_.writer.openSeries(indexName, util::datatype_name(data->dataType));
      c_.writer.writeData(static_cast<int32_t>(data->dataType), data->intervals);
      c_.writer.closeObject();
    }
    c_.events.histories_done();
  }

  const ExportContext& c_;
};

}  // namespace

void walk_export(const ExportContext& context, const client::ResultObject& root,
                 bool isRootExport) {
  Visit visit;
  if (!admit(context.settings, root, isRootExport, false, visit)) return;
  context.source.walk_starts(visit);
  std::set<std::string> names;
  Walk(context).visit(visit, names);
}

}  // namespace porter
