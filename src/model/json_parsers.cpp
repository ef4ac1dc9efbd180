#include "model/json_parsers.hpp"

#include <array>
#include <atomic>
#include <cstddef>

namespace zelvanor::detail {

struct alignas(64) BorrowedParser::Slot {
  std::atomic<bool> busy{false};
  // Made by the first thread that takes the slot; only the holder of `busy` touches it.
  simdjson::dom::parser* parser = nullptr;
};

namespace {

// More slots than the SDK has threads plus a few host threads decoding at once.
constexpr std::size_t kSlots = 16;

std::array<BorrowedParser::Slot, kSlots>& slots() {
  // Never destroyed: a thread may still be decoding while static destructors run at exit.
  static auto* all = new std::array<BorrowedParser::Slot, kSlots>();
  return *all;
}

std::atomic<unsigned> nextHint{0};
// This thread's first slot, plus one (0: not chosen yet). A plain integer: nothing to destroy.
thread_local unsigned hintPlusOne = 0;

}  // namespace

BorrowedParser::BorrowedParser() {
  if (hintPlusOne == 0) hintPlusOne = nextHint.fetch_add(1, std::memory_order_relaxed) % kSlots + 1;
  auto& all = slots();
  const std::size_t first = hintPlusOne - 1;
  for (std::size_t i = 0; i < kSlots; ++i) {
    Slot& slot = all[(first + i) % kSlots];
    if (slot.busy.load(std::memory_order_relaxed) ||
        slot.busy.exchange(true, std::memory_order_acquire)) {
      continue;
    }
    if (!slot.parser) {
      try {
        slot.parser = new simdjson::dom::parser();
      } catch (...) {
        slot.busy.store(false, std::memory_order_release);
        throw;
      }
    }
    slot_ = &slot;
    parser_ = slot.parser;
    return;
  }
  own_ = std::make_unique<simdjson::dom::parser>();
  parser_ = own_.get();
}

BorrowedParser::~BorrowedParser() {
  if (slot_) slot_->busy.store(false, std::memory_order_release);
}

}  // namespace zelvanor::detail
