// Reading a pending-record file for people: every piece the SDK's own frame reader finds, with
// where it sits, whether a frame decodes, and what the SDK would make of it at its next start.
// The file is only ever read, never opened for writing.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "store/pending_frames.hpp"
#include "zelvanor/record.hpp"
#include "zelvanor/result.hpp"

namespace zelvanor::cli {

/// One piece of the file as detail::scanFrames splits it.
struct PendingPiece {
  using Kind = detail::FramePiece::Kind;
  Kind kind = Kind::frame;
  std::uint64_t offset = 0;  ///< where the piece starts in the file
  std::uint64_t size = 0;    ///< bytes it covers, a frame's length field included
  /// The length field at `offset` as stored; absent when fewer than 8 bytes are left there.
  std::optional<std::int64_t> length;
  std::string_view payload;         ///< frames only: view into the content given to inspectPending
  std::optional<CodecError> error;  ///< frames only: why the payload is no record it could send
};

struct PendingReport {
  std::uint64_t size = 0;
  std::vector<PendingPiece> pieces;

  std::size_t frames() const;
  std::size_t undecodable() const;
  std::size_t skipped() const;
  std::size_t torn() const;
  /// How many records the SDK would take over at its next start: every frame that decodes. An
  /// undecodable one is moved to the quarantine file instead and holds nothing up.
  std::size_t restorable() const;
  /// Every frame decodes and nothing was skipped or torn.
  bool clean() const;
};

PendingReport inspectPending(std::string_view content);

/// The whole of a pending file, read through a non-blocking read-only descriptor. Anything but a
/// regular file (a FIFO, a directory, a device) is refused rather than read, so the tool never
/// waits on a writer that may never come.
std::optional<std::string> readPendingFile(const std::string& path, std::string& error);

/// One line per piece on `out`, the summary on `err`. With `pretty`, records that decode are
/// shown as indented JSON instead of the compact text stored.
void printPendingReport(const PendingReport& report, std::ostream& out, std::ostream& err,
                        bool pretty);

/// Why a skipped or torn piece is no frame, e.g. "torn: length 220 but only 40 bytes follow".
std::string describe(const PendingPiece& piece);

}  // namespace zelvanor::cli
