// talvix-server: the stand-in monitoring server for demos, end-to-end tests
// and benchmarks. See server_usage() for the command line.
#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <memory>

#include "server/database_json.h"
#include "server/generator.h"
#include "server/server.h"
#include "server/server_options.h"
#include "util/error.h"

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
  // Every thread started from here on inherits the blocked signals, so that
  // SIGINT and SIGTERM reach only the sigwait() below.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
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
    int received = 0;
    sigwait(&stopSignals, &received);
    s.stop();
  } catch (const error::Exception& e) {
    std::fprintf(stderr, "talvix-server: %s\n", e.text().c_str());
    return 1;
  }
  return 0;
}
