// simdjson parsers shared by every thread that decodes JSON, without a thread_local that has a
// destructor: MinGW runs thread-local destructors after the thread's storage is freed, so a
// thread_local parser or vector crashes threads (and the process) at exit on Windows.
#pragma once

#include <simdjson.h>

#include <memory>

#include "zelvanor/export.hpp"

namespace zelvanor::detail {

/// One parser for as long as this lives. Parsers are kept in a small process-wide set of slots
/// and each thread starts looking at a slot of its own, so a thread nearly always gets back the
/// parser (and the buffers) it had the last time, at the cost of one uncontended atomic exchange.
/// When every slot is taken, a parser is made for this one use.
class ZELVANOR_API BorrowedParser {
 public:
  struct Slot;

  BorrowedParser();
  ~BorrowedParser();
  BorrowedParser(const BorrowedParser&) = delete;
  BorrowedParser& operator=(const BorrowedParser&) = delete;

  simdjson::dom::parser& get() noexcept { return *parser_; }

 private:
  Slot* slot_ = nullptr;
  std::unique_ptr<simdjson::dom::parser> own_;
  simdjson::dom::parser* parser_ = nullptr;
};

}  // namespace zelvanor::detail
