#include "porter/export_database.h"

#include <memory>
#include <set>
#include <vector>

#include "client/select.h"
#include "client/session.h"
#include "porter/document_output.h"
#include "porter/export_base.h"
#include "porter/export_object.h"
#include "porter/export_state.h"
#include "porter/out_stream.h"
#include "porter/pipelined_source.h"
#include "porter/progress.h"
#include "util/error.h"
#include "util/format.h"

namespace porter {

namespace {

// The id of the export root: the root domain for ".", else the last object of
// the first-child chain of the dotted path's answer.
std::string find_export_root(WalkSource& source, const client::Session& session,
                             const std::string& exportDomain) {
  if (exportDomain == ".") return session.rootDomainId;
  std::vector<std::string> pieces;
  util::split(exportDomain, '.', false, pieces);
  std::string pattern = ".";
  for (const std::string& piece : pieces) pattern += " > Domain { name ~= \"" + piece + "\"}";

  std::shared_ptr<client::Select> lookup = source.select(session.rootDomainId, pattern);
  const client::ResultObject* object = lookup->find_result_opt(session.rootDomainId);
  if (object == nullptr) {
    throw util::EFatal("Domain \"" + exportDomain + "\" does not exist.");
  }
  while (!object->children().empty()) object = object->children().front().get();
  return object->id();
}

}  // namespace

int export_database(const std::string& server, int32_t port, const std::string& login,
                    const std::string& password, const std::string& loginDomain,
                    const std::string& exportDomain, const std::string& outputFileName,
                    const ExportBase& prototype, const ClassFilter& filter, bool history,
                    bool gzip, const ExportEnvironment& environment) {
  ExportState& state = export_state();
  state.history = history;
  state.filter = filter;
  state.err = environment.errorStream;

  // The session stays open until the process ends; no logout is sent.
  static std::unique_ptr<client::Session> session;
  session = client::openSession(environment.connector, server, static_cast<uint32_t>(port),
                                "Exporter", login, password, loginDomain);
  state.session = session.get();
  // With more than one request in flight the walk's answers are asked for ahead.
  SequentialSource sequential(*session);
  std::unique_ptr<PipelinedSource> pipelined;
  if (environment.extra.pipeline > 1) {
    pipelined = std::make_unique<PipelinedSource>(*session, environment.extra.pipeline,
                                                  environment.pipelineStats);
  }
  WalkSource& source = pipelined ? *pipelined : static_cast<WalkSource&>(sequential);
  state.source = &source;
  ProgressScope progress(environment.extra.progress, *environment.errorStream,
                         environment.errorIsTerminal);
  state.source = progress.watch(state.source);

  const std::string rootId = find_export_root(source, *session, exportDomain);
  std::shared_ptr<client::Select> rootSelect = source.select(rootId, ".!");
  const client::ResultObject* domain = rootSelect->find_result_opt(rootId);
  if (domain == nullptr) throw util::EFatal("Domain non existing");

  std::unique_ptr<ExportBase> header = prototype.create(ElementKind::Meta);
  DocumentOutput output(outputFileName, gzip, *environment.standardOutput,
                        // A pipelined export keeps its own thread busy; compress beside it.
                        OutputOptions{environment.extra.atomic, environment.extra.level,
                                      environment.extra.pipeline > 1});
  OutStream& out = progress.watch(output.stream());

  std::shared_ptr<client::Select> treeSelect = source.select(domain->id(), ".! > .");
  const client::ResultObject& tree = treeSelect->find_result(domain->id());
  header->writeHeader(out, &tree);

  add_ignored_classes(state.filter, DEFAULT_IGNORED_CLASSES);
  if (pipelined) pipelined->walk_starts(tree, exportDomain == ".");
  std::set<std::string> visited;
  export_object(tree, out, prototype, visited, exportDomain == ".", false);
  header->writeFooter(out, &tree);

  output.close();
  progress.finish();
  state.source = nullptr;
  return 0;
}

}  // namespace porter
