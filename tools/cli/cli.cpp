#include "cli.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <string_view>
#include <system_error>

#include "pending.hpp"
#include "platform/platform.hpp"
#include "script.hpp"
#include "store/pending_store.hpp"
#include "zelvanor/configuration.hpp"
#include "zelvanor/diagnostics.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/platform.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor::cli {

namespace {

constexpr const char* kHelpText = R"(Usage:
  zelvanor send [options] SCRIPT     run a JSON-lines script of tracker operations
  zelvanor pending show [--pretty] FILE
                                     list the frames of a pending-record file (read only)
  zelvanor validate FILE...          check that each file holds one log record
  zelvanor --help | --version

send
  SCRIPT holds one JSON object per line, named as ZelvanorTracker names its operations
  (blank lines and lines starting with '#' are skipped; "-" reads standard input):
    {"op":"setRequired","timeout":10,"batchSize":3,"usingSandboxEnvironment":false}
    {"op":"set","block":"page","value":{"id":"p1","name":"home","title":"Home"}}
    {"op":"track","verbose":false,"disabled":false}
    {"op":"flush"}   {"op":"getData"}   {"op":"setBatchSize","value":3}
    {"op":"setTimeout","value":2.5}   {"op":"setDevelopment"}   {"op":"setProduction"}
    {"op":"useSandboxEnvironment"}   {"op":"useGeneralEnvrionment"}
    {"op":"turnOnConsoleLogs"}   {"op":"turnOffConsoleLogs"}
    {"op":"post","event":"willEnterForeground"}   (also willResignActive, willTerminate)
    {"op":"sleep","ms":100}   (at most 600000)
    {"op":"setCollectionEnabled","value":false}   (kept in the settings file across runs)
    {"op":"deleteLocalData"}   (records, cookies, identity and install settings are removed)
  Blocks for "set": common, agent, id, agreement, app, click, location, page, promotion,
  status, usage, action, domain, utm, bucket, buckets (array), viewImpressionContent,
  viewImpressionContents (array), free (a string; accepted and dropped, as the SDK does).
  "app" is refused: the SDK fills the app block itself and takes none from the host.
  Values use the record's JSON keys and are decoded by the SDK itself, as the C API decodes them.
  "common" is completed as in C++: svcdomain falls back to --bundle-id, access_time is derived
  from access_timestamp (a given one is not kept), request_timestamp is stamped by track.
  The whole script is checked before anything runs; every faulty line is reported with its
  number, and then nothing is sent. getData prints its text on stdout. At the end the SDK is
  shut down, so records not yet delivered wait in the pending file for the next start.

  --endpoint URL        base URL for records, sandbox records and identity sync alike
  --track-url URL       collection server (https)
  --sandbox-url URL     sandbox collection server (https)
  --sync-url URL        identity sync server (https)
  --ca-file FILE        PEM file with extra trusted roots (e.g. a local collector's CA)
  --header 'N: v'       an extra header on every request (repeatable); not one the SDK sets
  --proxy URL           http://, https://, socks5:// or socks5h:// proxy (user:password@ allowed),
                        or none to go direct whatever http_proxy/https_proxy say
  --data-dir DIR        where the SDK keeps settings, cookies and the pending file
  --bundle-id ID        the application's bundle identifier (default: zelvanor)
  --online              report the network as reachable instead of watching the routes
  --network STATE       pin the network state: wifi (as --online), mobile or offline (records
                        are then kept in the pending file)
  --wait SECONDS        before the exit, wait up to SECONDS (at most 3600) for the identity
                        triple and for every record's answer
  -v, --verbose         name each operation on stderr as it runs, and say why each event was
                        dropped or kept (ZELVANOR_LOG=debug says more)
  At the end a summary on stderr counts what was delivered, refused, kept and dropped (with the
  reasons), and what was still waiting for an answer or for the identity triple.

pending show
  Reads FILE the way the SDK reads it at its next start and prints every piece: per whole frame
  its offset, stored length and the record JSON (compact as stored, or indented with --pretty),
  or why the payload does not decode and at which key path; per skipped piece (bytes that are no
  whole frame, e.g. a negative, zero or oversized length) its offset, size and why; and a torn end.
  Then how many records the SDK would restore: every frame that decodes, for an undecodable one
  is moved aside to a quarantine file and reading goes on past skipped bytes. The file is opened
  read-only and never changed; anything but a regular file (a FIFO, a directory) is refused.

validate
  Decodes each FILE ("-" for standard input) as one log record and prints "valid" or the
  decoding error with its kind and key path.

Exit codes:
  0  success (send: the script ran; pending show: every frame decodes, nothing is skipped and
     the file ends cleanly; validate: every file is a valid record)
  1  usage error (unknown command or option, missing argument, endpoint not https)
  2  invalid input (malformed script line; a pending file with an undecodable frame, skipped
     bytes or a torn end, even though the SDK restores the rest; invalid record)
  3  runtime failure (a file cannot be read or is no regular file, the SDK cannot be set up)
  4  send --wait: the time ran out before every record had an answer (they are kept)
)";

struct Arguments {
  std::vector<std::string> positional;
  std::map<std::string, std::string, std::less<>> values;
  std::vector<std::pair<std::string, std::string>> ordered;  ///< every valued option, repeats too
  std::vector<std::string> flags;

  bool has(std::string_view flag) const {
    for (const auto& f : flags) {
      if (f == flag) return true;
    }
    return false;
  }
  std::optional<std::string> value(std::string_view name) const {
    const auto it = values.find(name);
    if (it == values.end()) return std::nullopt;
    return it->second;
  }
};

// Splits options from operands. `valued` options take the next word (or "=value"); `flags` stand
// alone. Anything else starting with "-" (except "-" itself) is an error.
bool splitArguments(const std::vector<std::string>& args, std::size_t from,
                    std::initializer_list<std::string_view> valued,
                    std::initializer_list<std::string_view> flags, Arguments& parsed,
                    std::ostream& err) {
  auto isOneOf = [](std::string_view name, std::initializer_list<std::string_view> names) {
    for (auto n : names) {
      if (n == name) return true;
    }
    return false;
  };
  bool operandsOnly = false;
  for (std::size_t i = from; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (operandsOnly || arg == "-" || arg.empty() || arg.front() != '-') {
      parsed.positional.push_back(arg);
      continue;
    }
    if (arg == "--") {
      operandsOnly = true;
      continue;
    }
    const auto equals = arg.find('=');
    const std::string name = arg.substr(0, equals);
    if (isOneOf(name, valued)) {
      if (equals != std::string::npos) {
        parsed.values[name] = arg.substr(equals + 1);
        parsed.ordered.emplace_back(name, parsed.values[name]);
      } else if (i + 1 < args.size()) {
        parsed.values[name] = args[++i];
        parsed.ordered.emplace_back(name, parsed.values[name]);
      } else {
        err << "zelvanor: option " << name << " needs a value\n";
        return false;
      }
    } else if (equals == std::string::npos && isOneOf(name, flags)) {
      parsed.flags.push_back(name);
    } else {
      err << "zelvanor: unknown option " << arg << "\n";
      return false;
    }
  }
  return true;
}

int usageError(std::ostream& err, const std::string& message) {
  err << "zelvanor: " << message << "\nRun 'zelvanor --help' for usage.\n";
  return kUsage;
}

// ----- validate -------------------------------------------------------------------------------

int runValidate(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  Arguments parsed;
  if (!splitArguments(args, 1, {}, {}, parsed, err)) return kUsage;
  if (parsed.positional.empty()) return usageError(err, "validate needs at least one FILE");
  int worst = kOk;
  std::size_t valid = 0;
  for (const auto& path : parsed.positional) {
    std::string error;
    const auto content = readInput(path, error);
    if (!content) {
      err << "zelvanor: " << error << "\n";
      worst = kRuntime;
      continue;
    }
    auto record = decodeJson<ZLogRecord>(*content);
    if (record) {
      ++valid;
      out << path << ": valid\n";
    } else {
      const CodecError& e = record.error();
      out << path << ": invalid: " << toString(e.kind) << " at "
          << (e.path.empty() ? std::string("(document)") : e.path);
      if (!e.detail.empty()) out << ": " << e.detail;
      out << "\n";
      if (worst == kOk) worst = kInvalid;
    }
  }
  err << valid << " of " << parsed.positional.size() << " file"
      << (parsed.positional.size() == 1 ? "" : "s") << " valid\n";
  return worst;
}

// ----- pending show ---------------------------------------------------------------------------

int runPending(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  if (args.size() < 2 || args[1] != "show") {
    return usageError(err, "pending takes the sub-command 'show'");
  }
  Arguments parsed;
  if (!splitArguments(args, 2, {}, {"--pretty"}, parsed, err)) return kUsage;
  if (parsed.positional.size() != 1) return usageError(err, "pending show needs one FILE");
  std::string error;
  const auto content = readPendingFile(parsed.positional.front(), error);
  if (!content) {
    err << "zelvanor: " << error << "\n";
    return kRuntime;
  }
  const PendingReport report = inspectPending(*content);
  printPendingReport(report, out, err, parsed.has("--pretty"));
  return report.clean() ? kOk : kInvalid;
}

// ----- send -----------------------------------------------------------------------------------

constexpr std::uint32_t kReachable = 0x2;
constexpr std::uint32_t kCellular = 0x40000;

std::optional<std::uint32_t> reachabilityFor(std::string_view state) {
  if (state == "wifi") return kReachable;
  if (state == "mobile") return kReachable | kCellular;
  if (state == "offline") return 0u;
  return std::nullopt;
}

std::optional<std::chrono::milliseconds> parseWait(const std::string& text) {
  double seconds = -1;
  std::size_t used = 0;
  try {
    seconds = std::stod(text, &used);
  } catch (...) {
    return std::nullopt;
  }
  if (used != text.size() || !(seconds >= 0 && seconds <= 3600)) return std::nullopt;
  return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

/// "delivered 3, refused 1 (...)": what became of the run's events, reasons included.
void printOutcome(const ZCounters& c, std::ostream& err) {
  err << "events: " << c.tracked << " tracked";
  if (c.restored > 0) err << ", " << c.restored << " restored from earlier runs";
  err << "; delivered " << c.delivered << ", refused by the collector " << c.refused
      << ", kept on disk " << c.keptOnDisk;
  const std::pair<const char*, std::uint64_t> drops[] = {
      {"no common block", c.dropped.noCommonBlock},
      {"no action block", c.dropped.noAction},
      {"context incomplete", c.dropped.incompleteContext},
      {"not encodable", c.dropped.unencodable},
      {"storage full", c.dropped.storageFull},
      {"unreadable on disk", c.dropped.unreadable},
      {"collection off", c.dropped.collectionOff},
      {"before-send hook", c.dropped.beforeSend},
  };
  std::uint64_t dropped = 0;
  for (const auto& [reason, count] : drops) dropped += count;
  err << ", dropped " << dropped;
  if (dropped > 0) {
    const char* separator = " (";
    for (const auto& [reason, count] : drops) {
      if (count == 0) continue;
      err << separator << reason << ": " << count;
      separator = ", ";
    }
    err << ")";
  }
  err << "\n";
  const std::uint64_t unanswered = c.awaitingAnswer + c.waitingInMemory + c.waitingOnDisk;
  if (unanswered > 0 || c.templatesWaiting > 0) {
    err << "at the end: " << unanswered << " record(s) without an answer yet, "
        << c.templatesWaiting
        << " event(s) waiting for the identity triple; both are kept for the next start\n";
  }
}

/// Records waiting on disk as the SDK's next start would send them (segments, then ZLogs.tmp).
std::size_t waitingOnDisk(const std::filesystem::path& directory) {
  std::size_t count = 0;
  zelvanor::detail::PendingStore::forEachWaiting(directory, [&](std::string_view) { ++count; });
  return count;
}

// The data directory holds the identity cookies and undelivered records, so one made here is the
// owner's alone, as the SDK makes its own; an existing one keeps the mode its owner chose.
void createPrivateDirectory(std::filesystem::path dir, std::error_code& ec) {
  if (!dir.has_filename()) dir = dir.parent_path();  // "a/b/" names "a/b"
  if (dir.has_parent_path()) {
    std::filesystem::create_directories(dir.parent_path(), ec);
    if (ec) return;
  }
  // The SDK's own check, on every platform: made for the owner alone when missing; never a
  // symbolic link or another kind of file (the SDK would refuse it as its data directory).
  if (!platform::ensurePrivateDirectory(dir)) ec = std::make_error_code(std::errc::not_a_directory);
}

int runSend(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  Arguments parsed;
  if (!splitArguments(args, 1,
                      {"--endpoint", "--track-url", "--sandbox-url", "--sync-url", "--ca-file",
                       "--data-dir", "--bundle-id", "--network", "--wait", "--header", "--proxy"},
                      {"--online", "-v", "--verbose"}, parsed, err)) {
    return kUsage;
  }
  if (parsed.positional.size() != 1) return usageError(err, "send needs one SCRIPT");
  const std::string& scriptPath = parsed.positional.front();
  std::optional<std::uint32_t> reachability;
  if (parsed.has("--online")) reachability = kReachable;
  if (auto network = parsed.value("--network")) {
    const auto flags = reachabilityFor(*network);
    if (!flags) return usageError(err, "--network takes wifi, mobile or offline");
    if (reachability && *reachability != *flags) {
      return usageError(err, "--online and --network " + *network + " disagree");
    }
    reachability = flags;
  }
  std::optional<std::chrono::milliseconds> wait;
  if (auto seconds = parsed.value("--wait")) {
    wait = parseWait(*seconds);
    if (!wait) return usageError(err, "--wait takes a number of seconds from 0 to 3600");
  }

  std::string error;
  const auto text = readInput(scriptPath, error);
  if (!text) {
    err << "zelvanor: " << error << "\n";
    return kRuntime;
  }
  const Script script = parseScript(*text);
  if (!script.ok()) {
    for (const auto& e : script.errors) err << scriptPath << ": " << describe(e) << "\n";
    err << "zelvanor: " << script.errors.size() << " faulty line"
        << (script.errors.size() == 1 ? "" : "s") << "; nothing was sent\n";
    return kInvalid;
  }

  // Facts and endpoints first: the SDK reads both when it starts.
  ZPlatformFacts facts;
  facts.bundleIdentifier = parsed.value("--bundle-id").value_or("zelvanor");
  if (auto dir = parsed.value("--data-dir")) {
    std::error_code ec;
    createPrivateDirectory(*dir, ec);
    if (ec) {
      err << "zelvanor: cannot create data directory " << *dir << ": " << ec.message() << "\n";
      return kRuntime;
    }
    facts.dataDirectory = std::filesystem::absolute(*dir, ec).string();
  }
  ZelvanorTracker::setPlatformFacts(facts);

  ZEndpoints endpoints = ZelvanorTracker::endpoints();
  if (auto base = parsed.value("--endpoint")) {
    endpoints.production = endpoints.sandbox = endpoints.identitySync = *base;
  }
  if (auto url = parsed.value("--track-url")) endpoints.production = *url;
  if (auto url = parsed.value("--sandbox-url")) endpoints.sandbox = *url;
  if (auto url = parsed.value("--sync-url")) endpoints.identitySync = *url;
  if (auto ca = parsed.value("--ca-file")) {
    std::string caError;
    if (!readInput(*ca, caError)) {
      err << "zelvanor: " << caError << "\n";
      return kRuntime;
    }
    endpoints.caBundleFile = *ca;
  }
  for (const auto& [name, value] : parsed.ordered) {
    if (name != "--header") continue;
    const auto colon = value.find(':');
    if (colon == std::string::npos) return usageError(err, "--header takes 'Name: value'");
    const auto start = value.find_first_not_of(" \t", colon + 1);
    endpoints.headers.emplace_back(value.substr(0, colon),
                                   start == std::string::npos ? "" : value.substr(start));
  }
  if (auto proxy = parsed.value("--proxy")) endpoints.proxy = *proxy;
  if (endpoints != ZelvanorTracker::endpoints() && !ZelvanorTracker::setEndpoints(endpoints)) {
    return usageError(err,
                      "every endpoint must be an absolute https URL, every --header one the SDK "
                      "does not set itself, and --proxy none or an http, https or socks5 URL");
  }

  const auto dataDirectory = currentPlatformFacts().dataDirectory;
  const std::filesystem::path storeDirectory =
      dataDirectory ? std::filesystem::path(*dataDirectory) : std::filesystem::path();
  const std::size_t pendingBefore = storeDirectory.empty() ? 0 : waitingOnDisk(storeDirectory);

  const bool verbose = parsed.has("-v") || parsed.has("--verbose");
  // The SDK's lines come from its own threads too: one at a time into `err`.
  std::mutex errLock;
  if (verbose) {
    ZelvanorTracker::setDiagnostics(ZLogLevel::info,
                                    [&err, &errLock](ZLogLevel, std::string_view line) {
                                      std::lock_guard lock(errLock);
                                      err << line << "\n";
                                    });
  }
  if (reachability) ZelvanorTracker::setReachabilityFlags(*reachability);
  RunCounts counts;
  for (const auto& step : script.steps) {
    if (verbose) {
      std::lock_guard lock(errLock);
      err << "line " << step.line << ": " << step.name << "\n";
    }
    runStep(step, out, counts);
    out.flush();
  }
  bool allAnswered = true;
  if (wait) {
    const auto deadline = std::chrono::steady_clock::now() + *wait;
    auto left = [&] {
      return std::max(std::chrono::milliseconds(0),
                      std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now()));
    };
    // Events tracked before the triple become records only once it is known.
    const bool ready = ZelvanorTracker::waitUntilReady(left());
    allAnswered = ZelvanorTracker::flushAndWait(left()) && ready;
  }
  const ZCounters outcome = ZelvanorTracker::counters();
  // Anything not delivered by now goes to the pending file.
  ZelvanorTracker::shutdown();
  if (verbose) ZelvanorTracker::setDiagnostics(ZLogLevel::error);
  const std::size_t pendingAfter = storeDirectory.empty() ? 0 : waitingOnDisk(storeDirectory);

  err << "ran " << counts.operations << " operation" << (counts.operations == 1 ? "" : "s") << ": "
      << counts.blocks << " set, " << counts.tracks << " track, " << counts.flushes << " flush\n";
  printOutcome(outcome, err);
  if (wait && !allAnswered) {
    err << "the wait of " << static_cast<double>(wait->count()) / 1000.0
        << " s ended before every record had an answer; the rest are kept\n";
  }
  if (!storeDirectory.empty()) {
    err << "pending records in " << storeDirectory.string() << ": " << pendingBefore
        << " record(s) before the run, " << pendingAfter << " waiting after it\n";
  } else {
    err << "no data directory: the SDK keeps no pending file\n";
  }
  return allAnswered ? kOk : kUnanswered;
}

}  // namespace

std::optional<std::string> readInput(const std::string& path, std::string& error) {
  const bool standardInput = path == "-";
  std::FILE* file = standardInput ? stdin : std::fopen(path.c_str(), "rb");
  if (!file) {
    // strerror shares one buffer between threads; the error category's text does not.
    error = "cannot open " + path + ": " + std::generic_category().message(errno);
    return std::nullopt;
  }
  std::string content;
  char buffer[65536];
  std::size_t got;
  while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) content.append(buffer, got);
  const bool failed = std::ferror(file) != 0;
  if (!standardInput) std::fclose(file);
  if (failed) {
    error = "cannot read " + path;
    return std::nullopt;
  }
  return content;
}

int runCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  if (args.empty()) return usageError(err, "missing command");
  const std::string& command = args.front();
  for (const auto& arg : args) {
    if (arg == "--") break;
    if (arg == "--help" || arg == "-h" || (arg == "help" && &arg == &args.front())) {
      out << kHelpText;
      return kOk;
    }
  }
  if (command == "--version") {
    out << "zelvanor " << kSdkVersion << " (common log version " << kCommonLogVersion << ")\n";
    return kOk;
  }
  if (command == "send") return runSend(args, out, err);
  if (command == "pending") return runPending(args, out, err);
  if (command == "validate") return runValidate(args, out, err);
  return usageError(err, "unknown command '" + command + "'");
}

}  // namespace zelvanor::cli
