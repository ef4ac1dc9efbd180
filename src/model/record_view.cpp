#include "model/record_view.hpp"

#include <new>

namespace zelvanor::detail {

bool encodeRecordView(const ZLogRecordView& view, std::string& out, CodecError& error) {
  try {
    out.clear();
    JsonWriter writer(out, false);
    return encodeValue(writer, view, error);
  } catch (const std::bad_alloc&) {
    error = CodecError{CodecError::Kind::invalidValue, "", "out of memory"};
    return false;
  }
}

}  // namespace zelvanor::detail
