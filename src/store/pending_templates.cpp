// The templates an earlier run kept ("ZTemplates.tmp"): events tracked before the identity triple
// was known. Part of the pending store, in a file of its own.
#include <algorithm>

#include "platform/file_ops.hpp"
#include "store/pending_store.hpp"

namespace zelvanor::detail {
namespace {

std::vector<std::string> templateFrames(const std::filesystem::path& file) {
  std::vector<std::string> templates;
  PendingFileReader reader;
  if (!reader.open(file)) return templates;
  while (auto piece = reader.next()) {
    if (piece->kind == FramePiece::Kind::frame) templates.emplace_back(piece->payload);
  }
  return templates;
}

}  // namespace

std::vector<std::string> PendingStore::takeTemplates() {
  if (directory_.empty() || !owner_ || !takenTemplates_.empty()) return {};
  takenTemplates_ = templateFrames(file(kTemplatesFileName));
  return takenTemplates_;
}

std::vector<std::string> PendingStore::templatesNotTaken() const {
  std::vector<std::string> inFile = templateFrames(file(kTemplatesFileName));
  // Another process that shut down meanwhile kept the file's frames in front of its own.
  if (!takenTemplates_.empty() && inFile.size() >= takenTemplates_.size() &&
      std::equal(takenTemplates_.begin(), takenTemplates_.end(), inFile.begin())) {
    inFile.erase(inFile.begin(),
                 inFile.begin() + static_cast<std::ptrdiff_t>(takenTemplates_.size()));
  }
  return inFile;
}

void PendingStore::forgetTakenTemplates() {
  if (directory_.empty() || takenTemplates_.empty()) return;
  const std::vector<std::string> rest = templatesNotTaken();
  takenTemplates_.clear();
  (void)replaceTemplates(rest);
}

bool PendingStore::writeTemplates(const std::vector<std::string>& templates) {
  if (directory_.empty()) return false;
  std::vector<std::string> all = templatesNotTaken();
  all.insert(all.end(), templates.begin(), templates.end());
  takenTemplates_.clear();  // those still waiting are among `templates`
  return replaceTemplates(all);
}

bool PendingStore::replaceTemplates(const std::vector<std::string>& all) {
  if (all.empty()) return platform::removeFile(file(kTemplatesFileName));
  const std::size_t keep = std::min<std::size_t>(all.size(), limits_.maxTemplatesKept);
  std::string frames;
  for (std::size_t i = all.size() - keep; i < all.size(); ++i) appendFrame(frames, all[i]);
  return platform::writeWholePrivateAtomically(file(kTemplatesFileName), frames);
}

}  // namespace zelvanor::detail
