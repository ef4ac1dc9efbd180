// Delivery against nginx over HTTPS on loopback: a server that answers a fixed "ok" far faster
// than the SDK sends, so the figures are the client's. Reports records per second and the CPU
// this process spends per delivered record (getrusage: every thread, user and system time), for
// the SDK through its public facade and for a bare libcurl multi loop sending the same bodies
// with the same number of connections, once as a burst and once as a steady trickle. nginx runs as
// a child process from a temporary folder with its own configuration and a self-signed certificate
// made with the openssl tool; without nginx the benchmarks skip.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/tracker.hpp"

namespace {

using namespace zelvanor;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kRecordsPerIteration = 2000;
// The benchmarks' argument: 0 tracks the whole batch at once (a burst twice the memory limit,
// as after a long spell offline), else one record every that many microseconds (a steady
// trickle, where each record goes nearly alone).
constexpr int kBurst = 0;
constexpr int kTrickleMicros = 500;

/// When record `index` of an iteration that started at `start` is due.
Clock::time_point dueAt(Clock::time_point start, int micros, std::size_t index) {
  return start + std::chrono::microseconds(static_cast<std::int64_t>(micros) *
                                           static_cast<std::int64_t>(index));
}
// The SDK keeps this many connections to one host; the bare loop uses as many.
constexpr long kConnections = 8;
constexpr const char* kSyncAnswer =
    R"({"version":1,"status":{"code":"0000","msg":"ok"},"data":[{"cid":"c","did":"d","sid":"s"}]})";

std::string findNginx() {
  for (const char* candidate : {"/usr/sbin/nginx", "/usr/local/sbin/nginx", "/usr/bin/nginx"}) {
    if (::access(candidate, X_OK) == 0) return candidate;
  }
  return {};
}

int freeLoopbackPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  ::close(fd);
  return port;
}

bool accepts(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  const bool connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return connected;
}

/// nginx answering "ok" to POST /sdk/track and the identity triple to GET /sync, on 127.0.0.1.
/// Each answered track request appends two bytes to track.log, so its size counts them.
class Nginx {
 public:
  Nginx() {
    const std::string nginx = findNginx();
    if (nginx.empty()) {
      problem_ = "nginx not found (scripts/bootstrap installs nginx-light)";
      return;
    }
    const fs::path dir = dir_.path;
    const std::string certificate = (dir / "cert.pem").string();
    const std::string key = (dir / "key.pem").string();
    const std::string makeCertificate =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 1"
        " -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -keyout '" +
        key + "' -out '" + certificate + "' >/dev/null 2>&1";
    if (std::system(makeCertificate.c_str()) != 0) {
      problem_ = "openssl could not make a certificate";
      return;
    }
    port_ = freeLoopbackPort();
    const std::string d = dir.string();
    std::ofstream(dir / "nginx.conf") << "daemon off;\n"
                                      << "worker_processes 1;\n"
                                      << "pid " << d << "/nginx.pid;\n"
                                      << "error_log " << d << "/error.log warn;\n"
                                      << "events { worker_connections 256; }\n"
                                      << "http {\n"
                                      << "  access_log off;\n"
                                      << "  log_format tick 't';\n"
                                      << "  client_body_temp_path " << d << "/body;\n"
                                      << "  proxy_temp_path " << d << "/proxy;\n"
                                      << "  fastcgi_temp_path " << d << "/fastcgi;\n"
                                      << "  uwsgi_temp_path " << d << "/uwsgi;\n"
                                      << "  scgi_temp_path " << d << "/scgi;\n"
                                      << "  keepalive_requests 1000000;\n"
                                      << "  server {\n"
                                      << "    listen 127.0.0.1:" << port_ << " ssl;\n"
                                      << "    ssl_certificate " << certificate << ";\n"
                                      << "    ssl_certificate_key " << key << ";\n"
                                      << "    location = /sdk/track {\n"
                                      << "      access_log " << d << "/track.log tick;\n"
                                      << "      default_type text/plain;\n"
                                      << "      return 200 'ok';\n"
                                      << "    }\n"
                                      << "    location = /sync {\n"
                                      << "      default_type application/json;\n"
                                      << "      return 200 '" << kSyncAnswer << "';\n"
                                      << "    }\n"
                                      << "  }\n"
                                      << "}\n";
    // Everything exec needs is built before the fork.
    const std::string prefix = d + "/";
    const std::string config = d + "/nginx.conf";
    const std::string errorLog = d + "/error.log";
    pid_ = ::fork();
    if (pid_ == 0) {
      ::execl(nginx.c_str(), nginx.c_str(), "-p", prefix.c_str(), "-c", config.c_str(), "-e",
              errorLog.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    for (int i = 0; i < 500 && !accepts(port_); ++i) {  // up to five seconds
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!accepts(port_)) problem_ = "nginx did not start; see its error.log";
    caFile_ = certificate;
    trackLog_ = dir / "track.log";
  }
  ~Nginx() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }
  Nginx(const Nginx&) = delete;
  Nginx& operator=(const Nginx&) = delete;

  const std::string& problem() const { return problem_; }
  std::string baseUrl() const { return "https://127.0.0.1:" + std::to_string(port_); }
  std::string trackUrl() const { return baseUrl() + "/sdk/track"; }
  const std::string& caFile() const { return caFile_; }
  std::uint64_t answeredTracks() const {
    struct stat info {};
    if (::stat(trackLog_.c_str(), &info) != 0) return 0;
    return static_cast<std::uint64_t>(info.st_size) / 2;
  }
  bool waitForTracks(std::uint64_t count, std::chrono::seconds limit) const {
    const auto deadline = Clock::now() + limit;
    while (answeredTracks() < count) {
      if (Clock::now() > deadline) return false;
      // Rarely enough that the polling itself (a stat and a wake-up each time) adds little to the
      // CPU this process is measured for; at most 2 ms of an iteration of a few hundred.
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
  }

 private:
  bench::TempDir dir_;
  pid_t pid_ = -1;
  int port_ = 0;
  std::string caFile_;
  fs::path trackLog_;
  std::string problem_;
};

double cpuMicros() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const auto micros = [](const timeval& t) {
    return t.tv_sec * 1e6 + static_cast<double>(t.tv_usec);
  };
  return micros(usage.ru_utime) + micros(usage.ru_stime);
}

void setTypicalEvent(int i) {
  ZelvanorTracker::set(
      ZPage{.id = "item-" + std::to_string(i), .name = "item", .title = "Blue mug"})
      .set(ZClick{.type = "button", .layer1 = "add-to-cart", .posX = 120, .posY = 640})
      .set(ZAction(ZAction::ZActionType::event, "add_to_cart", "click"));
}

struct Totals {
  double seconds = 0;
  double cpu = 0;
  std::uint64_t records = 0;
  void report(benchmark::State& state) const {
    if (records == 0 || seconds <= 0) return;
    state.counters["records_per_s"] = static_cast<double>(records) / seconds;
    state.counters["cpu_us_per_record"] = cpu / static_cast<double>(records);
  }
};

/// The SDK started against nginx, identity known, ready to deliver. Null with a reason if not.
struct SdkSession {
  bench::TempDir dir;
  explicit SdkSession(const Nginx& server) {
    ZelvanorTracker::setPlatformFacts(ZPlatformFacts{.bundleIdentifier = "com.example.bench",
                                                     .appVersion = "1.0",
                                                     .dataDirectory = (dir.path / "app").string()});
    const std::string base = server.baseUrl();
    ZelvanorTracker::setEndpoints(ZEndpoints{base, base, base, server.caFile()});
    ZelvanorTracker::setRequired(ZConfiguration{.timeout = 10, .batchSize = 1})
        .setReachabilityFlags(0x2)
        .set(ZId{.appUserId = "bench-user"})
        .set(ZCommon({.serviceName = "shop", .deployment = "production"}));
  }
  ~SdkSession() { ZelvanorTracker::shutdown(); }
  SdkSession(const SdkSession&) = delete;
  SdkSession& operator=(const SdkSession&) = delete;
};

void BM_SdkToNginx(benchmark::State& state) {
  Nginx server;
  if (!server.problem().empty()) {
    std::fprintf(stderr, "nginx_delivery_bench: skipped: %s\n", server.problem().c_str());
    state.SkipWithError(server.problem().c_str());
    return;
  }
  SdkSession session(server);
  // Install and two launch events: once they are answered the triple is known.
  if (!server.waitForTracks(3, std::chrono::seconds(10))) {
    state.SkipWithError("the SDK's first records did not arrive");
    return;
  }
  std::uint64_t expected = server.answeredTracks();
  Totals totals;
  for (auto _ : state) {
    const auto start = Clock::now();
    const double cpuStart = cpuMicros();
    for (int i = 0; i < kRecordsPerIteration; ++i) {
      if (state.range(0) != kBurst) {
        std::this_thread::sleep_until(
            dueAt(start, static_cast<int>(state.range(0)), static_cast<std::size_t>(i)));
      }
      setTypicalEvent(i);
      ZelvanorTracker::track(false, false);
    }
    expected += kRecordsPerIteration;
    if (!server.waitForTracks(expected, std::chrono::seconds(60))) {
      state.SkipWithError("records did not all arrive");
      break;
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    totals.cpu += cpuMicros() - cpuStart;
    totals.seconds += seconds;
    totals.records += kRecordsPerIteration;
    state.SetIterationTime(seconds);
  }
  totals.report(state);
  state.SetItemsProcessed(static_cast<std::int64_t>(totals.records));
}
BENCHMARK(BM_SdkToNginx)
    ->Arg(kBurst)
    ->Arg(kTrickleMicros)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

/// Bodies as the SDK sends them: a record built from the same blocks, compact JSON.
std::vector<std::string> sdkBodies(int count) {
  std::vector<std::string> bodies;
  bodies.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    setTypicalEvent(i);
    auto record = decodeJson<ZLogRecord>(ZelvanorTracker::getData());
    if (!record) return {};
    bodies.push_back(encodeJson(*record).value());
  }
  return bodies;
}

struct Transfer {
  CURL* easy = nullptr;
  std::string answer;
};

std::size_t collect(char* data, std::size_t size, std::size_t count, void* user) {
  static_cast<Transfer*>(user)->answer.append(data, size * count);
  return size * count;
}

void BM_BareCurlMultiToNginx(benchmark::State& state) {
  Nginx server;
  if (!server.problem().empty()) {
    std::fprintf(stderr, "nginx_delivery_bench: skipped: %s\n", server.problem().c_str());
    state.SkipWithError(server.problem().c_str());
    return;
  }
  std::vector<std::string> bodies;
  {
    SdkSession session(server);
    if (!server.waitForTracks(3, std::chrono::seconds(10))) {
      state.SkipWithError("the SDK's first records did not arrive");
      return;
    }
    bodies = sdkBodies(kRecordsPerIteration);
  }
  if (bodies.empty()) {
    state.SkipWithError("could not build the bodies");
    return;
  }
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURLM* multi = curl_multi_init();
  curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, kConnections);
  // The SDK's headers: no "Expect: 100-continue", which would hold a body back for an answer.
  curl_slist* headers = curl_slist_append(nullptr, "Expect:");
  headers = curl_slist_append(headers, "Content-Type: application/json");
  const std::string url = server.trackUrl();
  std::vector<Transfer> transfers(static_cast<std::size_t>(kConnections));
  std::deque<Transfer*> idle;
  for (auto& transfer : transfers) {
    transfer.easy = curl_easy_init();
    curl_easy_setopt(transfer.easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(transfer.easy, CURLOPT_CAINFO, server.caFile().c_str());
    curl_easy_setopt(transfer.easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(transfer.easy, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(transfer.easy, CURLOPT_WRITEFUNCTION, &collect);
    curl_easy_setopt(transfer.easy, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(transfer.easy, CURLOPT_PRIVATE, &transfer);
    curl_easy_setopt(transfer.easy, CURLOPT_TIMEOUT_MS, 10000L);
    idle.push_back(&transfer);
  }
  Totals totals;
  std::uint64_t failures = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    const double cpuStart = cpuMicros();
    std::size_t next = 0;
    std::size_t done = 0;
    const int pace = static_cast<int>(state.range(0));
    const auto due = [&](std::size_t index) {
      return pace == kBurst || dueAt(start, pace, index) <= Clock::now();
    };
    while (done < bodies.size()) {
      while (next < bodies.size() && !idle.empty() && due(next)) {
        Transfer* transfer = idle.front();
        idle.pop_front();
        transfer->answer.clear();
        const std::string& body = bodies[next++];
        curl_easy_setopt(transfer->easy, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(body.size()));
        curl_easy_setopt(transfer->easy, CURLOPT_POSTFIELDS, body.data());
        curl_multi_add_handle(multi, transfer->easy);
      }
      int running = 0;
      curl_multi_perform(multi, &running);
      int left = 0;
      while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        Transfer* transfer = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
        if (message->data.result != CURLE_OK || transfer->answer != "ok") ++failures;
        curl_multi_remove_handle(multi, message->easy_handle);
        idle.push_back(transfer);
        ++done;
      }
      // Wait for the sockets only when no connection is free for the next body.
      // In a trickle, wait no longer than until the next body is due; the poll counts whole
      // milliseconds, so a shorter wait sleeps to the moment instead.
      const bool canAdd = next < bodies.size() && !idle.empty();
      if (done < bodies.size() && !(canAdd && due(next))) {
        if (!canAdd) {
          curl_multi_poll(multi, nullptr, 0, 100, nullptr);
        } else {
          const auto wait = std::chrono::floor<std::chrono::milliseconds>(dueAt(start, pace, next) -
                                                                          Clock::now());
          if (wait.count() < 1) {
            std::this_thread::sleep_until(dueAt(start, pace, next));
          } else {
            curl_multi_poll(multi, nullptr, 0,
                            static_cast<int>(std::min<std::int64_t>(wait.count(), 100)), nullptr);
          }
        }
      }
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    totals.cpu += cpuMicros() - cpuStart;
    totals.seconds += seconds;
    totals.records += bodies.size();
    state.SetIterationTime(seconds);
  }
  for (auto& transfer : transfers) curl_easy_cleanup(transfer.easy);
  curl_slist_free_all(headers);
  curl_multi_cleanup(multi);
  if (failures > 0) state.SkipWithError("some requests failed or were not answered ok");
  totals.report(state);
  state.SetItemsProcessed(static_cast<std::int64_t>(totals.records));
}
BENCHMARK(BM_BareCurlMultiToNginx)
    ->Arg(kBurst)
    ->Arg(kTrickleMicros)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
