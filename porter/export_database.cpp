#include "porter/export_database.h"

#include <memory>
#include <string>
#include <vector>

#include "client/select.h"
#include "client/session.h"
#include "porter/checksum_file.h"
#include "porter/document_output.h"
#include "porter/out_stream.h"
#include "porter/pipelined_source.h"
#include "porter/progress.h"
#include "porter/walk.h"
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
  util::split(exportDomain, '.', pieces);
  std::string pattern = ".";
  for (const std::string& piece : pieces) pattern += " > Domain { name ~= \"" + piece + "\"}";

  std::shared_ptr<client::Select> lookup =
      source.select({RequestKind::kDomainLookup, session.rootDomainId, pattern});
  const client::ResultObject* object = lookup->find_result_opt(session.rootDomainId);
  if (object == nullptr) {
    throw util::EFatal("Domain \"" + exportDomain + "\" does not exist.");
  }
  while (!object->children().empty()) object = object->children().front().get();
  return object->id();
}

}  // namespace

void export_database(const RunSettings& settings, const ExportEnvironment& environment,
                     RunStatistics* statistics) {
  const ExtraSettings& extra = settings.extra;
  const net::ConnectionFactory tcp(net::TransportSettings{extra.timeout, extra.tls, extra.tlsSettings});
  const net::ConnectionFactory& connector =
      environment.connector != nullptr ? *environment.connector : tcp;
  // Progress and notices show from the login on: a lost connection reports
  // its tries there.
  ProgressScope progress(extra.progress, *environment.errorStream, environment.errorIsTerminal,
                         framed_export(settings));
  client::ReconnectPolicy reconnecting;
  reconnecting.attempts = extra.reconnect;
  reconnecting.firstWait = client::ReconnectPolicy::Seconds(extra.reconnectWait);
  reconnecting.report = [&progress](const std::string& line) { progress.report_line(line); };
  std::unique_ptr<client::Session> session = client::openSession(
      connector,
      client::Login(settings.server, static_cast<uint32_t>(settings.port), "Exporter",
                    settings.login, settings.password, settings.loginDomain),
      reconnecting);
  // The session's counts reach the statistics however the export ends.
  struct CountSession {
    const client::Session& session;
    RunStatistics* statistics;
    ~CountSession() {
      if (statistics == nullptr) return;
      statistics->requests = session.requestsSent();
      statistics->reconnects = session.reconnections();
    }
  } countSession{*session, statistics};
  // The walk reads nothing of an answer's children but their class, flags,
  // id and children; their properties are checked and freed as they arrive.
  session->keepNestedProperties(false);

  WalkSettings walkSettings{settings.classFilter, settings.history, session->mibRootId};
  add_ignored_classes(walkSettings.filter, DEFAULT_IGNORED_CLASSES);

  // With more than one request in flight the walk's answers are asked for ahead.
  std::unique_ptr<WalkSource> direct;
  if (extra.pipeline > 1) {
    direct = std::make_unique<PipelinedSource>(*session, extra.pipeline, walkSettings,
                                               environment.pipelineStats);
  } else {
    direct = std::make_unique<SequentialSource>(*session);
  }
  WalkSource& source = progress.watch(*direct);
  // The marks held so far show before every wait for the server. The hook
  // is cleared before `progress` goes.
  session->beforeWait = [&progress] { progress.release(); };
  struct ClearHook {
    client::Session& session;
    ~ClearHook() { session.beforeWait = nullptr; }
  } clearHook{*session};

  const std::string rootId = find_export_root(source, *session, settings.exportDomain);
  std::shared_ptr<client::Select> rootSelect = source.select({RequestKind::kFallback, rootId, {}});
  const client::ResultObject* domain = rootSelect->find_result_opt(rootId);
  if (domain == nullptr) throw util::EFatal("Domain non existing");

  DocumentOutput output(settings.outputFileName, settings.gzip, *environment.standardOutput,
                        // A pipelined export keeps its own thread busy; compress beside it.
                        OutputOptions{extra.atomic, extra.level, extra.compression,
                                      extra.pipeline > 1,
                                      statistics != nullptr ? &statistics->bytes : nullptr});
  XMLExport writer(progress.watch(output.stream()), progress.notices(), environment.clock,
                   statistics);

  std::shared_ptr<client::Select> treeSelect =
      source.select({RequestKind::kReselect, domain->id(), {}});
  const client::ResultObject& tree = treeSelect->find_result(domain->id());
  writer.writeHeader();
  walk_export(ExportContext{walkSettings, source, writer, progress.events()}, tree,
              settings.exportDomain == ".");

  output.close();
  if (extra.checksum) write_checksum_file(settings.outputFileName);
  progress.finish();
}

}  // namespace porter
