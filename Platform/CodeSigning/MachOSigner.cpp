#include "CodeSignature/MachO.h"
#include "CodeSigning/CodeSigner.h"
#include "CodeSigning/OutputFile.h"

#include <algorithm>
#include <filesystem>

#include <sys/stat.h>

namespace platform::codesigning {
namespace {

using namespace codesignature;

constexpr std::uint8_t defaultPageShift = 12;
constexpr std::uint64_t roomForCms = 16384;
constexpr std::uint64_t signatureAlignment = 16;
constexpr std::uint64_t commandSize = 16;
constexpr std::uint32_t sliceShift = 14;  // slices begin at multiples of the largest page
constexpr std::uint64_t slicePage = std::uint64_t{1} << sliceShift;

std::uint64_t roundedUp(std::uint64_t value, std::uint64_t unit) {
  return (value + unit - 1) / unit * unit;
}

/// Writes one slice to where the output ends, with a load command for the signature, and the signature after it.
class SliceSigner {
 public:
  SliceSigner(OutputFile& output, const InputFile& file, const MachOSlice& slice, const SigningRequest& request,
              const Components& components)
      : output_(output), file_(file), slice_(slice), request_(request), components_(components) {
    base_ = output.size();
    const std::uint64_t end = slice.signature ? slice.signature->offset : slice.size;
    codeLength_ = roundedUp(end, signatureAlignment);
    copiedLength_ = std::min(end, slice.size);
  }

  Signed<void> run() {
    if (!slice_.linkEdit) return std::unexpected("the executable has no __LINKEDIT segment");
    auto done = output_.append(file_, slice_.offset, copiedLength_);
    if (done) done = output_.append(Bytes(static_cast<std::size_t>(codeLength_ - copiedLength_)));
    signatureRoom_ = roundedUp(estimatedSize(), signatureAlignment);
    if (done) done = writeCommand();
    if (done) done = writeLinkEdit();
    return done ? writeSignature() : done;
  }

 private:
  [[nodiscard]] std::uint64_t estimatedSize() const {
    const std::uint64_t pages = (codeLength_ >> defaultPageShift) + 1;
    std::uint64_t size = roomForCms;
    for (const HashType type : request_.hashTypes) {
      size += (pages + slot::lastSpecial) * digestSize(type) + request_.identifier.size() + 1024;
    }
    return size;
  }

  Signed<void> put(std::uint64_t offset, std::uint64_t value, bool isWide) {
    Bytes bytes;
    if (isWide) {
      appendInteger(bytes, value, slice_.order);
    } else {
      appendInteger(bytes, static_cast<std::uint32_t>(value), slice_.order);
    }
    return output_.write(base_ + offset, bytes);
  }

  Signed<void> writeCommand() {
    constexpr std::uint64_t codeSignatureCommand = 0x1D;
    const std::uint64_t command = slice_.signature ? slice_.signatureCommand : slice_.commandsEnd;
    auto done = put(command + 8, codeLength_, false);
    if (done) done = put(command + 12, signatureRoom_, false);
    if (slice_.signature || !done) return done;
    if (slice_.commandsEnd + commandSize > slice_.firstSection || slice_.commandsEnd + commandSize > codeLength_) {
      return std::unexpected("the executable has no room for a load command");
    }
    const std::uint64_t headerSize = slice_.is64Bit ? 32 : 28;
    done = put(command, codeSignatureCommand, false);
    if (done) done = put(command + 4, commandSize, false);
    if (done) done = put(16, slice_.commandCount + 1, false);
    if (done) done = put(20, slice_.commandsEnd - headerSize + commandSize, false);
    return done;
  }

  /// The segment grows to hold the signature.
  Signed<void> writeLinkEdit() {
    const std::uint64_t size = codeLength_ + signatureRoom_ - slice_.linkEdit->offset;
    const std::uint64_t memorySizeField = slice_.is64Bit ? 32 : 28;
    const std::uint64_t fileSizeField = slice_.is64Bit ? 48 : 36;
    const std::uint64_t command = slice_.linkEditCommand;
    auto done = put(command + memorySizeField, roundedUp(size, slicePage), slice_.is64Bit);
    return done ? put(command + fileSizeField, size, slice_.is64Bit) : done;
  }

  Signed<void> writeSignature() {
    const auto code = output_.reader();
    if (!code) return std::unexpected(code.error());
    const auto parts = makeSignature(request_, components_, {*code, base_, codeLength_});
    if (!parts) return std::unexpected(parts.error());
    Bytes superBlob = superBlobOf(*parts);
    if (superBlob.size() > signatureRoom_) return std::unexpected("the signature is larger than expected");
    superBlob.resize(static_cast<std::size_t>(signatureRoom_));
    return output_.write(base_ + codeLength_, superBlob);
  }

  OutputFile& output_;
  const InputFile& file_;
  const MachOSlice& slice_;
  const SigningRequest& request_;
  const Components& components_;
  std::uint64_t base_;
  std::uint64_t codeLength_;
  std::uint64_t copiedLength_;
  std::uint64_t signatureRoom_ = 0;
};

Bytes fatHeader(const std::vector<MachOSlice>& slices, const std::vector<ByteRange>& places) {
  constexpr std::uint32_t fatMagic = 0xCAFEBABE;
  Bytes header;
  appendInteger(header, fatMagic);
  appendInteger(header, static_cast<std::uint32_t>(slices.size()));
  for (std::size_t i = 0; i < slices.size(); ++i) {
    appendInteger(header, slices[i].cpuType);
    appendInteger(header, slices[i].cpuSubtype);
    appendInteger(header, static_cast<std::uint32_t>(places[i].offset));
    appendInteger(header, static_cast<std::uint32_t>(places[i].length));
    appendInteger(header, sliceShift);
  }
  return header;
}

Signed<void> writeSlices(OutputFile& output, const InputFile& file, const std::vector<MachOSlice>& slices,
                         const SigningRequest& request, const Components& components) {
  const bool isFat = slices.front().offset != 0;
  std::vector<ByteRange> places;
  for (const auto& slice : slices) {
    if (isFat) {
      const std::uint64_t end = std::max<std::uint64_t>(output.size(), 1);
      const Bytes padding(static_cast<std::size_t>(roundedUp(end, slicePage) - output.size()));
      if (auto done = output.append(padding); !done) return done;
    }
    const std::uint64_t begin = output.size();
    if (auto done = SliceSigner(output, file, slice, request, components).run(); !done) return done;
    places.push_back({begin, output.size() - begin});
  }
  return isFat ? output.write(0, fatHeader(slices, places)) : Signed<void>();
}

}  // namespace

Signed<void> signMachO(const std::string& path, const InputFile& file, const SigningRequest& request,
                       const Components& components) {
  const auto slices = machOSlices(file);
  if (!slices) return std::unexpected(path + ": object file format unrecognized");
  const bool isSigned =
      std::ranges::any_of(*slices, [](const MachOSlice& slice) { return slice.signature.has_value(); });
  if (isSigned && !request.replacesSignature) return std::unexpected(path + ": is already signed");
  SigningRequest paged = request;
  paged.pageShift = request.pageShift.value_or(defaultPageShift);
  if (paged.identifier.empty()) paged.identifier = std::filesystem::path(path).filename().string();
  auto output = OutputFile::create(path);
  if (!output) return std::unexpected(output.error());
  if (auto done = writeSlices(*output, file, *slices, paged, components); !done) {
    return std::unexpected(path + ": " + done.error());
  }
  struct stat status = {};
  ::fstat(file.descriptor(), &status);
  return output->commit(status.st_mode);
}

}  // namespace platform::codesigning
