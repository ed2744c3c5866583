// A whole export of a generated database from an in-process server that
// answers each request 1 ms after it arrived, as over a link with 1 ms of
// latency, at several pipeline depths. The speed-up of depth N is the time
// of depth 1 divided by the time of depth N.
#include <benchmark/benchmark.h>

#include <memory>
#include <sstream>

#include "porter/export_database.h"
#include "porter/pipelined_source.h"
#include "porter/xml_export.h"
#include "server/generator.h"
#include "server/server.h"

namespace {

// 13 domains, 130 nodes, 390 checks with 5 history rows each: about 1460
// requests per export.
constexpr char kShape[] = "3x10x3x5/2";

// A server that answers after `delayMs`; one per delay, kept for the run.
server::Server& latent_server(uint32_t delayMs) {
  static std::shared_ptr<const server::Database> db(
      server::make_generated_database(server::parse_generator_shape(kShape)));
  static std::unique_ptr<server::Server> servers[2];
  std::unique_ptr<server::Server>& s = servers[delayMs == 0 ? 0 : 1];
  if (!s) {
    server::ServerOptions options;
    options.faults.delayMs = delayMs;
    s = std::make_unique<server::Server>(db, options);
    s->start();
  }
  return *s;
}

int64_t fixed_clock() { return 0; }

// Arguments: pipeline depth, answer delay in ms.
void BM_Export(benchmark::State& state) {
  const uint32_t depth = static_cast<uint32_t>(state.range(0));
  server::Server& server = latent_server(static_cast<uint32_t>(state.range(1)));
  porter::PipelineStats stats;
  size_t bytes = 0;
  for (auto _ : state) {
    std::ostringstream document, errors;
    stats = porter::PipelineStats();
    porter::RunSettings settings;
    settings.server = "127.0.0.1";
    settings.port = server.port();
    settings.login = "admin";
    settings.password = "secret";
    settings.extra.pipeline = depth;
    porter::ExportEnvironment environment;
    environment.standardOutput = &document;
    environment.errorStream = &errors;
    environment.clock = fixed_clock;
    environment.pipelineStats = &stats;
    porter::export_database(settings, environment);
    bytes = document.str().size();
  }
  state.counters["doc_bytes"] = static_cast<double>(bytes);
  if (depth > 1) {
    state.counters["requests"] = static_cast<double>(stats.sent);
    state.counters["peak_outstanding"] = stats.peakOutstanding;
  }
}
BENCHMARK(BM_Export)
    ->ArgNames({"pipeline", "delay_ms"})
    ->ArgsProduct({{1, 16, 64, 256}, {1, 0}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(3);

}  // namespace
