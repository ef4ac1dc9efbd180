// A shopping app's session, as a host would write it with the public headers only: first launch,
// browsing, a search with results, impressions, a promotion click, a purchase, a short video
// consultation, going to the background and coming back.
//
//   shop_session COLLECTOR_URL CA_FILE DATA_DIR
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "zelvanor/tracker.hpp"

using namespace zelvanor;
using Type = ZAction::ZActionType;

namespace {

// A person needs a moment between taps; it also spreads the events over visible timestamps.
void pause(int ms) {
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

ZPage page(std::string id, std::string name, std::string title, std::string category = {}) {
  ZPage p{.id = std::move(id), .name = std::move(name), .title = std::move(title)};
  if (!category.empty()) p.category = std::move(category);
  return p;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: shop_session COLLECTOR_URL CA_FILE DATA_DIR\n");
    return 1;
  }
  const std::string server = argv[1];
  ZelvanorTracker::setPlatformFacts(ZPlatformFacts{
      .bundleIdentifier = "com.example.shop", .appVersion = "3.2.0", .dataDirectory = argv[3]});
  if (!ZelvanorTracker::setEndpoints(ZEndpoints{server, server, server, std::string(argv[2])})) {
    std::fprintf(stderr, "shop_session: not an https URL: %s\n", server.c_str());
    return 1;
  }

  // Launch: configuration, the signed-in user and the service description. The first launch
  // on this data directory reports an install.
  ZelvanorTracker::setRequired([] { return ZConfiguration{.timeout = 10, .batchSize = 1}; })
      .setProduction()
      .set(ZId{.appUserId = "shopper-1042", .customId = "loyalty-77"})
      .set([] { return ZCommon({.serviceName = "trail-shop", .deployment = "production"}); });
  std::puts("shop_session: launched");

  // The consent answers are part of the event during which the shopper gave them; like every
  // per-event block they are not repeated on later events.
  ZelvanorTracker::set(page("home", "home", "Trail Shop"))
      .set(ZAgreement{
          .locationInformationAgree = true, .thirdProvideAgree = false, .cookieAgree = true})
      .set(ZUtm{.utmSource = "newsletter", .utmMedium = "email", .utmCampaign = "autumn"})
      .set(ZAction(Type::pageView, "home", "view"))
      .track(false, false);
  pause(120);

  // A search and what it showed.
  ZSearch search{.keyword = "trail running shoes", .type = "product", .resultNum = 24};
  ZelvanorTracker::set(page("search", "search_results", "Search: trail running shoes", "shoes"))
      .set(ZDomain{.search = search})
      .set(ZAction(Type::event, "search", "submit"))
      .track(false, false);
  pause(80);
  std::vector<ZViewImpressionContent> shown;
  for (int i = 1; i <= 4; ++i) {
    shown.push_back(ZViewImpressionContent{.impressionId = "imp-" + std::to_string(i),
                                           .impressionType = "product_card",
                                           .impressionArea = "results",
                                           .id = "sku-" + std::to_string(1000 + i),
                                           .type = "product",
                                           .name = "Trail shoe model " + std::to_string(i)});
  }
  ZelvanorTracker::set(page("search", "search_results", "Search: trail running shoes", "shoes"))
      .set(shown)
      .set(ZAction(Type::viewImpression, "search_results", "impression"))
      .track(false, false);
  pause(150);

  // A promotion banner catches the shopper's eye.
  ZelvanorTracker::set(page("search", "search_results", "Search: trail running shoes", "shoes"))
      .set(ZPromotion{.name = "Autumn trail week",
                      .id = "promo-autumn",
                      .type = "banner",
                      .bannerId = "banner-3",
                      .coupon = "TRAIL10"})
      .set(ZClick{.type = "banner", .layer1 = "promotion", .posX = 40, .posY = 310})
      .set(ZAction(Type::event, "promotion_click", "click"))
      .track(false, false);
  pause(100);

  ZelvanorTracker::set(page("sku-1002", "product", "Trail shoe model 2", "shoes"))
      .set(ZAction(Type::pageView, "product", "view"))
      .track(false, false);
  pause(200);

  ZPurchase purchase{.name = "Trail shoe model 2",
                     .id = "sku-1002",
                     .orderId = "order-58213",
                     .brand = "Ridgeline",
                     .category = "shoes",
                     .payment = "card",
                     .currency = "EUR",
                     .discountAmount = 10,
                     .price = 129.9f,
                     .quantity = 1,
                     .totalAmount = 119};
  ZelvanorTracker::set(page("checkout", "checkout", "Checkout"))
      .set(ZDomain{.purchase = purchase})
      .set(ZAction(Type::ecommerce, "purchase", "complete"))
      .track(false, false);
  pause(150);

  // A short video consultation about sizing.
  ZVideoMeeting meeting{.meetingId = "fit-call-9",
                        .meetingType = "consultation",
                        .micStatus = "on",
                        .cameraStatus = "on",
                        .participantsCount = 2};
  ZelvanorTracker::set(page("support", "video_call", "Fit advice"))
      .set(ZDomain{.videoMeeting = meeting})
      .set(ZAction(Type::custom("video_meeting"), "join", "start"))
      .track(false, false);
  pause(300);
  meeting.utteranceDuration = 42;
  ZelvanorTracker::set(page("support", "video_call", "Fit advice"))
      .set(ZDomain{.videoMeeting = meeting})
      .set(ZAction(Type::custom("video_meeting"), "leave", "end"))
      .track(false, false);
  pause(100);

  // The shopper switches apps and comes back.
  ZelvanorTracker::post(ZLifecycleEvent::willResignActive);
  pause(250);
  ZelvanorTracker::post(ZLifecycleEvent::willEnterForeground);
  ZelvanorTracker::set(page("orders", "order_status", "Your orders"))
      .set(ZAction(Type::pageView, "order_status", "view"))
      .track(false, false);

  ZelvanorTracker::flush();
  // Give the last answers a moment; whatever is still on its way is kept for the next start.
  pause(500);
  ZelvanorTracker::shutdown();
  std::puts("shop_session: session over");
  return 0;
}
