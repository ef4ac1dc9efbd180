// Collects the per-event blocks between two track calls and empties them into a record (identity
// known) or a template (identity not known yet). Not locked: the manager serialises every call.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "zelvanor/record.hpp"

namespace zelvanor::detail {

/// The context the builder does not hold; the manager supplies it at build time.
struct RecordContext {
  ZXid xid{};
  ZSDK sdk{};
  std::optional<ZCommon> common{};
  std::optional<ZId> id{};
  std::optional<ZUcid> ucid{};
  std::optional<ZAgent> agent{};
};

class ZLogRecordBuilder {
 public:
  static constexpr const char* guideString =
      "You are already set value. If you don't want excute track() method first.";

  // Single-valued blocks: last write wins, nothing is merged.
  void setAgreement(ZAgreement value);
  void setApp(ZApp value);
  void setClick(ZClick value);
  void setDomain(ZDomain value);
  void setLocation(ZLocation value);
  void setPage(ZPage value);
  void setPromotion(ZPromotion value);
  void setStatus(ZStatus value);
  void setUsage(ZUsage value);
  void setUtm(ZUtm value);
  void setAction(ZAction value);

  // Lists only grow until the next reset.
  void appendBucket(ZBucket bucket);
  void appendBuckets(std::vector<ZBucket> buckets);
  void appendViewImpressionContent(ZViewImpressionContent content);
  void appendViewImpressionContents(std::vector<ZViewImpressionContent> contents);

  /// No action: nothing is made and the blocks are thrown away. Either way the builder is empty
  /// after.
  std::optional<ZLogRecord> buildRecord(RecordContext context);
  /// A record from blocks held elsewhere (a host's ZEvent); no action, no record. The builder's
  /// own blocks are not involved.
  static std::optional<ZLogRecord> buildRecord(RecordContext context, ZLogTemplate&& blocks);
  /// Reads the template only; the builder's own blocks stay as they are.
  static std::optional<ZLogRecord> buildRecordFromTemplate(RecordContext context,
                                                           const ZLogTemplate& logTemplate);
  /// A copy of the current blocks (also when empty); the builder is empty after.
  ZLogTemplate makeTemplate();
  void reset() { state_ = ZLogTemplate{}; }

  /// The record of `blocks`, which must hold an action, in `context`.
  static ZLogRecord makeRecord(RecordContext context, ZLogTemplate&& blocks);
  /// The per-event state, for inspection.
  const ZLogTemplate& state() const { return state_; }
  /// The text of the most recent override warning. It is never shown to anyone; kept so that
  /// composing it is not optimised away and so that tests can see it was composed.
  const std::string& lastOverrideWarning() const { return lastWarning_; }

 private:
  template <class Block>
  void overrideSet(std::optional<Block>& slot, Block value, const char* tail = " value?. ");

  ZLogTemplate state_;  // exactly the fourteen per-event blocks
  std::string lastWarning_;
};

}  // namespace zelvanor::detail
