// talvix-server: the stand-in monitoring server for demos, end-to-end tests
// and benchmarks. See server_usage() for the command line.
#include <signal.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <thread>

#include "server/database_json.h"
#include "server/generator.h"
#include "server/server.h"
#include "server/server_options.h"
#include "util/error.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;

void request_stop(int) { g_stop = 1; }

}  // namespace

int main(int argc, char** argv) {
  const server::ParsedArgs args = server::parse_server_args(argc, argv);
  if (args.help) {
    std::fputs(server::server_usage().c_str(), stdout);
    return 0;
  }
  if (!args.error.empty()) {
    std::fprintf(stderr, "talvix-server: %s\n\n%s", args.error.c_str(),
                 server::server_usage().c_str());
    return 2;
  }
  // SIGINT and SIGTERM only raise a flag; the main thread notices it within
  // 50 ms and shuts the server down in order.
  struct sigaction action = {};
  action.sa_handler = request_stop;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  try {
    std::shared_ptr<const server::Database> db;
    if (!args.options.dbFile.empty()) {
      db = server::load_json_database(args.options.dbFile);
    } else {
      db = server::make_generated_database(
          server::parse_generator_shape(args.options.generateShape));
    }
    server::Server s(db, args.options);
    s.start();
    std::printf("%u\n", static_cast<unsigned>(s.port()));
    std::fflush(stdout);
    while (g_stop == 0) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    s.stop();
  } catch (const util::Exception& e) {
    std::fprintf(stderr, "talvix-server: %s\n", e.text().c_str());
    return 1;
  }
  return 0;
}
