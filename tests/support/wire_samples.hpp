// Fully populated values of every wire type. They match tests/data/wire/<Type>.full.json, which
// were written by hand from the record format: where a member never reaches JSON, the value
// still holds it so the tests can check that it stays out.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zelvanor/blocks.hpp"
#include "zelvanor/configuration.hpp"
#include "zelvanor/http_result.hpp"
#include "zelvanor/record.hpp"

namespace zelvanor::samples {

inline ZSDK sdk() {
  return ZSDK{.type = DeploymentType::production, .version = "0.9.0", .commonLogVersion = "1.2.0"};
}

inline ZCommon common() {
  ZCommon c;  // members set directly: the constructor's derivations depend on the device
  c.serviceName = "shop";
  c.svcDomain = "com.example.shop";
  c.serviceId = "svc-7";
  c.requestTimeStamp = 1764000000;
  c.accessTimeStamp = 1763999990;
  c.accessTime = "2025-11-24T15:59:50+09:00";
  c.serviceType = "commerce";
  c.serviceCode = "SC01";
  c.serviceCodeId = "sc-01";
  c.serviceCodeGroup = "retail";
  c.serviceCodeGroupId = "rg-1";
  c.serviceOrganizationCode = "ORG";
  c.serviceOrganizationCodeId = "org-9";
  c.displayName = "Shop";
  c.quindoAppKey = "qk-123";
  c.deployment = "production";
  c.url = "https://shop.example/item/42";
  c.referrer = "https://search.example/?q=mug";
  c.clogSeq = "17";
  c.tChannel = "push";
  c.tSrc = "crm";
  c.tCh = "ch-2";
  c.tObj = "obj-3";
  c.tMsgId = "msg-4";
  return c;
}

inline ZAgent agent() {
  return ZAgent{.userAgent = "ZelvanorDemo/3.4.1 (Linux)",
                .ip = "192.0.2.10",
                .os = "Linux",
                .osVersion = "6.1.0",
                .appVersion = "3.4.1",
                .deviceModel = "ThinkPad X1",
                .deviceNumber = "dev-0001",
                .browser = "webview",
                .browserVersion = "118.0",
                .carrier = "Carrier One",
                .networkState = "wifi",
                .language = "en",
                .screen = "1920x1080",
                .timezone = "+09:00"};
}

inline ZId id() {
  return ZId{.accountId = "acct-1",
             .accessToken = "tok-2",
             .appUserId = "appuser-3",
             .plovaUserId = "plova-4",
             .hestroUserId = "hestro-5",
             .tunqaId = "tunqa-6",
             .appId = "app-7",
             .slid = "slid-8",
             .clid = "clid-9",
             .uuid = "uuid-10",
             .webId = "web-11",
             .webIdEnabled = false,
             .adid = "adid-12",
             .adidEnabled = true,
             .customId = "custom-13",
             .customGroupId = "group-14"};
}

inline ZAgreement agreement() {
  return ZAgreement{.locationInformationAgree = true,
                    .thirdProvideAgree = false,
                    .thirdAdAgree = true,
                    .cookieAgree = true,
                    .donotTrackAgree = false};
}

inline ZApp app() {
  return ZApp{.appInstall = true,
              .appUpdate = false,
              .appLaunch = true,
              .appExit = false,
              .appInstallDate = "2025-11-01",
              .appInstallTimestamp = 1761955200};
}

inline ZUtm utm() {
  return ZUtm{.type = "campaign",
              .utmSource = "newsletter",
              .utmMedium = "email",
              .utmCampaign = "winter_sale",
              .utmContent = "hero",
              .utmTerm = "mug",
              .timestamp = 1763990000};
}

inline ZBucket bucket() {
  return ZBucket{.name = "checkout",
                 .group = "B",
                 .experimentKey = "exp-checkout",
                 .variationKey = "var-b",
                 .idType = "device"};
}

inline ZPage page() {
  return ZPage{.id = "item-42",
               .type = "detail",
               .name = "item",
               .title = "Blue mug / 350 ml",
               .tab = "overview",
               .tabId = "tab-1",
               .category = "kitchen",
               .categoryId = "cat-5",
               .subcategory = "mugs",
               .subcategoryId = "sub-51",
               .image = "https://cdn.example/mug.png",
               .plink = "shop://item/42",
               .ecommerceYn = true,
               .provider = "shop",
               .providerId = "prov-1",
               .providerType = "first_party",
               .tags = "blue,ceramic"};
}

inline ZClick click() {
  return ZClick{.type = "button",
                .layer1 = "detail",
                .layer2 = "buy",
                .layer3 = "primary",
                .clickUrl = "https://shop.example/cart",
                .setnum = "3",
                .ordnum = "1",
                .copy = "Add to cart",
                .imageUrl = "https://cdn.example/btn.png",
                .posX = 120,
                .posY = -40,
                .impId = "imp-7",
                .impProvider = "ads",
                .campaignId = "camp-9",
                .bucketId = "bkt-2"};
}

inline ZUsage usage() {
  return ZUsage{.duration = 4500,
                .scrollPercent = 0.1f,
                .scrollHeight = 3200,
                .scrollTop = 640,
                .scrollInnerHeight = 800,
                .scrollBottom = 1440};
}

inline ZLocation location() {
  return ZLocation{.latitude = 37.5665,
                   .logitude = 126.978,
                   .country = "KR",
                   .city = "Seoul",
                   .address1 = "1 Main St",
                   .address2 = "Apt 2",
                   .zipCode = "04524"};
}

inline ZPromotion promotion() {
  return ZPromotion{.name = "Winter sale",
                    .id = "promo-1",
                    .type = "banner",
                    .category = "seasonal",
                    .categoryId = "cat-s",
                    .banner = "hero",
                    .bannerId = "ban-1",
                    .bannerUrl = "https://cdn.example/hero.png",
                    .promotionUrl = "https://shop.example/sale",
                    .coupon = "WINTER10",
                    .couponId = "cpn-10",
                    .tags = "sale,winter"};
}

inline ZViewImpressionContent viewImpression() {
  return ZViewImpressionContent{.impressionId = "imp-1",
                                .impressionType = "card",
                                .impressionArea = "home_top",
                                .id = "item-42",
                                .type = "product",
                                .name = "Blue mug",
                                .category = "kitchen",
                                .provider = "shop",
                                .author = "studio"};
}

inline ZStatus status() {
  return ZStatus{.code = 404, .method = "GET", .path = "/item/42", .message = "not found"};
}

inline ZSearch search() {
  return ZSearch{.keyword = "mug",
                 .type = "product",
                 .tab = "all",
                 .resultNum = 37,
                 .collections = ZAnyCodable(std::string("kept in memory")),
                 .tabOrder = std::vector<std::string>{"all", "kitchen"}};
}

inline ZPurchase purchase() {
  return ZPurchase{.name = "Blue mug",
                   .id = "item-42",
                   .orderId = "ord-1001",
                   .brand = "Acme",
                   .brandId = "br-1",
                   .category = "kitchen",
                   .categoryId = "cat-5",
                   .subcategory = "mugs",
                   .subcategoryId = "sub-51",
                   .seller = "Acme Store",
                   .sellerId = "sel-1",
                   .payment = "card",
                   .currency = "KRW",
                   .shipAmount = 2500,
                   .couponAmount = 1000,
                   .discountAmount = 500,
                   .feeAmount = 0,
                   .price = 19.99f,
                   .quantity = 2,
                   .totalAmount = 39980,
                   .subscribeYn = false};
}

inline ZChat chat() {
  return ZChat{.utterance = "where is my order?",
               .utteranceTime = 1763999999,
               .type = "question",
               .answered = "Y",
               .id = "chat-1"};
}

inline ZVideoMeeting videoMeeting() {
  return ZVideoMeeting{.meetingId = "meet-1",
                       .meetingType = "group",
                       .agentUUID = "agent-uuid-1",
                       .micStatus = "on",
                       .micEffect = "noise_suppression",
                       .micDevice = "USB mic",
                       .cameraStatus = "off",
                       .cameraEffect = "blur",
                       .cameraDevice = "Webcam",
                       .pipStatus = true,
                       .pipInfo = "corner",
                       .screenShareStatus = "sharing",
                       .screenShareType = "window",
                       .speechRequest = "raise_hand",
                       .reaction = "thumbs_up",
                       .reactionType = "emoji",
                       .invitedCount = 8,
                       .participantsCount = 5,
                       .utterances = std::vector<std::string>{"hello", "bye"},
                       .utteranceType = "voice",
                       .utteranceDuration = 12};
}

inline ZDomain domain() {
  return ZDomain{
      .search = search(), .purchase = purchase(), .chat = chat(), .videoMeeting = videoMeeting()};
}

inline ZAction action() {
  return ZAction("event", "add_to_cart", "click");
}
inline ZXid xid() {
  return ZXid{.cid = "cid-1", .did = "did-2", .sid = "sid-3"};
}
inline ZUcid ucid() {
  return ZUcid{.serviceName = "shop", .serviceId = "svc-7", .id = "user-1"};
}

inline std::vector<ZViewImpressionContent> viewImpressions() {
  return {viewImpression(), ZViewImpressionContent{.id = "item-43"}};
}
inline std::vector<ZBucket> buckets() {
  return {bucket(), ZBucket{}};
}

inline ZLogRecord record() {
  return ZLogRecord{.xid = xid(),
                    .sdk = sdk(),
                    .action = action(),
                    .common = common(),
                    .id = id(),
                    .ucid = ucid(),
                    .agreement = agreement(),
                    .utm = utm(),
                    .agent = agent(),
                    .app = app(),
                    .location = location(),
                    .page = page(),
                    .click = click(),
                    .usage = usage(),
                    .domain = domain(),
                    .promotion = promotion(),
                    .viewImpressionContents = viewImpressions(),
                    .buckets = buckets(),
                    .status = status(),
                    .free = "\u00dcn\u00efc\u00f8d\u00e9 \u2713 \"quoted\" back\\slash/slash\ttab"};
}

inline ZLogTemplate logTemplate() {
  return ZLogTemplate{.agreement = agreement(),
                      .app = app(),
                      .click = click(),
                      .domain = domain(),
                      .location = location(),
                      .page = page(),
                      .promotion = promotion(),
                      .status = status(),
                      .usage = usage(),
                      .utm = utm(),
                      .buckets = buckets(),
                      .viewImpressionContents = viewImpressions(),
                      .action = action(),
                      .free = "template"};
}

inline ZHTTPResponseStatus responseStatus() {
  return ZHTTPResponseStatus{.code = "200", .message = "OK"};
}

// ----- the same values as decoding gives them back: members that JSON never carries are gone.

inline ZAgreement agreementAsRead() {
  auto a = agreement();
  a.thirdAdAgree.reset();
  return a;
}
inline ZClick clickAsRead() {
  auto c = click();
  c.copy.reset();
  return c;
}
inline ZSearch searchAsRead() {
  auto s = search();
  s.collections.reset();
  return s;
}
inline ZVideoMeeting videoMeetingAsRead() {
  auto v = videoMeeting();
  v.speechRequest.reset();
  return v;
}
inline ZDomain domainAsRead() {
  return ZDomain{.search = searchAsRead(),
                 .purchase = purchase(),
                 .chat = chat(),
                 .videoMeeting = videoMeetingAsRead()};
}
inline ZLogRecord recordAsRead() {
  auto r = record();
  r.agreement = agreementAsRead();
  r.click = clickAsRead();
  r.domain = domainAsRead();
  return r;
}

}  // namespace zelvanor::samples
