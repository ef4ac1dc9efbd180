// Construction rules of the blocks that derive members: ZCommon, DeploymentType.
#include <cstdio>
#include <cstdlib>

#include "model/host_common.hpp"
#include "model/identifying.hpp"
#include "platform/platform.hpp"
#include "zelvanor/blocks.hpp"
#include "zelvanor/configuration.hpp"
#include "zelvanor/platform.hpp"

namespace zelvanor {

std::string_view rawValue(DeploymentType type) noexcept {
  return type == DeploymentType::production ? "production" : "development";
}

std::optional<DeploymentType> deploymentTypeFromRawValue(std::string_view text) noexcept {
  if (text == "development") return DeploymentType::development;
  if (text == "production") return DeploymentType::production;
  return std::nullopt;
}

namespace {

// Days since 1970-01-01 to a proleptic Gregorian date (valid over the whole int64 second range
// divided into days, so no input can overflow it).
void civilFromDays(std::int64_t days, std::int64_t& year, unsigned& month, unsigned& day) {
  days += 719468;
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const auto dayOfEra = static_cast<unsigned>(days - era * 146097);
  const unsigned yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const unsigned monthIndex = (5 * dayOfYear + 2) / 153;
  day = dayOfYear - (153 * monthIndex + 2) / 5 + 1;
  month = monthIndex < 10 ? monthIndex + 3 : monthIndex - 9;
  year = static_cast<std::int64_t>(yearOfEra) + era * 400 + (month <= 2 ? 1 : 0);
}

// yyyy-MM-dd'T'HH:mm:ssZZZZZ in the device's zone: "Z" at offset zero, else "+09:00".
std::string formatAccessTime(std::int64_t unixSeconds) {
  const long offset = platform::secondsFromGMT(unixSeconds);
  // Keep far-out values from overflowing; such instants have no meaningful local time anyway.
  constexpr std::int64_t kLimit = std::int64_t{1} << 52;
  const std::int64_t clamped =
      unixSeconds > kLimit ? kLimit : (unixSeconds < -kLimit ? -kLimit : unixSeconds);
  const std::int64_t local = clamped + offset;
  std::int64_t days = local / 86400;
  std::int64_t secondsOfDay = local % 86400;
  if (secondsOfDay < 0) {
    secondsOfDay += 86400;
    --days;
  }
  std::int64_t year = 0;
  unsigned month = 0, day = 0;
  civilFromDays(days, year, month, day);
  char text[64];
  std::snprintf(
      text, sizeof text, "%04lld-%02u-%02uT%02lld:%02lld:%02lld", static_cast<long long>(year),
      month, day, static_cast<long long>(secondsOfDay / 3600),
      static_cast<long long>(secondsOfDay / 60 % 60), static_cast<long long>(secondsOfDay % 60));
  std::string result = text;
  if (offset == 0) {
    result += 'Z';
  } else {
    const long magnitude = std::labs(offset);
    std::snprintf(text, sizeof text, "%c%02ld:%02ld", offset < 0 ? '-' : '+', magnitude / 3600,
                  magnitude / 60 % 60);
    result += text;
    if (magnitude % 60 != 0) {
      std::snprintf(text, sizeof text, ":%02ld", magnitude % 60);
      result += text;
    }
  }
  return result;
}

}  // namespace

ZCommon::ZCommon(Fields f)
    : serviceName(std::move(f.serviceName)),
      svcDomain(f.svcDomain ? std::move(f.svcDomain) : currentPlatformFacts().bundleIdentifier),
      serviceId(std::move(f.serviceId)),
      accessTimeStamp(f.accessTimeStamp),
      accessTime(f.accessTimeStamp ? std::optional(formatAccessTime(*f.accessTimeStamp))
                                   : std::nullopt),
      serviceType(std::move(f.serviceType)),
      serviceCode(std::move(f.serviceCode)),
      serviceCodeId(std::move(f.serviceCodeId)),
      serviceCodeGroup(std::move(f.serviceCodeGroup)),
      serviceCodeGroupId(std::move(f.serviceCodeGroupId)),
      serviceOrganizationCode(std::move(f.serviceOrganizationCode)),
      serviceOrganizationCodeId(std::move(f.serviceOrganizationCodeId)),
      displayName(std::move(f.displayName)),
      quindoAppKey(std::move(f.quindoAppKey)),
      deployment(std::move(f.deployment)),
      url(std::move(f.url)),
      referrer(std::move(f.referrer)),
      clogSeq(std::move(f.clogSeq)),
      tChannel(std::move(f.tChannel)),
      tSrc(std::move(f.tSrc)),
      tCh(std::move(f.tCh)),
      tObj(std::move(f.tObj)),
      tMsgId(std::move(f.tMsgId)) {}

}  // namespace zelvanor

namespace zelvanor::detail {

ZCommon commonFromHost(ZCommon decoded) {
  return ZCommon(ZCommon::Fields{
      .serviceName = std::move(decoded.serviceName),
      .deployment = std::move(decoded.deployment),
      .svcDomain = std::move(decoded.svcDomain),
      .serviceId = std::move(decoded.serviceId),
      .accessTimeStamp = decoded.accessTimeStamp,
      .serviceType = std::move(decoded.serviceType),
      .serviceCode = std::move(decoded.serviceCode),
      .serviceCodeId = std::move(decoded.serviceCodeId),
      .serviceCodeGroup = std::move(decoded.serviceCodeGroup),
      .serviceCodeGroupId = std::move(decoded.serviceCodeGroupId),
      .serviceOrganizationCode = std::move(decoded.serviceOrganizationCode),
      .serviceOrganizationCodeId = std::move(decoded.serviceOrganizationCodeId),
      .displayName = std::move(decoded.displayName),
      .quindoAppKey = std::move(decoded.quindoAppKey),
      .url = std::move(decoded.url),
      .referrer = std::move(decoded.referrer),
      .clogSeq = std::move(decoded.clogSeq),
      .tChannel = std::move(decoded.tChannel),
      .tSrc = std::move(decoded.tSrc),
      .tCh = std::move(decoded.tCh),
      .tObj = std::move(decoded.tObj),
      .tMsgId = std::move(decoded.tMsgId),
  });
}

}  // namespace zelvanor::detail

namespace zelvanor::detail {

std::vector<std::string> identifyingValues(const ZId& id) {
  std::vector<std::string> values;
  for (const auto* member : {&id.accountId, &id.accessToken, &id.appUserId, &id.plovaUserId,
                             &id.hestroUserId, &id.tunqaId, &id.appId, &id.slid, &id.clid, &id.uuid,
                             &id.webId, &id.adid, &id.customId, &id.customGroupId}) {
    if (*member && !(*member)->empty()) values.push_back(**member);
  }
  return values;
}

std::vector<std::string> identifyingValues(const ZLogRecord& record) {
  std::vector<std::string> values =
      record.id ? identifyingValues(*record.id) : std::vector<std::string>{};
  for (const std::string* value : {&record.xid.cid, &record.xid.did, &record.xid.sid}) {
    if (!value->empty()) values.push_back(*value);
  }
  if (record.ucid && record.ucid->id && !record.ucid->id->empty())
    values.push_back(*record.ucid->id);
  if (record.agent && record.agent->ip && !record.agent->ip->empty())
    values.push_back(*record.agent->ip);
  return values;
}

}  // namespace zelvanor::detail
