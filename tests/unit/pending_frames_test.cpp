// The pending-file frame reader: whole frames, torn ends, damaged lengths read past, and the same
// pieces whether the content comes at once or through a file. That any cut of the content finds
// the same frames is checked on every pending seed by the fuzz corpus replay (fuzz_corpus_test).
#include "store/pending_frames.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "support/pending_files.hpp"
#include "support/temp_dir.hpp"

namespace zelvanor::detail {
namespace {

namespace fs = std::filesystem;
using Kind = FramePiece::Kind;
using testing::framed;
using testing::rawLength;
using testing::writeFile;

struct Piece {
  Kind kind;
  std::uint64_t offset;
  std::uint64_t size;
  std::string payload;
  friend bool operator==(const Piece&, const Piece&) = default;
};

Piece own(const FramePiece& p) {
  return {p.kind, p.offset, p.size, std::string(p.payload)};
}

std::vector<Piece> scanAll(std::string_view bytes) {
  std::vector<Piece> pieces;
  EXPECT_EQ(scanFrames(bytes, 0, true, [&](const FramePiece& p) { pieces.push_back(own(p)); }),
            bytes.size());
  return pieces;
}

std::vector<Piece> framesOf(const std::vector<Piece>& pieces) {
  std::vector<Piece> frames;
  for (const auto& p : pieces) {
    if (p.kind == Kind::frame) frames.push_back(p);
  }
  return frames;
}

std::string record(const std::string& name, std::size_t padding = 0) {
  return R"({"action":{"name":")" + name + std::string(padding, 'x') + R"("}})";
}

TEST(ScanFrames, WholeFramesAndTornEnds) {
  const std::string a = record("a"), b = record("bb");
  const std::string whole = framed({a, b});
  // The layout files of earlier runs and other tools share: length in native order, then bytes.
  EXPECT_EQ(whole, rawLength(static_cast<std::int64_t>(a.size())) + a +
                       rawLength(static_cast<std::int64_t>(b.size())) + b);
  EXPECT_EQ(scanAll(whole), (std::vector<Piece>{{Kind::frame, 0, 8 + a.size(), a},
                                                {Kind::frame, 8 + a.size(), 8 + b.size(), b}}));
  EXPECT_TRUE(scanAll("").empty());

  // Cut inside the second length field, then inside its payload: the first frame stays whole.
  for (const std::size_t cut : {whole.size() - b.size() - 3, whole.size() - 5}) {
    SCOPED_TRACE(cut);
    const auto pieces = scanAll(std::string_view(whole).substr(0, cut));
    ASSERT_EQ(pieces.size(), 2u);
    EXPECT_EQ(pieces[0].payload, a);
    EXPECT_EQ(pieces[1], (Piece{Kind::torn, 8 + a.size(), cut - 8 - a.size(), ""}));
  }

  // A zero-filled tail, as a filesystem may leave after a power cut: one torn piece.
  const auto zeros = scanAll(whole + std::string(40, '\0'));
  ASSERT_EQ(zeros.size(), 3u);
  EXPECT_EQ(zeros[2], (Piece{Kind::torn, whole.size(), 40, ""}));
}

TEST(ScanFrames, ADamagedLengthInTheMiddleIsSkippedAndTheNextFrameFound) {
  const std::string a = record("a"), b = record("b"), c = record("c");
  struct Case {
    const char* name;
    std::string bad;
  };
  const std::vector<Case> cases = {
      {"negative", rawLength(-5) + "junk"},
      {"zero", rawLength(0)},
      {"huge", rawLength(std::int64_t{1} << 40) + "{x}"},
      {"beyond the end", rawLength(100000) + "{\"y\":1}"},
      {"just over the limit", rawLength(static_cast<std::int64_t>(kMaxFramePayload) + 1)},
      {"the largest", rawLength(std::numeric_limits<std::int64_t>::max()) + "{}"},
      {"the smallest", rawLength(std::numeric_limits<std::int64_t>::min()) + "{}"},
  };
  for (const auto& c0 : cases) {
    SCOPED_TRACE(c0.name);
    const std::string content = framed({a}) + c0.bad + framed({b, c});
    const auto pieces = scanAll(content);
    ASSERT_EQ(pieces.size(), 4u);
    EXPECT_EQ(pieces[0].payload, a);
    EXPECT_EQ(pieces[1], (Piece{Kind::skipped, 8 + a.size(), c0.bad.size(), ""}));
    EXPECT_EQ(pieces[2].payload, b);
    EXPECT_EQ(pieces[2].offset, 8 + a.size() + c0.bad.size());
    EXPECT_EQ(pieces[3].payload, c);
  }
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

// The file a window at a time gives the same pieces as the content at once.
TEST(PendingFileReader, ReadsFilesLargerThanItsWindowWithFramesAcrossRefills) {
  testing::TempDir dir;
  const fs::path file = dir.path() / "ZLogs.tmp";
  // First a false start spanning the reader's 256 KiB window: it starts before the window's end
  // and would end after it, with no "}" at its end, and must be judged on the whole file.
  const std::size_t window = 256u << 10;
  std::string content;
  appendFrame(content, record("first", window - 100));
  content += rawLength(-1) + rawLength(200) + "{" + std::string(199, 'q');
  ASSERT_LT(content.find(rawLength(200)), window);
  // Then about 1.3 MiB of frames of many sizes, one larger than the read window, so that frames
  // straddle every refill; damaged pieces sit among them.
  for (int i = 0; i < 700; ++i) {
    appendFrame(content, record("r" + std::to_string(i), static_cast<std::size_t>(i * 3 % 1500)));
    if (i == 300) appendFrame(content, record("big", 300u << 10));
    if (i % 97 == 5) content += rawLength(-7) + "garbage";
  }
  content += rawLength(4000) + "{\"torn\":";
  writeFile(file, content);
  const auto whole = scanAll(content);
  const auto read = readFile(file);
  EXPECT_EQ(read, whole);
  EXPECT_EQ(framesOf(read).size(), 702u);

  // From a frame's start, as after a cursor: the same pieces from there on.
  const auto from = whole[400];
  const auto tail = readFile(file, from.offset);
  ASSERT_FALSE(tail.empty());
  EXPECT_EQ(tail.front(), from);
  EXPECT_EQ(tail.size(), whole.size() - 400);
}

// What is no regular file is refused, and not waited on: a FIFO would block an ordinary open.
TEST(PendingFileReader, RefusesWhatIsNoRegularFile) {
#ifdef _WIN32
  GTEST_SKIP() << "Windows has no FIFOs";
#else
  testing::TempDir dir;
  const fs::path fifo = dir.path() / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const fs::path& path : {fifo, dir.path()}) {
    PendingFileReader reader;
    EXPECT_FALSE(reader.open(path)) << path;
    EXPECT_FALSE(reader.next().has_value()) << path;
  }
#endif
}

}  // namespace
}  // namespace zelvanor::detail
