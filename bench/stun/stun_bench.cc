// A connectivity check (USERNAME, PRIORITY, ICE-CONTROLLING,
// MESSAGE-INTEGRITY, FINGERPRINT) built, then classified, parsed and verified
// as the receiving side does, per message; the same work with the HMAC-SHA1
// and CRC-32 done by OpenSSL and zlib instead, for comparison; and the two
// primitives alone on a message-sized input.

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <zlib.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include <benchmark/benchmark.h>

#include "core/byte_order.h"
#include "stun/crc32.h"
#include "stun/integrity.h"
#include "stun/sha1.h"

namespace quorvel {
namespace stun {
namespace {

const std::string UserName = "Rk3b:9fQx";
const std::string Password = "h8Yn0vZt2aQ4cXw7pLm1sE5u";  // 24 bytes, like an ICE password
const TransactionId Id = {0x5a, 0x11, 0x42, 0x9c, 0x01, 0xfe, 0x33, 0x70, 0x8d, 0x26, 0xe4, 0x0b};

void fail(benchmark::State& state, const char* what) {
  state.SkipWithError(what);
  std::abort();  // a wrong result makes every figure meaningless
}

Message buildCheck(uint32_t priority) {
  Message check(Message::Request, Message::MethodBinding, Id);
  check.addIntegerAttribute(Message::Priority, 4, priority);
  check.addIntegerAttribute(Message::IceControlling, 8, 0x01234567u, 0x89abcdefu);
  return check;
}

// --- the same integrity and fingerprint steps on OpenSSL and zlib ---------

void hmacOpenSsl(const std::string& key, const uint8_t* data, std::size_t size, uint8_t* out) {
  unsigned int length = 0;
  HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), data, size, out, &length);
}

uint32_t crcZlib(const uint8_t* data, std::size_t size) {
  return static_cast<uint32_t>(::crc32(0L, data, static_cast<uInt>(size)));
}

void addCredentialsOpenSsl(Message& m) {
  m.addStringAttribute(Message::Username, UserName);
  const std::size_t size = m.size();
  m.setLengthField(static_cast<uint16_t>(size - 20 + 24));
  uint8_t digest[20];
  hmacOpenSsl(Password, m.data(), size, digest);
  m.addAttribute(Message::MessageIntegrity, digest, digest + 20);
}

void addFingerprintZlib(Message& m) {
  const std::size_t size = m.size();
  const uint8_t zero[4] = {};
  m.addAttribute(Message::Fingerprint, zero, zero + 4);
  storeBigEndian32(m.mutableData() + m.size() - 4, crcZlib(m.data(), size) ^ 0x5354554Eu);
}

bool isStunZlib(const uint8_t* data, std::size_t size) {
  if (size < 20 || loadBigEndian32(data + 4) != Message::MagicCookie || loadBigEndian16(data + 2) > size - 20) {
    return false;
  }
  for (std::size_t offset = 20; size - offset >= 4;) {
    const std::size_t length = loadBigEndian16(data + offset + 2);
    if (length > size - offset - 4) return false;
    if (loadBigEndian16(data + offset) == Message::Fingerprint) {
      return length == 4 && (crcZlib(data, offset) ^ 0x5354554Eu) == loadBigEndian32(data + offset + 4);
    }
    offset += 4 + ((length + 3) & ~std::size_t{3});
  }
  return false;
}

bool checkCredentialsOpenSsl(const Message& m) {
  const auto user = m.findAttribute(Message::Username);
  if (!user || user->value.size() != UserName.size() ||
      std::memcmp(user->value.begin, UserName.data(), UserName.size()) != 0) {
    return false;
  }
  const auto record = m.findAttribute(Message::MessageIntegrity);
  if (!record || record->value.size() != 20) return false;
  std::vector<uint8_t> copy(m.data(), m.data() + record->offset);
  storeBigEndian16(copy.data() + 2, static_cast<uint16_t>(record->offset - 20 + 24));
  uint8_t digest[20];
  hmacOpenSsl(Password, copy.data(), copy.size(), digest);
  return std::memcmp(digest, record->value.begin, 20) == 0;
}

// --- benchmarks ------------------------------------------------------------

void BM_CheckBuildParseVerify_Own(benchmark::State& state) {
  uint32_t priority = 0x6e0001ff;
  for (auto _ : state) {
    Message check = buildCheck(priority++);
    addCredentials(check, UserName, Password);
    addFingerprint(check);

    if (!isStunMessage(check.data(), check.size(), true)) fail(state, "classifier");
    Message received;
    if (!received.parse(check.data(), check.size())) fail(state, "parse");
    if (!checkCredentials(received, UserName, Password)) fail(state, "credentials");
    benchmark::DoNotOptimize(received.findAttribute(Message::Priority));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CheckBuildParseVerify_Own);

void BM_CheckBuildParseVerify_OpenSslZlib(benchmark::State& state) {
  uint32_t priority = 0x6e0001ff;
  for (auto _ : state) {
    Message check = buildCheck(priority++);
    addCredentialsOpenSsl(check);
    addFingerprintZlib(check);

    if (!isStunZlib(check.data(), check.size())) fail(state, "classifier");
    Message received;
    if (!received.parse(check.data(), check.size())) fail(state, "parse");
    if (!checkCredentialsOpenSsl(received)) fail(state, "credentials");
    benchmark::DoNotOptimize(received.findAttribute(Message::Priority));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CheckBuildParseVerify_OpenSslZlib);

// The byte range the integrity of a typical check covers.
std::vector<uint8_t> checkPrefix() {
  Message check = buildCheck(1);
  check.addStringAttribute(Message::Username, UserName);
  return check.bytes();
}

void BM_HmacSha1_Own(benchmark::State& state) {
  const std::vector<uint8_t> input = checkPrefix();
  const uint8_t* key = reinterpret_cast<const uint8_t*>(Password.data());
  uint8_t out[20];
  for (auto _ : state) {
    hmacSha1(key, key + Password.size(), input.data(), input.data() + input.size(), out);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * input.size());
}
BENCHMARK(BM_HmacSha1_Own);

void BM_HmacSha1_OpenSsl(benchmark::State& state) {
  const std::vector<uint8_t> input = checkPrefix();
  uint8_t out[EVP_MAX_MD_SIZE];
  for (auto _ : state) {
    hmacOpenSsl(Password, input.data(), input.size(), out);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * input.size());
}
BENCHMARK(BM_HmacSha1_OpenSsl);

void BM_Crc32_Own(benchmark::State& state) {
  const std::vector<uint8_t> input = checkPrefix();
  for (auto _ : state) benchmark::DoNotOptimize(crc32(input.data(), input.data() + input.size()));
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * input.size());
}
BENCHMARK(BM_Crc32_Own);

void BM_Crc32_Zlib(benchmark::State& state) {
  const std::vector<uint8_t> input = checkPrefix();
  for (auto _ : state) benchmark::DoNotOptimize(crcZlib(input.data(), input.size()));
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * input.size());
}
BENCHMARK(BM_Crc32_Zlib);

}  // namespace
}  // namespace stun
}  // namespace quorvel

BENCHMARK_MAIN();
