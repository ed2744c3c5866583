// Throughput of the document outputs: the plain file stream against the gzip
// stream at several levels, on a document made by a real export of a
// generated database, written in the pieces the exporter writes (lines).
// BM_Export* put the numbers in context: a whole export from an in-process
// stand-in server to a plain and to a gzip file (-z compresses on a thread of
// its own, see BackgroundGZOutStream).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "porter/background_gz_stream.h"
#include "porter/export_database.h"
#include "porter/out_stream.h"
#include "porter/xml_export.h"
#include "server/generator.h"
#include "server/server.h"

namespace {

constexpr char kShape[] = "3x20x4x40/3";  // 40 domains, 800 nodes, 3200 checks

int64_t epoch() { return 0; }

// A stand-in server with the generated database, started once.
server::Server& bench_server() {
  static std::unique_ptr<server::Server> server = [] {
    auto s = std::make_unique<server::Server>(
        server::make_generated_database(server::parse_generator_shape(kShape)),
        server::ServerOptions());
    s->start();
    return s;
  }();
  return *server;
}

void export_to(const std::string& fileName, bool gzip, std::ostream& document,
               uint32_t pipeline = 1) {
  std::ostringstream err;
  porter::RunSettings settings;
  settings.server = "127.0.0.1";
  settings.port = bench_server().port();
  settings.login = "admin";
  settings.password = "secret";
  settings.outputFileName = fileName;
  settings.gzip = gzip;
  settings.extra.pipeline = pipeline;
  porter::ExportEnvironment environment;
  environment.standardOutput = &document;
  environment.errorStream = &err;
  environment.clock = epoch;
  porter::export_database(settings, environment);
}

// The document of the generated database, cut into its lines.
const std::vector<std::string>& document_lines() {
  static const std::vector<std::string> lines = [] {
    std::ostringstream document;
    export_to("", false, document);
    std::vector<std::string> result;
    std::istringstream in(document.str());
    for (std::string line; std::getline(in, line);) result.push_back(line + "\n");
    return result;
  }();
  return lines;
}

uint64_t document_size() {
  uint64_t size = 0;
  for (const std::string& line : document_lines()) size += line.size();
  return size;
}

std::string scratch_file(const char* suffix) {
  return "/tmp/out_stream_bench_" + std::to_string(getpid()) + suffix;
}

void BM_PlainFile(benchmark::State& state) {
  const std::string path = scratch_file(".xml");
  for (auto _ : state) {
    std::ofstream file(path, std::ios::out | std::ios::trunc);
    porter::CPPOutStream out(file);
    for (const std::string& line : document_lines()) out.write(line);
    file.flush();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * document_size()));
  std::remove(path.c_str());
}
BENCHMARK(BM_PlainFile)->Unit(benchmark::kMillisecond);

// Arg: the gzip level, -1 for zlib's default.
void BM_GzipFile(benchmark::State& state) {
  const std::string path = scratch_file(".xml.gz");
  for (auto _ : state) {
    porter::GZOutStream out(path, static_cast<int>(state.range(0)));
    for (const std::string& line : document_lines()) out.write(line);
    out.close();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * document_size()));
  std::remove(path.c_str());
}
BENCHMARK(BM_GzipFile)->Arg(-1)->Arg(1)->Arg(9)->Unit(benchmark::kMillisecond);

// The same with the compressor on its own thread: the writer's CPU time is
// what compression still costs the export's thread.
void BM_BackgroundGzipFile(benchmark::State& state) {
  const std::string path = scratch_file(".bg.xml.gz");
  for (auto _ : state) {
    porter::BackgroundGZOutStream out(path, static_cast<int>(state.range(0)));
    for (const std::string& line : document_lines()) out.write(line);
    out.close();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * document_size()));
  std::remove(path.c_str());
}
BENCHMARK(BM_BackgroundGzipFile)->Arg(-1)->Arg(9)->Unit(benchmark::kMillisecond);

// Args: 1 for -z; the requests in flight (-o pipeline).
void BM_Export(benchmark::State& state) {
  const bool gzip = state.range(0) != 0;
  const std::string path = scratch_file(gzip ? ".export.xml.gz" : ".export.xml");
  std::ostringstream unused;
  for (auto _ : state) export_to(path, gzip, unused, static_cast<uint32_t>(state.range(1)));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * document_size()));
  std::remove(path.c_str());
}
BENCHMARK(BM_Export)
    ->ArgsProduct({{0, 1}, {1, 16}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
