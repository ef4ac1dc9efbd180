#include "builder/log_record_builder.hpp"

#include "zelvanor/json.hpp"

namespace zelvanor::detail {

template <class Block>
void ZLogRecordBuilder::overrideSet(std::optional<Block>& slot, Block value, const char* tail) {
  if (slot) {
    // Overriding is legal and silent; the warning is composed for debugging sessions only.
    auto description = encodeJson(value);
    lastWarning_ = "Are you sure overriding ";
    lastWarning_ += description.ok() ? description.value() : description.error().describe();
    lastWarning_ += tail;
    lastWarning_ += guideString;
  }
  slot = std::move(value);
}

#define ZELVANOR_SINGLE_BLOCK_SETTER(Name, Type, member) \
  void ZLogRecordBuilder::Name(Type value) {             \
    overrideSet(state_.member, std::move(value));        \
  }
ZELVANOR_SINGLE_BLOCK_SETTER(setApp, ZApp, app)
ZELVANOR_SINGLE_BLOCK_SETTER(setClick, ZClick, click)
ZELVANOR_SINGLE_BLOCK_SETTER(setDomain, ZDomain, domain)
ZELVANOR_SINGLE_BLOCK_SETTER(setLocation, ZLocation, location)
ZELVANOR_SINGLE_BLOCK_SETTER(setPage, ZPage, page)
ZELVANOR_SINGLE_BLOCK_SETTER(setPromotion, ZPromotion, promotion)
ZELVANOR_SINGLE_BLOCK_SETTER(setStatus, ZStatus, status)
ZELVANOR_SINGLE_BLOCK_SETTER(setUsage, ZUsage, usage)
ZELVANOR_SINGLE_BLOCK_SETTER(setUtm, ZUtm, utm)
ZELVANOR_SINGLE_BLOCK_SETTER(setAction, ZAction, action)
#undef ZELVANOR_SINGLE_BLOCK_SETTER

void ZLogRecordBuilder::setAgreement(ZAgreement value) {
  // The agreement's warning has always ended with two spaces before the guide.
  overrideSet(state_.agreement, std::move(value), " value?.  ");
}

template <class Item>
static void appendAll(std::optional<std::vector<Item>>& list, std::vector<Item>&& items) {
  if (!list) list.emplace();
  list->insert(list->end(), std::make_move_iterator(items.begin()),
               std::make_move_iterator(items.end()));
}

void ZLogRecordBuilder::appendBucket(ZBucket bucket) {
  if (!state_.buckets) state_.buckets.emplace();
  state_.buckets->push_back(std::move(bucket));
}

void ZLogRecordBuilder::appendBuckets(std::vector<ZBucket> buckets) {
  appendAll(state_.buckets, std::move(buckets));
}

void ZLogRecordBuilder::appendViewImpressionContent(ZViewImpressionContent content) {
  if (!state_.viewImpressionContents) state_.viewImpressionContents.emplace();
  state_.viewImpressionContents->push_back(std::move(content));
}

void ZLogRecordBuilder::appendViewImpressionContents(std::vector<ZViewImpressionContent> contents) {
  appendAll(state_.viewImpressionContents, std::move(contents));
}

ZLogRecord ZLogRecordBuilder::makeRecord(RecordContext context, ZLogTemplate&& blocks) {
  return ZLogRecord{
      .xid = std::move(context.xid),
      .sdk = std::move(context.sdk),
      .action = std::move(*blocks.action),
      .common = std::move(context.common),
      .id = std::move(context.id),
      .ucid = std::move(context.ucid),
      .agreement = std::move(blocks.agreement),
      .utm = std::move(blocks.utm),
      .agent = std::move(context.agent),
      .app = std::move(blocks.app),
      .location = std::move(blocks.location),
      .page = std::move(blocks.page),
      .click = std::move(blocks.click),
      .usage = std::move(blocks.usage),
      .domain = std::move(blocks.domain),
      .promotion = std::move(blocks.promotion),
      .viewImpressionContents = std::move(blocks.viewImpressionContents),
      .buckets = std::move(blocks.buckets),
      .status = std::move(blocks.status),
      .free = std::move(blocks.free),
  };
}

std::optional<ZLogRecord> ZLogRecordBuilder::buildRecord(RecordContext context) {
  return buildRecord(std::move(context), std::exchange(state_, ZLogTemplate{}));
}

std::optional<ZLogRecord> ZLogRecordBuilder::buildRecord(RecordContext context,
                                                         ZLogTemplate&& blocks) {
  if (!blocks.action) return std::nullopt;
  return makeRecord(std::move(context), std::move(blocks));
}

std::optional<ZLogRecord> ZLogRecordBuilder::buildRecordFromTemplate(
    RecordContext context, const ZLogTemplate& logTemplate) {
  if (!logTemplate.action) return std::nullopt;
  return makeRecord(std::move(context), ZLogTemplate(logTemplate));
}

ZLogTemplate ZLogRecordBuilder::makeTemplate() {
  return std::exchange(state_, ZLogTemplate{});
}

}  // namespace zelvanor::detail
