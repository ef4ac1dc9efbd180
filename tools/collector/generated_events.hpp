// Made-up events written straight into a store, to try the viewer on a full day's worth without
// sending each one over the network.
#pragma once

#include <chrono>
#include <string>

#include "event_store.hpp"

namespace zelvanor::collector {

/// Stores `count` records of a few hundred devices browsing a shop, received evenly over the
/// `span` up to now. Device n has cid "cid-n", did "did-n", sid "sid-n" (n in five digits) and,
/// for two of every three devices, the app user id "user-n". The same count gives the same
/// records, times aside.
bool generateEvents(EventStore& store, int count, std::chrono::minutes span, std::string& error);

}  // namespace zelvanor::collector
