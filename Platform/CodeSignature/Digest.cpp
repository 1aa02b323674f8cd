#include "CodeSignature/Digest.h"

#include <algorithm>
#include <array>
#include <cstdlib>

#include <openssl/evp.h>

namespace platform::codesignature {
namespace {

constexpr std::size_t pieceSize = std::size_t{256} << 10U;

/// Fetched once: an implicit fetch per digest costs more than hashing a page.
const EVP_MD* fetched(const char* name) {
  const EVP_MD* algorithm = EVP_MD_fetch(nullptr, name, nullptr);
  if (algorithm == nullptr) std::abort();
  return algorithm;
}

}  // namespace

std::optional<HashType> hashTypeOf(std::uint8_t number) {
  if (number < 1 || number > 4) return std::nullopt;
  return static_cast<HashType>(number);
}

std::size_t digestSize(HashType type) {
  constexpr std::array<std::size_t, 5> sizes = {0, 20, 32, 20, 48};
  return sizes[static_cast<std::size_t>(type)];
}

int rank(HashType type) {
  constexpr std::array ranks = {0, 1, 3, 2, 4};
  return ranks[static_cast<std::size_t>(type)];
}

const EVP_MD* algorithm(HashType type) {
  static const EVP_MD* const sha1 = fetched("SHA1");
  static const EVP_MD* const sha256 = fetched("SHA256");
  static const EVP_MD* const sha384 = fetched("SHA384");
  if (type == HashType::sha1) return sha1;
  return type == HashType::sha384 ? sha384 : sha256;
}

void Hasher::Free::operator()(evp_md_ctx_st* context) const {
  EVP_MD_CTX_free(context);
}

Hasher::Hasher(HashType type) : type_(type), context_(EVP_MD_CTX_new()) {
  if (EVP_DigestInit_ex2(context_.get(), algorithm(type), nullptr) != 1) std::abort();
}
Hasher::Hasher(Hasher&&) noexcept = default;
Hasher::~Hasher() = default;

void Hasher::update(ByteView bytes) {
  if (EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) != 1) std::abort();
}

Bytes Hasher::finish(std::size_t size) {
  std::array<std::uint8_t, EVP_MAX_MD_SIZE> buffer = {};
  if (EVP_DigestFinal_ex(context_.get(), buffer.data(), nullptr) != 1) std::abort();
  if (EVP_DigestInit_ex2(context_.get(), nullptr, nullptr) != 1) std::abort();
  return {buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(size)};
}

Bytes Hasher::finishUncut() {
  return finish(static_cast<std::size_t>(EVP_MD_get_size(algorithm(type_))));
}

Bytes digest(HashType type, ByteView bytes) {
  Hasher hasher(type);
  hasher.update(bytes);
  return hasher.finish();
}

Bytes uncutDigest(HashType type, ByteView bytes) {
  Hasher hasher(type);
  hasher.update(bytes);
  return hasher.finishUncut();
}

Result<Bytes> digest(HashType type, const InputFile& file, std::uint64_t offset, std::uint64_t length) {
  Hasher hasher(type);
  Bytes buffer(static_cast<std::size_t>(std::min<std::uint64_t>(length, pieceSize)));
  while (length > 0) {
    const auto piece = std::span(buffer).first(static_cast<std::size_t>(std::min<std::uint64_t>(length, pieceSize)));
    if (auto done = file.read(offset, piece); !done) return std::unexpected(done.error());
    hasher.update(piece);
    offset += piece.size();
    length -= piece.size();
  }
  return hasher.finish();
}

}  // namespace platform::codesignature
