// orvi-emulator: the emulated assistant service as a program. It prints
// "orvi-emulator listening on 127.0.0.1:<port>" once bound, serves until
// SIGINT or SIGTERM (or the end of stdin with --exit-on-stdin-eof) and then
// stops cleanly and exits 0.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>

#include "emulator.h"

namespace {

const char kUsage[] =
    "usage: orvi-emulator [options]\n"
    "  --host ADDR              address to listen on (default 127.0.0.1)\n"
    "  --port N                 port to listen on; 0 picks a free one (default 0)\n"
    "  --delta-interval-ms N    pause between the deltas of an answer (default 20)\n"
    "  --gzip-every N           gzip every Nth downlink frame; 0: none (default 3)\n"
    "  --drop-acks N            drop the next N acknowledgements of user messages\n"
    "  --ack-delay-ms N         send every acknowledgement N ms late\n"
    "  --cut-after-deltas N     once: close the connection after N deltas of an answer\n"
    "  --cut-mid-frame          with the cut: send the start of a frame first\n"
    "  --rest-status N          answer every REST call with HTTP status N\n"
    "  --rest-truncate          end every REST answer half-way\n"
    "  --sync-nack-fragment N   once: nack fragment N of the first fragmented sync record\n"
    "  --exit-on-stdin-eof      stop when stdin reaches its end\n"
    "  --verbose                log requests and frames to stderr\n"
    "  --help                   show this text\n";

bool parseInt(const char* text, long min, long max, int32_t* value) {
  char* end = nullptr;
  const long parsed = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || parsed < min || parsed > max) return false;
  *value = static_cast<int32_t>(parsed);
  return true;
}

// Waits for stdin to end, checking `done` so that it can be joined.
void watchStdin(const std::atomic<bool>* done) {
  char buffer[256];
  while (!done->load()) {
    pollfd fd{STDIN_FILENO, POLLIN, 0};
    if (poll(&fd, 1, 100) <= 0) continue;
    const ssize_t n = read(STDIN_FILENO, buffer, sizeof buffer);
    if (n == 0 || (n < 0 && errno != EINTR)) {
      kill(getpid(), SIGTERM);
      return;
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  orvi::emulator::EmulatorOptions options;
  bool exit_on_stdin_eof = false;
  bool verbose = false;
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    auto number = [&](long min, long max, int32_t* out) {
      if (value == nullptr || !parseInt(value, min, max, out)) {
        std::cerr << "orvi-emulator: " << flag << " needs a number in [" << min << ", " << max
                  << "]\n";
        std::exit(2);
      }
      ++i;
    };
    int32_t port = 0;
    if (flag == "--help" || flag == "-h") {
      std::cout << kUsage;
      return 0;
    } else if (flag == "--host" && value != nullptr) {
      options.host = value;
      ++i;
    } else if (flag == "--port") {
      number(0, 65535, &port);
      options.port = static_cast<uint16_t>(port);
    } else if (flag == "--delta-interval-ms") {
      number(0, 60000, &options.delta_interval_ms);
    } else if (flag == "--gzip-every") {
      number(0, 1000000, &options.gzip_every);
    } else if (flag == "--drop-acks") {
      number(0, 1000000, &options.faults.drop_acks);
    } else if (flag == "--ack-delay-ms") {
      number(0, 600000, &options.faults.ack_delay_ms);
    } else if (flag == "--cut-after-deltas") {
      number(0, 1000000, &options.faults.cut_after_deltas);
    } else if (flag == "--cut-mid-frame") {
      options.faults.cut_mid_frame = true;
    } else if (flag == "--rest-status") {
      number(100, 599, &options.faults.rest_status);
    } else if (flag == "--rest-truncate") {
      options.faults.rest_truncate = true;
    } else if (flag == "--sync-nack-fragment") {
      number(0, 1000000, &options.faults.sync_nack_fragment);
    } else if (flag == "--exit-on-stdin-eof") {
      exit_on_stdin_eof = true;
    } else if (flag == "--verbose") {
      verbose = true;
    } else {
      std::cerr << "orvi-emulator: unknown option " << flag << "\n" << kUsage;
      return 2;
    }
  }
  if (verbose) {
    options.log = [](const std::string& line) { std::cerr << "orvi-emulator: " << line << "\n"; };
  }

  // Block the stop signals before any thread starts, so that every thread
  // inherits the mask and only sigwait below receives them.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  orvi::emulator::Emulator emulator(options);
  std::string error;
  if (!emulator.start(&error)) {
    std::cerr << "orvi-emulator: " << error << "\n";
    return 1;
  }
  std::cout << "orvi-emulator listening on " << options.host << ":" << emulator.port() << std::endl;

  std::atomic<bool> done{false};
  std::thread stdin_watcher;
  if (exit_on_stdin_eof) stdin_watcher = std::thread(watchStdin, &done);
  int signal_number = 0;
  sigwait(&stop_signals, &signal_number);
  if (verbose) std::cerr << "orvi-emulator: stopping on signal " << signal_number << "\n";
  done = true;
  if (stdin_watcher.joinable()) stdin_watcher.join();
  emulator.stop();
  return 0;
}
