#include "porter/walk.h"

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
    std::shared_ptr<client::Select> select =
        c_.source.select({RequestKind::kReselect, visit.id, {}});
    const client::ResultObject* found = select->find_result_opt(visit.id);
    if (found == nullptr) {
      select = c_.source.select({RequestKind::kFallback, visit.id, {}});
      found = select->find_result_opt(visit.id);
    }
    const ObjectPlan plan = plan_object(c_.settings, visit, found, siblingNames);
    if (!plan.written) return;
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

    std::set<std::string> childNames;
    if (plan.selectMib) {
      const std::string& mibRootId = c_.settings.mibRootId;
      std::shared_ptr<client::Select> mib =
          c_.source.select({RequestKind::kMibSelection, mibRootId, {}});
      for (const Visit& child :
           mib_children(c_.settings, mib->find_result_opt(mibRootId), plan.childrenInSubtree)) {
        this->visit(child, childNames);
      }
    }
    for (const Visit& child : plan.children) this->visit(child, childNames);

    if (plan.isDomain) c_.events.domain_done();
    c_.writer.closeObject();
  }

 private:
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
