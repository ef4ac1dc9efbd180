// Private files in the SDK's data directory: the pending-record file, the cookie jar and the
// settings file. Each platform supplies one implementation file; nothing here throws.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace zelvanor::platform {

/// Appends bytes to the file, creating it with mode 0600 if it is missing. The bytes go down in
/// one write, so a crash can tear at most this append and never interleave it with another; if
/// the write fails part way, the file is cut back to its old length. Fails, touching nothing,
/// when the path is a symbolic link or anything but a regular file. Appends from several threads
/// or processes take turns with each other and with consumeWhole.
bool appendPrivate(const std::filesystem::path& file, std::string_view bytes) noexcept;

/// Reads the whole regular file and hands the content to `use`, which says whether the file is
/// done with; if so, the file is removed. Appends wait meanwhile and land either before the read
/// or in a new file after the removal, never in a file that was read and then removed. `use` is
/// not called when the file is missing, unreadable, a symbolic link or not a regular file.
/// Returns true when the file was removed.
bool consumeWhole(const std::filesystem::path& file,
                  const std::function<bool(std::string&& content)>& use) noexcept;

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
