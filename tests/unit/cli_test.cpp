// The zelvanor tool's script reader, pending-file inspector and commands, driven in-process.
// (Running scripts against a collector is tests/integration/cli_binary_test.cpp.)
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "cli.hpp"
#include "pending.hpp"
#include "queue/logs_file_manager.hpp"
#include "script.hpp"
#include "support/temp_dir.hpp"

namespace zelvanor::cli {
namespace {

namespace fs = std::filesystem;

const fs::path kData = fs::path(ZELVANOR_TEST_DATA_DIR);

std::string slurp(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

template <class T>
const T& as(const ScriptStep& step) {
  const T* value = std::get_if<T>(&step.operation);
  if (!value) throw std::runtime_error("line " + std::to_string(step.line) + " is " + step.name);
  return *value;
}

template <class T>
const T& block(const ScriptStep& step) {
  const T* value = std::get_if<T>(&as<op::Set>(step).value);
  if (!value) throw std::runtime_error("line " + std::to_string(step.line) + ": other block");
  return *value;
}

// ----- script ---------------------------------------------------------------------------------

TEST(CliScript, EveryOpAndEveryBlockIsReadWithItsValues) {
  const Script script = parseScript(
      "# a session\n"
      "{\"op\":\"setRequired\",\"timeout\":10,\"batchSize\":3,\"usingSandboxEnvironment\":true}\n"
      "\n"
      "{\"op\":\"setTimeout\",\"value\":2.5}\r\n"
      "{\"op\":\"setBatchSize\",\"value\":0}\n"
      "{\"op\":\"setDevelopment\"}\n"
      "{\"op\":\"setProduction\"}\n"
      "{\"op\":\"useSandboxEnvironment\"}\n"
      "{\"op\":\"useGeneralEnvrionment\"}\n"
      "{\"op\":\"turnOnConsoleLogs\"}\n"
      "{\"op\":\"turnOffConsoleLogs\"}\n"
      "{\"op\":\"post\",\"event\":\"willResignActive\"}\n"
      "{\"op\":\"post\",\"event\":\"willEnterForeground\"}\n"
      "{\"op\":\"post\",\"event\":\"willTerminate\"}\n"
      "{\"op\":\"sleep\",\"ms\":100}\n"
      R"({"op":"set","block":"common","value":{"service_name":"shop","deployment":"prod","access_timestamp":1700000000}})"
      "\n"
      R"({"op":"set","block":"agent","value":{"carrier":"acme"}})"
      "\n"
      R"({"op":"set","block":"id","value":{"app_user_id":"u1","webid_enabled":true}})"
      "\n"
      R"({"op":"set","block":"agreement","value":{"cookie_agree":false}})"
      "\n"
      R"({"op":"set","block":"click","value":{"layer1":"top","posx":4}})"
      "\n"
      R"({"op":"set","block":"location","value":{"latitude":37.5,"logitude":127.0}})"
      "\n"
      R"({"op":"set","block":"page","value":{"id":"p1","name":"home","title":"Home"}})"
      "\n"
      R"({"op":"set","block":"promotion","value":{"name":"spring"}})"
      "\n"
      R"({"op":"set","block":"status","value":{"code":404,"msg":"gone"}})"
      "\n"
      R"({"op":"set","block":"usage","value":{"duration":12}})"
      "\n"
      R"({"op":"set","block":"action","value":{"type":"page_view","name":"home","kind":"view"}})"
      "\n"
      R"({"op":"set","block":"domain","value":{"purchase":{"price":9.5,"quantity":2}}})"
      "\n"
      R"({"op":"set","block":"utm","value":{"utm_source":"mail"}})"
      "\n"
      R"({"op":"set","block":"bucket","value":{"name":"b0"}})"
      "\n"
      R"({"op":"set","block":"buckets","value":[{"name":"b1"},{"name":"b2"}]})"
      "\n"
      R"({"op":"set","block":"viewImpressionContent","value":{"id":"v0"}})"
      "\n"
      R"({"op":"set","block":"viewImpressionContents","value":[]})"
      "\n"
      R"({"op":"set","block":"free","value":"anything"})"
      "\n"
      "{\"op\":\"track\",\"verbose\":true,\"disabled\":false}\n"
      "{\"op\":\"flush\"}\n"
      "{\"op\":\"getData\"}");
  for (const auto& e : script.errors) ADD_FAILURE() << describe(e);
  ASSERT_EQ(script.steps.size(), 34u);

  EXPECT_EQ(as<op::SetRequired>(script.steps[0]).configuration, (ZConfiguration{10, 3, true}));
  EXPECT_EQ(script.steps[0].line, 2u);
  EXPECT_EQ(script.steps[1].line, 4u) << "blank and comment lines still count";
  EXPECT_EQ(as<op::SetTimeout>(script.steps[1]).value, 2.5);
  EXPECT_EQ(as<op::SetBatchSize>(script.steps[2]).value, 0u);
  as<op::SetDevelopment>(script.steps[3]);
  as<op::SetProduction>(script.steps[4]);
  as<op::UseSandboxEnvironment>(script.steps[5]);
  as<op::UseGeneralEnvrionment>(script.steps[6]);
  as<op::TurnOnConsoleLogs>(script.steps[7]);
  as<op::TurnOffConsoleLogs>(script.steps[8]);
  EXPECT_EQ(as<op::Post>(script.steps[9]).event, ZLifecycleEvent::willResignActive);
  EXPECT_EQ(as<op::Post>(script.steps[10]).event, ZLifecycleEvent::willEnterForeground);
  EXPECT_EQ(as<op::Post>(script.steps[11]).event, ZLifecycleEvent::willTerminate);
  EXPECT_EQ(as<op::Sleep>(script.steps[12]).ms, 100u);

  const ZCommon& common = block<ZCommon>(script.steps[13]);
  EXPECT_EQ(common.serviceName, "shop");
  EXPECT_EQ(common.deployment, "prod");
  EXPECT_TRUE(common.accessTime.has_value()) << "derived from access_timestamp, as a host's is";
  EXPECT_TRUE(common.svcDomain.has_value()) << "falls back to the bundle identifier";
  EXPECT_EQ(block<ZAgent>(script.steps[14]).carrier, "acme");
  EXPECT_EQ(block<ZId>(script.steps[15]).appUserId, "u1");
  EXPECT_EQ(block<ZAgreement>(script.steps[16]).cookieAgree, false);
  EXPECT_EQ(block<ZClick>(script.steps[17]).posX, 4);
  EXPECT_EQ(block<ZLocation>(script.steps[18]).logitude, 127.0);
  EXPECT_EQ(block<ZPage>(script.steps[19]), (ZPage{.id = "p1", .name = "home", .title = "Home"}));
  EXPECT_EQ(block<ZPromotion>(script.steps[20]).name, "spring");
  EXPECT_EQ(block<ZStatus>(script.steps[21]).message, "gone");
  EXPECT_EQ(block<ZUsage>(script.steps[22]).duration, 12);
  EXPECT_EQ(block<ZAction>(script.steps[23]), ZAction("page_view", "home", "view"));
  EXPECT_EQ(block<ZDomain>(script.steps[24]).purchase->price, 9.5f);
  EXPECT_EQ(block<ZUtm>(script.steps[25]).utmSource, "mail");
  EXPECT_EQ(block<ZBucket>(script.steps[26]).name, "b0");
  const auto& buckets = block<std::vector<ZBucket>>(script.steps[27]);
  ASSERT_EQ(buckets.size(), 2u);
  EXPECT_EQ(buckets[1].name, "b2");
  EXPECT_EQ(block<ZViewImpressionContent>(script.steps[28]).id, "v0");
  EXPECT_TRUE(block<std::vector<ZViewImpressionContent>>(script.steps[29]).empty());
  EXPECT_EQ(block<std::string>(script.steps[30]), "anything");
  EXPECT_EQ(as<op::Track>(script.steps[31]).verbose, true);
  EXPECT_EQ(as<op::Track>(script.steps[31]).disabled, false);
  as<op::Flush>(script.steps[32]);
  as<op::GetData>(script.steps[33]);
  EXPECT_EQ(script.steps[33].line, 36u) << "a last line without a newline is read too";
}

TEST(CliScript, TheShippedExampleIsValid) {
  std::ifstream in(fs::path(ZELVANOR_SOURCE_DIR) / "tools" / "cli" / "example.jsonl");
  const Script script = parseScript(std::string(std::istreambuf_iterator<char>(in), {}));
  for (const auto& e : script.errors) ADD_FAILURE() << describe(e);
  EXPECT_EQ(script.steps.size(), 15u);
}

TEST(CliScript, ACommonBlockKeepsAnAccessTimeItIsGiven) {
  const Script script = parseScript(
      R"({"op":"set","block":"common","value":{"service_name":"s","deployment":"d","svcdomain":"example.org","access_timestamp":1,"access_time":"given"}})");
  ASSERT_TRUE(script.ok());
  const ZCommon& common = block<ZCommon>(script.steps[0]);
  EXPECT_EQ(common.accessTime, "given");
  EXPECT_EQ(common.svcDomain, "example.org");
}

TEST(CliScript, EveryKindOfFaultIsReportedWithItsLineAndNothingElseIsLost) {
  struct Case {
    std::string line;
    std::string expected;  // a part of the message
  };
  const std::vector<Case> cases = {
      {"not json", "not valid JSON"},
      {R"({"op":"flush")", "not valid JSON"},
      {"[1,2]", "expected a JSON object, not an array"},
      {R"({"value":1})", "missing field \"op\""},
      {R"({"op":7})", "field \"op\" must be a string, not a number"},
      {R"({"op":"Flush"})", "unknown op \"Flush\""},
      {R"({"op":"flush","now":true})", "unknown field \"now\" for op \"flush\""},
      {R"({"op":"setRequired","timout":10,"batchSize":3,"usingSandboxEnvironment":false})",
       "unknown field \"timout\""},
      {R"({"op":"setRequired","batchSize":3,"usingSandboxEnvironment":false})",
       "op \"setRequired\" needs field \"timeout\" (a number)"},
      {R"({"op":"track","verbose":false})", "op \"track\" needs field \"disabled\" (a boolean)"},
      {R"({"op":"track","verbose":"no","disabled":false})",
       "field \"verbose\" of op \"track\" must be a boolean, not a string"},
      {R"({"op":"setTimeout","value":"5"})", "must be a number, not a string"},
      {R"({"op":"setBatchSize","value":-1})", "must not be negative"},
      {R"({"op":"setBatchSize","value":2.5})", "must be a whole number"},
      {R"({"op":"sleep","ms":600001})", "above the limit of 600000"},
      {R"({"op":"post","event":"didBecomeActive"})", "unknown lifecycle event \"didBecomeActive\""},
      {R"({"op":"set","value":{}})", "op \"set\" needs field \"block\" (a string)"},
      {R"({"op":"set","block":"page"})", "op \"set\" needs field \"value\""},
      {R"({"op":"set","block":"Page","value":{}})", "unknown block \"Page\""},
      {R"({"op":"set","block":"app","value":{}})", "block \"app\" cannot be set"},
      {R"({"op":"set","block":"page","value":{"id":"p","name":"n"}})",
       "block \"page\" does not decode: key not found at value.title"},
      {R"({"op":"set","block":"page","value":{"id":"p","name":"n","title":null}})",
       "value not found at value.title"},
      {R"({"op":"set","block":"domain","value":{"purchase":{"price":"cheap"}}})",
       "type mismatch at value.purchase.price"},
      {R"({"op":"set","block":"buckets","value":[{"name":"a"},{"name":1}]})",
       "type mismatch at value[1].name"},
      {R"({"op":"set","block":"buckets","value":{"name":"a"}})",
       "block \"buckets\" takes an array, not an object"},
      {R"({"op":"set","block":"page","value":[]})", "block \"page\" does not decode"},
      {R"({"op":"set","block":"free","value":1})", "block \"free\" takes a string, not a number"},
  };
  std::string text = "{\"op\":\"flush\"}\n";
  for (const auto& c : cases) text += c.line + "\n";
  text += "{\"op\":\"getData\"}\n";

  const Script script = parseScript(text);
  EXPECT_FALSE(script.ok());
  ASSERT_EQ(script.errors.size(), cases.size()) << "every faulty line is reported, not just one";
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const ScriptError& error = script.errors[i];
    EXPECT_EQ(error.line, i + 2) << cases[i].line;
    EXPECT_NE(error.message.find(cases[i].expected), std::string::npos)
        << cases[i].line << "\n  gave: " << error.message;
    EXPECT_EQ(describe(error).rfind("line " + std::to_string(i + 2) + ": ", 0), 0u);
  }
  ASSERT_EQ(script.steps.size(), 2u);
  EXPECT_EQ(script.steps[1].line, cases.size() + 2);
}

// ----- pending show ---------------------------------------------------------------------------

// The inspector must agree with what the SDK itself makes of a file at its next start.
TEST(CliPending, FixturesAreSplitAsTheSdkReadsThem) {
  struct Case {
    std::string file;
    std::size_t frames;
    std::size_t undecodable;
    PendingEnd::Kind end;
  };
  const std::vector<Case> cases = {
      {"pending_good.bin", 3, 0, PendingEnd::Kind::clean},
      {"pending_undecodable.bin", 3, 1, PendingEnd::Kind::clean},
      {"pending_torn.bin", 2, 0, PendingEnd::Kind::tornPayload},
      {"pending_torn_length.bin", 1, 0, PendingEnd::Kind::tornLength},
      {"pending_negative.bin", 1, 0, PendingEnd::Kind::negativeLength},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    const std::string content = slurp(kData / "cli" / c.file);
    const PendingReport report = inspectPending(content);
    EXPECT_EQ(report.size, content.size());
    EXPECT_EQ(report.frames.size(), c.frames);
    EXPECT_EQ(report.undecodable(), c.undecodable);
    EXPECT_EQ(report.end.kind, c.end);
    // Frames tile the file from offset 0 with no gaps.
    std::uint64_t offset = 0;
    for (const auto& frame : report.frames) {
      EXPECT_EQ(frame.offset, offset);
      EXPECT_EQ(frame.payload.size(), static_cast<std::size_t>(frame.length));
      EXPECT_EQ(frame.payload.data(), content.data() + offset + 8);
      offset += 8 + static_cast<std::uint64_t>(frame.length);
    }
    EXPECT_EQ(report.end.offset, offset);

    testing::TempDir dir;
    const fs::path copy = dir.path() / "ZLogs.tmp";
    fs::copy_file(kData / "cli" / c.file, copy);
    const auto restored = detail::ZLogsFileManager::readRecords(copy);
    EXPECT_EQ(restored.size(), report.restorable());
    EXPECT_EQ(!fs::exists(copy), report.wouldRemove());
  }
}

TEST(CliPending, FrameDetailsAndEndsAreNamed) {
  const std::string good = slurp(kData / "cli" / "pending_good.bin");
  const PendingReport report = inspectPending(good);
  ASSERT_EQ(report.frames.size(), 3u);
  EXPECT_EQ(report.frames[0].payload, slurp(kData / "pending" / "minimal.json").substr(0, 184));
  EXPECT_EQ(report.frames[1].offset, 192u);

  const PendingReport bad = inspectPending(slurp(kData / "cli" / "pending_undecodable.bin"));
  ASSERT_TRUE(bad.frames[1].error.has_value());
  EXPECT_EQ(bad.frames[1].error->path, "sdk.type");
  EXPECT_FALSE(bad.frames[0].error.has_value());
  EXPECT_FALSE(bad.frames[2].error.has_value()) << "frames after a bad one are still shown";

  const PendingReport torn = inspectPending(slurp(kData / "cli" / "pending_torn.bin"));
  EXPECT_EQ(torn.end.available, 40u);
  EXPECT_EQ(describe(torn.end), "torn at offset 471: length 220 but only 40 bytes follow");
  const PendingReport negative = inspectPending(slurp(kData / "cli" / "pending_negative.bin"));
  EXPECT_EQ(negative.end.length, -5);
  EXPECT_EQ(describe(inspectPending(slurp(kData / "cli" / "pending_torn_length.bin")).end),
            "torn at offset 192: the length field has only 3 of 8 bytes");

  const PendingReport empty = inspectPending("");
  EXPECT_TRUE(empty.frames.empty());
  EXPECT_EQ(empty.end.kind, PendingEnd::Kind::clean);
  EXPECT_FALSE(empty.wouldRemove());
}

struct CliRun {
  int code;
  std::string out;
  std::string err;
};

CliRun run(const std::vector<std::string>& args) {
  std::ostringstream out, err;
  const int code = runCli(args, out, err);
  return {code, out.str(), err.str()};
}

TEST(CliPending, ShowPrintsEveryFrameAndNeverChangesTheFile) {
  testing::TempDir dir;
  for (const std::string name :
       {"pending_good.bin", "pending_undecodable.bin", "pending_torn.bin"}) {
    SCOPED_TRACE(name);
    const fs::path file = dir.path() / name;
    fs::copy_file(kData / "cli" / name, file);
    // An old stamp, so that any write would show.
    const auto stamp = fs::file_time_type::clock::now() - std::chrono::hours(1);
    fs::last_write_time(file, stamp);
    const std::string before = slurp(file);

    const CliRun result = run({"pending", "show", file.string()});
    EXPECT_EQ(slurp(file), before);
    EXPECT_EQ(fs::last_write_time(file), stamp);
    const PendingReport report = inspectPending(before);
    EXPECT_EQ(result.code, name == "pending_good.bin" ? kOk : kInvalid) << result.err;
    for (std::size_t i = 0; i < report.frames.size(); ++i) {
      const auto& f = report.frames[i];
      const std::string head = "frame " + std::to_string(i) + " offset " +
                               std::to_string(f.offset) + " length " + std::to_string(f.length);
      EXPECT_NE(result.out.find(head + (f.error ? " undecodable: " : " record ")),
                std::string::npos)
          << head << "\n"
          << result.out;
      if (!f.error) {
        EXPECT_NE(result.out.find(std::string(f.payload)), std::string::npos);
      }
    }
  }
  const CliRun torn = run({"pending", "show", (dir.path() / "pending_torn.bin").string()});
  EXPECT_NE(torn.out.find("end: torn at offset 471"), std::string::npos) << torn.out;
  EXPECT_NE(torn.err.find("restore 2 records"), std::string::npos) << torn.err;
  const CliRun bad = run({"pending", "show", (dir.path() / "pending_undecodable.bin").string()});
  EXPECT_NE(bad.out.find("undecodable: data corrupted at sdk.type"), std::string::npos);
  EXPECT_NE(bad.err.find("restore nothing and keep the file"), std::string::npos);

  const CliRun pretty =
      run({"pending", "show", "--pretty", (dir.path() / "pending_good.bin").string()});
  EXPECT_EQ(pretty.code, kOk);
  EXPECT_NE(pretty.out.find("\n  \"xid\": {"), std::string::npos) << pretty.out;

  EXPECT_EQ(run({"pending", "show", (dir.path() / "missing").string()}).code, kRuntime);
  EXPECT_FALSE(fs::exists(dir.path() / "missing")) << "nothing is created";
}

// ----- validate and the command line ----------------------------------------------------------

TEST(CliValidate, NamesTheKindAndKeyPathOfEachFault) {
  const CliRun good = run({"validate", (kData / "pending" / "minimal.json").string(),
                           (kData / "pending" / "full.json").string()});
  EXPECT_EQ(good.code, kOk) << good.out << good.err;
  EXPECT_NE(good.out.find("full.json: valid"), std::string::npos);

  const std::vector<std::pair<std::string, std::string>> bad = {
      {"pending/missing_action.json", "invalid: key not found at action"},
      {"cli/record_wrong_type.json", "invalid: type mismatch at domain.purchase.quantity"},
      {"cli/record_null_required.json", "invalid: value not found at xid.did"},
      {"cli/record_not_json.json", "invalid: data corrupted at (document)"},
  };
  for (const auto& [file, expected] : bad) {
    const CliRun result = run({"validate", (kData / file).string()});
    EXPECT_EQ(result.code, kInvalid) << file;
    EXPECT_NE(result.out.find(expected), std::string::npos) << result.out;
  }
  const CliRun mixed = run({"validate", (kData / "pending" / "minimal.json").string(),
                            (kData / "cli" / "record_wrong_type.json").string()});
  EXPECT_EQ(mixed.code, kInvalid) << "one invalid file fails the run";
  EXPECT_NE(mixed.err.find("1 of 2 files valid"), std::string::npos);
  EXPECT_EQ(run({"validate", (kData / "nope.json").string()}).code, kRuntime);
}

TEST(CliCommandLine, UsageErrorsHelpAndTheScriptCheckBeforeAnySetup) {
  const CliRun help = run({"--help"});
  EXPECT_EQ(help.code, kOk);
  for (const char* text : {"zelvanor send", "pending show", "validate", "Exit codes",
                           "useGeneralEnvrionment", "--ca-file", "--data-dir"}) {
    EXPECT_NE(help.out.find(text), std::string::npos) << text;
  }
  EXPECT_EQ(run({"send", "--help"}).out, help.out);

  EXPECT_EQ(run({}).code, kUsage);
  EXPECT_EQ(run({"sned", "x"}).code, kUsage);
  EXPECT_EQ(run({"send"}).code, kUsage);
  EXPECT_EQ(run({"send", "a", "b"}).code, kUsage);
  EXPECT_EQ(run({"send", "--track-url"}).code, kUsage);
  const CliRun unknown = run({"send", "--fast", "x"});
  EXPECT_EQ(unknown.code, kUsage);
  EXPECT_NE(unknown.err.find("unknown option --fast"), std::string::npos);
  EXPECT_EQ(run({"pending", "list", "f"}).code, kUsage);
  EXPECT_EQ(run({"pending", "show"}).code, kUsage);
  EXPECT_EQ(run({"validate"}).code, kUsage);
  EXPECT_EQ(run({"send", "/nonexistent/script.jsonl"}).code, kRuntime);

  testing::TempDir dir;
  const fs::path script = dir.path() / "s.jsonl";
  std::ofstream(script) << "{\"op\":\"flush\"}\n{\"op\":\"flush\",\"x\":1}\n{\"op\":\"track\"}\n";
  const CliRun faulty =
      run({"send", "--data-dir", (dir.path() / "data").string(), script.string()});
  EXPECT_EQ(faulty.code, kInvalid);
  EXPECT_NE(faulty.err.find("s.jsonl: line 2: unknown field \"x\""), std::string::npos);
  EXPECT_NE(faulty.err.find("s.jsonl: line 3: op \"track\" needs field \"verbose\""),
            std::string::npos);
  EXPECT_NE(faulty.err.find("nothing was sent"), std::string::npos);
  EXPECT_FALSE(fs::exists(dir.path() / "data")) << "checked before the SDK is set up";
}

}  // namespace
}  // namespace zelvanor::cli
