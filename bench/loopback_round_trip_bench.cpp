// What one round trip over loopback TCP costs a client that waits for each
// answer before it sends the next request, as a sequential export does:
// the least CPU per request that any such client pays on this machine,
// whatever it does with the answers.
//
// The benchmark thread sends a request and reads the whole answer with
// blocking calls on a connected socket with Nagle's algorithm on (the
// exporter's own settings); a second thread answers each request at once.
// "CPU" is the benchmark thread's own CPU time per round trip (Google
// Benchmark's default), so the answering thread is not in it; "Time" is the
// wall time per round trip.
//
// Arguments: request octets, answer octets.
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

// A socket descriptor closed on scope exit.
class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {
    if (fd_ < 0) throw std::runtime_error("socket call failed");
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { ::close(fd_); }
  int get() const { return fd_; }

 private:
  int fd_;
};

// Reads exactly `length` octets; false at the end of the stream or on an error.
bool read_all(int fd, uint8_t* buffer, size_t length) {
  while (length > 0) {
    const ssize_t got = ::recv(fd, buffer, length, 0);
    if (got <= 0) return false;
    buffer += got;
    length -= static_cast<size_t>(got);
  }
  return true;
}

bool write_all(int fd, const uint8_t* data, size_t length) {
  while (length > 0) {
    const ssize_t sent = ::send(fd, data, length, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    data += sent;
    length -= static_cast<size_t>(sent);
  }
  return true;
}

void BM_LoopbackRoundTrip(benchmark::State& state) {
  const auto requestSize = static_cast<size_t>(state.range(0));
  const auto answerSize = static_cast<size_t>(state.range(1));

  Fd listener(::socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t addressLength = sizeof address;
  if (::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener.get(), 1) != 0 ||
      ::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &addressLength) != 0) {
    state.SkipWithError("cannot listen on 127.0.0.1");
    return;
  }

  // Answers every request until the client closes its end.
  std::thread answerer([&listener, requestSize, answerSize] {
    const int accepted = ::accept(listener.get(), nullptr, nullptr);
    if (accepted < 0) return;
    Fd peer(accepted);
    std::vector<uint8_t> request(requestSize);
    const std::vector<uint8_t> answer(answerSize, 0x30);
    while (read_all(peer.get(), request.data(), requestSize) &&
           write_all(peer.get(), answer.data(), answerSize)) {
    }
  });

  {
    Fd client(::socket(AF_INET, SOCK_STREAM, 0));
    if (::connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      state.SkipWithError("cannot connect to 127.0.0.1");
      ::shutdown(listener.get(), SHUT_RDWR);  // wakes the answerer's accept
    } else {
      const std::vector<uint8_t> request(requestSize, 0x30);
      std::vector<uint8_t> answer(answerSize);
      for (auto _ : state) {
        if (!write_all(client.get(), request.data(), requestSize) ||
            !read_all(client.get(), answer.data(), answerSize)) {
          state.SkipWithError("the answering thread went away");
          break;
        }
      }
    }
  }  // closing the client ends the answerer's loop
  answerer.join();
}

BENCHMARK(BM_LoopbackRoundTrip)->Args({64, 512})->Args({64, 4096})->UseRealTime();

}  // namespace
