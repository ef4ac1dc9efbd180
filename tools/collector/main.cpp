// zelvanor-collector: runs the local collection and identity sync server until SIGINT or SIGTERM.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "collector.hpp"

namespace {

constexpr const char* kUsage =
    "usage: zelvanor-collector [--data-dir DIR] [--host ADDRESS] [--port N] [--port-file FILE]\n"
    "                          [--log-requests]\n"
    "\n"
    "An HTTPS collection server for the Zelvanor SDK on a loopback address.\n"
    "  --data-dir DIR    certificate, key and events.sqlite (default: ./zelvanor-collector-data)\n"
    "  --host ADDRESS    address to listen on (default: 127.0.0.1)\n"
    "  --port N          port (default: 0, a free one)\n"
    "  --port-file FILE  write the port there once listening\n"
    "  --log-requests    one line per request on stderr\n"
    "\n"
    "Give the SDK the printed CA file as its extra trusted root.\n"
    "Exit codes: 0 stopped by a signal, 1 bad usage, 2 could not start.\n";

}  // namespace

int main(int argc, char** argv) {
  zelvanor::collector::Collector::Options options;
  options.dataDirectory = "zelvanor-collector-data";
  std::string portFile;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> const char* {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "zelvanor-collector: %s needs a value\n%s", arg.c_str(), kUsage);
        std::exit(1);
      }
      return argv[++i];
    };
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--data-dir") {
      options.dataDirectory = value();
    } else if (arg == "--host") {
      options.host = value();
    } else if (arg == "--port") {
      options.port = std::atoi(value());
    } else if (arg == "--port-file") {
      portFile = value();
    } else if (arg == "--log-requests") {
      options.logRequests = true;
    } else {
      std::fprintf(stderr, "zelvanor-collector: unknown option %s\n%s", arg.c_str(), kUsage);
      return 1;
    }
  }

  // Block the stop signals before any thread starts so that only sigwait below receives them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  zelvanor::collector::Collector collector(options);
  std::string error;
  if (!collector.start(&error)) {
    std::fprintf(stderr, "zelvanor-collector: %s\n", error.c_str());
    return 2;
  }
  std::printf("zelvanor-collector listening on %s\n", collector.baseUrl().c_str());
  std::printf("CA file: %s\n", collector.caFile().c_str());
  std::printf("viewer:  %s/\n", collector.baseUrl().c_str());
  std::fflush(stdout);
  if (!portFile.empty()) {
    std::ofstream(portFile + ".tmp") << collector.port() << "\n";
    std::rename((portFile + ".tmp").c_str(), portFile.c_str());
  }

  int received = 0;
  sigwait(&stopSignals, &received);
  collector.stop();
  const auto counters = collector.counters();
  std::fprintf(stderr, "zelvanor-collector: stopped; %llu records stored, %llu rejected\n",
               static_cast<unsigned long long>(counters.storedRecords),
               static_cast<unsigned long long>(counters.rejectedRecords));
  return 0;
}
