// Host-thread cost of one typical event through the facade: set page, click and action, then
// track, with batch size 1 and a transport that discards what it is handed.
#include <benchmark/benchmark.h>

#include <filesystem>

#include "api/shared_instance.hpp"
#include "network/reachability.hpp"
#include "zelvanor/tracker.hpp"

namespace {

using namespace zelvanor;

struct DiscardingTransport final : detail::RecordTransport {
  void send(detail::OutgoingRecord record, bool) override { benchmark::DoNotOptimize(record); }
  std::vector<detail::OutgoingRecord> takePendingRecords() override { return {}; }
  void shutdown(std::vector<detail::OutgoingRecord>) override {}
};

struct ImmediateIdentity final : detail::IdentitySource {
  support::Cancellable fetchXid(std::function<void(const ZXid&)> onTriple) override {
    onTriple(ZXid{"cid-0123456789", "did-0123456789", "sid-0123456789"});
    return {};
  }
};

void startReadyTracker() {
  const auto dir = std::filesystem::temp_directory_path() / "zelvanor-track-bench";
  setPlatformFacts(ZPlatformFacts{
      .bundleIdentifier = "com.example.bench", .appVersion = "1.0", .dataDirectory = dir.string()});
  detail::setSourcesFactory([] {
    return detail::ManagerSources{std::make_shared<DiscardingTransport>(),
                                  std::make_shared<ImmediateIdentity>(),
                                  std::make_shared<detail::ZReachability>(nullptr), nullptr};
  });
  ZelvanorTracker::setRequired(ZConfiguration{5.0, 1, false});
  detail::sharedIfRunning()->waitForIdentityWork();
  ZelvanorTracker::set(ZCommon({.serviceName = "shop", .deployment = "production"}))
      .set(ZId{.appUserId = "user-42"});
}

void BM_TrackTypicalEvent(benchmark::State& state) {
  startReadyTracker();
  for (auto _ : state) {
    ZelvanorTracker::set(ZPage{.id = "product-123", .name = "product", .title = "Trail shoes"})
        .set(ZClick{.type = "button", .layer1 = "buy", .posX = 12, .posY = 480})
        .set(ZAction(ZAction::ZActionType::event, "buy", "click"))
        .track(false, false);
  }
  ZelvanorTracker::shutdown();
}
BENCHMARK(BM_TrackTypicalEvent);

}  // namespace
