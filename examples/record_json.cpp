// Builds one complete record by hand and prints the JSON the collector would receive.
#include <cstdio>

#include "zelvanor/json.hpp"
#include "zelvanor/platform.hpp"

using namespace zelvanor;

int main() {
  setPlatformFacts(ZPlatformFacts{.bundleIdentifier = "com.example.shop"});
  ZLogRecord record{
      .xid = {"c-7f3a", "d-19be", "s-0c44"},
      .sdk = {DeploymentType::development, std::string(kSdkVersion),
              std::string(kCommonLogVersion)},
      .action = ZAction(ZAction::ZActionType::ecommerce, "checkout", "purchase"),
      .common = ZCommon(
          {.serviceName = "shop", .deployment = "production", .accessTimeStamp = 1709615229}),
      .ucid = ZUcid{.id = "user-42"},
      .page = ZPage{.id = "order-complete",
                    .name = "Order complete",
                    .title = "Thank you",
                    .ecommerceYn = true},
      .domain = ZDomain{.purchase = ZPurchase{.name = "Trail shoes",
                                              .orderId = "o-1001",
                                              .currency = "KRW",
                                              .shipAmount = 2500,
                                              .price = 0.1f,
                                              .quantity = 1,
                                              .totalAmount = 89000,
                                              .subscribeYn = false}},
      .buckets = std::vector<ZBucket>{{.name = "checkout-button", .group = "B"}},
  };
  auto json = encodeJson(record, JsonStyle::pretty);
  if (!json) {
    std::fprintf(stderr, "cannot encode: %s\n", json.error().describe().c_str());
    return 1;
  }
  std::printf("%s\n", json->c_str());
  auto back = decodeJson<ZLogRecord>(*json);
  std::printf("decodes back to the same record: %s\n", back && *back == record ? "yes" : "no");
  return back && *back == record ? 0 : 1;
}
