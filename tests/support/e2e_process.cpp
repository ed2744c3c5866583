#include "support/e2e_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace e2e {

namespace {

using Clock = std::chrono::steady_clock;

int remaining_ms(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

// argv for execv: the program name, then `args`; the strings must outlive it.
std::vector<char*> make_argv(const std::string& program, const std::vector<std::string>& args) {
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program.c_str()));
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  return argv;
}

// In the child after fork: only async-signal-safe calls, then exec or _exit.
[[noreturn]] void exec_child(const std::string& program, std::vector<char*>& argv,
                             const std::string& workDir, int outFd, int errFd,
                             const RunOptions& options = RunOptions()) {
  const int nullFd = open("/dev/null", O_RDONLY);
  if (nullFd < 0 || dup2(nullFd, 0) < 0) _exit(126);
  if (!options.standardOutput.empty()) {
    outFd = open(options.standardOutput.c_str(), O_WRONLY);
    if (outFd < 0) _exit(126);
  }
  if (options.fileSizeLimit > 0) {
    const rlimit limit{options.fileSizeLimit, options.fileSizeLimit};
    if (signal(SIGXFSZ, SIG_IGN) == SIG_ERR || setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(126);
  }
  if (outFd >= 0 && dup2(outFd, 1) < 0) _exit(126);
  if (errFd >= 0 && dup2(errFd, 2) < 0) _exit(126);
  if (!workDir.empty() && chdir(workDir.c_str()) != 0) _exit(126);
  execv(program.c_str(), argv.data());
  _exit(127);
}

// Waits for `pid` until `deadline`; true when it was reaped.
bool reap_until(pid_t pid, int& status, Clock::time_point deadline) {
  for (;;) {
    const pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) return true;
    if (r < 0 && errno != EINTR) return true;  // nothing left to reap
    if (Clock::now() >= deadline) return false;
    usleep(2000);
  }
}

}  // namespace

RunResult run_process(const std::string& program, const std::vector<std::string>& args,
                      const std::string& workDir, std::chrono::milliseconds limit,
                      const RunOptions& options) {
  int outPipe[2], errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe failed");
  }
  std::vector<char*> argv = make_argv(program, args);
  RunResult result;
  result.started = std::time(nullptr);
  const Clock::time_point deadline = Clock::now() + limit;
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) exec_child(program, argv, workDir, outPipe[1], errPipe[1], options);
  close(outPipe[1]);
  close(errPipe[1]);
  if (options.whileRunning) options.whileRunning(pid);

  // Both pipes are read until they end (the child and its children are
  // gone) or the time is up.
  pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  while ((fds[0].fd >= 0 || fds[1].fd >= 0) && !result.timedOut) {
    const int ready = poll(fds, 2, remaining_ms(deadline));
    result.timedOut = ready == 0 || (ready < 0 && errno != EINTR);
    for (int i = 0; i < 2 && ready > 0; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buffer[65536];
      const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) sinks[i]->append(buffer, static_cast<size_t>(n));
      if (n == 0 || (n < 0 && errno != EINTR)) {
        close(fds[i].fd);
        fds[i].fd = -1;
      }
    }
  }
  for (pollfd& p : fds) {
    if (p.fd >= 0) close(p.fd);
  }
  int status = 0;
  if (result.timedOut || !reap_until(pid, status, deadline)) {
    result.timedOut = true;
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
  }
  result.ended = std::time(nullptr);
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  return result;
}

ServerProcess::ServerProcess(const std::string& binary, const std::vector<std::string>& args,
                             std::chrono::milliseconds startLimit) {
  int outPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  std::vector<std::string> all = args;
  all.push_back("--port");
  all.push_back("0");
  std::vector<char*> argv = make_argv(binary, all);
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) exec_child(binary, argv, "", outPipe[1], -1);
  close(outPipe[1]);
  stdoutFd_ = outPipe[0];

  // The first line of its standard output is the port.
  const Clock::time_point deadline = Clock::now() + startLimit;
  std::string line;
  while (line.find('\n') == std::string::npos) {
    pollfd p{stdoutFd_, POLLIN, 0};
    const int ready = poll(&p, 1, remaining_ms(deadline));
    if (ready < 0 && errno == EINTR) continue;
    char buffer[64];
    const ssize_t n = ready > 0 ? read(stdoutFd_, buffer, sizeof buffer) : 0;
    if (n <= 0) {
      stop();
      throw std::runtime_error("talvix-server did not report its port" +
                               std::string(ready == 0 ? " in time" : ""));
    }
    line.append(buffer, static_cast<size_t>(n));
  }
  const long port = std::strtol(line.c_str(), nullptr, 10);
  if (port <= 0 || port > 65535) {
    stop();
    throw std::runtime_error("talvix-server reported a bad port line: " + line);
  }
  port_ = static_cast<uint16_t>(port);
}

ServerProcess::~ServerProcess() { stop(); }

void ServerProcess::stop() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    int status = 0;
    if (!reap_until(pid_, status, Clock::now() + std::chrono::seconds(10))) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
    }
    pid_ = -1;
  }
  if (stdoutFd_ >= 0) {
    close(stdoutFd_);
    stdoutFd_ = -1;
  }
}

uint16_t unused_loopback_port() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error("socket failed");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof address;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    close(fd);
    throw std::runtime_error("bind failed");
  }
  close(fd);
  return ntohs(address.sin_port);
}

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "talvix-e2e-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream contents;
  contents << in.rdbuf();
  return contents.str();
}

void write_file(const std::string& path, const std::string& contents) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << contents;
  if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

std::string read_gzip_file(const std::string& path) {
  gzFile f = gzopen(path.c_str(), "rb");
  if (f == nullptr) throw std::runtime_error("cannot read " + path);
  std::string plain;
  char buffer[65536];
  int n;
  while ((n = gzread(f, buffer, sizeof buffer)) > 0) plain.append(buffer, static_cast<size_t>(n));
  // A plain file reads through unchanged (gzdirect), a cut one leaves an
  // error behind.
  int error = Z_OK;
  gzerror(f, &error);
  const bool complete = n == 0 && error == Z_OK && gzdirect(f) == 0;
  gzclose(f);
  if (!complete) throw std::runtime_error(path + " is not one complete gzip stream");
  return plain;
}

}  // namespace e2e
