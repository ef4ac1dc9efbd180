// The blocks a host hands over by name as JSON (the C API's zelvanor_set, the command line's "set"
// op): one table of names, each decoded with the SDK's codec into the block the facade's set
// overload takes, and applied through that overload. Whoever takes blocks by name goes through
// here, so the names, the decoding and the completion of the common block are the same for all.
#pragma once

#include <simdjson.h>

#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "zelvanor/blocks.hpp"
#include "zelvanor/event.hpp"
#include "zelvanor/record.hpp"
#include "zelvanor/result.hpp"

namespace zelvanor::detail {

/// One decoded block: every type a facade set overload takes, the free text included.
using BlockValue =
    std::variant<ZCommon, ZAgent, ZId, ZAgreement, ZClick, ZLocation, ZPage, ZPromotion, ZStatus,
                 ZUsage, ZAction, ZDomain, ZUtm, ZBucket, std::vector<ZBucket>,
                 ZViewImpressionContent, std::vector<ZViewImpressionContent>, std::string>;

/// What the JSON of a named block is.
enum class BlockShape {
  object,  ///< one JSON object
  list,    ///< an array of objects, appended in order
  text,    ///< a JSON string
};

/// Where a named block may go.
enum class BlockScope {
  context,  ///< shared by every event (common, agent, id): the tracker only, never a ZEvent
  event,    ///< one event's block: the tracker's next event or a ZEvent
  sdkOnly,  ///< a record block the SDK fills itself (app): named, but no host may set it
};

struct BlockEntry {
  std::string_view name;
  BlockShape shape;
  BlockScope scope;
  /// Null for sdkOnly entries, which have nothing to decode into.
  Result<BlockValue> (*decode)(simdjson::dom::element value);
};

/// Why a sdkOnly block cannot be set, for the callers' messages.
inline constexpr std::string_view kSdkOnlyReason =
    "the SDK fills the app block itself (install, update, launch, background) and takes none "
    "from the host";

/// Every name, in a fixed order (the order help texts list them).
std::span<const BlockEntry> blockEntries() noexcept;

/// The entry with exactly this name, or null.
const BlockEntry* findBlock(std::string_view name) noexcept;

/// The names joined by ", ", for messages that list what is known.
std::string blockNames();

/// Decodes an already parsed value, without writing it out again. Errors name the key path inside
/// the value ("title", "purchase.price", "[1].name"); empty for the value itself. Precondition:
/// entry.scope is not sdkOnly.
Result<BlockValue> decodeBlock(const BlockEntry& entry, simdjson::dom::element value);

/// Parses `json` and decodes it as above; text that is not JSON is a dataCorrupted error at "".
Result<BlockValue> decodeBlock(const BlockEntry& entry, std::string_view json);

/// Hands the block to the facade's set overload for its type.
void setOnTracker(BlockValue block);

/// Hands the block to the event's set overload; false, leaving the event as it was, for a context
/// block, which no event carries.
bool setOnEvent(ZEvent& event, BlockValue block);

}  // namespace zelvanor::detail
