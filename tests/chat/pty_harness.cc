#include "chat/pty_harness.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

extern char** environ;

namespace orvi_chat_test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Milliseconds left until `deadline`, rounded up, never below zero.
int millisecondsUntil(Clock::time_point deadline) {
  const auto left = deadline - Clock::now();
  if (left <= Clock::duration::zero()) return 0;
  return static_cast<int>(std::chrono::ceil<milliseconds>(left).count());
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (auto& text : strings) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

// The status of a reaped child as a shell shows it.
int statusCode(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

// waitpid, resumed after a signal.
pid_t waitChild(pid_t pid, int* status, int flags) {
  pid_t reaped;
  do {
    reaped = ::waitpid(pid, status, flags);
  } while (reaped < 0 && errno == EINTR);
  return reaped;
}

void closeFd(int* fd) {
  if (*fd >= 0) ::close(*fd);
  *fd = -1;
}

}  // namespace

PtyProgram::~PtyProgram() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    reap(true);
  }
  closeFd(&master_fd_);
}

void PtyProgram::addEnv(const std::string& name, const std::string& value) {
  env_.emplace_back(name, value);
}

bool PtyProgram::start(const std::vector<std::string>& argv, std::string* error) {
  if (pid_ > 0) {
    *error = "a program is still running";
    return false;
  }
  if (argv.empty()) {
    *error = "no program given";
    return false;
  }
  closeFd(&master_fd_);
  output_.clear();
  mark_ = 0;
  output_ended_ = false;
  exit_status_.reset();

  // Everything the child needs is prepared here: between fork and exec it
  // may only make async-signal-safe calls.
  std::vector<std::string> args = argv;
  std::vector<std::string> env;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const bool replaced = std::any_of(env_.begin(), env_.end(), [&](const auto& added) {
      return text.compare(0, added.first.size() + 1, added.first + "=") == 0;
    });
    if (!replaced) env.push_back(text);
  }
  for (const auto& [name, value] : env_) env.push_back(name + "=" + value);
  std::vector<char*> arg_pointers = pointers(args);
  std::vector<char*> env_pointers = pointers(env);

  // The child reports a failed exec through this pipe; a successful exec
  // closes it empty.
  int report[2];
  if (::pipe2(report, O_CLOEXEC) != 0) {
    *error = std::string("pipe: ") + std::strerror(errno);
    return false;
  }
  winsize size{};
  size.ws_row = 24;
  size.ws_col = 80;
  const pid_t pid = ::forkpty(&master_fd_, nullptr, nullptr, &size);
  if (pid < 0) {
    *error = std::string("forkpty: ") + std::strerror(errno);
    ::close(report[0]);
    ::close(report[1]);
    master_fd_ = -1;
    return false;
  }
  if (pid == 0) {
    ::close(report[0]);
    termios mode;
    if (::tcgetattr(STDIN_FILENO, &mode) == 0) {
      mode.c_lflag &= ~(ECHO | ECHONL);
      ::tcsetattr(STDIN_FILENO, TCSANOW, &mode);
    }
    ::execve(arg_pointers[0], arg_pointers.data(), env_pointers.data());
    const int failure = errno;
    (void)!::write(report[1], &failure, sizeof failure);
    ::_exit(127);
  }

  pid_ = pid;
  ::close(report[1]);
  ::fcntl(master_fd_, F_SETFD, FD_CLOEXEC);
  ::fcntl(master_fd_, F_SETFL, ::fcntl(master_fd_, F_GETFL) | O_NONBLOCK);
  int failure = 0;
  ssize_t got;
  do {
    got = ::read(report[0], &failure, sizeof failure);
  } while (got < 0 && errno == EINTR);
  ::close(report[0]);
  if (got == static_cast<ssize_t>(sizeof failure)) {
    *error = "cannot run " + argv[0] + ": " + std::strerror(failure);
    reap(true);
    closeFd(&master_fd_);
    return false;
  }
  return true;
}

void PtyProgram::type(const std::string& line) {
  const std::string bytes = line + "\n";
  size_t written = 0;
  // A program that reads no input fills the terminal's buffer; its output is
  // read meanwhile so that it is not stuck writing either.
  const auto deadline = Clock::now() + std::chrono::seconds(5);
  while (written < bytes.size() && master_fd_ >= 0) {
    const ssize_t n = ::write(master_fd_, bytes.data() + written, bytes.size() - written);
    if (n > 0) {
      written += static_cast<size_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else if (n < 0 && errno == EAGAIN && Clock::now() < deadline) {
      readSome(milliseconds(10));
    } else {
      return;  // the program is gone, or never reads
    }
  }
}

bool PtyProgram::waitFor(const std::string& needle, milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    const size_t at = output_.find(needle, mark_);
    if (at != std::string::npos) {
      mark_ = at + needle.size();
      return true;
    }
    if (master_fd_ < 0 || output_ended_) return false;
    const int left = millisecondsUntil(deadline);
    if (left == 0) return false;
    readSome(milliseconds(std::min(left, 100)));
  }
}

std::optional<int> PtyProgram::waitExit(milliseconds timeout) {
  if (pid_ < 0) return exit_status_;
  const auto deadline = Clock::now() + timeout;
  while (!reap(false)) {
    const int left = millisecondsUntil(deadline);
    if (left == 0) return std::nullopt;
    if (output_ended_) {
      std::this_thread::sleep_for(milliseconds(std::min(left, 10)));
    } else {
      readSome(milliseconds(std::min(left, 50)));
    }
  }
  // The program is gone; take what it left in the terminal.
  size_t before;
  do {
    before = output_.size();
    readSome(milliseconds(0));
  } while (!output_ended_ && output_.size() != before);
  return exit_status_;
}

void PtyProgram::kill(int signal) {
  if (pid_ > 0) ::kill(pid_, signal);
}

void PtyProgram::readSome(milliseconds wait) {
  if (master_fd_ < 0 || output_ended_) return;
  pollfd ready{master_fd_, POLLIN, 0};
  if (::poll(&ready, 1, static_cast<int>(wait.count())) <= 0) return;
  char chunk[4096];
  for (;;) {
    const ssize_t n = ::read(master_fd_, chunk, sizeof chunk);
    if (n > 0) {
      output_.append(chunk, static_cast<size_t>(n));
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      return;
    } else {
      // EIO (or end of file): no process holds the terminal open any more.
      output_ended_ = true;
      return;
    }
  }
}

// Collects the exit status once the child has ended; true when it has.
bool PtyProgram::reap(bool block) {
  if (pid_ < 0) return true;
  int status = 0;
  const pid_t reaped = waitChild(pid_, &status, block ? 0 : WNOHANG);
  if (reaped == 0) return false;
  if (reaped == pid_) exit_status_ = statusCode(status);
  pid_ = -1;
  return true;
}

EmulatorProcess::~EmulatorProcess() {
  kill();
}

bool EmulatorProcess::start(uint16_t port, const std::vector<std::string>& flags,
                            std::string* error) {
  kill();
  flags_ = flags;
  port_ = port;  // kept on failure, so that restart() tries the same port
  // A port given explicitly may still be held for a moment by an emulator
  // that has just been killed.
  const auto deadline = Clock::now() + std::chrono::seconds(3);
  for (;;) {
    bool cannot_listen = false;
    if (launchOnce(port, error, &cannot_listen)) return true;
    if (!cannot_listen || port == 0 || Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(milliseconds(100));
  }
}

void EmulatorProcess::kill() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    int status = 0;
    waitChild(pid_, &status, 0);
    pid_ = -1;
  }
  closeFd(&stdout_fd_);
  closeFd(&stdin_fd_);
}

bool EmulatorProcess::restart(std::string* error) {
  if (port_ == 0) {
    *error = "the emulator was never started";
    return false;
  }
  const uint16_t port = port_;
  const std::vector<std::string> flags = flags_;
  return start(port, flags, error);
}

// One attempt. *cannot_listen is set when the emulator exited with status 1
// before it printed its port, which is how it reports a failed bind.
bool EmulatorProcess::launchOnce(uint16_t port, std::string* error, bool* cannot_listen) {
  // With --exit-on-stdin-eof it ends as soon as this process lets go of its
  // stdin, so it never outlives a test process that crashed.
  std::vector<std::string> args = {ORVI_EMULATOR_BINARY, "--port", std::to_string(port),
                                   "--exit-on-stdin-eof"};
  args.insert(args.end(), flags_.begin(), flags_.end());
  std::vector<char*> argv = pointers(args);

  int out[2];
  int in[2];
  if (::pipe2(out, O_CLOEXEC) != 0) {
    *error = std::string("pipe: ") + std::strerror(errno);
    return false;
  }
  if (::pipe2(in, O_CLOEXEC) != 0) {
    *error = std::string("pipe: ") + std::strerror(errno);
    ::close(out[0]);
    ::close(out[1]);
    return false;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  const int spawned = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  ::close(in[0]);
  stdout_fd_ = out[0];
  stdin_fd_ = in[1];
  if (spawned != 0) {
    *error = "cannot run " + args[0] + ": " + std::strerror(spawned);
    kill();
    return false;
  }
  pid_ = pid;

  // The first line: "orvi-emulator listening on 127.0.0.1:<port>".
  static const std::string kPrefix = "orvi-emulator listening on ";
  std::string line;
  const auto deadline = Clock::now() + std::chrono::seconds(20);
  while (line.find('\n') == std::string::npos) {
    const int left = millisecondsUntil(deadline);
    pollfd ready{stdout_fd_, POLLIN, 0};
    const int polled = left == 0 ? 0 : ::poll(&ready, 1, left);
    if (polled < 0 && errno == EINTR) continue;
    if (polled <= 0) {
      *error = "orvi-emulator printed no port in time; it printed '" + line + "'";
      kill();
      return false;
    }
    char chunk[256];
    const ssize_t got = ::read(stdout_fd_, chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      int status = 0;
      waitChild(pid_, &status, 0);
      pid_ = -1;
      kill();
      *cannot_listen = WIFEXITED(status) && WEXITSTATUS(status) == 1;
      *error = "orvi-emulator ended with status " + std::to_string(statusCode(status)) +
               " before it listened";
      return false;
    }
    line.append(chunk, static_cast<size_t>(got));
  }
  line.erase(line.find('\n'));
  const size_t colon = line.rfind(':');
  const long listening = line.compare(0, kPrefix.size(), kPrefix) == 0 && colon != std::string::npos
                             ? std::strtol(line.c_str() + colon + 1, nullptr, 10)
                             : 0;
  if (listening <= 0 || listening > 65535 || (port != 0 && listening != port)) {
    *error = "unexpected first line from orvi-emulator: '" + line + "'";
    kill();
    return false;
  }
  port_ = static_cast<uint16_t>(listening);
  return true;
}

}  // namespace orvi_chat_test
