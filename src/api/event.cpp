#include "zelvanor/event.hpp"

#include <iterator>
#include <optional>

#include "zelvanor/tracker.hpp"

namespace zelvanor {

// Same rules as the shared builder: a single block set twice keeps the last, lists grow.
#define ZELVANOR_EVENT_SETTER(Type, member) \
  ZEvent& ZEvent::set(Type block) {         \
    blocks_.member = std::move(block);      \
    return *this;                           \
  }
ZELVANOR_EVENT_SETTER(ZAgreement, agreement)
ZELVANOR_EVENT_SETTER(ZClick, click)
ZELVANOR_EVENT_SETTER(ZLocation, location)
ZELVANOR_EVENT_SETTER(ZPage, page)
ZELVANOR_EVENT_SETTER(ZPromotion, promotion)
ZELVANOR_EVENT_SETTER(ZStatus, status)
ZELVANOR_EVENT_SETTER(ZUsage, usage)
ZELVANOR_EVENT_SETTER(ZAction, action)
ZELVANOR_EVENT_SETTER(ZDomain, domain)
ZELVANOR_EVENT_SETTER(ZUtm, utm)
#undef ZELVANOR_EVENT_SETTER

namespace {

template <class Item>
void appendAll(std::optional<std::vector<Item>>& list, std::vector<Item>&& items) {
  // An empty list still makes the key appear, as it does through the facade.
  if (!list) list.emplace();
  list->insert(list->end(), std::make_move_iterator(items.begin()),
               std::make_move_iterator(items.end()));
}

}  // namespace

ZEvent& ZEvent::set(ZBucket block) {
  if (!blocks_.buckets) blocks_.buckets.emplace();
  blocks_.buckets->push_back(std::move(block));
  return *this;
}

ZEvent& ZEvent::set(std::vector<ZBucket> blocks) {
  appendAll(blocks_.buckets, std::move(blocks));
  return *this;
}

ZEvent& ZEvent::set(ZViewImpressionContent block) {
  if (!blocks_.viewImpressionContents) blocks_.viewImpressionContents.emplace();
  blocks_.viewImpressionContents->push_back(std::move(block));
  return *this;
}

ZEvent& ZEvent::set(std::vector<ZViewImpressionContent> blocks) {
  appendAll(blocks_.viewImpressionContents, std::move(blocks));
  return *this;
}

// By value like every other set, so the overloads read alike.
ZEvent& ZEvent::set(std::string /*text*/) {  // NOLINT(performance-*)
  return *this;
}

void ZEvent::track(bool verbose, bool disabled) const {
  ZelvanorTracker::track(*this, verbose, disabled);
}

}  // namespace zelvanor
