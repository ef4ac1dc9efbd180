// Arbitrary bytes as what a crash or a foreign writer left in the store's directory: the cursor,
// one segment and "ZLogs.tmp". Layout: one byte giving the cursor's length, the cursor, one byte
// giving where the rest is cut, the segment, then "ZLogs.tmp". A start must take it over without
// failing, hand out each record at most once per start, and once every record handed out is
// answered, a later start must find nothing left to send.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "store/pending_store.hpp"

namespace {

namespace fs = std::filesystem;
using zelvanor::detail::PendingStore;

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

void write(const fs::path& file, std::string_view bytes) {
  if (bytes.empty()) return;
  std::ofstream(file, std::ios::binary) << bytes;
}

// Reads every record a start hands out and answers it. Bounded: a paused read (a long run of
// junk) is asked again, but never more often than there are pieces to read past. The store's
// count of what waits must be exactly what it then hands out or moves aside.
std::uint64_t drain(PendingStore& store, std::uint64_t limit) {
  constexpr auto kAll = ~std::uint64_t{0};
  store.line().release(kAll);
  const std::uint64_t counted = store.line().waiting();
  const std::uint64_t quarantinedBefore = store.counts().quarantined;
  std::uint64_t records = 0;
  for (std::uint64_t turns = 0; turns < limit + 4; ++turns) {
    auto read = store.next(kAll);
    if (read) {
      ++records;
      store.answered(read->ref);
    } else if (!store.readPaused()) {
      if (store.line().waiting() != 0 ||
          counted != records + store.counts().quarantined - quarantinedBefore) {
        fail("the store's count of waiting records differs from what it held");
      }
      return records;
    }
  }
  fail("the store never stopped handing out records");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const fs::path dir =
      fs::temp_directory_path() / ("zelvanor-fuzz-store-" + std::to_string(::getpid()));
  std::string_view input(reinterpret_cast<const char*>(data), size);
  auto take = [&](std::size_t n) {
    const auto piece = input.substr(0, std::min(n, input.size()));
    input.remove_prefix(piece.size());
    return piece;
  };
  const auto cursorSize = input.empty() ? 0 : static_cast<unsigned char>(take(1)[0]);
  const auto cursor = take(cursorSize);
  const auto cut = input.empty() ? 0 : static_cast<unsigned char>(take(1)[0]);
  const auto segment = take(input.size() * cut / 255);
  const auto tail = input;

  fs::remove_all(dir);
  fs::create_directories(dir);
  write(dir / PendingStore::kCursorFileName, cursor);
  write(dir / (std::string(PendingStore::kPendingFileName) + ".1"), segment);
  write(dir / PendingStore::kPendingFileName, tail);

  // Every piece of junk takes at most one turn, every record one: the bound for reading.
  const std::uint64_t limit = size + 2;
  {
    PendingStore store(dir, {});
    const std::uint64_t waiting = store.open();
    const std::uint64_t read = drain(store, limit);
    if (read > waiting) fail("a start hands out more records than it counted");
    store.close();
  }
  {
    PendingStore store(dir, {});
    if (store.open() != 0 || drain(store, limit) != 0) {
      fail("an answered record is handed out again by the next start");
    }
    store.close();
  }
  fs::remove_all(dir);
  return 0;
}
