// Fully populated values of every wire type, read from tests/data/wire/<Type>.full.json (written
// by hand from the record format). The members a host may set but the wire never carries are set
// on top, so that the tests can check they stay out; the *AsRead values are the files as decoding
// gives them back.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "support/wire_json.hpp"
#include "zelvanor/configuration.hpp"
#include "zelvanor/http_result.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/record.hpp"

namespace zelvanor::samples {

/// tests/data/wire/<name>.full.json, decoded.
template <class T>
T fromFixture(std::string_view name) {
  auto decoded = decodeJson<T>(testing_support::wireFixture(std::string(name) + ".full.json"));
  if (!decoded) throw std::runtime_error(std::string(name) + ": " + decoded.error().describe());
  return std::move(decoded).value();
}

// The members that are neither written nor read.
template <class T>
void addUnwritten(T&) {}
inline void addUnwritten(ZAgreement& a) {
  a.thirdAdAgree = true;
}
inline void addUnwritten(ZClick& c) {
  c.copy = "Add to cart";
}
inline void addUnwritten(ZSearch& s) {
  s.collections = ZAnyCodable(std::string("kept in memory"));
}
inline void addUnwritten(ZVideoMeeting& v) {
  v.speechRequest = "raise_hand";
}
inline void addUnwritten(ZDomain& d) {
  addUnwritten(*d.search);
  addUnwritten(*d.videoMeeting);
}
inline void addUnwritten(ZLogRecord& r) {
  addUnwritten(*r.agreement);
  addUnwritten(*r.click);
  addUnwritten(*r.domain);
}

/// The full fixture of `name` with the members the wire never carries added.
template <class T>
T full(std::string_view name) {
  T value = fromFixture<T>(name);
  addUnwritten(value);
  return value;
}

inline ZId id() {
  return fromFixture<ZId>("ZId");
}
inline ZXid xid() {
  return ZXid{.cid = "cid-1", .did = "did-2", .sid = "sid-3"};
}
inline ZHTTPResponseStatus responseStatus() {
  return ZHTTPResponseStatus{.code = "200", .message = "OK"};
}
inline ZLogRecord recordAsRead() {
  return fromFixture<ZLogRecord>("ZLogRecord");
}
inline ZLogRecord record() {
  return full<ZLogRecord>("ZLogRecord");
}
/// The record's event blocks, with a text of its own.
inline ZLogTemplate logTemplate() {
  const ZLogRecord r = record();
  return ZLogTemplate{r.agreement, r.app,     r.click,     r.domain,
                      r.location,  r.page,    r.promotion, r.status,
                      r.usage,     r.utm,     r.buckets,   r.viewImpressionContents,
                      r.action,    "template"};
}

}  // namespace zelvanor::samples
