#pragma once

#include "CodeSignature/Bytes.h"
#include "CodeSignature/InputFile.h"
#include "CodeSigning/SigningError.h"

#include <string>

#include <sys/types.h>

namespace platform::codesigning {

/// A file that takes the place of another all at once: written beside it, renamed over it by commit(). Without commit
/// nothing is left of it.
class OutputFile {
 public:
  static Signed<OutputFile> create(const std::string& path);
  OutputFile(OutputFile&& other) noexcept;
  OutputFile& operator=(OutputFile&&) = delete;
  ~OutputFile();

  [[nodiscard]] Signed<void> append(codesignature::ByteView bytes);
  [[nodiscard]] Signed<void> append(const codesignature::InputFile& file, std::uint64_t offset, std::uint64_t length);
  [[nodiscard]] Signed<void> write(std::uint64_t offset, codesignature::ByteView bytes);
  [[nodiscard]] std::uint64_t size() const { return size_; }
  /// What has been written so far.
  [[nodiscard]] Signed<codesignature::InputFile> reader() const;
  /// Gives the file its permissions and its name.
  [[nodiscard]] Signed<void> commit(mode_t mode);

 private:
  OutputFile(posix::FileDescriptor descriptor, std::string path, std::string temporaryPath)
      : descriptor_(std::move(descriptor)), path_(std::move(path)), temporaryPath_(std::move(temporaryPath)) {}

  posix::FileDescriptor descriptor_;
  std::string path_;
  std::string temporaryPath_;
  std::uint64_t size_ = 0;
};

}  // namespace platform::codesigning
