// What the SDK's pending store holds on disk, in the order a start would send it, and the means
// to craft such files: records named for what a test checks, framed as the store writes them.
#pragma once

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "store/pending_store.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::testing {

/// The next record of a store read on its own, with no queue in front to let records go: all go.
inline std::optional<detail::PendingStore::Read> nextOf(detail::PendingStore& store) {
  constexpr auto kAll = ~std::uint64_t{0};
  store.line().release(kAll);
  return store.next(kAll);
}

inline std::vector<std::string> pendingPayloads(const std::filesystem::path& dir) {
  std::vector<std::string> payloads;
  detail::PendingStore::forEachWaiting(
      dir, [&](std::string_view payload) { payloads.emplace_back(payload); });
  return payloads;
}

inline std::vector<ZLogRecord> pendingRecords(const std::filesystem::path& dir) {
  std::vector<ZLogRecord> records;
  for (const auto& payload : pendingPayloads(dir)) {
    if (auto decoded = decodeJson<ZLogRecord>(payload)) records.push_back(std::move(*decoded));
  }
  return records;
}

/// The action names of the records waiting in `dir`, in sending order.
inline std::vector<std::string> pendingNames(const std::filesystem::path& dir) {
  std::vector<std::string> names;
  for (const auto& record : pendingRecords(dir)) names.push_back(record.action.name);
  return names;
}

/// A record whose action is named `name` (with a page title of `title` bytes when not zero).
inline std::string namedRecord(const std::string& name, std::size_t title = 0) {
  ZLogRecord record{.xid = {"c", "d", "s"}, .action = {"event", name, "tap"}};
  if (title > 0) record.page = ZPage{.id = name, .title = std::string(title, 't')};
  return encodeJson(record).value();
}

/// The payloads framed one after another, as the store appends them.
inline std::string framed(const std::vector<std::string>& payloads) {
  std::string out;
  for (const auto& payload : payloads) detail::appendFrame(out, payload);
  return out;
}

/// A frame's length field holding `length`, whatever follows it.
inline std::string rawLength(std::int64_t length) {
  std::string out(sizeof length, '\0');
  std::memcpy(out.data(), &length, sizeof length);
  return out;
}

inline void writeFile(const std::filesystem::path& file, const std::string& content) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
}

inline std::string slurp(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace zelvanor::testing
