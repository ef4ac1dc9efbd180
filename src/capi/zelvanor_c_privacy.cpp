// The C API's privacy controls: the collection switch, deleting what the SDK keeps, and the
// before-send hook.
#include <cstdlib>
#include <string>

#include "capi/c_guard.hpp"
#include "support/diagnostics.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/tracker.hpp"
#include "zelvanor/zelvanor.h"

using namespace zelvanor;
using namespace zelvanor::capi;

extern "C" {

void zelvanor_set_collection_enabled(int enabled) {
  guardedVoid("zelvanor_set_collection_enabled",
              [&] { ZelvanorTracker::setCollectionEnabled(enabled != 0); });
}

int zelvanor_collection_enabled(void) {
  int enabled = 1;
  guardedVoid("zelvanor_collection_enabled",
              [&] { enabled = ZelvanorTracker::collectionEnabled() ? 1 : 0; });
  return enabled;
}

void zelvanor_delete_local_data(void) {
  guardedVoid("zelvanor_delete_local_data", [] { ZelvanorTracker::deleteLocalData(); });
}

void zelvanor_set_before_send(zelvanor_before_send hook, void* user_data) {
  guardedVoid("zelvanor_set_before_send", [&] {
    if (!hook) {
      ZelvanorTracker::setBeforeSend({});
      return;
    }
    ZelvanorTracker::setBeforeSend([hook, user_data](ZLogRecord& record) {
      auto json = encodeJson(record);
      if (!json) return false;  // cannot be encoded: it would be dropped anyway
      char* replacement = nullptr;
      const int keep = hook(json->c_str(), json->size(), &replacement, user_data);
      if (!replacement) return keep != 0;
      const std::string text(replacement);
      std::free(replacement);
      if (keep == 0) return false;
      auto decoded = decodeJson<ZLogRecord>(text);
      if (!decoded) {
        detail::diagnose(ZLogLevel::error,
                         "event dropped: the before-send hook's replacement is no record: " +
                             decoded.error().describe());
        return false;
      }
      record = std::move(decoded).value();
      return true;
    });
  });
}

}  // extern "C"
