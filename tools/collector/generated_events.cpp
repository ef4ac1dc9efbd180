#include "generated_events.hpp"

#include <array>
#include <cstdio>
#include <random>
#include <vector>
#include <zelvanor/json.hpp>

namespace zelvanor::collector {
namespace {

struct Action {
  const char* type;
  const char* name;
  const char* kind;
  const char* page;
};

// Weighted by repetition: page views and taps are the bulk, purchases rare, as in a real shop.
constexpr std::array kActions = {
    Action{"page_view", "home", "view", "home"},
    Action{"page_view", "home", "view", "home"},
    Action{"page_view", "product", "view", "product"},
    Action{"page_view", "product", "view", "product"},
    Action{"page_view", "cart", "view", "cart"},
    Action{"event", "search", "tap", "home"},
    Action{"event", "add_to_cart", "tap", "product"},
    Action{"event", "add_to_cart", "tap", "product"},
    Action{"event", "promotion_click", "tap", "home"},
    Action{"view_imp", "search_results", "impression", "search"},
    Action{"view_imp", "recommendations", "impression", "product"},
    Action{"ecommerce", "purchase", "complete", "checkout"},
    // A tap of another type, so that a kind is not a stand-in for a type.
    Action{"ecommerce", "add_to_wishlist", "tap", "product"},
    Action{"app", "launch", "foreground", ""},
    Action{"app", "background", "background", ""},
    Action{"video_meeting", "join", "start", "support"},
};
constexpr int kDevices = 400;
// One device in this many events is device 0: a developer's phone left running, with more events
// than a session view shows.
constexpr int kBusyDeviceEvery = 40;
constexpr int kBatch = 5000;

std::string numbered(const char* prefix, int n) {
  char text[32];
  std::snprintf(text, sizeof text, "%s-%05d", prefix, n);
  return text;
}

}  // namespace

bool generateEvents(EventStore& store, int count, std::chrono::minutes span, std::string& error) {
  std::mt19937 random(20240611);
  std::uniform_int_distribution<std::size_t> pickAction(0, kActions.size() - 1);
  std::uniform_int_distribution<int> pickDevice(0, kDevices - 1);
  const auto end = std::chrono::system_clock::now();
  const auto step =
      count > 0 ? std::chrono::duration_cast<std::chrono::system_clock::duration>(span) / count
                : std::chrono::system_clock::duration{};
  std::vector<ReceivedRecord> batch;
  batch.reserve(kBatch);
  for (int i = 0; i < count; ++i) {
    const Action& action = kActions[pickAction(random)];
    const int device = i % kBusyDeviceEvery == 0 ? 0 : pickDevice(random);
    ZLogRecord record;
    record.xid = ZXid{numbered("cid", device), numbered("did", device), numbered("sid", device)};
    record.sdk = ZSDK{DeploymentType::production, "0.9.0", "1.2.0"};
    record.action = ZAction(action.type, action.name, action.kind);
    if (*action.page != '\0') {
      record.page = ZPage{.id = action.page, .name = action.page, .title = action.page};
    }
    if (device % 3 != 0) {
      record.id = ZId{};
      record.id->appUserId = numbered("user", device);
    }
    auto json = encodeJson(record);
    if (!json) {
      error = "cannot encode a made-up record";
      return false;
    }
    batch.push_back(
        {EventStore::utcText(end - span + step * (i + 1)), std::move(record), std::move(*json)});
    if (batch.size() == kBatch || i + 1 == count) {
      if (!store.addMany(batch)) {
        error = "cannot store the made-up records";
        return false;
      }
      batch.clear();
    }
  }
  return true;
}

}  // namespace zelvanor::collector
