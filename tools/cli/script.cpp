#include "script.hpp"

#include <simdjson.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <set>
#include <thread>
#include <utility>

#include "api/block_registry.hpp"
#include "model/codec.hpp"
#include "model/field_tables.hpp"
#include "model/json_parsers.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::cli {

namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;
using simdjson::dom::object;

// Thrown only inside this file, to leave a line's checks at the first fault; parseLine turns it
// into a message.
struct LineFault {
  std::string message;
};

std::string typeName(element_type type) {
  switch (type) {
    case element_type::ARRAY:
      return "an array";
    case element_type::OBJECT:
      return "an object";
    case element_type::INT64:
    case element_type::UINT64:
    case element_type::DOUBLE:
      return "a number";
    case element_type::STRING:
      return "a string";
    case element_type::BOOL:
      return "a boolean";
    case element_type::NULL_VALUE:
      return "null";
  }
  return "an unknown value";
}

// The fields of one op object, checked against what that op takes.
class Fields {
 public:
  Fields(element document, std::string op)
      : document_(document), fields_(document.get_object().value_unsafe()), op_(std::move(op)) {}

  // The op's own fields read as one T with the SDK's codec ("op" is a key T does not know, so it
  // is ignored), its errors worded as the other fields' are.
  template <class T>
  T decoded() const {
    T value{};
    CodecError error;
    if (detail::decodeValue(document_, value, error)) return value;
    const std::string& name = error.path;
    const std::string expected(detail::expectedJsonAt<T>(name));
    element given;
    const bool present = fields_.at_key(name).get(given) == simdjson::SUCCESS;
    if (error.kind == CodecError::Kind::keyNotFound) {
      throw LineFault{"op \"" + op_ + "\" needs field \"" + name + "\" (" + expected + ")"};
    }
    if (present && (error.kind == CodecError::Kind::typeMismatch ||
                    error.kind == CodecError::Kind::valueNotFound)) {
      wrongType(name, expected, given);
    }
    throw LineFault{"field \"" + name + "\" of op \"" + op_ + "\": " + error.detail};
  }

  // Rejects keys the op does not take: a misspelt "timout" must not silently mean the default.
  void allowOnly(std::initializer_list<std::string_view> names) const {
    for (auto [key, value] : fields_) {
      (void)value;
      if (key == "op") continue;
      bool known = false;
      for (auto name : names) known = known || key == name;
      if (!known) {
        throw LineFault{"unknown field \"" + std::string(key) + "\" for op \"" + op_ + "\""};
      }
    }
  }

  element required(std::string_view name, std::string_view expected) const {
    element value;
    if (fields_.at_key(name).get(value) != simdjson::SUCCESS) {
      throw LineFault{"op \"" + op_ + "\" needs field \"" + std::string(name) + "\" (" +
                      std::string(expected) + ")"};
    }
    return value;
  }

  [[noreturn]] void wrongType(std::string_view name, std::string_view expected,
                              element value) const {
    throw LineFault{"field \"" + std::string(name) + "\" of op \"" + op_ + "\" must be " +
                    std::string(expected) + ", not " + typeName(value.type())};
  }

  bool boolean(std::string_view name) const {
    const element value = required(name, "a boolean");
    if (!value.is_bool()) wrongType(name, "a boolean", value);
    return value.get_bool().value_unsafe();
  }

  double number(std::string_view name) const {
    const element value = required(name, "a number");
    if (!value.is_number()) wrongType(name, "a number", value);
    return value.get_double().value_unsafe();
  }

  std::uint64_t count(std::string_view name) const {
    const element value = required(name, "a non-negative integer");
    if (value.is_uint64()) return value.get_uint64().value_unsafe();
    if (value.is_int64()) {
      throw LineFault{"field \"" + std::string(name) + "\" of op \"" + op_ +
                      "\" must not be negative"};
    }
    if (value.is_number()) {
      throw LineFault{"field \"" + std::string(name) + "\" of op \"" + op_ +
                      "\" must be a whole number"};
    }
    wrongType(name, "a non-negative integer", value);
  }

  std::string_view text(std::string_view name) const {
    const element value = required(name, "a string");
    if (!value.is_string()) wrongType(name, "a string", value);
    return value.get_string().value_unsafe();
  }

 private:
  element document_;
  object fields_;
  std::string op_;
};

// A block that does not decode, worded for the script: the key path starts at the op's "value".
std::string blockFault(const detail::BlockEntry& entry, element value, const CodecError& error) {
  const std::string block(entry.name);
  if (entry.shape != detail::BlockShape::object && error.path.empty() &&
      error.kind == CodecError::Kind::typeMismatch) {
    return "block \"" + block + "\" takes " +
           (entry.shape == detail::BlockShape::list ? "an array" : "a string") + ", not " +
           typeName(value.type());
  }
  std::string path = "value";
  if (!error.path.empty()) path += (error.path.front() == '[' ? "" : ".") + error.path;
  std::string message =
      "block \"" + block + "\" does not decode: " + toString(error.kind) + " at " + path;
  if (!error.detail.empty()) message += ": " + error.detail;
  return message;
}

// The block is decoded from the line's own parsed value, with the SDK's decoder, so the script
// accepts exactly what the C API and a record would.
op::Set setOp(const Fields& f) {
  f.allowOnly({"block", "value"});
  const std::string_view name = f.text("block");
  const detail::BlockEntry* entry = detail::findBlock(name);
  if (!entry) {
    throw LineFault{"unknown block \"" + std::string(name) + "\" (known: " + detail::blockNames() +
                    ")"};
  }
  if (entry->scope == detail::BlockScope::sdkOnly) {
    throw LineFault{"block \"" + std::string(name) +
                    "\" cannot be set: " + std::string(detail::kSdkOnlyReason)};
  }
  const element value = f.required("value", "a block");
  auto decoded = detail::decodeBlock(*entry, value);
  if (!decoded) throw LineFault{blockFault(*entry, value, decoded.error())};
  return op::Set{std::string(name), std::move(decoded).value()};
}

using OpParser = std::function<Operation(const Fields&)>;

template <class T>
OpParser bare() {
  return [](const Fields& fields) -> Operation {
    fields.allowOnly({});
    return T{};
  };
}

const std::map<std::string, OpParser, std::less<>>& opParsers() {
  static const std::map<std::string, OpParser, std::less<>> parsers = {
      {"setRequired",
       [](const Fields& f) -> Operation {
         f.allowOnly({"timeout", "batchSize", "usingSandboxEnvironment"});
         return op::SetRequired{f.decoded<ZConfiguration>()};
       }},
      {"set", [](const Fields& f) -> Operation { return setOp(f); }},
      {"track",
       [](const Fields& f) -> Operation {
         f.allowOnly({"verbose", "disabled"});
         return op::Track{f.boolean("verbose"), f.boolean("disabled")};
       }},
      {"flush", bare<op::Flush>()},
      {"getData", bare<op::GetData>()},
      {"setBatchSize",
       [](const Fields& f) -> Operation {
         f.allowOnly({"value"});
         return op::SetBatchSize{f.count("value")};
       }},
      {"setTimeout",
       [](const Fields& f) -> Operation {
         f.allowOnly({"value"});
         return op::SetTimeout{f.number("value")};
       }},
      {"setDevelopment", bare<op::SetDevelopment>()},
      {"setProduction", bare<op::SetProduction>()},
      {"useSandboxEnvironment", bare<op::UseSandboxEnvironment>()},
      {"useGeneralEnvrionment", bare<op::UseGeneralEnvrionment>()},
      {"turnOnConsoleLogs", bare<op::TurnOnConsoleLogs>()},
      {"turnOffConsoleLogs", bare<op::TurnOffConsoleLogs>()},
      {"post",
       [](const Fields& f) -> Operation {
         f.allowOnly({"event"});
         const std::string_view event = f.text("event");
         if (event == "willTerminate") return op::Post{ZLifecycleEvent::willTerminate};
         if (event == "willResignActive") return op::Post{ZLifecycleEvent::willResignActive};
         if (event == "willEnterForeground") return op::Post{ZLifecycleEvent::willEnterForeground};
         throw LineFault{"unknown lifecycle event \"" + std::string(event) +
                         "\" (known: willTerminate, willResignActive, willEnterForeground)"};
       }},
      {"sleep",
       [](const Fields& f) -> Operation {
         f.allowOnly({"ms"});
         const std::uint64_t ms = f.count("ms");
         if (ms > kMaxSleepMs) {
           throw LineFault{"field \"ms\" of op \"sleep\" is above the limit of " +
                           std::to_string(kMaxSleepMs)};
         }
         return op::Sleep{ms};
       }},
      {"setCollectionEnabled",
       [](const Fields& f) -> Operation {
         f.allowOnly({"value"});
         return op::SetCollectionEnabled{f.boolean("value")};
       }},
      {"deleteLocalData", bare<op::DeleteLocalData>()},
  };
  return parsers;
}

bool skipped(std::string_view line) {
  const auto first = line.find_first_not_of(" \t\r");
  return first == std::string_view::npos || line[first] == '#';
}

}  // namespace

bool parseLine(std::string_view line, ScriptStep& step, std::string& error) {
  // A borrowed parser: its buffers are reused line after line.
  zelvanor::detail::BorrowedParser parser;
  element document;
  if (const auto code = parser.get().parse(line.data(), line.size()).get(document); code) {
    error = std::string("not valid JSON: ") + simdjson::error_message(code);
    return false;
  }
  if (!document.is_object()) {
    error = "expected a JSON object, not " + typeName(document.type());
    return false;
  }
  element name;
  if (document.get_object().value_unsafe().at_key("op").get(name) != simdjson::SUCCESS) {
    error = "missing field \"op\"";
    return false;
  }
  if (!name.is_string()) {
    error = "field \"op\" must be a string, not " + typeName(name.type());
    return false;
  }
  const std::string_view opName = name.get_string().value_unsafe();
  const auto parser_for = opParsers().find(opName);
  if (parser_for == opParsers().end()) {
    error = "unknown op \"" + std::string(opName) + "\"";
    return false;
  }
  try {
    step.name = std::string(opName);
    step.operation = parser_for->second(Fields(document, step.name));
    return true;
  } catch (const LineFault& fault) {
    error = fault.message;
    return false;
  }
}

Script parseScript(std::string_view text) {
  Script script;
  std::size_t lineNumber = 0;
  while (!text.empty()) {
    ++lineNumber;
    const auto end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (skipped(line)) continue;
    ScriptStep step;
    std::string error;
    if (parseLine(line, step, error)) {
      step.line = lineNumber;
      script.steps.push_back(std::move(step));
    } else {
      script.errors.push_back({lineNumber, std::move(error)});
    }
  }
  return script;
}

std::string describe(const ScriptError& error) {
  return "line " + std::to_string(error.line) + ": " + error.message;
}

namespace {

struct StepRunner {
  std::ostream& out;
  RunCounts& counts;

  void operator()(const op::SetRequired& o) const { ZelvanorTracker::setRequired(o.configuration); }
  void operator()(const op::Set& o) const {
    ++counts.blocks;
    detail::setOnTracker(o.value);
  }
  void operator()(const op::Track& o) const {
    ++counts.tracks;
    ZelvanorTracker::track(o.verbose, o.disabled);
  }
  void operator()(const op::Flush&) const {
    ++counts.flushes;
    ZelvanorTracker::flush();
  }
  void operator()(const op::GetData&) const { out << ZelvanorTracker::getData() << '\n'; }
  void operator()(const op::SetBatchSize& o) const { ZelvanorTracker::setBatchSize(o.value); }
  void operator()(const op::SetTimeout& o) const { ZelvanorTracker::setTimeout(o.value); }
  void operator()(const op::SetDevelopment&) const { ZelvanorTracker::setDevelopment(); }
  void operator()(const op::SetProduction&) const { ZelvanorTracker::setProduction(); }
  void operator()(const op::UseSandboxEnvironment&) const {
    ZelvanorTracker::useSandboxEnvironment();
  }
  void operator()(const op::UseGeneralEnvrionment&) const {
    ZelvanorTracker::useGeneralEnvrionment();
  }
  void operator()(const op::TurnOnConsoleLogs&) const { ZelvanorTracker::turnOnConsoleLogs(); }
  void operator()(const op::TurnOffConsoleLogs&) const { ZelvanorTracker::turnOffConsoleLogs(); }
  void operator()(const op::Post& o) const { ZelvanorTracker::post(o.event); }
  void operator()(const op::SetCollectionEnabled& o) const {
    ZelvanorTracker::setCollectionEnabled(o.value);
  }
  void operator()(const op::DeleteLocalData&) const { ZelvanorTracker::deleteLocalData(); }
  void operator()(const op::Sleep& o) const {
    std::this_thread::sleep_for(std::chrono::milliseconds(o.ms));
  }
};

}  // namespace

void runStep(const ScriptStep& step, std::ostream& out, RunCounts& counts) {
  ++counts.operations;
  std::visit(StepRunner{out, counts}, step.operation);
}

}  // namespace zelvanor::cli
