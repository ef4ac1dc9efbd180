// A record whose members are borrowed: a track encodes the context's blocks where they live
// instead of copying them into a ZLogRecord for every event.
#pragma once

#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include "model/field_tables.hpp"

namespace zelvanor::detail {

struct ZLogRecordView {
  const ZXid* xid = nullptr;
  const ZSDK* sdk = nullptr;
  const ZAction* action = nullptr;
  const std::optional<ZCommon>* common = nullptr;
  const std::optional<ZId>* id = nullptr;
  const std::optional<ZUcid>* ucid = nullptr;
  const std::optional<ZAgreement>* agreement = nullptr;
  const std::optional<ZUtm>* utm = nullptr;
  const std::optional<ZAgent>* agent = nullptr;
  const std::optional<ZApp>* app = nullptr;
  const std::optional<ZLocation>* location = nullptr;
  const std::optional<ZPage>* page = nullptr;
  const std::optional<ZClick>* click = nullptr;
  const std::optional<ZUsage>* usage = nullptr;
  const std::optional<ZDomain>* domain = nullptr;
  const std::optional<ZPromotion>* promotion = nullptr;
  const std::optional<std::vector<ZViewImpressionContent>>* viewImpressionContents = nullptr;
  const std::optional<std::vector<ZBucket>>* buckets = nullptr;
  const std::optional<ZStatus>* status = nullptr;
  const std::optional<std::string>* free = nullptr;
};

namespace record_view {

// The record's written fields in the record's own order: every key of the view comes from there,
// and each view member must point at the type of the record member in the same place.
template <std::size_t Wanted, std::size_t I = 0, std::size_t Written = 0>
constexpr std::size_t recordFieldIndex() {
  // Past the end and found both give I; a reserved key is skipped before it can be found.
  if constexpr (I >= fieldCount<ZLogRecord>()) {  // NOLINT(bugprone-branch-clone)
    return I;
  } else if constexpr (IsReservedKey<std::remove_cvref_t<decltype(std::get<I>(
                           FieldTable<ZLogRecord>::fields))>>::value) {
    return recordFieldIndex<Wanted, I + 1, Written>();
  } else if constexpr (Written == Wanted) {
    return I;
  } else {
    return recordFieldIndex<Wanted, I + 1, Written + 1>();
  }
}

template <std::size_t Position, class M>
constexpr auto viewField(const M* ZLogRecordView::*member) {
  constexpr std::size_t index = recordFieldIndex<Position>();
  static_assert(index < fieldCount<ZLogRecord>(), "the view has more members than the record");
  constexpr auto& recordField = std::get<index>(FieldTable<ZLogRecord>::fields);
  using RecordMember =
      std::remove_cvref_t<decltype(std::declval<ZLogRecord>().*(recordField.member))>;
  static_assert(std::is_same_v<RecordMember, M>, "a view member points at another type");
  return field(recordField.key, member);
}

template <auto... Members>
constexpr auto viewFields() {
  return []<std::size_t... Position>(std::index_sequence<Position...>) {
    return std::tuple{viewField<Position>(Members)...};
  }
  (std::make_index_sequence<sizeof...(Members)>{});
}

}  // namespace record_view

template <>
struct FieldTable<ZLogRecordView> {
  using V = ZLogRecordView;
  static constexpr auto fields =
      record_view::viewFields<&V::xid, &V::sdk, &V::action, &V::common, &V::id, &V::ucid,
                              &V::agreement, &V::utm, &V::agent, &V::app, &V::location, &V::page,
                              &V::click, &V::usage, &V::domain, &V::promotion,
                              &V::viewImpressionContents, &V::buckets, &V::status, &V::free>();
};
static_assert(record_view::recordFieldIndex<fieldCount<ZLogRecordView>()>() ==
                  fieldCount<ZLogRecord>(),
              "the record has a member the view leaves out");

/// Encodes `view` into `out` (cleared first); false, with `error`, as encodeJson fails.
bool encodeRecordView(const ZLogRecordView& view, std::string& out, CodecError& error);

}  // namespace zelvanor::detail
