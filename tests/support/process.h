// Descriptors and child processes for the tests, with every wait bounded:
// the one place the test support forks, polls, kills and reaps. A program
// run to its end with its output collected, the stand-in server binary run
// in the background on a free loopback port; a child that overstays its time
// is killed, and every child is reaped before its owner goes away. Also a
// temporary directory and whole-file helpers.
#ifndef TALVIX_TESTS_SUPPORT_PROCESS_H_
#define TALVIX_TESTS_SUPPORT_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace support {

using Clock = std::chrono::steady_clock;

// Milliseconds left until `deadline`, 0 when it has passed.
int remaining_ms(Clock::time_point deadline);
// Polls `fd` for input until `deadline`; true when it is readable (or hung up).
bool wait_readable(int fd, Clock::time_point deadline);
// Appends one read of `fd` to `text`: 1 when something came, 0 at the end
// (or on a failure), -1 when the read is to be tried again.
int read_once(int fd, std::string& text);

// A forked child running `body`; when `body` returns the child ends with
// _exit(0). The child is killed and reaped at the latest on destruction.
class Child {
 public:
  explicit Child(const std::function<void()>& body);  // throws std::runtime_error
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  // Waits until the child ends or `deadline`; true when it ended (and was
  // reaped: status()).
  bool wait_until(Clock::time_point deadline);
  // Sends `sig`; if the child is still there after `grace`, kills it. Reaps.
  void stop(int sig, std::chrono::milliseconds grace = {});
  int status() const { return status_; }

 private:
  pid_t pid_ = -1;
  int pidfd_ = -1;  // readable once the child has ended
  int status_ = 0;
};

struct RunResult {
  int exitCode = -1;     // the exit status, or -1 when the child died by a signal
  bool timedOut = false; // it was killed for running past its limit
  std::string out;       // everything it wrote to standard output
  std::string err;       // everything it wrote to standard error
  std::time_t started = 0, ended = 0;  // wall-clock seconds around the run
};

// What a run may change about the child and do while it runs.
struct RunOptions {
  // The most bytes the child may write to a file (RLIMIT_FSIZE), with
  // SIGXFSZ ignored, so that a write past it fails like one to a full disk.
  // 0: no limit.
  uint64_t fileSizeLimit = 0;
  // Standard output goes to this file (opened for writing) instead of being
  // collected.
  std::string standardOutput;
  // Called in the parent with the child's pid after the start, before the
  // run's output is read; the child may block until it returns.
  std::function<void(pid_t)> whileRunning;
};

// Runs `program` with `args` (without the program name) and standard input
// from /dev/null, in `workDir` when that is not empty. Waits at most `limit`
// for it to end; after that it is killed and `timedOut` is set.
RunResult run_process(const std::string& program, const std::vector<std::string>& args,
                      const std::string& workDir, std::chrono::milliseconds limit,
                      const RunOptions& options = RunOptions());

// talvix-server started with `args` plus "--port 0". The constructor waits
// (at most 20 s) for the port line; failure to start throws std::runtime_error.
// The destructor stops the server with SIGTERM (SIGKILL if it lingers) and
// reaps it.
class ServerProcess {
 public:
  ServerProcess(const std::string& binary, std::vector<std::string> args);
  // Any program, run in `workDir`: waits (at most 20 s) until `ready` holds
  // for what it has written to its standard output.
  ServerProcess(const std::string& binary, const std::vector<std::string>& args, const std::string& workDir,
                const std::function<bool(const std::string& output)>& ready);
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  uint16_t port() const { return port_; }

 private:
  std::unique_ptr<Child> child_;
  int stdoutFd_ = -1;
  std::string output_;  // its standard output up to the moment it was ready
  uint16_t port_ = 0;
};

// A fresh directory below the system's temporary directory, removed with
// everything in it on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Whole-file helpers; read_file throws std::runtime_error when the file
// cannot be read, read_gzip_file when it is not a complete gzip stream.
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& contents);
std::string read_gzip_file(const std::string& path);

}  // namespace support

#endif  // TALVIX_TESTS_SUPPORT_PROCESS_H_
