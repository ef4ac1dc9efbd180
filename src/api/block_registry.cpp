#include "api/block_registry.hpp"

#include <array>
#include <type_traits>
#include <utility>

#include "model/codec.hpp"
#include "model/field_tables.hpp"
#include "model/host_common.hpp"
#include "model/json_parsers.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor::detail {

namespace {

template <class T>
Result<BlockValue> decodeAs(simdjson::dom::element value) {
  BlockValue block{std::in_place_type<T>};
  CodecError error;
  if (!decodeValue(value, std::get<T>(block), error)) return error;
  return block;
}

// A common block from JSON is built as a C++ host builds one, through ZCommon(Fields).
Result<BlockValue> decodeCommon(simdjson::dom::element value) {
  ZCommon decoded;
  CodecError error;
  if (!decodeValue(value, decoded, error)) return error;
  return BlockValue{commonFromHost(std::move(decoded))};
}

// The free text is a bare JSON string; the facade accepts it and drops it.
Result<BlockValue> decodeText(simdjson::dom::element value) {
  std::string_view text;
  if (value.get(text) != simdjson::SUCCESS) {
    return CodecError{CodecError::Kind::typeMismatch, "", "expected a string"};
  }
  return BlockValue{std::string(text)};
}

using S = BlockShape;
using P = BlockScope;

// Names as the facade's set overloads name their blocks.
constexpr std::array kEntries{
    BlockEntry{"common", S::object, P::context, &decodeCommon},
    BlockEntry{"agent", S::object, P::context, &decodeAs<ZAgent>},
    BlockEntry{"id", S::object, P::context, &decodeAs<ZId>},
    BlockEntry{"agreement", S::object, P::event, &decodeAs<ZAgreement>},
    BlockEntry{"app", S::object, P::sdkOnly, nullptr},
    BlockEntry{"click", S::object, P::event, &decodeAs<ZClick>},
    BlockEntry{"location", S::object, P::event, &decodeAs<ZLocation>},
    BlockEntry{"page", S::object, P::event, &decodeAs<ZPage>},
    BlockEntry{"promotion", S::object, P::event, &decodeAs<ZPromotion>},
    BlockEntry{"status", S::object, P::event, &decodeAs<ZStatus>},
    BlockEntry{"usage", S::object, P::event, &decodeAs<ZUsage>},
    BlockEntry{"action", S::object, P::event, &decodeAs<ZAction>},
    BlockEntry{"domain", S::object, P::event, &decodeAs<ZDomain>},
    BlockEntry{"utm", S::object, P::event, &decodeAs<ZUtm>},
    BlockEntry{"bucket", S::object, P::event, &decodeAs<ZBucket>},
    BlockEntry{"buckets", S::list, P::event, &decodeAs<std::vector<ZBucket>>},
    BlockEntry{"viewImpressionContent", S::object, P::event, &decodeAs<ZViewImpressionContent>},
    BlockEntry{"viewImpressionContents", S::list, P::event,
               &decodeAs<std::vector<ZViewImpressionContent>>},
    BlockEntry{"free", S::text, P::event, &decodeText},
};

template <class T>
constexpr bool kEventTakes = requires(ZEvent& event, T block) {
  event.set(std::move(block));
};

}  // namespace

std::span<const BlockEntry> blockEntries() noexcept {
  return kEntries;
}

const BlockEntry* findBlock(std::string_view name) noexcept {
  for (const auto& entry : kEntries) {
    if (entry.name == name) return &entry;
  }
  return nullptr;
}

std::string blockNames() {
  std::string names;
  for (const auto& entry : kEntries) {
    if (!names.empty()) names += ", ";
    names += entry.name;
  }
  return names;
}

Result<BlockValue> decodeBlock(const BlockEntry& entry, simdjson::dom::element value) {
  return entry.decode(value);
}

Result<BlockValue> decodeBlock(const BlockEntry& entry, std::string_view json) {
  // The value is decoded while the parser is still borrowed: it points into the parser's buffers.
  BorrowedParser parser;
  simdjson::dom::element root;
  const auto parsed = parser.get().parse(json.data(), json.size(), true).get(root);
  if (parsed != simdjson::SUCCESS) {
    return CodecError{CodecError::Kind::dataCorrupted, "", simdjson::error_message(parsed)};
  }
  return decodeBlock(entry, root);
}

void setOnTracker(BlockValue block) {
  std::visit([](auto&& value) { ZelvanorTracker::set(std::forward<decltype(value)>(value)); },
             std::move(block));
}

bool setOnEvent(ZEvent& event, BlockValue block) {
  return std::visit(
      [&event](auto&& value) {
        using T = std::remove_cvref_t<decltype(value)>;
        if constexpr (kEventTakes<T>) {
          event.set(std::forward<decltype(value)>(value));
          return true;
        } else {
          return false;
        }
      },
      std::move(block));
}

}  // namespace zelvanor::detail
