#include "CodeSigning/SignatureBuilder.h"

#include <algorithm>
#include <limits>

namespace platform::codesigning {
namespace {

using namespace codesignature;

constexpr std::uint32_t version = 0x20300;  // the first with a 64-bit code limit
constexpr std::uint32_t headerSize = 64;
constexpr std::size_t copiedPiece = std::size_t{1} << 20U;

/// The hashes of the code slots, one after the other.
Signed<Bytes> codeHashes(HashType type, const CodeRange& code, std::uint64_t pageSize) {
  Bytes hashes;
  Hasher hasher(type);
  Bytes buffer;
  for (std::uint64_t page = 0; page < code.length; page += pageSize) {
    std::uint64_t rest = std::min(pageSize, code.length - page);
    for (std::uint64_t offset = page; rest > 0; rest -= buffer.size(), offset += buffer.size()) {
      buffer.resize(static_cast<std::size_t>(std::min<std::uint64_t>(rest, copiedPiece)));
      if (!code.file.read(code.base + offset, buffer)) return std::unexpected("the code cannot be read");
      hasher.update(buffer);
    }
    const Bytes hash = hasher.finish();
    hashes.insert(hashes.end(), hash.begin(), hash.end());
  }
  return hashes;
}

/// The hashes of the special slots, from the highest down; zeros where there is no component.
Bytes specialHashes(HashType type, const Components& components) {
  Bytes hashes;
  const std::uint32_t highest = components.empty() ? 0 : components.rbegin()->first;
  for (std::uint32_t slotNumber = highest; slotNumber > 0; --slotNumber) {
    const auto component = components.find(slotNumber);
    const Bytes hash = component == components.end() ? Bytes(digestSize(type)) : digest(type, component->second);
    hashes.insert(hashes.end(), hash.begin(), hash.end());
  }
  return hashes;
}

void appendText(Bytes& bytes, const std::string& text) {
  bytes.insert(bytes.end(), text.begin(), text.end());
  bytes.push_back(0);
}

Bytes wrapped(std::uint32_t magicNumber, ByteView payload) {
  Bytes blob;
  appendInteger(blob, magicNumber);
  appendInteger(blob, static_cast<std::uint32_t>(blobHeaderSize + payload.size()));
  blob.insert(blob.end(), payload.begin(), payload.end());
  return blob;
}

}  // namespace

Signed<Bytes> makeCodeDirectory(const SigningRequest& request, HashType hashType, const Components& components,
                                const CodeRange& code) {
  if (code.length == 0) return std::unexpected("there is no code to sign");
  const std::uint8_t pageShift = request.pageShift.value_or(0);
  const std::uint64_t pageSize = pageShift == 0 ? code.length : std::uint64_t{1} << pageShift;
  const auto codeSlots = codeHashes(hashType, code, pageSize);
  if (!codeSlots) return codeSlots;
  const Bytes specialSlots = specialHashes(hashType, components);
  const std::string team = request.identity == nullptr ? std::string() : request.identity->teamIdentifier();
  const auto hashSize = static_cast<std::uint32_t>(digestSize(hashType));
  const auto identifierEnd = static_cast<std::uint32_t>(headerSize + request.identifier.size() + 1);
  const auto namesEnd = static_cast<std::uint32_t>(identifierEnd + (team.empty() ? 0 : team.size() + 1));
  const bool isLong = code.length > std::numeric_limits<std::uint32_t>::max();

  Bytes blob;
  appendInteger(blob, magic::codeDirectory);
  appendInteger(blob, static_cast<std::uint32_t>(namesEnd + specialSlots.size() + codeSlots->size()));
  appendInteger(blob, version);
  appendInteger(blob, request.flags | (request.identity == nullptr ? CodeDirectory::flagAdHoc : 0U));
  appendInteger(blob, static_cast<std::uint32_t>(namesEnd + specialSlots.size()));
  appendInteger(blob, headerSize);  // of the identifier
  appendInteger(blob, static_cast<std::uint32_t>(specialSlots.size() / hashSize));
  appendInteger(blob, static_cast<std::uint32_t>(codeSlots->size() / hashSize));
  appendInteger(blob, isLong ? std::numeric_limits<std::uint32_t>::max() : static_cast<std::uint32_t>(code.length));
  blob.insert(blob.end(), {static_cast<std::uint8_t>(hashSize), static_cast<std::uint8_t>(hashType), 0, pageShift});
  appendInteger(blob, std::uint32_t{0});
  appendInteger(blob, std::uint32_t{0});  // no scattered code
  appendInteger(blob, team.empty() ? std::uint32_t{0} : identifierEnd);
  appendInteger(blob, std::uint32_t{0});
  appendInteger(blob, isLong ? code.length : std::uint64_t{0});
  appendText(blob, request.identifier);
  if (!team.empty()) appendText(blob, team);
  blob.insert(blob.end(), specialSlots.begin(), specialSlots.end());
  blob.insert(blob.end(), codeSlots->begin(), codeSlots->end());
  return blob;
}

Signed<SignatureParts> makeSignature(const SigningRequest& request, Components components, const CodeRange& code) {
  SignatureParts parts;
  std::vector<CodeDirectory> directories;
  for (const HashType type : request.hashTypes) {
    auto blob = makeCodeDirectory(request, type, components, code);
    if (!blob) return std::unexpected(blob.error());
    auto directory = CodeDirectory::parse(*blob);
    if (!directory) return std::unexpected("the identifier cannot be used in a signature");
    directories.push_back(std::move(*directory));
    parts.codeDirectories.push_back(std::move(*blob));
  }
  parts.components = std::move(components);
  if (request.identity == nullptr) return parts;
  auto cms = makeCms(*request.identity, directories);
  if (!cms) return std::unexpected(cms.error());
  parts.cms = std::move(*cms);
  return parts;
}

Bytes superBlobOf(const SignatureParts& parts) {
  std::map<std::uint32_t, Bytes> blobs;
  for (std::uint32_t i = 0; i < parts.codeDirectories.size(); ++i) {
    blobs.emplace(i == 0 ? slot::codeDirectory : slot::firstAlternate + i - 1, parts.codeDirectories[i]);
  }
  for (const auto& [slotNumber, component] : parts.components) {
    // Raw components are files of the bundle, or the trailer of the image itself.
    if (!isRawSlot(slotNumber)) blobs.emplace(slotNumber, component);
  }
  if (!parts.cms.empty()) blobs.emplace(slot::cms, wrapped(magic::wrapper, parts.cms));

  constexpr std::size_t indexEntrySize = 8;
  const std::size_t indexEnd = blobHeaderSize + 4 + indexEntrySize * blobs.size();
  Bytes index;
  Bytes content;
  appendInteger(index, static_cast<std::uint32_t>(blobs.size()));
  for (const auto& [type, blob] : blobs) {
    appendInteger(index, type);
    appendInteger(index, static_cast<std::uint32_t>(indexEnd + content.size()));
    content.insert(content.end(), blob.begin(), blob.end());
  }
  index.insert(index.end(), content.begin(), content.end());
  return wrapped(magic::embeddedSignature, index);
}

Bytes emptyRequirements() {
  Bytes count;
  appendInteger(count, std::uint32_t{0});
  return wrapped(magic::requirementSet, count);
}

}  // namespace platform::codesigning
