// Private files in the SDK's data directory: the pending store's files, the cookie jar and the
// settings file. Each platform supplies one implementation file; nothing here throws.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace zelvanor::platform {

/// Appends bytes to the file, creating it with mode 0600 if it is missing. The bytes go down in
/// one write, so a crash can tear at most this append and never interleave it with another; if
/// the write fails part way, the file is cut back to its old length. Fails, touching nothing,
/// when the path is a symbolic link or anything but a regular file. Appends from several threads
/// or processes take turns with each other and with moveAside; a turn is waited
/// for a short while only (another process stopped mid-append must not stall the SDK), after
/// which this fails and the caller tries again later.
bool appendPrivate(const std::filesystem::path& file, std::string_view bytes) noexcept;

/// Renames `from` to `to` once no append is under way, so that appends made later land in a new
/// file at `from`. False, touching nothing, when `from` is missing, not a regular file, or its
/// turn did not come in a short while.
bool moveAside(const std::filesystem::path& from, const std::filesystem::path& to) noexcept;

/// Writes `bytes` at the start of the file (created 0600 if missing), leaving the rest as it is:
/// for small fixed-size records that are rewritten often.
bool writeAtStart(const std::filesystem::path& file, std::string_view bytes) noexcept;

/// writeAtStart for a file rewritten after every answer (the store's cursor): opened once and
/// kept open, so each rewrite is one write rather than an open, a check, a write and a close.
class RewrittenFile {
 public:
  RewrittenFile();
  ~RewrittenFile();
  RewrittenFile(const RewrittenFile&) = delete;
  RewrittenFile& operator=(const RewrittenFile&) = delete;
  /// Writes `bytes` at the start of `file`, opening it first when it is not open yet (or a
  /// write failed). The path must stay the one it was opened with until close().
  bool writeAtStart(const std::filesystem::path& file, std::string_view bytes) noexcept;
  void close() noexcept;

 private:
  struct Handle;
  std::unique_ptr<Handle> handle_;
};

/// The size of a regular file, or nothing when it is missing or not a regular file.
std::optional<std::uint64_t> regularFileSize(const std::filesystem::path& file) noexcept;

/// What stands at the path when it is neither missing nor a regular file ("a FIFO", "a
/// directory", "a symbolic link", ...), for a diagnostic line; nothing otherwise.
std::optional<std::string> somethingElseAt(const std::filesystem::path& file) noexcept;

/// Cuts a regular file (never through a link) to `size` bytes; false when it is no regular file,
/// is shorter already, or cannot be cut.
bool cutRegularFile(const std::filesystem::path& file, std::uint64_t size) noexcept;

/// A regular file opened for reading at any offset. Never opens through a symbolic link, never
/// anything but a regular file, and never blocks on a FIFO or device planted at the path.
class ReadableFile {
 public:
  ReadableFile();
  ~ReadableFile();
  ReadableFile(const ReadableFile&) = delete;
  ReadableFile& operator=(const ReadableFile&) = delete;

  bool open(const std::filesystem::path& file) noexcept;
  void close() noexcept;
  bool isOpen() const noexcept;
  /// The size when it was opened.
  std::uint64_t size() const noexcept;
  /// Reads up to `count` bytes at `offset`: how many were read (0 at the end), or -1 on an error.
  std::int64_t readAt(std::uint64_t offset, char* into, std::size_t count) noexcept;

 private:
  struct Handle;
  std::unique_ptr<Handle> handle_;
};

/// Held by one process at a time for as long as the object lives (a lock file beside the store):
/// tells which process of an app owns the records that are being sent. A forked child does not
/// inherit it.
class ProcessLock {
 public:
  ProcessLock();
  ~ProcessLock();
  ProcessLock(const ProcessLock&) = delete;
  ProcessLock& operator=(const ProcessLock&) = delete;
  /// Takes the lock without waiting; false when another process holds it or it cannot be made.
  bool tryLock(const std::filesystem::path& file) noexcept;
  void unlock() noexcept;

 private:
  struct Handle;
  std::unique_ptr<Handle> handle_;
};

/// The whole content of a regular file; absent when it is missing, unreadable, a symbolic link
/// or not a regular file.
std::optional<std::string> readWhole(const std::filesystem::path& file) noexcept;

/// Removes the file (a symbolic link itself, never its target). True when nothing is left at
/// the path afterwards, including when nothing was there to begin with.
bool removeFile(const std::filesystem::path& file) noexcept;

/// Replaces the file's content as a whole: a 0600 temporary file beside it is written, flushed to
/// disk and renamed over the path, so a reader sees either the old or the new content. A symbolic
/// link at the path is replaced, not followed.
bool writeWholePrivateAtomically(const std::filesystem::path& file,
                                 std::string_view bytes) noexcept;

}  // namespace zelvanor::platform
