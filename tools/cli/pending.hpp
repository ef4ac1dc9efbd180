// Reading a pending-record file for people: every frame with where it sits and whether it
// decodes, and how the file ends. Works on bytes already read, so the file itself is never
// opened for writing.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "zelvanor/record.hpp"
#include "zelvanor/result.hpp"

namespace zelvanor::cli {

/// One whole frame: an 8-byte native-endian signed length, then that many bytes of record JSON.
struct PendingFrame {
  std::uint64_t offset = 0;         ///< where the frame's length field starts
  std::int64_t length = 0;          ///< the payload length as stored
  std::string_view payload;         ///< view into the content given to inspectPending
  std::optional<CodecError> error;  ///< why the payload is not a record; absent when it is one
};

/// How the run of frames ends.
struct PendingEnd {
  enum class Kind {
    clean,           ///< the last frame ends exactly at the end of the file
    tornLength,      ///< the file ends inside a length field
    negativeLength,  ///< a length field holds a negative number
    tornPayload,     ///< a length runs past the end of the file
  };
  Kind kind = Kind::clean;
  std::uint64_t offset = 0;     ///< where the frame that is not whole starts (or the file size)
  std::int64_t length = 0;      ///< the stored length, for negativeLength and tornPayload
  std::uint64_t available = 0;  ///< bytes present after `offset`
};

struct PendingReport {
  std::uint64_t size = 0;
  std::vector<PendingFrame> frames;
  PendingEnd end;

  std::size_t undecodable() const;
  /// How many records the SDK would give back at its next start, and whether it would then
  /// remove the file. One undecodable payload means nothing comes back and the file stays.
  std::size_t restorable() const;
  bool wouldRemove() const;
};

PendingReport inspectPending(std::string_view content);

/// One line per frame on `out`, the summary on `err`. With `pretty`, records that decode are shown
/// as indented JSON instead of the compact text stored.
void printPendingReport(const PendingReport& report, std::ostream& out, std::ostream& err,
                        bool pretty);

/// "clean", "torn inside a length field", ...
std::string describe(const PendingEnd& end);

}  // namespace zelvanor::cli
