// Drives orvi-chat and orvi-emulator as child processes in tests.
//
// PtyProgram runs a program in a pseudo-terminal of its own, so that it sees
// a terminal on its standard streams as with a user at the keyboard. Echo is
// off in that terminal: output() holds only what the program wrote (with the
// terminal's "\r\n" line ends), never the typed input. The object owns the
// child and the master side of the terminal; its destructor kills a child
// still running (SIGKILL), reaps it and closes the terminal.
//
// EmulatorProcess runs orvi-emulator with its standard output on a pipe and
// learns the port from the first line. It owns the child in the same way.
//
// Neither class is thread-safe; use each object from one thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orvi_chat_test {

class PtyProgram {
 public:
  PtyProgram() = default;
  ~PtyProgram();
  PtyProgram(const PtyProgram&) = delete;
  PtyProgram& operator=(const PtyProgram&) = delete;

  // Sets NAME=VALUE in the environment of the program started next, on top
  // of this process's environment.
  void addEnv(const std::string& name, const std::string& value);

  // Starts `argv` (argv[0] is the path of the program) in a new terminal.
  // False, with the reason in *error, when it cannot be started.
  bool start(const std::vector<std::string>& argv, std::string* error);

  // Writes `line` and a newline to the program's input.
  void type(const std::string& line);

  // Reads output until `needle` appears after the mark, then moves the mark
  // past it. False when `timeout` passes or the output ends first.
  bool waitFor(const std::string& needle, std::chrono::milliseconds timeout);

  // Everything read so far, raw.
  std::string output() const { return output_; }
  size_t mark() const { return mark_; }
  void setMark(size_t mark) { mark_ = mark; }

  // Waits for the program to end, reading its output meanwhile. The exit
  // status, 128 + the signal for a program killed by one, or nothing when
  // `timeout` passes first.
  std::optional<int> waitExit(std::chrono::milliseconds timeout);

  // Sends `signal` to a program still running.
  void kill(int signal);

 private:
  // Reads what the terminal holds, waiting up to `wait` for the first bytes.
  void readSome(std::chrono::milliseconds wait);
  bool reap(bool block);

  std::vector<std::pair<std::string, std::string>> env_;
  pid_t pid_ = -1;  // -1 once reaped
  int master_fd_ = -1;
  bool output_ended_ = false;  // every writer of the terminal has gone
  std::optional<int> exit_status_;
  std::string output_;
  size_t mark_ = 0;
};

class EmulatorProcess {
 public:
  EmulatorProcess() = default;
  ~EmulatorProcess();
  EmulatorProcess(const EmulatorProcess&) = delete;
  EmulatorProcess& operator=(const EmulatorProcess&) = delete;

  // Starts orvi-emulator with `--port port` (0: any free one) and `flags`.
  // With a given port, a bind that fails is retried for a few seconds.
  bool start(uint16_t port, const std::vector<std::string>& flags, std::string* error);

  // The port it listens on; after kill() or a failed start, the port it
  // had or was asked for. 0 when there is none.
  uint16_t port() const { return port_; }

  // SIGKILL, then reaps it.
  void kill();

  // Kills a running emulator and starts it again with the same flags on the
  // port it had.
  bool restart(std::string* error);

 private:
  bool launchOnce(uint16_t port, std::string* error, bool* cannot_listen);

  std::vector<std::string> flags_;
  pid_t pid_ = -1;
  int stdout_fd_ = -1;
  int stdin_fd_ = -1;  // the emulator's stdin; it exits when this closes
  uint16_t port_ = 0;
};

}  // namespace orvi_chat_test
