// The pending-file frame reader's rules, checked on arbitrary file content: by the pending-file
// fuzzer and by the corpus replay test. Returns an empty string when every rule holds, else which
// broke.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "store/pending_frames.hpp"

namespace zelvanor::fuzzing {

struct ScannedPiece {
  detail::FramePiece::Kind kind;
  std::uint64_t offset;
  std::uint64_t size;
  std::string payload;
};

/// Pieces must follow each other without gap or overlap from `from` to `to`.
inline std::string checkTiling(const std::vector<ScannedPiece>& pieces, std::uint64_t from,
                               std::uint64_t to) {
  std::uint64_t at = from;
  for (const auto& piece : pieces) {
    if (piece.offset != at) return "pieces leave a gap or overlap";
    if (piece.size == 0) return "an empty piece";
    at += piece.size;
  }
  return at == to ? "" : "pieces do not cover the content exactly";
}

inline std::vector<ScannedPiece> framesOnly(const std::vector<ScannedPiece>& pieces) {
  std::vector<ScannedPiece> frames;
  for (const auto& piece : pieces) {
    if (piece.kind == detail::FramePiece::Kind::frame) frames.push_back(piece);
  }
  return frames;
}

inline bool sameFrames(const std::vector<ScannedPiece>& a, const std::vector<ScannedPiece>& b) {
  const auto fa = framesOnly(a), fb = framesOnly(b);
  return std::equal(fa.begin(), fa.end(), fb.begin(), fb.end(), [](const auto& x, const auto& y) {
    return x.offset == y.offset && x.size == y.size && x.payload == y.payload;
  });
}

/// Scans `content` in two calls, cut at `split`, as a reader that has read only part of the file.
inline std::vector<ScannedPiece> scanSplit(std::string_view content, std::size_t split) {
  std::vector<ScannedPiece> pieces;
  const auto keep = [&](const detail::FramePiece& p) {
    pieces.push_back({p.kind, p.offset, p.size, std::string(p.payload)});
  };
  const std::size_t used = detail::scanFrames(content.substr(0, split), 0, false, keep);
  if (used > split) return {};  // reported by the caller as a mismatch
  std::string rest(content.substr(used));
  detail::scanFrames(rest, used, true, keep);
  return pieces;
}

inline std::string checkPendingContent(std::string_view content,
                                       const std::filesystem::path& scratchFile) {
  using Kind = detail::FramePiece::Kind;
  constexpr std::size_t kLength = detail::kFrameLengthSize;

  // 1. At once: everything consumed, pieces tile the content, frames are what their lengths say.
  std::vector<ScannedPiece> whole;
  bool payloadsInPlace = true;
  const std::size_t used = detail::scanFrames(content, 0, true, [&](const detail::FramePiece& p) {
    whole.push_back({p.kind, p.offset, p.size, std::string(p.payload)});
    if (p.kind == Kind::frame && (p.payload.data() != content.data() + p.offset + kLength ||
                                  p.offset + p.size > content.size())) {
      payloadsInPlace = false;
    }
  });
  if (used != content.size()) return "the end of the file left bytes unconsumed";
  if (!payloadsInPlace) return "a payload is no view of the bytes after its length field";
  if (auto broken = checkTiling(whole, 0, content.size()); !broken.empty()) return broken;
  for (std::size_t i = 0; i < whole.size(); ++i) {
    const ScannedPiece& piece = whole[i];
    if (piece.kind == Kind::torn && i + 1 != whole.size()) return "a torn piece is not the last";
    if (piece.kind != Kind::frame) {
      if (!piece.payload.empty()) return "a piece that is no frame has a payload";
      continue;
    }
    std::int64_t length = 0;
    std::memcpy(&length, content.data() + piece.offset, kLength);
    if (length < 0 || static_cast<std::uint64_t>(length) != piece.payload.size() ||
        piece.size != kLength + piece.payload.size() ||
        content.substr(piece.offset + kLength, piece.payload.size()) != piece.payload) {
      return "a payload is not the bytes its length field names";
    }
  }

  // 2. Cut anywhere, as a reader that has seen only part of the file: the same frames. Skipped
  //    bytes may come in other pieces, but they must still tile the content.
  //    Small content (the seeds and past failures the unit tests replay) is cut everywhere.
  const std::size_t n = content.size();
  std::vector<std::size_t> splits = {1,     kLength - 1, kLength, kLength + 1,
                                     n / 3, n / 2,       n - 1,   n - 9};
  if (n <= 1024) {
    splits.clear();
    for (std::size_t cut = 1; cut < n; ++cut) splits.push_back(cut);
  }
  for (const std::size_t split : splits) {
    if (split == 0 || split >= n) continue;
    const auto pieces = scanSplit(content, split);
    if (auto broken = checkTiling(pieces, 0, n); !broken.empty()) {
      return "cut at " + std::to_string(split) + ": " + broken;
    }
    if (!sameFrames(pieces, whole)) return "cut at " + std::to_string(split) + ": other frames";
  }

  // 3. Through a file, a window at a time: the same frames again.
  {
    std::ofstream out(scratchFile, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
  }
  std::vector<ScannedPiece> read;
  {
    detail::PendingFileReader reader;
    if (!reader.open(scratchFile)) return "the scratch file could not be opened";
    for (std::size_t i = 0; i <= n; ++i) {
      auto piece = reader.next();
      if (!piece) break;
      read.push_back({piece->kind, piece->offset, piece->size, std::string(piece->payload)});
    }
  }
  std::filesystem::remove(scratchFile);
  if (auto broken = checkTiling(read, 0, n); !broken.empty()) return "file reader: " + broken;
  if (!sameFrames(read, whole)) return "the file reader found other frames";
  return {};
}

}  // namespace zelvanor::fuzzing
