#include "CodeSignature/CodePages.h"

#include "CodeSignature/Parallel.h"

#include <algorithm>
#include <mutex>

namespace platform::codesignature {
namespace {

constexpr std::uint64_t pieceSize = std::uint64_t{1} << 20U;

Result<void> checkSinglePage(const CodeDirectory& directory, const InputFile& file, std::uint64_t base) {
  const auto hash = digest(directory.hashType(), file, base, directory.codeLimit());
  if (!hash) return std::unexpected(hash.error());
  if (!std::ranges::equal(*hash, directory.codeSlot(0))) return failed(errSecCSSignatureFailed);
  return {};
}

/// A run of whole pages, small enough to be read at once.
class PieceChecker {
 public:
  PieceChecker(const CodeDirectory& directory, const InputFile& file, std::uint64_t base)
      : directory_(directory), file_(file), base_(base) {}

  [[nodiscard]] std::uint64_t pagesPerPiece() const {
    return std::max<std::uint64_t>(1, pieceSize / directory_.pageSize());
  }
  [[nodiscard]] std::size_t count() const {
    return static_cast<std::size_t>((directory_.codeSlotCount() + pagesPerPiece() - 1) / pagesPerPiece());
  }

  [[nodiscard]] Result<void> check(std::size_t piece) const {
    std::uint64_t page = piece * pagesPerPiece();
    const std::uint64_t begin = page * directory_.pageSize();
    const std::uint64_t length = std::min(pagesPerPiece() * directory_.pageSize(), directory_.codeLimit() - begin);
    thread_local Bytes buffer;
    buffer.resize(static_cast<std::size_t>(length));
    if (auto done = file_.read(base_ + begin, buffer); !done) return done;
    Hasher hasher(directory_.hashType());
    for (ByteView rest = buffer; !rest.empty(); ++page) {
      const auto bytes =
          rest.first(static_cast<std::size_t>(std::min<std::uint64_t>(directory_.pageSize(), rest.size())));
      hasher.update(bytes);
      if (!std::ranges::equal(hasher.finish(), directory_.codeSlot(static_cast<std::uint32_t>(page)))) {
        return failed(errSecCSSignatureFailed);
      }
      rest = rest.subspan(bytes.size());
    }
    return {};
  }

 private:
  const CodeDirectory& directory_;
  const InputFile& file_;
  std::uint64_t base_;
};

}  // namespace

Result<void> checkPages(const CodeDirectory& directory, const InputFile& file, std::uint64_t base) {
  if (base > file.size() || directory.codeLimit() > file.size() - base) return failed(errSecCSSignatureFailed);
  if (directory.codeSlotCount() == 1) return checkSinglePage(directory, file, base);
  const PieceChecker checker(directory, file, base);
  std::mutex mutex;
  Result<void> result;
  forEachIndex(checker.count(), [&](std::size_t piece) {
    auto done = checker.check(piece);
    if (done) return true;
    const std::scoped_lock lock(mutex);
    result = std::move(done);
    return false;
  });
  return result;
}

}  // namespace platform::codesignature
