#include "CodeSignature/Blob.h"

namespace platform::codesignature {
namespace {

constexpr std::uint64_t indexStart = 12;
constexpr std::uint64_t indexEntrySize = 8;
constexpr std::uint32_t maximumEntries = 64;

/// The whole blob at `offset`, its length field inside `parent`.
std::optional<ByteView> blobAt(ByteView parent, std::uint64_t offset) {
  const auto length = integerAt<std::uint32_t>(parent, offset + 4);
  if (!length || *length < blobHeaderSize) return std::nullopt;
  return subrange(parent, offset, *length);
}

Result<Bytes> contentOf(const SuperBlob::Entry& entry) {
  if (!isRawSlot(entry.type)) return copyOf(entry.blob);
  if (integerAt<std::uint32_t>(entry.blob, 0) != magic::wrapper) return failed(errSecCSSignatureInvalid);
  return copyOf(entry.blob.subspan(blobHeaderSize));
}

}  // namespace

bool isRawSlot(std::uint32_t type) {
  return type == slot::infoPlist || type == slot::resourceSeal || type == slot::topDirectory ||
         type == slot::repSpecific || type == slot::cms;
}

std::optional<SuperBlob> SuperBlob::parse(ByteView bytes) {
  const auto whole = blobAt(bytes, 0);
  if (!whole || integerAt<std::uint32_t>(*whole, 0) != magic::embeddedSignature) return std::nullopt;
  const auto count = integerAt<std::uint32_t>(*whole, 8);
  if (!count || *count > maximumEntries) return std::nullopt;
  SuperBlob result;
  result.bytes_ = *whole;
  std::uint64_t total = 0;
  for (std::uint32_t i = 0; i < *count; ++i) {
    const auto type = integerAt<std::uint32_t>(*whole, indexStart + (indexEntrySize * i));
    const auto offset = integerAt<std::uint32_t>(*whole, indexStart + (indexEntrySize * i) + 4);
    if (!type || !offset || *offset < indexStart + (indexEntrySize * *count)) return std::nullopt;
    const auto blob = blobAt(*whole, *offset);
    if (!blob) return std::nullopt;
    total += blob->size();
    if (total > whole->size()) return std::nullopt;
    result.entries_.push_back({*type, *offset, *blob});
  }
  return result;
}

bool SuperBlob::isStrictlyPacked() const {
  std::uint64_t expected = indexStart + (indexEntrySize * entries_.size());
  for (const auto& entry : entries_) {
    if (entry.offset != expected) return false;
    expected += entry.blob.size();
  }
  return expected == bytes_.size();
}

Result<SignatureParts> partsOf(const SuperBlob& superBlob) {
  std::map<std::uint32_t, Bytes> contents;
  for (const auto& entry : superBlob.entries()) {
    auto content = contentOf(entry);
    if (!content) return std::unexpected(content.error());
    if (!contents.emplace(entry.type, std::move(*content)).second) return failed(errSecCSSignatureInvalid);
  }
  SignatureParts parts;
  if (auto first = contents.find(slot::codeDirectory); first != contents.end()) {
    parts.codeDirectories.push_back(std::move(first->second));
  }
  for (std::uint32_t i = 0; i < slot::alternateCount; ++i) {
    const auto alternate = contents.find(slot::firstAlternate + i);
    if (alternate == contents.end()) break;
    parts.codeDirectories.push_back(std::move(alternate->second));
  }
  for (std::uint32_t type = 1; type <= slot::lastSpecial; ++type) {
    if (auto found = contents.find(type); found != contents.end()) parts.components.insert(std::move(*found));
  }
  if (auto cms = contents.find(slot::cms); cms != contents.end()) parts.cms = std::move(cms->second);
  return parts;
}

}  // namespace platform::codesignature
