#include "platform/data_encrypt/data_encrypt.h"

#include <sodium.h>

#include <array>
#include <vector>

// A cipher text is one format byte, the salt of the key derivation, the nonce, and the sealed box (authentication tag
// and encrypted text), all of it in hexadecimal.
namespace {

using Bytes = std::vector<unsigned char>;

constexpr unsigned char kFormat = 1;
constexpr size_t kSaltAt = 1;
constexpr size_t kNonceAt = kSaltAt + crypto_pwhash_SALTBYTES;
constexpr size_t kBoxAt = kNonceAt + crypto_secretbox_NONCEBYTES;
constexpr size_t kOverhead = kBoxAt + crypto_secretbox_MACBYTES;

// The password is the random line of a key file, not a word that somebody could guess: the work that Argon2 adds is a
// second line of defence, and a small board can afford it at this size.
constexpr size_t kDerivationMemory = size_t{64} * 1024;
constexpr unsigned long long kDerivationPasses = 3;

/// The key of one cipher text; wiped when it goes.
class Key {
 public:
  Key(std::string_view password, const unsigned char* salt)
      : derived_(crypto_pwhash(bytes_.data(), bytes_.size(), password.data(), password.size(), salt, kDerivationPasses,
                               kDerivationMemory, crypto_pwhash_ALG_ARGON2ID13) == 0) {}
  Key(const Key&) = delete;
  Key& operator=(const Key&) = delete;
  ~Key() { sodium_memzero(bytes_.data(), bytes_.size()); }

  bool IsDerived() const { return derived_; }
  const unsigned char* Data() const { return bytes_.data(); }

 private:
  std::array<unsigned char, crypto_secretbox_KEYBYTES> bytes_{};
  bool derived_;
};

constexpr std::string_view kDigits = "0123456789ABCDEF";

std::string ToHex(const Bytes& bytes) {
  std::string hex;
  hex.reserve(bytes.size() * 2);
  for (const unsigned char byte : bytes) {
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 15];
  }
  return hex;
}

/// Takes upper-case digits only, so that a text that was touched in any way is no cipher text.
std::optional<Bytes> FromHex(std::string_view hex) {
  if (hex.size() % 2 != 0) return std::nullopt;
  Bytes bytes(hex.size() / 2);
  for (size_t i = 0; i < hex.size(); ++i) {
    const size_t digit = kDigits.find(hex[i]);
    if (digit == std::string_view::npos) return std::nullopt;
    bytes[i / 2] = static_cast<unsigned char>(size_t{bytes[i / 2]} << 4 | digit);
  }
  return bytes;
}

}  // namespace

std::optional<std::string> encryptToHexString(std::string_view text, std::string_view password) {
  if (password.empty() || sodium_init() < 0) return std::nullopt;
  Bytes sealed(kOverhead + text.size());
  sealed[0] = kFormat;
  randombytes_buf(&sealed[kSaltAt], kBoxAt - kSaltAt);  // salt and nonce
  const Key key(password, &sealed[kSaltAt]);
  if (!key.IsDerived()) return std::nullopt;
  crypto_secretbox_easy(&sealed[kBoxAt], reinterpret_cast<const unsigned char*>(text.data()), text.size(),
                        &sealed[kNonceAt], key.Data());
  return ToHex(sealed);
}

std::optional<std::string> decryptHexString(std::string_view hex, std::string_view password) {
  if (password.empty() || sodium_init() < 0) return std::nullopt;
  const std::optional<Bytes> sealed = FromHex(hex);
  if (!sealed || sealed->size() < kOverhead || sealed->front() != kFormat) return std::nullopt;
  const Key key(password, sealed->data() + kSaltAt);
  std::string text(sealed->size() - kOverhead, '\0');
  if (!key.IsDerived() ||
      crypto_secretbox_open_easy(reinterpret_cast<unsigned char*>(text.data()), sealed->data() + kBoxAt,
                                 sealed->size() - kBoxAt, sealed->data() + kNonceAt, key.Data()) != 0) {
    return std::nullopt;
  }
  return text;
}
