// One tracked event as it goes on the wire (ZLogRecord), the small blocks only it uses, and the
// template an event waits in until the identity triple is known.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zelvanor/blocks.hpp"
#include "zelvanor/configuration.hpp"
#include "zelvanor/export.hpp"

namespace zelvanor {

/// What the user did. All three members are required.
struct ZAction {
  /// The well-known action types, plus custom(text) for anything else.
  class ZActionType {
   public:
    enum class Case { custom, pageView, event, ecommerce, usage, viewImpression, location, app };

    /// One of the well-known types. A literal type, so the constants below are
    /// constant-initialized: they are ready before any dynamic initialization (a host's global
    /// ZAction in any file, or in a library loaded first, can use them) and are never destroyed.
    class Known {
     public:
      constexpr Case kind() const noexcept { return case_; }
      constexpr std::string_view text() const noexcept { return text_; }

     private:
      friend class ZActionType;
      constexpr Known(Case c, std::string_view text) noexcept : case_(c), text_(text) {}
      Case case_;
      std::string_view text_;
    };

    static ZActionType custom(std::string text) {
      return ZActionType(Case::custom, std::move(text));
    }
    static const Known pageView;
    static const Known event;
    static const Known ecommerce;
    static const Known usage;
    static const Known viewImpression;
    static const Known location;
    static const Known app;

    /// A well-known type as a value: ZActionType type = ZActionType::pageView.
    ZActionType(const Known& known) : case_(known.kind()), text_(known.text()) {}

    Case kind() const noexcept { return case_; }
    /// The text written into ZAction::type ("page_view", "view_imp", a custom text as given, ...).
    const std::string& text() const noexcept { return text_; }

    friend bool operator==(const ZActionType&, const ZActionType&) = default;

   private:
    ZActionType(Case c, std::string text) : case_(c), text_(std::move(text)) {}
    Case case_;
    std::string text_{};
  };

  ZAction() = default;
  // Parameters named apart from the members, so hosts building with -Wshadow stay quiet.
  ZAction(std::string actionType, std::string actionName, std::string actionKind)
      : type(std::move(actionType)), name(std::move(actionName)), kind(std::move(actionKind)) {}
  ZAction(const ZActionType& actionType, std::string actionName, std::string actionKind)
      : type(actionType.text()), name(std::move(actionName)), kind(std::move(actionKind)) {}

  std::string type{};
  std::string name{};
  std::string kind{};

  friend bool operator==(const ZAction&, const ZAction&) = default;
};

inline constexpr ZAction::ZActionType::Known ZAction::ZActionType::pageView{Case::pageView,
                                                                            "page_view"};
inline constexpr ZAction::ZActionType::Known ZAction::ZActionType::event{Case::event, "event"};
inline constexpr ZAction::ZActionType::Known ZAction::ZActionType::ecommerce{Case::ecommerce,
                                                                             "ecommerce"};
inline constexpr ZAction::ZActionType::Known ZAction::ZActionType::usage{Case::usage, "usage"};
inline constexpr ZAction::ZActionType::Known ZAction::ZActionType::viewImpression{
    Case::viewImpression, "view_imp"};
inline constexpr ZAction::ZActionType::Known ZAction::ZActionType::location{Case::location,
                                                                            "location"};
inline constexpr ZAction::ZActionType::Known ZAction::ZActionType::app{Case::app, "app"};

/// The cross-service identity triple issued by the identity sync server.
struct ZXid {
  std::string cid{};
  std::string did{};
  std::string sid{};

  friend bool operator==(const ZXid&, const ZXid&) = default;
};

/// The user's id as the collector keys it.
struct ZUcid {
  std::optional<std::string> serviceName{};
  std::optional<std::string> serviceId{};
  std::optional<std::string> id{};

  friend bool operator==(const ZUcid&, const ZUcid&) = default;
};

/// One event, as one flat JSON object. xid, sdk and action are required; absent members are
/// left out. viewImpressionContents travels under "viewimp_contents".
struct ZLogRecord {
  ZXid xid{};
  ZSDK sdk{};
  ZAction action{};
  std::optional<ZCommon> common{};
  std::optional<ZId> id{};
  std::optional<ZUcid> ucid{};
  std::optional<ZAgreement> agreement{};
  std::optional<ZUtm> utm{};
  std::optional<ZAgent> agent{};
  std::optional<ZApp> app{};
  std::optional<ZLocation> location{};
  std::optional<ZPage> page{};
  std::optional<ZClick> click{};
  std::optional<ZUsage> usage{};
  std::optional<ZDomain> domain{};
  std::optional<ZPromotion> promotion{};
  std::optional<std::vector<ZViewImpressionContent>> viewImpressionContents{};
  std::optional<std::vector<ZBucket>> buckets{};
  std::optional<ZStatus> status{};
  std::optional<std::string> free{};

  friend bool operator==(const ZLogRecord&, const ZLogRecord&) = default;
};

/// The per-event blocks of an event tracked before the identity triple was known. Encodes only;
/// its view-impression list is written as "viewImpressionContents".
struct ZLogTemplate {
  std::optional<ZAgreement> agreement{};
  std::optional<ZApp> app{};
  std::optional<ZClick> click{};
  std::optional<ZDomain> domain{};
  std::optional<ZLocation> location{};
  std::optional<ZPage> page{};
  std::optional<ZPromotion> promotion{};
  std::optional<ZStatus> status{};
  std::optional<ZUsage> usage{};
  std::optional<ZUtm> utm{};
  std::optional<std::vector<ZBucket>> buckets{};
  std::optional<std::vector<ZViewImpressionContent>> viewImpressionContents{};
  std::optional<ZAction> action{};
  std::optional<std::string> free{};

  friend bool operator==(const ZLogTemplate&, const ZLogTemplate&) = default;
};

}  // namespace zelvanor
