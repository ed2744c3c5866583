// How fast the stand-in server answers the select ".! > ." on a generated
// database: its own work per answer in-process, answers per second over
// loopback one at a time (as the exporter asks) and pipelined, and for
// comparison the whole round trip through the client library, which decodes
// every answer.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "client/request.h"
#include "client/select.h"
#include "client/session.h"
#include "net/connection.h"
#include "net/socket.h"
#include "net/socket_stream.h"
#include "protocol/ber_reader.h"
#include "protocol/gui_protocol.h"
#include "protocol/messages.h"
#include "server/byte_sink.h"
#include "server/generator.h"
#include "server/link_streams.h"
#include "server/object_cache.h"
#include "server/request_handler.h"
#include "server/server.h"
#include "tql/parser.h"

namespace {

// Root domain with 4 child domains and 50 nodes: 54 children per answer.
const char kShape[] = "4x50x5x10/3";

std::shared_ptr<const server::Database> database() {
  static std::shared_ptr<const server::Database> db =
      server::make_generated_database(server::parse_generator_shape(kShape));
  return db;
}

protocol::Request select_request(int32_t id, const std::string& start) {
  protocol::Request request;
  request.id = id;
  auto select = std::make_unique<protocol::SelectReq>();
  select->startIds.push_back(start);
  select->pattern = tql::parse(".! > .");
  request.req = std::move(select);
  return request;
}

void BM_AnswerSelectInProcess(benchmark::State& state) {
  auto db = database();
  server::ObjectCache cache;
  const protocol::Request request = select_request(1, db->rootDomainId());
  size_t bytes = 0;
  for (auto _ : state) {
    std::string answer = server::answer_request(*db, cache, request);
    bytes += answer.size();
    benchmark::DoNotOptimize(answer);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
}
BENCHMARK(BM_AnswerSelectInProcess);

void read_exactly(net::BasicIo& io, size_t count, std::vector<char>& buffer) {
  if (buffer.size() < 65536) buffer.resize(65536);
  while (count > 0) count -= io.read(buffer.data(), std::min(count, buffer.size()));
}

// A logged-in socket without a decoding reader: answers are taken as raw
// octets of the size the server's own encoding has, so that nothing but the
// server and the loopback is measured.
std::unique_ptr<net::SocketStream> raw_login(uint16_t port) {
  std::unique_ptr<net::SocketStream> socket = net::connect_socket("127.0.0.1", port, 0);
  // The handshake's answers are decoded; nothing else arrives before the
  // first request, so the reader reads nothing that belongs to later answers.
  protocol::BerReader reader(protocol::guiProtocol(),
                             std::make_unique<server::BorrowedStream>(*socket));
  auto send = [&socket](const protocol::BerValue& m) {
    std::string b = server::encode(m);
    socket->write(b.data(), b.size());
  };
  protocol::ClientWants wants;
  wants.version = 0x0203;
  wants.authentication = std::make_unique<protocol::ClientNoAuth>();
  send(wants);
  reader.nextMessage();
  send(protocol::NegotiateAck());
  protocol::NewSession login;
  login.loginDomain = ".";
  login.userName = "admin";
  login.password = "secret";
  send(login);
  reader.nextMessage();
  return socket;
}

// state.range(0) requests in flight at a time.
void BM_SelectOverLoopbackRaw(benchmark::State& state) {
  server::Server s(database(), server::ServerOptions());
  s.start();
  auto socket = raw_login(s.port());
  const std::string root = database()->rootDomainId();
  const int64_t depth = state.range(0);
  std::string requests;
  for (int64_t i = 0; i < depth; ++i) requests += server::encode(select_request(1, root));
  server::ObjectCache cache;
  const size_t answerSize =
      server::answer_request(*database(), cache, select_request(1, root)).size();
  std::vector<char> buffer;
  for (auto _ : state) {
    socket->write(requests.data(), requests.size());
    read_exactly(*socket, answerSize * static_cast<size_t>(depth), buffer);
  }
  state.SetItemsProcessed(state.iterations() * depth);
  state.SetBytesProcessed(state.iterations() * depth * static_cast<int64_t>(answerSize));
}
BENCHMARK(BM_SelectOverLoopbackRaw)->Arg(1)->Arg(16)->UseRealTime();

void BM_SelectOverLoopbackViaClient(benchmark::State& state) {
  server::Server s(database(), server::ServerOptions());
  s.start();
  auto session = client::openSession(
      net::ConnectionFactory(), client::Login("127.0.0.1", s.port(), "Exporter", "admin", "secret", "."));
  const std::string root = session->rootDomainId;
  for (auto _ : state) {
    auto select = std::make_shared<client::Select>(root, ".! > .", 0);
    client::send(*session, select);
    client::await(*session, *select);
    benchmark::DoNotOptimize(select->find_result_opt(root));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SelectOverLoopbackViaClient)->UseRealTime();

}  // namespace
