// Every type's wire form, declared once: member, JSON key, and how it meets the wire. Members are
// written in table order. Keys are fixed by the collector's format, not derived from names.
#pragma once

#include <tuple>

#include "model/codec.hpp"
#include "zelvanor/blocks.hpp"
#include "zelvanor/configuration.hpp"
#include "zelvanor/http_result.hpp"
#include "zelvanor/record.hpp"

namespace zelvanor::detail {

template <>
struct FieldTable<ZSDK> {
  static constexpr auto fields = std::tuple{
      field("type", &ZSDK::type),
      field("version", &ZSDK::version),
      field("common_log_version", &ZSDK::commonLogVersion),
  };
};

// The host's own configuration text (zelvanor_set_required, the command line's setRequired): keyed
// by the member names, every key required, as ZConfiguration's initializer has no defaults.
template <>
struct FieldTable<ZConfiguration> {
  using C = ZConfiguration;
  static constexpr auto fields = std::tuple{
      field("timeout", &C::timeout),
      field("batchSize", &C::batchSize),
      field("usingSandboxEnvironment", &C::usingSandboxEnvironment),
  };
};

template <>
struct FieldTable<ZCommon> {
  using C = ZCommon;
  static constexpr auto fields = std::tuple{
      field("service_name", &C::serviceName),
      field("svcdomain", &C::svcDomain),
      field("service_id", &C::serviceId),
      field("request_timestamp", &C::requestTimeStamp),
      field("access_timestamp", &C::accessTimeStamp),
      field("access_time", &C::accessTime),
      field("service_type", &C::serviceType),
      field("service_code", &C::serviceCode),
      field("service_code_id", &C::serviceCodeId),
      field("service_code_group", &C::serviceCodeGroup),
      field("service_code_group_id", &C::serviceCodeGroupId),
      field("service_org_code", &C::serviceOrganizationCode),
      field("service_org_code_id", &C::serviceOrganizationCodeId),
      field("display_name", &C::displayName),
      field("quindo_app_key", &C::quindoAppKey),
      field("deployment", &C::deployment),
      field("url", &C::url),
      field("referrer", &C::referrer),
      field("clog_seq", &C::clogSeq),
      field("t_channel", &C::tChannel),
      field("t_src", &C::tSrc),
      field("t_ch", &C::tCh),
      field("t_obj", &C::tObj),
      field("t_msg_id", &C::tMsgId),
  };
};

template <>
struct FieldTable<ZAgent> {
  using A = ZAgent;
  static constexpr auto fields = std::tuple{
      field("user_agent", &A::userAgent),
      field("ip", &A::ip),
      field("os", &A::os),
      field("os_version", &A::osVersion),
      field("app_version", &A::appVersion),
      field("device_model", &A::deviceModel),
      field("device_number", &A::deviceNumber),
      field("browser", &A::browser),
      field("browser_version", &A::browserVersion),
      field("carrier", &A::carrier),
      field("network_state", &A::networkState),
      field("language", &A::language),
      field("screen", &A::screen),
      field("timezone", &A::timezone),
  };
};

template <>
struct FieldTable<ZId> {
  static constexpr auto fields = std::tuple{
      field("account_id", &ZId::accountId),
      field("access_token", &ZId::accessToken),
      field("app_user_id", &ZId::appUserId),
      field("plova_user_id", &ZId::plovaUserId),
      field("hestro_user_id", &ZId::hestroUserId),
      field("tunqa_id", &ZId::tunqaId),
      field("app_id", &ZId::appId),
      field("slid", &ZId::slid),
      field("clid", &ZId::clid),
      field("uuid", &ZId::uuid),
      field("webid", &ZId::webId),
      field("webid_enabled", &ZId::webIdEnabled),
      field("adid", &ZId::adid),
      field("adid_enabled", &ZId::adidEnabled),
      field("custom_id", &ZId::customId),
      field("custom_group_id", &ZId::customGroupId),
  };
};

template <>
struct FieldTable<ZAgreement> {
  using A = ZAgreement;
  static constexpr auto fields = std::tuple{
      field("location_information_agree", &A::locationInformationAgree),
      field("third_provide_agree", &A::thirdProvideAgree),
      // The collector must never receive this flag, but hosts may hand it to us in JSON.
      readOnlyField("third_ad_agree", &A::thirdAdAgree),
      field("cookie_agree", &A::cookieAgree),
      field("donottrack_agree", &A::donotTrackAgree),
  };
};

template <>
struct FieldTable<ZApp> {
  static constexpr auto fields = std::tuple{
      field("app_install", &ZApp::appInstall),
      field("app_update", &ZApp::appUpdate),
      field("app_launch", &ZApp::appLaunch),
      field("app_exit", &ZApp::appExit),
      field("app_install_date", &ZApp::appInstallDate),
      field("app_install_timestamp", &ZApp::appInstallTimestamp),
  };
};

template <>
struct FieldTable<ZUtm> {
  static constexpr auto fields = std::tuple{
      field("type", &ZUtm::type),
      field("utm_source", &ZUtm::utmSource),
      field("utm_medium", &ZUtm::utmMedium),
      field("utm_campaign", &ZUtm::utmCampaign),
      field("utm_content", &ZUtm::utmContent),
      field("utm_term", &ZUtm::utmTerm),
      field("timestamp", &ZUtm::timestamp),
  };
};

template <>
struct FieldTable<ZBucket> {
  static constexpr auto fields = std::tuple{
      field("name", &ZBucket::name),
      field("group", &ZBucket::group),
      field("experiment_key", &ZBucket::experimentKey),
      field("variation_key", &ZBucket::variationKey),
      field("id_type", &ZBucket::idType),
  };
};

template <>
struct FieldTable<ZPage> {
  using P = ZPage;
  static constexpr auto fields = std::tuple{
      field("id", &P::id),
      field("type", &P::type),
      field("name", &P::name),
      field("title", &P::title),
      field("tab", &P::tab),
      field("tab_id", &P::tabId),
      field("category", &P::category),
      field("category_id", &P::categoryId),
      field("subcategory", &P::subcategory),
      field("subcategory_id", &P::subcategoryId),
      field("image", &P::image),
      field("plink", &P::plink),
      field("ecommerce_yn", &P::ecommerceYn),
      field("provider", &P::provider),
      field("provider_id", &P::providerId),
      field("provider_type", &P::providerType),
      field("tags", &P::tags),
  };
};

template <>
struct FieldTable<ZClick> {
  using C = ZClick;
  static constexpr auto fields = std::tuple{
      field("type", &C::type),
      field("layer1", &C::layer1),
      field("layer2", &C::layer2),
      field("layer3", &C::layer3),
      field("click_url", &C::clickUrl),
      field("setnum", &C::setnum),
      field("ordnum", &C::ordnum),
      // Kept for the host's own use; the collector's format has no place for it.
      memoryOnlyField("copy", &C::copy),
      field("image_url", &C::imageUrl),
      field("posx", &C::posX),
      field("posy", &C::posY),
      field("imp_id", &C::impId),
      field("imp_provider", &C::impProvider),
      field("campaign_id", &C::campaignId),
      field("bucket_id", &C::bucketId),
  };
};

template <>
struct FieldTable<ZUsage> {
  using U = ZUsage;
  static constexpr auto fields = std::tuple{
      field("duration", &U::duration),
      field("scroll_percent", &U::scrollPercent),
      field("scroll_height", &U::scrollHeight),
      field("scroll_top", &U::scrollTop),
      field("scroll_inner_height", &U::scrollInnerHeight),
      field("scroll_bottom", &U::scrollBottom),
  };
};

template <>
struct FieldTable<ZLocation> {
  using L = ZLocation;
  static constexpr auto fields = std::tuple{
      field("latitude", &L::latitude), field("logitude", &L::logitude),  // the collector's spelling
      field("country", &L::country),   field("city", &L::city),
      field("address1", &L::address1), field("address2", &L::address2),
      field("zip_code", &L::zipCode),
  };
};

template <>
struct FieldTable<ZPromotion> {
  using P = ZPromotion;
  static constexpr auto fields = std::tuple{
      field("name", &P::name),
      field("id", &P::id),
      field("type", &P::type),
      field("category", &P::category),
      field("category_id", &P::categoryId),
      field("banner", &P::banner),
      field("banner_id", &P::bannerId),
      field("banner_url", &P::bannerUrl),
      field("promotion_url", &P::promotionUrl),
      field("coupon", &P::coupon),
      field("coupon_id", &P::couponId),
      field("tags", &P::tags),
  };
};

template <>
struct FieldTable<ZViewImpressionContent> {
  using V = ZViewImpressionContent;
  static constexpr auto fields = std::tuple{
      field("imp_id", &V::impressionId),
      field("imp_type", &V::impressionType),
      field("imp_area", &V::impressionArea),
      field("id", &V::id),
      field("type", &V::type),
      field("name", &V::name),
      field("category", &V::category),
      field("provider", &V::provider),
      field("author", &V::author),
  };
};

template <>
struct FieldTable<ZStatus> {
  static constexpr auto fields = std::tuple{
      field("code", &ZStatus::code),
      field("method", &ZStatus::method),
      field("path", &ZStatus::path),
      field("msg", &ZStatus::message),
  };
};

template <>
struct FieldTable<ZSearch> {
  using S = ZSearch;
  static constexpr auto fields = std::tuple{
      field("keyword", &S::keyword),
      field("type", &S::type),
      field("tab", &S::tab),
      field("result_num", &S::resultNum),
      // An open slot for the host's own values; its content never reaches the collector.
      memoryOnlyField("collections", &S::collections),
      field("tab_order", &S::tabOrder),
  };
};

template <>
struct FieldTable<ZPurchase> {
  using P = ZPurchase;
  static constexpr auto fields = std::tuple{
      field("name", &P::name),
      field("id", &P::id),
      field("order_id", &P::orderId),
      field("brand", &P::brand),
      field("brand_id", &P::brandId),
      field("category", &P::category),
      field("category_id", &P::categoryId),
      field("subcategory", &P::subcategory),
      field("subcategory_id", &P::subcategoryId),
      field("seller", &P::seller),
      field("seller_id", &P::sellerId),
      field("payment", &P::payment),
      field("currency", &P::currency),
      field("ship_amt", &P::shipAmount),
      field("coupon_amt", &P::couponAmount),
      field("discount_amt", &P::discountAmount),
      field("fee_amt", &P::feeAmount),
      field("price", &P::price),
      field("quantity", &P::quantity),
      field("total_amt", &P::totalAmount),
      field("subscribe_yn", &P::subscribeYn),
  };
};

template <>
struct FieldTable<ZChat> {
  static constexpr auto fields = std::tuple{
      field("utterance", &ZChat::utterance),
      field("utterance_time", &ZChat::utteranceTime),
      field("type", &ZChat::type),
      field("answered", &ZChat::answered),
      field("id", &ZChat::id),
  };
};

template <>
struct FieldTable<ZVideoMeeting> {
  using V = ZVideoMeeting;
  static constexpr auto fields = std::tuple{
      field("meeting_id", &V::meetingId),
      field("meeting_type", &V::meetingType),
      field("agent_uuid", &V::agentUUID),
      field("mic_status", &V::micStatus),
      field("mic_effect", &V::micEffect),
      field("mic_device", &V::micDevice),
      field("camera_status", &V::cameraStatus),
      field("camera_effect", &V::cameraEffect),
      field("camera_device", &V::cameraDevice),
      field("pip_status", &V::pipStatus),
      field("pip_info", &V::pipInfo),
      field("screenshare_status", &V::screenShareStatus),
      field("screenshare_type", &V::screenShareType),
      // Accepted from hosts but withheld from the collector.
      readOnlyField("speech_request", &V::speechRequest),
      field("reaction", &V::reaction),
      field("reaction_type", &V::reactionType),
      field("invited_cnt", &V::invitedCount),
      field("participants_cnt", &V::participantsCount),
      field("utterances", &V::utterances),
      field("utterance_Type", &V::utteranceType),  // capital T, as the collector expects
      field("utterance_duration", &V::utteranceDuration),
  };
};

template <>
struct FieldTable<ZDomain> {
  static constexpr auto fields = std::tuple{
      field("search", &ZDomain::search),
      field("purchase", &ZDomain::purchase),
      field("chat", &ZDomain::chat),
      field("videoMeeting", &ZDomain::videoMeeting),
  };
};

template <>
struct FieldTable<ZAction> {
  static constexpr auto fields = std::tuple{
      field("type", &ZAction::type),
      field("name", &ZAction::name),
      field("kind", &ZAction::kind),
  };
};

template <>
struct FieldTable<ZXid> {
  static constexpr auto fields = std::tuple{
      field("cid", &ZXid::cid),
      field("did", &ZXid::did),
      field("sid", &ZXid::sid),
  };
};

template <>
struct FieldTable<ZUcid> {
  static constexpr auto fields = std::tuple{
      field("service_name", &ZUcid::serviceName),
      field("service_id", &ZUcid::serviceId),
      field("id", &ZUcid::id),
  };
};

template <>
struct FieldTable<ZLogRecord> {
  using R = ZLogRecord;
  static constexpr auto fields = std::tuple{
      field("xid", &R::xid),
      field("sdk", &R::sdk),
      field("action", &R::action),
      field("common", &R::common),
      field("id", &R::id),
      field("ucid", &R::ucid),
      field("agreement", &R::agreement),
      field("utm", &R::utm),
      field("agent", &R::agent),
      field("app", &R::app),
      field("location", &R::location),
      field("page", &R::page),
      field("click", &R::click),
      field("usage", &R::usage),
      field("domain", &R::domain),
      field("promotion", &R::promotion),
      field("viewimp_contents", &R::viewImpressionContents),
      field("buckets", &R::buckets),
      field("status", &R::status),
      // Reserved by the record format for a block we do not send; never written, never read.
      ReservedKey{"specific"},
      field("free", &R::free),
  };
};

template <>
struct FieldTable<ZLogTemplate> {
  using T = ZLogTemplate;
  // Templates are our own diagnostics, so every key is simply the member's name.
  static constexpr auto fields = std::tuple{
      field("agreement", &T::agreement),
      field("app", &T::app),
      field("click", &T::click),
      field("domain", &T::domain),
      field("location", &T::location),
      field("page", &T::page),
      field("promotion", &T::promotion),
      field("status", &T::status),
      field("usage", &T::usage),
      field("utm", &T::utm),
      field("buckets", &T::buckets),
      field("viewImpressionContents", &T::viewImpressionContents),
      field("action", &T::action),
      field("free", &T::free),
  };
};

template <>
struct FieldTable<ZHTTPResponseStatus> {
  static constexpr auto fields = std::tuple{
      field("code", &ZHTTPResponseStatus::code),
      field("msg", &ZHTTPResponseStatus::message),
  };
};

template <>
struct FieldTable<ZHTTPResultEmpty> {
  static constexpr auto fields = std::tuple{};
};

template <class Payload>
struct FieldTable<ZHTTPResult<Payload>> {
  using R = ZHTTPResult<Payload>;
  static constexpr auto fields = std::tuple{
      field("version", &R::version),
      field("status", &R::status),
      field("data", &R::data),
      // The sync server may send these; nothing in the SDK acts on them.
      ReservedKey{"_code"},
      ReservedKey{"_message"},
  };
};

}  // namespace zelvanor::detail
