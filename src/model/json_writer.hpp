// A small JSON writer: exact shortest numbers via std::to_chars, no DOM, one output buffer.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zelvanor::detail {

class JsonWriter {
 public:
  JsonWriter(std::string& out, bool pretty) : out_(out), pretty_(pretty) {}

  void beginObject() { open('{'); }
  void endObject() { close('}'); }
  void beginArray() { open('['); }
  void endArray() { close(']'); }
  /// Starts a member; keys are the SDK's own constants and need no escaping.
  void key(std::string_view key);
  /// Starts an array element.
  void element() { separate(); }

  /// False when the text is not valid UTF-8 (JSON cannot carry it).
  bool string(std::string_view text);
  void integer(std::int64_t value);
  /// False for NaN and infinities.
  bool number(double value);
  bool number(float value);
  void boolean(bool value) { out_.append(value ? "true" : "false"); }

 private:
  void open(char bracket);
  void close(char bracket);
  void separate();
  void newline();

  std::string& out_;
  bool pretty_;
  int depth_ = 0;
  // Bit d set: the container at depth d has no member yet. Our types nest far less than 64 deep.
  std::uint64_t empty_ = 0;
};

}  // namespace zelvanor::detail
