#include "pending.hpp"

#include <cerrno>
#include <cstring>

#include "platform/file_ops.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::cli {

namespace {

using Kind = PendingPiece::Kind;

// Payloads are shown on one line; a payload that is not a record may hold anything.
std::string printable(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  constexpr char kHex[] = "0123456789abcdef";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\') {
      text += "\\\\";
    } else if (byte < 0x20 || byte == 0x7f) {
      text += "\\x";
      text += kHex[byte >> 4];
      text += kHex[byte & 0xf];
    } else {
      text += c;  // UTF-8 passes through as it is
    }
  }
  return text;
}

// The SDK sends a restored record encoded afresh, so a payload that decodes but cannot be encoded
// again is quarantined just like one that does not decode.
std::optional<CodecError> whyNotSendable(std::string_view payload) {
  auto record = decodeJson<ZLogRecord>(payload);
  if (!record) return record.error();
  auto again = encodeJson(*record);
  if (!again) return again.error();
  return std::nullopt;
}

std::string plural(std::size_t count, const char* word) {
  return std::to_string(count) + " " + word + (count == 1 ? "" : "s");
}

}  // namespace

std::size_t PendingReport::frames() const {
  std::size_t count = 0;
  for (const auto& piece : pieces) count += piece.kind == Kind::frame ? 1 : 0;
  return count;
}

std::size_t PendingReport::undecodable() const {
  std::size_t count = 0;
  for (const auto& piece : pieces) count += piece.error ? 1 : 0;
  return count;
}

std::size_t PendingReport::skipped() const {
  std::size_t count = 0;
  for (const auto& piece : pieces) count += piece.kind == Kind::skipped ? 1 : 0;
  return count;
}

std::size_t PendingReport::torn() const {
  std::size_t count = 0;
  for (const auto& piece : pieces) count += piece.kind == Kind::torn ? 1 : 0;
  return count;
}

std::size_t PendingReport::restorable() const {
  return frames() - undecodable();
}

bool PendingReport::clean() const {
  return frames() == pieces.size() && undecodable() == 0;
}

PendingReport inspectPending(std::string_view content) {
  PendingReport report;
  report.size = content.size();
  // The whole content is at hand, so one call with endOfFile consumes all of it.
  (void)detail::scanFrames(content, 0, true, [&](const detail::FramePiece& found) {
    PendingPiece piece;
    piece.kind = found.kind;
    piece.offset = found.offset;
    piece.size = found.size;
    piece.payload = found.payload;
    if (content.size() - found.offset >= detail::kFrameLengthSize) {
      std::int64_t length = 0;
      std::memcpy(&length, content.data() + found.offset, detail::kFrameLengthSize);
      piece.length = length;
    }
    if (found.kind == Kind::frame) piece.error = whyNotSendable(found.payload);
    report.pieces.push_back(std::move(piece));
  });
  return report;
}

std::optional<std::string> readPendingFile(const std::string& path, std::string& error) {
  // The SDK's own reader: a regular file only (a FIFO or a device would never end), never
  // through a symbolic link, on every platform.
  if (auto content = platform::readWhole(path)) return content;
  if (auto other = platform::somethingElseAt(path)) {
    error = "cannot read " + path + ": not a regular file (" + *other + ")";
  } else {
    error = "cannot open " + path + ": missing or unreadable";
  }
  return std::nullopt;
}

std::string describe(const PendingPiece& piece) {
  const std::string length = piece.length ? "length " + std::to_string(*piece.length) : "";
  switch (piece.kind) {
    case Kind::frame:
      return "whole frame, " + length;
    case Kind::skipped:
      return "bytes that are no whole frame, skipped (" + length +
             "); reading goes on at the next whole frame";
    case Kind::torn:
      if (!piece.length) {
        return "torn end: the length field has only " + std::to_string(piece.size) + " of 8 bytes";
      }
      if (*piece.length >= 2 &&
          static_cast<std::uint64_t>(*piece.length) <= detail::kMaxFramePayload) {
        return "torn end: " + length + " but only " +
               std::to_string(piece.size - detail::kFrameLengthSize) + " bytes follow";
      }
      return "torn end: " + length + " names no frame and no whole frame follows";
  }
  return "unknown piece";
}

void printPendingReport(const PendingReport& report, std::ostream& out, std::ostream& err,
                        bool pretty) {
  std::size_t frameIndex = 0;
  for (const PendingPiece& piece : report.pieces) {
    if (piece.kind != Kind::frame) {
      out << (piece.kind == Kind::torn ? "torn" : "skipped") << " offset " << piece.offset
          << " size " << piece.size << ": " << describe(piece) << '\n';
      continue;
    }
    out << "frame " << frameIndex++ << " offset " << piece.offset << " length "
        << piece.payload.size();
    if (piece.error) {
      out << " undecodable: " << piece.error->describe() << '\n'
          << "  payload: " << printable(piece.payload) << '\n';
      continue;
    }
    std::string shown(piece.payload);
    if (pretty) {
      // The payload decoded a moment ago; encoding it again cannot fail for a decoded record,
      // but the stored text is the fallback all the same.
      if (auto record = decodeJson<ZLogRecord>(piece.payload)) {
        if (auto text = encodeJson(*record, JsonStyle::pretty)) shown = *text;
      }
    }
    out << " record" << (pretty ? "\n" : " ") << shown << '\n';
  }

  std::uint64_t skippedBytes = 0;
  for (const auto& piece : report.pieces) {
    if (piece.kind != Kind::frame) skippedBytes += piece.size;
  }
  err << report.size << " bytes: " << plural(report.frames(), "whole frame") << " ("
      << report.undecodable() << " undecodable), " << plural(report.skipped(), "skipped piece")
      << ", " << (report.torn() > 0 ? "a torn end" : "no torn end") << ".\n";
  if (report.size == 0) {
    err << "The SDK treats an empty file as no pending records.\n";
    return;
  }
  std::vector<std::string> outcomes = {"restore " + plural(report.restorable(), "record")};
  if (report.undecodable() > 0) {
    outcomes.push_back("move " + plural(report.undecodable(), "undecodable payload") +
                       " aside to the quarantine file");
  }
  if (skippedBytes > 0) {
    outcomes.push_back("read past " + plural(skippedBytes, "byte") + " that are no whole frame");
  }
  err << "At its next start the SDK would ";
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    if (i > 0) err << (i + 1 == outcomes.size() ? " and " : ", ");
    err << outcomes[i];
  }
  err << ".\n";
}

}  // namespace zelvanor::cli
