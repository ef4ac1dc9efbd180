// A fixture for tests of the static facade: the shared instance over fake sources in a fresh
// data directory, with the process-wide settings back to their initial values.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "api/shared_instance.hpp"
#include "support/fake_sources.hpp"
#include "support/settings.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/platform.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor::testing {

class SharedTrackerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    detail::shutdownShared();
    setPlatformFacts(ZPlatformFacts{.appVersion = "1.0", .dataDirectory = dir.path().string()});
    fakes.settings = std::make_shared<platform::SettingsStore>(dir.path() / "settings.json");
    fakes.settings->setString("latestAppVersion", "1.0");
    detail::setSourcesFactory([this] { return fakes.sources(); });
    detail::settings().requestTimeout = 5.0;
    detail::settings().usingSandbox = false;
    detail::settings().consoleLogsEnabled = true;
  }
  void TearDown() override {
    detail::shutdownShared();
    detail::setSourcesFactory({});
    setPlatformFacts({});
  }
  void deliverTriple() {
    fakes.identity->deliver(ZXid{"c", "d", "s"});
    detail::sharedIfRunning()->waitForIdentityWork();
  }
  void setCommon() {
    ZelvanorTracker::set([] { return ZCommon({.serviceName = "svc", .deployment = "dev"}); });
  }
  /// The records sent so far, without the SDK's own app events.
  std::vector<ZLogRecord> hostRecords() const {
    std::vector<ZLogRecord> records;
    for (auto& sent : fakes.transport->sent()) {
      if (sent.record.action.type != "app") records.push_back(sent.record);
    }
    return records;
  }

  TempDir dir;
  FakeSources fakes;
};

}  // namespace zelvanor::testing
