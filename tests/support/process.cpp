#include "support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace support {

int remaining_ms(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT32_MAX));
}

bool wait_readable(int fd, Clock::time_point deadline) {
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    const int n = ::poll(&p, 1, remaining_ms(deadline));
    if (n >= 0 || errno != EINTR) return n > 0;
  }
}

int read_once(int fd, std::string& text) {
  char chunk[65536];
  const ssize_t n = ::read(fd, chunk, sizeof chunk);
  if (n > 0) text.append(chunk, static_cast<size_t>(n));
  return n > 0 ? 1 : (n < 0 && (errno == EAGAIN || errno == EINTR)) ? -1 : 0;
}

Child::Child(const std::function<void()>& body) {
  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    body();
    ::_exit(0);
  }
  pidfd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
  if (pidfd_ < 0) {
    stop(SIGKILL);
    throw std::runtime_error("pidfd_open failed");
  }
}

Child::~Child() {
  stop(SIGKILL);
  if (pidfd_ >= 0) ::close(pidfd_);
}

bool Child::wait_until(Clock::time_point deadline) {
  if (pid_ < 0) return true;
  if (pidfd_ >= 0 && !wait_readable(pidfd_, deadline)) return false;
  while (::waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return true;
}

void Child::stop(int sig, std::chrono::milliseconds grace) {
  if (pid_ < 0) return;
  ::kill(pid_, sig);
  if (!wait_until(Clock::now() + grace)) {
    ::kill(pid_, SIGKILL);
    wait_until(Clock::time_point::max());
  }
}



namespace {

// The child's side of run_process and ServerProcess: only async-signal-safe
// calls, then exec or _exit.
// argv for execv: the program name, then `args`; the strings must outlive it.
std::vector<char*> make_argv(const std::string& program, const std::vector<std::string>& args) {
  std::vector<char*> argv = {const_cast<char*>(program.c_str())};
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  return argv;
}

[[noreturn]] void exec_child(std::vector<char*>& argv, const std::string& workDir, int outFd,
                             int errFd, const RunOptions& options = RunOptions()) {
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
  execv(argv[0], argv.data());
  _exit(127);
}

}  // namespace

RunResult run_process(const std::string& program, const std::vector<std::string>& args,
                      const std::string& workDir, std::chrono::milliseconds limit,
                      const RunOptions& options) {
  int outPipe[2], errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe failed");
  }
  RunResult result;
  result.started = std::time(nullptr);
  const Clock::time_point deadline = Clock::now() + limit;
  std::vector<char*> argv = make_argv(program, args);
  Child child([&] { exec_child(argv, workDir, outPipe[1], errPipe[1], options); });
  close(outPipe[1]);
  close(errPipe[1]);
  if (options.whileRunning) options.whileRunning(child.pid());

  // Both pipes are read until they end (the child and its children are
  // gone) or the time is up.
  pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  while ((fds[0].fd >= 0 || fds[1].fd >= 0) && !result.timedOut) {
    const int ready = poll(fds, 2, remaining_ms(deadline));
    result.timedOut = ready == 0 || (ready < 0 && errno != EINTR);
    for (pollfd& p : fds) {
      if (ready > 0 && p.fd >= 0 && p.revents != 0 && read_once(p.fd, *sinks[&p - fds]) == 0) {
        close(p.fd);
        p.fd = -1;
      }
    }
  }
  for (pollfd& p : fds) {
    if (p.fd >= 0) close(p.fd);
  }
  result.timedOut = result.timedOut || !child.wait_until(deadline);
  child.stop(SIGKILL);
  result.ended = std::time(nullptr);
  result.exitCode = WIFEXITED(child.status()) ? WEXITSTATUS(child.status()) : -1;
  return result;
}

ServerProcess::ServerProcess(const std::string& binary, std::vector<std::string> args)
    : ServerProcess(binary, (args.insert(args.end(), {"--port", "0"}), args), "",
                    [](const std::string& output) { return output.find('\n') != std::string::npos; }) {
  const long port = std::strtol(output_.c_str(), nullptr, 10);  // the first line is the port
  if (port <= 0 || port > 65535) throw std::runtime_error("talvix-server reported no port: " + output_);
  port_ = static_cast<uint16_t>(port);
}

ServerProcess::ServerProcess(const std::string& binary, const std::vector<std::string>& args,
                             const std::string& workDir, const std::function<bool(const std::string&)>& ready) {
  int outPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  std::vector<char*> argv = make_argv(binary, args);
  child_ = std::make_unique<Child>([&] { exec_child(argv, workDir, outPipe[1], -1); });
  close(outPipe[1]);
  stdoutFd_ = outPipe[0];
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(20);
  while (!ready(output_)) {
    if (!wait_readable(stdoutFd_, deadline) || read_once(stdoutFd_, output_) == 0) {
      close(stdoutFd_);  // child_ is killed and reaped on the way out
      throw std::runtime_error(binary + " did not start in time: " + output_);
    }
  }
}

ServerProcess::~ServerProcess() {
  child_->stop(SIGTERM, std::chrono::seconds(10));
  close(stdoutFd_);
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

}  // namespace support
