// The blocks a record is made of. Every block is a plain value; optional members that hold
// nothing are left out of the JSON entirely. Build them with designated initializers in member
// order: ZPage{.id = "p1", .name = "home", .title = "Home"}.
#pragma once

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "zelvanor/export.hpp"

namespace zelvanor {

// ---------------------------------------------------------------------------------------------
// Context blocks

/// The common block: the host's service and request identity. Build it from ZCommon::Fields so
/// that its two derived members are filled in.
struct ZCommon {
  /// The host-supplied members, in the order the constructor takes them.
  struct Fields {
    std::string serviceName{};
    std::string deployment{};
    std::optional<std::string> svcDomain{};  ///< absent: the host's bundle identifier is used
    std::optional<std::string> serviceId{};
    std::optional<std::int64_t> accessTimeStamp{};  ///< seconds since 1970-01-01 UTC
    std::optional<std::string> serviceType{};
    std::optional<std::string> serviceCode{};
    std::optional<std::string> serviceCodeId{};
    std::optional<std::string> serviceCodeGroup{};
    std::optional<std::string> serviceCodeGroupId{};
    std::optional<std::string> serviceOrganizationCode{};
    std::optional<std::string> serviceOrganizationCodeId{};
    std::optional<std::string> displayName{};
    std::optional<std::string> quindoAppKey{};
    std::optional<std::string> url{};
    std::optional<std::string> referrer{};
    std::optional<std::string> clogSeq{};
    std::optional<std::string> tChannel{};
    std::optional<std::string> tSrc{};
    std::optional<std::string> tCh{};
    std::optional<std::string> tObj{};
    std::optional<std::string> tMsgId{};
  };

  /// An empty block (both required members empty); decoding starts from this.
  ZCommon() = default;
  /// Stores the fields; svcDomain falls back to the host's bundle identifier, and accessTime is
  /// accessTimeStamp rendered as yyyy-MM-dd'T'HH:mm:ssZZZZZ in the device's current zone.
  /// requestTimeStamp stays absent: the SDK stamps it on its own copy when it builds a record.
  ZELVANOR_API explicit ZCommon(Fields fields);

  std::string serviceName{};
  std::optional<std::string> svcDomain{};
  std::optional<std::string> serviceId{};
  std::optional<std::int64_t> requestTimeStamp{};
  std::optional<std::int64_t> accessTimeStamp{};
  std::optional<std::string> accessTime{};
  std::optional<std::string> serviceType{};
  std::optional<std::string> serviceCode{};
  std::optional<std::string> serviceCodeId{};
  std::optional<std::string> serviceCodeGroup{};
  std::optional<std::string> serviceCodeGroupId{};
  std::optional<std::string> serviceOrganizationCode{};
  std::optional<std::string> serviceOrganizationCodeId{};
  std::optional<std::string> displayName{};
  std::optional<std::string> quindoAppKey{};
  std::string deployment{};
  std::optional<std::string> url{};
  std::optional<std::string> referrer{};
  std::optional<std::string> clogSeq{};
  std::optional<std::string> tChannel{};
  std::optional<std::string> tSrc{};
  std::optional<std::string> tCh{};
  std::optional<std::string> tObj{};
  std::optional<std::string> tMsgId{};

  friend bool operator==(const ZCommon&, const ZCommon&) = default;
};

/// Device and client. The SDK fills most of it itself; the host may add to it.
struct ZAgent {
  std::optional<std::string> userAgent{};
  std::optional<std::string> ip{};
  std::optional<std::string> os{};
  std::optional<std::string> osVersion{};
  std::optional<std::string> appVersion{};
  std::optional<std::string> deviceModel{};
  std::optional<std::string> deviceNumber{};
  std::optional<std::string> browser{};
  std::optional<std::string> browserVersion{};
  std::optional<std::string> carrier{};
  std::optional<std::string> networkState{};
  std::optional<std::string> language{};
  std::optional<std::string> screen{};
  std::optional<std::string> timezone{};

  friend bool operator==(const ZAgent&, const ZAgent&) = default;
};

/// User and device identifiers.
struct ZId {
  std::optional<std::string> accountId{};
  std::optional<std::string> accessToken{};
  std::optional<std::string> appUserId{};
  std::optional<std::string> plovaUserId{};
  std::optional<std::string> hestroUserId{};
  std::optional<std::string> tunqaId{};
  std::optional<std::string> appId{};
  std::optional<std::string> slid{};
  std::optional<std::string> clid{};
  std::optional<std::string> uuid{};
  std::optional<std::string> webId{};
  std::optional<bool> webIdEnabled{};
  std::optional<std::string> adid{};
  std::optional<bool> adidEnabled{};
  std::optional<std::string> customId{};
  std::optional<std::string> customGroupId{};

  friend bool operator==(const ZId&, const ZId&) = default;
};

/// Consent flags. thirdAdAgree is read from JSON but never written to a record.
struct ZAgreement {
  std::optional<bool> locationInformationAgree{};
  std::optional<bool> thirdProvideAgree{};
  std::optional<bool> thirdAdAgree{};
  std::optional<bool> cookieAgree{};
  std::optional<bool> donotTrackAgree{};

  friend bool operator==(const ZAgreement&, const ZAgreement&) = default;
};

/// Application lifecycle flags; the SDK fills it for install, update, launch and background.
struct ZApp {
  std::optional<bool> appInstall{};
  std::optional<bool> appUpdate{};
  std::optional<bool> appLaunch{};
  std::optional<bool> appExit{};
  std::optional<std::string> appInstallDate{};
  std::optional<std::int64_t> appInstallTimestamp{};

  friend bool operator==(const ZApp&, const ZApp&) = default;
};

/// Campaign attribution.
struct ZUtm {
  std::optional<std::string> type{};
  std::optional<std::string> utmSource{};
  std::optional<std::string> utmMedium{};
  std::optional<std::string> utmCampaign{};
  std::optional<std::string> utmContent{};
  std::optional<std::string> utmTerm{};
  std::optional<std::int64_t> timestamp{};

  friend bool operator==(const ZUtm&, const ZUtm&) = default;
};

/// One A/B-test assignment.
struct ZBucket {
  std::optional<std::string> name{};
  std::optional<std::string> group{};
  std::optional<std::string> experimentKey{};
  std::optional<std::string> variationKey{};
  std::optional<std::string> idType{};

  friend bool operator==(const ZBucket&, const ZBucket&) = default;
};

// ---------------------------------------------------------------------------------------------
// Event blocks

/// The page shown. id, name and title are required.
struct ZPage {
  std::string id{};
  std::optional<std::string> type{};
  std::string name{};
  std::string title{};
  std::optional<std::string> tab{};
  std::optional<std::string> tabId{};
  std::optional<std::string> category{};
  std::optional<std::string> categoryId{};
  std::optional<std::string> subcategory{};
  std::optional<std::string> subcategoryId{};
  std::optional<std::string> image{};
  std::optional<std::string> plink{};
  std::optional<bool> ecommerceYn{};
  std::optional<std::string> provider{};
  std::optional<std::string> providerId{};
  std::optional<std::string> providerType{};
  std::optional<std::string> tags{};

  friend bool operator==(const ZPage&, const ZPage&) = default;
};

/// A click. `copy` is carried in memory only: it never reaches JSON and is never read from it.
struct ZClick {
  std::optional<std::string> type{};
  std::optional<std::string> layer1{};
  std::optional<std::string> layer2{};
  std::optional<std::string> layer3{};
  std::optional<std::string> clickUrl{};
  std::optional<std::string> setnum{};
  std::optional<std::string> ordnum{};
  std::optional<std::string> copy{};
  std::optional<std::string> imageUrl{};
  std::optional<std::int64_t> posX{};
  std::optional<std::int64_t> posY{};
  std::optional<std::string> impId{};
  std::optional<std::string> impProvider{};
  std::optional<std::string> campaignId{};
  std::optional<std::string> bucketId{};

  friend bool operator==(const ZClick&, const ZClick&) = default;
};

/// Dwell time and scrolling.
struct ZUsage {
  std::optional<std::int64_t> duration{};
  std::optional<float> scrollPercent{};
  std::optional<std::int64_t> scrollHeight{};
  std::optional<std::int64_t> scrollTop{};
  std::optional<std::int64_t> scrollInnerHeight{};
  std::optional<std::int64_t> scrollBottom{};

  friend bool operator==(const ZUsage&, const ZUsage&) = default;
};

/// A position. The longitude member is spelt `logitude` on the wire and here.
struct ZLocation {
  std::optional<double> latitude{};
  std::optional<double> logitude{};
  std::optional<std::string> country{};
  std::optional<std::string> city{};
  std::optional<std::string> address1{};
  std::optional<std::string> address2{};
  std::optional<std::string> zipCode{};

  friend bool operator==(const ZLocation&, const ZLocation&) = default;
};

/// A promotion shown or clicked.
struct ZPromotion {
  std::optional<std::string> name{};
  std::optional<std::string> id{};
  std::optional<std::string> type{};
  std::optional<std::string> category{};
  std::optional<std::string> categoryId{};
  std::optional<std::string> banner{};
  std::optional<std::string> bannerId{};
  std::optional<std::string> bannerUrl{};
  std::optional<std::string> promotionUrl{};
  std::optional<std::string> coupon{};
  std::optional<std::string> couponId{};
  std::optional<std::string> tags{};

  friend bool operator==(const ZPromotion&, const ZPromotion&) = default;
};

/// One item seen in a view impression.
struct ZViewImpressionContent {
  std::optional<std::string> impressionId{};
  std::optional<std::string> impressionType{};
  std::optional<std::string> impressionArea{};
  std::optional<std::string> id{};
  std::optional<std::string> type{};
  std::optional<std::string> name{};
  std::optional<std::string> category{};
  std::optional<std::string> provider{};
  std::optional<std::string> author{};

  friend bool operator==(const ZViewImpressionContent&, const ZViewImpressionContent&) = default;
};

/// An outcome status; `message` travels under the key "msg".
struct ZStatus {
  std::optional<std::int64_t> code{};
  std::optional<std::string> method{};
  std::optional<std::string> path{};
  std::optional<std::string> message{};

  friend bool operator==(const ZStatus&, const ZStatus&) = default;
};

// ---------------------------------------------------------------------------------------------
// Domain blocks

/// Holds any value the SDK can encode and decode, in memory only (see ZSearch::collections).
/// The held type needs no operator==: two slots are equal when both are empty, when one is a
/// copy of the other, or when they hold values of the same type that compare equal with ==
/// (for types that declare one; a value without == equals only its own copies).
class ZAnyCodable {
 public:
  ZAnyCodable() = default;
  template <class T>
  explicit ZAnyCodable(T value) : holder_(std::make_shared<const Holder<T>>(std::move(value))) {}

  bool hasValue() const noexcept { return holder_ != nullptr; }
  /// The held value when it is a T, else nullptr.
  template <class T>
  const T* get() const noexcept {
    if (!holder_ || holder_->type() != typeid(T)) return nullptr;
    return &static_cast<const Holder<T>*>(holder_.get())->value;
  }

  friend bool operator==(const ZAnyCodable& a, const ZAnyCodable& b) {
    if (a.holder_ == b.holder_) return true;  // both empty, or copies of one another
    if (!a.holder_ || !b.holder_) return false;
    return a.holder_->equals(*b.holder_);
  }

 private:
  struct Base {
    virtual ~Base() = default;
    virtual const std::type_info& type() const noexcept = 0;
    virtual bool equals(const Base& other) const = 0;
  };
  template <class T>
  struct Holder final : Base {
    explicit Holder(T v) : value(std::move(v)) {}
    const std::type_info& type() const noexcept override { return typeid(T); }
    bool equals(const Base& other) const override {
      // Compiled for every held type, so == is only used where the type declares it.
      if constexpr (std::equality_comparable<T>) {
        return other.type() == typeid(T) && static_cast<const Holder&>(other).value == value;
      } else {
        return this == &other;
      }
    }
    T value;
  };
  std::shared_ptr<const Base> holder_;
};

/// A search. `collections` is an open slot carried in memory only: never written, never read.
struct ZSearch {
  std::optional<std::string> keyword{};
  std::optional<std::string> type{};
  std::optional<std::string> tab{};
  std::optional<std::int64_t> resultNum{};
  std::optional<ZAnyCodable> collections{};
  std::optional<std::vector<std::string>> tabOrder{};

  friend bool operator==(const ZSearch&, const ZSearch&) = default;
};

/// A purchase. price is a 32-bit float; amounts are integers.
struct ZPurchase {
  std::optional<std::string> name{};
  std::optional<std::string> id{};
  std::optional<std::string> orderId{};
  std::optional<std::string> brand{};
  std::optional<std::string> brandId{};
  std::optional<std::string> category{};
  std::optional<std::string> categoryId{};
  std::optional<std::string> subcategory{};
  std::optional<std::string> subcategoryId{};
  std::optional<std::string> seller{};
  std::optional<std::string> sellerId{};
  std::optional<std::string> payment{};
  std::optional<std::string> currency{};
  std::optional<std::int64_t> shipAmount{};
  std::optional<std::int64_t> couponAmount{};
  std::optional<std::int64_t> discountAmount{};
  std::optional<std::int64_t> feeAmount{};
  std::optional<float> price{};
  std::optional<std::int64_t> quantity{};
  std::optional<std::int64_t> totalAmount{};
  std::optional<bool> subscribeYn{};

  friend bool operator==(const ZPurchase&, const ZPurchase&) = default;
};

/// One chat utterance.
struct ZChat {
  std::optional<std::string> utterance{};
  std::optional<std::int64_t> utteranceTime{};
  std::optional<std::string> type{};
  std::optional<std::string> answered{};
  std::optional<std::string> id{};

  friend bool operator==(const ZChat&, const ZChat&) = default;
};

/// A video meeting. speechRequest is read from JSON but never written.
struct ZVideoMeeting {
  std::optional<std::string> meetingId{};
  std::optional<std::string> meetingType{};
  std::optional<std::string> agentUUID{};
  std::optional<std::string> micStatus{};
  std::optional<std::string> micEffect{};
  std::optional<std::string> micDevice{};
  std::optional<std::string> cameraStatus{};
  std::optional<std::string> cameraEffect{};
  std::optional<std::string> cameraDevice{};
  std::optional<bool> pipStatus{};
  std::optional<std::string> pipInfo{};
  std::optional<std::string> screenShareStatus{};
  std::optional<std::string> screenShareType{};
  std::optional<std::string> speechRequest{};
  std::optional<std::string> reaction{};
  std::optional<std::string> reactionType{};
  std::optional<std::int64_t> invitedCount{};
  std::optional<std::int64_t> participantsCount{};
  std::optional<std::vector<std::string>> utterances{};
  std::optional<std::string> utteranceType{};
  std::optional<std::int64_t> utteranceDuration{};

  friend bool operator==(const ZVideoMeeting&, const ZVideoMeeting&) = default;
};

/// One slot per line of business; several may be set at once.
struct ZDomain {
  std::optional<ZSearch> search{};
  std::optional<ZPurchase> purchase{};
  std::optional<ZChat> chat{};
  std::optional<ZVideoMeeting> videoMeeting{};

  friend bool operator==(const ZDomain&, const ZDomain&) = default;
};

}  // namespace zelvanor
