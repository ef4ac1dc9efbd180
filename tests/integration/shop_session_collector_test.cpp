// The demo's host program against a real collector: the whole session arrives, and the records
// carry what the app set, exactly as written on the wire.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>

#include "collector.hpp"
#include "support/temp_dir.hpp"

namespace zelvanor {
namespace {

TEST(ShopSessionTest, TheWholeSessionArrivesWithWhatTheAppSet) {
  testing::TempDir dir;
  collector::Collector collector({.dataDirectory = dir.path() / "collector"});
  ASSERT_TRUE(collector.start());
  const std::string command = std::string(ZELVANOR_SHOP_SESSION) + " " + collector.baseUrl() +
                              " '" + collector.caFile().string() + "' '" +
                              (dir.path() / "app").string() + "' >/dev/null";
  const int status = std::system(command.c_str());
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

  auto events = collector.events();
  std::reverse(events.begin(), events.end());
  std::vector<std::string> names;
  for (const auto& e : events) names.push_back(e.actionType + "/" + e.actionName);
  std::sort(names.begin(), names.end());
  std::vector<std::string> expected{"app/앱설치",
                                    "app/앱실행",
                                    "app/앱실행",
                                    "app/앱실행",
                                    "app/백그라운드",
                                    "page_view/home",
                                    "event/search",
                                    "view_imp/search_results",
                                    "event/promotion_click",
                                    "page_view/product",
                                    "ecommerce/purchase",
                                    "video_meeting/join",
                                    "video_meeting/leave",
                                    "page_view/order_status"};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(names, expected);
  // Nothing was left behind for the next start.
  EXPECT_FALSE(std::filesystem::exists(dir.path() / "app" / "ZLogs.tmp"));

  // The first start asks the sync server once per configuration pass, so a session may begin
  // with one issued triple and go on with the other.
  const auto issued = collector.issuedTriples();
  for (const auto& e : events) {
    EXPECT_NE(std::find(issued.begin(), issued.end(), e.xid), issued.end());
    if (e.actionName == "purchase") {
      EXPECT_NE(e.json.find(R"("price":129.9,)"), std::string::npos) << e.json;
      EXPECT_NE(e.json.find(R"("order_id":"order-58213")"), std::string::npos) << e.json;
    }
    if (e.actionName == "search_results") {
      EXPECT_NE(e.json.find(R"("viewimp_contents":[{)"), std::string::npos) << e.json;
    }
  }
}

}  // namespace
}  // namespace zelvanor
