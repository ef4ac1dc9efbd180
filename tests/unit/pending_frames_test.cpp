// The pending-file frame reader: whole frames, torn ends, damaged lengths read past, and the same
// pieces whether the content comes at once or through a file. That any cut of the content finds
// the same frames is checked on every pending seed by the fuzz corpus replay (fuzz_corpus_test).
#include "store/pending_frames.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "support/pending_files.hpp"
#include "support/temp_dir.hpp"

namespace zelvanor::detail {
namespace {

namespace fs = std::filesystem;
using Kind = FramePiece::Kind;
using testing::framed;
using testing::namedRecord;
using testing::rawLength;
using testing::writeFile;

/// A piece as kind, offset, size and payload, which outlives the bytes it was read from.
using Piece = std::tuple<Kind, std::uint64_t, std::uint64_t, std::string>;

Piece own(const FramePiece& p) {
  return {p.kind, p.offset, p.size, std::string(p.payload)};
}

std::vector<Piece> scanAll(std::string_view bytes) {
  std::vector<Piece> pieces;
  EXPECT_EQ(scanFrames(bytes, 0, true, [&](const FramePiece& p) { pieces.push_back(own(p)); }),
            bytes.size());
  return pieces;
}

std::vector<Piece> readFile(const fs::path& file, std::uint64_t offset = 0) {
  PendingFileReader reader;
  std::vector<Piece> pieces;
  if (!reader.open(file, offset)) return pieces;
  for (std::size_t i = 0; i < 1000000; ++i) {
    auto piece = reader.next();
    if (!piece) break;
    pieces.push_back(own(*piece));
  }
  return pieces;
}

// Every piece, exactly: whole frames, a torn end (a kill, or the zero-filled tail a filesystem
// may leave after a power cut) and a damaged length in the middle, read past to the next frame.
TEST(PendingFrames, WholeTornAndDamagedPiecesAtOnceOrThroughAFileOfAnySize) {
  const std::string a = namedRecord("a"), b = namedRecord("bb"), whole = framed({a, b});
  // The layout files of earlier runs and other tools share: length in native order, then bytes.
  EXPECT_EQ(whole, rawLength(static_cast<std::int64_t>(a.size())) + a +
                       rawLength(static_cast<std::int64_t>(b.size())) + b);
  const std::uint64_t at = 8 + a.size(), bSize = 8 + b.size();
  const Piece first{Kind::frame, 0, at, a};
  struct Case {
    std::string content;
    std::vector<Piece> pieces;
  };
  std::vector<Case> cases{
      {"", {}},
      {whole, {first, {Kind::frame, at, bSize, b}}},
      {whole.substr(0, at + 5), {first, {Kind::torn, at, 5, ""}}},
      {whole.substr(0, whole.size() - 5), {first, {Kind::torn, at, bSize - 5, ""}}},
      {whole + std::string(40, '\0'),
       {first, {Kind::frame, at, bSize, b}, {Kind::torn, whole.size(), 40, ""}}},
  };
  for (const std::string& bad :
       {rawLength(-5) + "junk", rawLength(0), rawLength(std::int64_t{1} << 40) + "{x}",
        rawLength(100000) + "{\"y\":1}", rawLength(static_cast<std::int64_t>(kMaxFramePayload) + 1),
        rawLength(std::numeric_limits<std::int64_t>::max()) + "{}",
        rawLength(std::numeric_limits<std::int64_t>::min()) + "{}"}) {
    cases.push_back(
        {framed({a}) + bad + framed({b}),
         {first, {Kind::skipped, at, bad.size(), ""}, {Kind::frame, at + bad.size(), bSize, b}}});
  }
  for (std::size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(::testing::Message() << "case " << i);
    EXPECT_EQ(scanAll(cases[i].content), cases[i].pieces);
  }

  // The file a window at a time gives the same pieces as the content at once.
  testing::TempDir dir;
  const fs::path file = dir.path() / "ZLogs.tmp";
  // First a false start spanning the reader's 256 KiB window: it starts before the window's end
  // and would end after it, with no "}" at its end, and must be judged on the whole file.
  const std::size_t window = 256u << 10;
  std::string content;
  appendFrame(content, namedRecord("first", window - 300));
  content += rawLength(-1) + rawLength(200) + "{" + std::string(199, 'q');
  ASSERT_LT(content.find(rawLength(200)), window);
  ASSERT_GT(content.size(), window) << "the false start must end past the window";
  // Then about 1.3 MiB of frames of many sizes, one larger than the read window, so that frames
  // straddle every refill; damaged pieces sit among them.
  for (int i = 0; i < 700; ++i) {
    appendFrame(content, namedRecord("r" + std::to_string(i), i * 3 % 1500));
    if (i == 300) appendFrame(content, namedRecord("big", 300u << 10));
    if (i % 97 == 5) content += rawLength(-7) + "garbage";
  }
  content += rawLength(4000) + "{\"torn\":";
  writeFile(file, content);
  const auto pieces = scanAll(content);
  const auto read = readFile(file);
  EXPECT_EQ(read, pieces);
  EXPECT_EQ(std::count_if(read.begin(), read.end(),
                          [](auto& p) { return std::get<Kind>(p) == Kind::frame; }),
            702);

  // From a frame's start, as after a cursor: the same pieces from there on.
  EXPECT_EQ(readFile(file, std::get<1>(pieces[400])),
            std::vector<Piece>(pieces.begin() + 400, pieces.end()));
#ifndef _WIN32
  // What is no regular file is refused, and not waited on: a FIFO would block an ordinary open.
  ASSERT_EQ(::mkfifo((dir.path() / "fifo").c_str(), 0600), 0);
  for (const fs::path& path : {dir.path() / "fifo", dir.path()}) {
    PendingFileReader reader;
    EXPECT_FALSE(reader.open(path) || reader.next()) << path;
  }
#endif
}

}  // namespace
}  // namespace zelvanor::detail
