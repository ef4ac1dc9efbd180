// ZEvent: one event's blocks, carried by the host instead of the SDK's shared builder.
//
// The facade's set(...) calls fill one builder shared by the whole process, so two host threads
// setting blocks at the same time can mix their events. A ZEvent holds its own blocks and is
// tracked in one call, so events from any number of threads never mix:
//
//   ZEvent()
//       .set(ZPage{.id = "home", .name = "home", .title = "Home"})
//       .set(ZAction(ZAction::ZActionType::pageView, "home", "view"))
//       .track();
//
// The record is made from these blocks plus the context the SDK keeps (common, agent, id, the
// identity triple), exactly as a facade track would make it; the shared builder is not touched.
// A ZEvent is a plain value: copy it, keep it, track it again. One object is not meant to be
// changed from two threads at once.
#pragma once

#include <concepts>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "zelvanor/blocks.hpp"
#include "zelvanor/export.hpp"
#include "zelvanor/record.hpp"

namespace zelvanor {

class ZELVANOR_API ZEvent {
 public:
  /// Setting one twice keeps the last, as with the facade.
  ZEvent& set(ZAgreement block);
  ZEvent& set(ZClick block);
  ZEvent& set(ZLocation block);
  ZEvent& set(ZPage block);
  ZEvent& set(ZPromotion block);
  ZEvent& set(ZStatus block);
  ZEvent& set(ZUsage block);
  ZEvent& set(ZAction block);
  ZEvent& set(ZDomain block);
  ZEvent& set(ZUtm block);
  /// Buckets and view impressions accumulate.
  ZEvent& set(ZBucket block);
  ZEvent& set(std::vector<ZBucket> blocks);
  ZEvent& set(ZViewImpressionContent block);
  ZEvent& set(std::vector<ZViewImpressionContent> blocks);
  /// Accepted and ignored, as with the facade: records never carry a free text.
  ZEvent& set(std::string text);
  /// Every set also takes a callable that returns the block; it is called once, at once.
  template <class F>
  requires std::invocable<F> &&
      (!std::is_same_v<std::decay_t<F>, std::string>)ZEvent& set(F&& makeBlock) {
    return set(std::invoke(std::forward<F>(makeBlock)));
  }

  /// Same as ZelvanorTracker::track(*this, verbose, disabled). The event keeps its blocks.
  void track(bool verbose = false, bool disabled = false) const;

  /// The blocks set so far.
  const ZLogTemplate& blocks() const noexcept { return blocks_; }

 private:
  friend class ZelvanorTracker;  // moves the blocks out of an event it was handed by value
  ZLogTemplate blocks_;
};

}  // namespace zelvanor
