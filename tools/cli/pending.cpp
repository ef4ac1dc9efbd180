#include "pending.hpp"

#include <cstring>

#include "zelvanor/json.hpp"

namespace zelvanor::cli {

namespace {

constexpr std::uint64_t kLengthFieldSize = sizeof(std::int64_t);

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

}  // namespace

std::size_t PendingReport::undecodable() const {
  std::size_t count = 0;
  for (const auto& frame : frames) count += frame.error ? 1 : 0;
  return count;
}

std::size_t PendingReport::restorable() const {
  return undecodable() == 0 ? frames.size() : 0;
}

bool PendingReport::wouldRemove() const {
  return size > 0 && undecodable() == 0;
}

PendingReport inspectPending(std::string_view content) {
  PendingReport report;
  report.size = content.size();
  std::uint64_t offset = 0;
  while (offset < content.size()) {
    const std::uint64_t left = content.size() - offset;
    if (left < kLengthFieldSize) {
      report.end = {PendingEnd::Kind::tornLength, offset, 0, left};
      return report;
    }
    std::int64_t length = 0;
    std::memcpy(&length, content.data() + offset, kLengthFieldSize);
    const std::uint64_t available = left - kLengthFieldSize;
    if (length < 0) {
      report.end = {PendingEnd::Kind::negativeLength, offset, length, available};
      return report;
    }
    if (static_cast<std::uint64_t>(length) > available) {
      report.end = {PendingEnd::Kind::tornPayload, offset, length, available};
      return report;
    }
    PendingFrame frame;
    frame.offset = offset;
    frame.length = length;
    frame.payload = content.substr(offset + kLengthFieldSize, static_cast<std::size_t>(length));
    if (auto record = decodeJson<ZLogRecord>(frame.payload); !record) frame.error = record.error();
    report.frames.push_back(frame);
    offset += kLengthFieldSize + static_cast<std::uint64_t>(length);
  }
  report.end = {PendingEnd::Kind::clean, offset, 0, 0};
  return report;
}

std::string describe(const PendingEnd& end) {
  switch (end.kind) {
    case PendingEnd::Kind::clean:
      return "clean: the last frame ends where the file ends";
    case PendingEnd::Kind::tornLength:
      return "torn at offset " + std::to_string(end.offset) + ": the length field has only " +
             std::to_string(end.available) + " of 8 bytes";
    case PendingEnd::Kind::negativeLength:
      return "negative length " + std::to_string(end.length) + " at offset " +
             std::to_string(end.offset);
    case PendingEnd::Kind::tornPayload:
      return "torn at offset " + std::to_string(end.offset) + ": length " +
             std::to_string(end.length) + " but only " + std::to_string(end.available) +
             " bytes follow";
  }
  return "ends in an unknown way";
}

void printPendingReport(const PendingReport& report, std::ostream& out, std::ostream& err,
                        bool pretty) {
  for (std::size_t i = 0; i < report.frames.size(); ++i) {
    const PendingFrame& frame = report.frames[i];
    out << "frame " << i << " offset " << frame.offset << " length " << frame.length;
    if (frame.error) {
      out << " undecodable: " << frame.error->describe() << '\n'
          << "  payload: " << printable(frame.payload) << '\n';
      continue;
    }
    std::string shown(frame.payload);
    if (pretty) {
      // The payload decoded a moment ago; encoding it again cannot fail for a decoded record,
      // but the stored text is the fallback all the same.
      if (auto record = decodeJson<ZLogRecord>(frame.payload)) {
        if (auto text = encodeJson(*record, JsonStyle::pretty)) shown = *text;
      }
    }
    out << " record" << (pretty ? "\n" : " ") << shown << '\n';
  }
  if (report.end.kind != PendingEnd::Kind::clean) {
    out << "end: " << describe(report.end) << '\n';
  }

  err << report.size << " bytes, " << report.frames.size() << " whole frame"
      << (report.frames.size() == 1 ? "" : "s") << ", " << report.undecodable()
      << " undecodable; end: " << describe(report.end) << ".\n";
  if (report.size == 0) {
    err << "The SDK treats an empty file as no pending records and leaves it alone.\n";
  } else if (report.wouldRemove()) {
    err << "At its next start the SDK would restore " << report.restorable() << " record"
        << (report.restorable() == 1 ? "" : "s") << " and remove the file"
        << (report.end.kind == PendingEnd::Kind::clean ? "" : ", dropping the broken end") << ".\n";
  } else {
    err << "At its next start the SDK would restore nothing and keep the file: an undecodable "
           "frame blocks every record in it.\n";
  }
}

}  // namespace zelvanor::cli
