// zelvanor-collector: runs the local collection and identity sync server until SIGINT or SIGTERM.
#include <arpa/inet.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "collector.hpp"
#include "event_store.hpp"

namespace {

// Columns of display width `width`; Hangul and other wide characters take two cells.
std::string padded(const std::string& text, std::size_t width) {
  std::size_t cells = 0;
  std::string out;
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    const std::size_t cellWidth = length >= 3 ? 2 : 1;
    if (cells + cellWidth > width) break;
    out.append(text, i, length);
    cells += cellWidth;
    i += length;
  }
  out.append(width - cells + 1, ' ');
  return out;
}

// The collector has no authentication: anyone who reaches it reads every stored record. It
// listens on this machine only.
bool isLoopbackAddress(const std::string& host) {
  if (host == "localhost") return true;
  in_addr v4{};
  if (::inet_pton(AF_INET, host.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
  in6_addr v6{};
  return ::inet_pton(AF_INET6, host.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

int printEvents(const std::filesystem::path& dataDirectory) {
  zelvanor::collector::EventStore store;
  std::string error;
  const auto file = dataDirectory / "events.sqlite";
  if (!std::filesystem::exists(file) || !store.open(file, error)) {
    std::fprintf(stderr, "zelvanor-collector: no event database in %s %s\n", dataDirectory.c_str(),
                 error.c_str());
    return 2;
  }
  auto events = store.list({.limit = 100000});
  std::printf("%s%s%s%s%s%s%s\n", padded("time", 12).c_str(), padded("type", 15).c_str(),
              padded("name", 16).c_str(), padded("kind", 11).c_str(), padded("page", 15).c_str(),
              padded("cid", 10).c_str(), "did / sid");
  for (auto it = events.rbegin(); it != events.rend(); ++it) {
    const auto& e = *it;
    // "2026-11-22T10:15:30.123Z" -> "10:15:30.123"
    const std::string time = e.receivedAt.size() >= 23 ? e.receivedAt.substr(11, 12) : e.receivedAt;
    std::printf("%s%s%s%s%s%s%s / %s\n", padded(time, 12).c_str(), padded(e.actionType, 15).c_str(),
                padded(e.actionName, 16).c_str(), padded(e.actionKind, 11).c_str(),
                padded(e.page.empty() ? "-" : e.page, 15).c_str(),
                padded(e.xid.cid.substr(0, 8), 10).c_str(), e.xid.did.substr(0, 8).c_str(),
                e.xid.sid.substr(0, 8).c_str());
  }
  std::printf("%zu events\n", events.size());
  return 0;
}

constexpr const char* kUsage =
    "usage: zelvanor-collector [--data-dir DIR] [--host ADDRESS] [--port N] [--port-file FILE]\n"
    "                          [--log-requests] [--generate-events N]\n"
    "       zelvanor-collector --print-events [--data-dir DIR]\n"
    "\n"
    "An HTTPS collection server for the Zelvanor SDK on a loopback address.\n"
    "  --data-dir DIR    certificate, key and events.sqlite (default: ./zelvanor-collector-data)\n"
    "  --host ADDRESS    loopback address to listen on (default: 127.0.0.1)\n"
    "  --port N          port (default: 0, a free one)\n"
    "  --port-file FILE  write the port there once listening\n"
    "  --log-requests    one line per request on stderr\n"
    "  --generate-events N  store N made-up events (received over the last hour) before\n"
    "                    listening, to try the viewer on a full store\n"
    "  --print-events    print the stored events as a table, oldest first, and exit\n"
    "\n"
    "Give the SDK the printed CA file as its extra trusted root.\n"
    "Exit codes: 0 stopped by a signal, 1 bad usage, 2 could not start.\n";

}  // namespace

int main(int argc, char** argv) {
  zelvanor::collector::Collector::Options options;
  options.dataDirectory = "zelvanor-collector-data";
  std::string portFile;
  bool print = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> const char* {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "zelvanor-collector: %s needs a value\n%s", arg.c_str(), kUsage);
        // Arguments are read before any thread starts.
        std::exit(1);  // NOLINT(concurrency-mt-unsafe)
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
    } else if (arg == "--print-events") {
      print = true;
    } else if (arg == "--generate-events") {
      options.generatedEvents = std::atoi(value());
    } else if (arg == "--log-requests") {
      options.logRequests = true;
    } else {
      std::fprintf(stderr, "zelvanor-collector: unknown option %s\n%s", arg.c_str(), kUsage);
      return 1;
    }
  }

  if (print) return printEvents(options.dataDirectory);
  if (!isLoopbackAddress(options.host)) {
    std::fprintf(stderr, "zelvanor-collector: %s is not a loopback address\n%s",
                 options.host.c_str(), kUsage);
    return 1;
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
