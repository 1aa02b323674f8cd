#pragma once

#include "CodeSignature/Bytes.h"
#include "CodeSignature/InputFile.h"

#include <cstdint>
#include <memory>
#include <optional>

struct evp_md_ctx_st;
struct evp_md_st;

namespace platform::codesignature {

/// The hash algorithms of a code directory, by their number there.
enum class HashType : std::uint8_t { sha1 = 1, sha256 = 2, sha256Truncated = 3, sha384 = 4 };

[[nodiscard]] std::optional<HashType> hashTypeOf(std::uint8_t number);
/// Bytes that a code directory of this type keeps of each digest.
[[nodiscard]] std::size_t digestSize(HashType type);
/// Which of several code directories counts: the one of the highest rank.
[[nodiscard]] int rank(HashType type);
/// OpenSSL's algorithm; never null.
[[nodiscard]] const evp_md_st* algorithm(HashType type);

/// A running digest, reusable after finish(). One thread at a time.
class Hasher {
 public:
  explicit Hasher(HashType type);
  Hasher(Hasher&&) noexcept;
  ~Hasher();
  void update(ByteView bytes);
  /// The digest in the type's stored size; the next update begins a new one.
  [[nodiscard]] Bytes finish() { return finish(digestSize(type_)); }
  /// The digest before any truncation.
  [[nodiscard]] Bytes finishUncut();

 private:
  Bytes finish(std::size_t size);
  struct Free {
    void operator()(evp_md_ctx_st* context) const;
  };
  HashType type_;
  std::unique_ptr<evp_md_ctx_st, Free> context_;
};

[[nodiscard]] Bytes digest(HashType type, ByteView bytes);
[[nodiscard]] Bytes uncutDigest(HashType type, ByteView bytes);
/// The digest of a range of a file, read in pieces of constant size.
[[nodiscard]] Result<Bytes> digest(HashType type, const InputFile& file, std::uint64_t offset, std::uint64_t length);

}  // namespace platform::codesignature
