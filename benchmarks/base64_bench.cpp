// Measures Base64 and hexadecimal text beside OpenSSL's and GLib's functions.
//
//   base64_bench                    all rows, the repetitions of all contestants shuffled
//   base64_bench --benchmark_...    as any Google Benchmark program
//
// All write into memory of the caller, but for bin2hex and hex2bin, which make a new string and a
// new vector. Sizes are those of the binary data. Times are the thread's processor time.
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <glib.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <vexo_utils/auth.h>

#include "measure.h"

namespace vexo::bench {

namespace {

using benchmark::State;
using Bytes = std::vector<unsigned char>;

constexpr char kOurs[] = "vexo";
constexpr char kOpenSsl[] = "openssl";
constexpr char kGlib[] = "glib";

const std::vector<Contestant> kContestants = {
    {kOurs, false, nullptr}, {kOpenSsl, true, nullptr}, {kGlib, true, nullptr}};

Bytes randomBytes(std::size_t size) {
  std::minstd_rand random(1);
  Bytes data(size);
  for (unsigned char& byte : data) byte = static_cast<unsigned char>(random() >> 8);
  return data;
}

std::size_t encodedSize(std::size_t size) {
  return (size + 2) / 3 * 4;
}

// A function of a contestant: writes its result to `out`, which has room, and returns its size.
using Convert = std::size_t (*)(const Bytes& in, Bytes& out);

template <std::size_t kSize>
void encoding(State& state, Convert convert) {
  const Bytes in = randomBytes(kSize);
  Bytes out(encodedSize(kSize) + 1);
  Bytes expected(out.size());
  EVP_EncodeBlock(expected.data(), in.data(), kSize);
  measure(state, [&] { require(convert(in, out) == encodedSize(kSize), "encode"); });
  require(std::memcmp(out.data(), expected.data(), encodedSize(kSize)) == 0, "encode correctly");
}

template <std::size_t kSize>
void decoding(State& state, Convert convert) {
  const Bytes expected = randomBytes(kSize);
  Bytes in(encodedSize(kSize) + 1);
  EVP_EncodeBlock(in.data(), expected.data(), kSize);
  in.pop_back();
  Bytes out(in.size());
  measure(state, [&] { require(convert(in, out) >= kSize, "decode"); });
  require(std::memcmp(out.data(), expected.data(), kSize) == 0, "decode correctly");
}

std::size_t encodeOurs(const Bytes& in, Bytes& out) {
  auto room = static_cast<unsigned int>(out.size());
  return utils::b64(in.data(), static_cast<unsigned int>(in.size()), out.data(), room);
}

std::size_t encodeOpenSsl(const Bytes& in, Bytes& out) {
  return static_cast<std::size_t>(
      EVP_EncodeBlock(out.data(), in.data(), static_cast<int>(in.size())));
}

std::size_t encodeGlib(const Bytes& in, Bytes& out) {
  auto* const text = reinterpret_cast<char*>(out.data());
  gint state = 0;
  gint save = 0;
  const gsize size = g_base64_encode_step(in.data(), in.size(), FALSE, text, &state, &save);
  return size + g_base64_encode_close(FALSE, text + size, &state, &save);
}

std::size_t decodeOurs(const Bytes& in, Bytes& out) {
  auto room = static_cast<unsigned int>(out.size());
  return utils::unb64(in.data(), static_cast<unsigned int>(in.size()), out.data(), room);
}

// The bytes of the padding are counted.
std::size_t decodeOpenSsl(const Bytes& in, Bytes& out) {
  return static_cast<std::size_t>(
      EVP_DecodeBlock(out.data(), in.data(), static_cast<int>(in.size())));
}

std::size_t decodeGlib(const Bytes& in, Bytes& out) {
  gint state = 0;
  guint save = 0;
  return g_base64_decode_step(reinterpret_cast<const char*>(in.data()), in.size(), out.data(),
                              &state, &save);
}

template <std::size_t kSize>
void addBase64(const std::string& size) {
  const std::string encode = "b64/" + size;
  add(encode, kOurs, [](State& state) { encoding<kSize>(state, encodeOurs); });
  add(encode, kOpenSsl, [](State& state) { encoding<kSize>(state, encodeOpenSsl); });
  add(encode, kGlib, [](State& state) { encoding<kSize>(state, encodeGlib); });
  const std::string decode = "unb64/" + size;
  add(decode, kOurs, [](State& state) { decoding<kSize>(state, decodeOurs); });
  add(decode, kOpenSsl, [](State& state) { decoding<kSize>(state, decodeOpenSsl); });
  add(decode, kGlib, [](State& state) { decoding<kSize>(state, decodeGlib); });
}

// ---- hexadecimal: GLib has no such functions ----

constexpr std::size_t kHexSize = 1 << 10;

void addHexadecimal() {
  add("bin2hex/1KiB", kOurs, [](State& state) {
    const Bytes in = randomBytes(kHexSize);
    measure(state, [&] {
      require(utils::bin2hex(in.data(), kHexSize, "", '0').size() == 2 * kHexSize, "write digits");
    });
  });
  add("bin2hex/1KiB", kOpenSsl, [](State& state) {
    const Bytes in = randomBytes(kHexSize);
    std::string out(2 * kHexSize + 1, '\0');
    measure(state, [&] {
      require(
          OPENSSL_buf2hexstr_ex(out.data(), out.size(), nullptr, in.data(), kHexSize, '\0') == 1,
          "write digits");
    });
  });
  add("hex2bin/1KiB", kOurs, [](State& state) {
    const std::string in = utils::bin2hex(randomBytes(kHexSize).data(), kHexSize, "", '0');
    measure(state, [&] { require(utils::hex2bin(in).size() == kHexSize, "read digits"); });
  });
  add("hex2bin/1KiB", kOpenSsl, [](State& state) {
    const std::string in = utils::bin2hex(randomBytes(kHexSize).data(), kHexSize, "", '0');
    Bytes out(kHexSize);
    measure(state, [&] {
      require(OPENSSL_hexstr2buf_ex(out.data(), out.size(), nullptr, in.c_str(), '\0') == 1,
              "read digits");
    });
  });
}

}  // namespace

}  // namespace vexo::bench

int main(int argc, char** argv) {
  using namespace vexo::bench;
  addBase64<32>("32B");
  addBase64<1 << 20>("1MiB");
  addHexadecimal();
  ComparisonReporter reporter(
      kContestants, {{"Base64", {"b64/32B", "b64/1MiB", "unb64/32B", "unb64/1MiB"}, 1.0}});
  return run(argc, argv,
             {"--benchmark_enable_random_interleaving=true", "--benchmark_repetitions=15",
              "--benchmark_min_time=0.05"},
             reporter);
}
