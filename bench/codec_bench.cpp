// Encoding and decoding one record with every member present, about 1.5 KB of compact JSON:
// the work done for each event sent and each record restored from the pending file.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "zelvanor/json.hpp"

namespace {

using namespace zelvanor;

ZLogRecord typicalRecord() {
  ZCommon common;
  common.serviceName = "shop";
  common.svcDomain = "com.example.shop";
  common.serviceId = "svc-7";
  common.requestTimeStamp = 1764000000;
  common.accessTimeStamp = 1763999990;
  common.accessTime = "2025-11-24T15:59:50+09:00";
  common.serviceType = "commerce";
  common.deployment = "production";
  common.url = "https://shop.example/item/42";

  ZLogRecord record{
      .xid = {.cid = "8f14e45f-ceea-467f-a0e6-7d1c4e2b9a31",
              .did = "d41d8cd9-8f00-4b20-9e98-0ecf8427e001",
              .sid = "s-2f0a61"},
      .sdk = {.type = DeploymentType::production, .version = "0.9.0", .commonLogVersion = "1.2.0"},
      .action = ZAction(ZAction::ZActionType::ecommerce, "add_to_cart", "click"),
      .common = common,
      .id = ZId{.appUserId = "user-1029", .uuid = "5f1c2b7e", .adidEnabled = false},
      .ucid = ZUcid{.serviceName = "shop", .id = "user-1029"},
      .agreement = ZAgreement{.locationInformationAgree = true, .cookieAgree = true},
      .utm = ZUtm{.utmSource = "newsletter", .utmMedium = "email", .timestamp = 1763990000},
      .agent = ZAgent{.os = "Linux",
                      .osVersion = "6.1.0",
                      .appVersion = "3.4.1",
                      .deviceModel = "ThinkPad X1",
                      .networkState = "wifi",
                      .language = "en",
                      .timezone = "+09:00"},
      .app = ZApp{.appLaunch = true},
      .location = ZLocation{.latitude = 37.5665, .logitude = 126.978, .country = "KR"},
      .page = ZPage{.id = "item-42", .name = "item", .title = "Blue mug / 350 ml"},
      .click = ZClick{.type = "button", .layer1 = "detail", .posX = 120, .posY = 640},
      .usage = ZUsage{.duration = 4500, .scrollPercent = 0.35f},
      .domain = ZDomain{.purchase = ZPurchase{.name = "Blue mug",
                                              .id = "item-42",
                                              .currency = "KRW",
                                              .shipAmount = 2500,
                                              .price = 19.99f,
                                              .quantity = 2,
                                              .subscribeYn = false}},
      .promotion = ZPromotion{.name = "Winter sale", .id = "promo-1", .coupon = "WINTER10"},
      .viewImpressionContents =
          std::vector<ZViewImpressionContent>{
              {.impressionId = "imp-1", .id = "item-42", .name = "Blue mug"},
              {.impressionId = "imp-2", .id = "item-43", .name = "Red mug"}},
      .buckets = std::vector<ZBucket>{{.name = "checkout", .group = "B"}},
      .status = ZStatus{.code = 200, .method = "POST", .path = "/cart"},
      .free = "{\"note\":\"free text\"}",
  };
  return record;
}

void BM_EncodeRecord(benchmark::State& state) {
  const ZLogRecord record = typicalRecord();
  std::size_t bytes = 0;
  for (auto _ : state) {
    auto json = encodeJson(record);
    bytes = json->size();
    benchmark::DoNotOptimize(json);
  }
  state.counters["json_bytes"] = static_cast<double>(bytes);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}
BENCHMARK(BM_EncodeRecord);

void BM_DecodeRecord(benchmark::State& state) {
  const std::string json = encodeJson(typicalRecord()).value();
  for (auto _ : state) {
    auto record = decodeJson<ZLogRecord>(json);
    if (!record) state.SkipWithError(record.error().describe().c_str());
    benchmark::DoNotOptimize(record);
  }
  state.counters["json_bytes"] = static_cast<double>(json.size());
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * json.size()));
}
BENCHMARK(BM_DecodeRecord);

}  // namespace
