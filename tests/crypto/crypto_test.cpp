// Known answers from the standards, and OpenSSL as an oracle.
#include "des.h"
#include "md5.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstring>
#include <random>

using Bytes = std::vector<unsigned char>;

namespace {

Bytes FromHex(const std::string& hex) {
    Bytes out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out.push_back((unsigned char)std::stoi(hex.substr(i, 2), nullptr, 16));
    return out;
}
const auto Text = [](const std::string& t) { return Bytes(t.begin(), t.end()); };
const auto Slice = [](const Bytes& b, size_t at, size_t n = SIZE_MAX) {
    return Bytes(b.begin() + at, b.begin() + at + std::min(n, b.size() - at));
};
Bytes Join(Bytes a, const Bytes& b, const Bytes& c = {}) {
    a.insert(a.end(), b.begin(), b.end());
    a.insert(a.end(), c.begin(), c.end());
    return a;
}
Bytes Random(std::mt19937& rng, size_t n) {
    Bytes out(n);
    std::generate(out.begin(), out.end(), [&] { return (unsigned char)rng(); });
    return out;
}

// Feeds pieces of `piece` bytes, or of random sizes below `piece` when rng is given.
Bytes Md5(const Bytes& m, size_t piece, std::mt19937* rng = nullptr) {
    md5_context ctx;
    md5_starts(&ctx);
    for (size_t at = 0, n; at < m.size(); at += n) {
        n = std::min(m.size() - at, rng ? (*rng)() % piece : piece);
        md5_update(&ctx, m.data() + at, (unsigned int)n);
    }
    Bytes digest(16);
    md5_finish(&ctx, digest.data());
    return digest;
}

// One of the three CBC variants behind a common face; DES reads the first 8 key bytes only.
template <typename Ctx, auto InitFn, auto UpdateFn, auto RestartFn> struct Cbc {
    Ctx ctx;
    Cbc(const Bytes& key, const Bytes& iv, int enc) { InitFn(&ctx, key.data(), iv.data(), enc); }
    int Update(Bytes& o, const Bytes& i, size_t n) { return UpdateFn(&ctx, o.data(), i.data(), n); }
    Bytes Run(const Bytes& in) {
        Bytes out(in.size());
        EXPECT_EQ(Update(out, in, in.size()), 0);
        return out;
    }
    void Restart() { RestartFn(&ctx); }
};
using Des = Cbc<DES_CBC_CTX, DES_CBCInit, DES_CBCUpdate, DES_CBCRestart>;
using Desx = Cbc<DESX_CBC_CTX, DESX_CBCInit, DESX_CBCUpdate, DESX_CBCRestart>;
using Des3 = Cbc<DES3_CBC_CTX, DES3_CBCInit, DES3_CBCUpdate, DES3_CBCRestart>;

Bytes OpenSslDes3(const Bytes& key, const Bytes& iv, const Bytes& in, int enc) {
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    Bytes out(in.size() + 8);
    int n = 0;
    EXPECT_EQ(EVP_CipherInit_ex(ctx, EVP_des_ede3_cbc(), nullptr, key.data(), iv.data(), enc), 1);
    EVP_CIPHER_CTX_set_padding(ctx, 0); // so all of the output comes from the update
    EXPECT_EQ(EVP_CipherUpdate(ctx, out.data(), &n, in.data(), (int)in.size()), 1);
    EVP_CIPHER_CTX_free(ctx);
    out.resize(n);
    return out;
}

const Bytes kIv = FromHex("1234567890abcdef"), kZeroIv(8, 0);
const Bytes kKey = FromHex("0123456789abcdeffedcba987654321089abcdef01234567");
const Bytes kPlain = Text("Now is the time for all "); // three blocks

} // namespace

// Digests of messages of every length in pieces of every size are checked against OpenSSL (the
// oracle test below): here the byte count, which carries into its high word only after 4 GiB.
TEST(Md5, CountCarriesIntoTheHighWord) {
    md5_context ctx;
    md5_starts(&ctx);
    md5_update(&ctx, nullptr, 0);
    ctx.total[0] = 0xFFFFFFF0u; // as after 2^32 - 16 bytes: the count carries into the high word
    md5_update(&ctx, kPlain.data(), 24);
    EXPECT_EQ(ctx.total[0] + ((uint64_t)ctx.total[1] << 32), 0x100000008u);
}

// Single and triple DES are checked against OpenSSL (the oracle test below); DESX, which OpenSSL's
// default provider lacks, against an answer from its legacy provider; then the byte helpers.
TEST(DesKnownAnswers, DesxAndByteHelpers) {
    // DESX whitens before and after single DES; the key is K, then the input and output
    // whiteners. Answer from OpenSSL's legacy provider: printf 'Now is the time for all ' |
    // openssl enc -desx-cbc -provider legacy -nopad -K <kKey as hex> -iv 1234567890abcdef
    const Bytes cipher = FromHex("1885461fe99aefaf9829dcaf773c204979992369d53fe016");
    EXPECT_EQ(Desx(kKey, kIv, 1).Run(kPlain), cipher);
    EXPECT_EQ(Desx(kKey, kIv, 0).Run(cipher), kPlain);

    Bytes a = FromHex("0102ff"), b = FromHex("010201"), buffer(6);
    EXPECT_EQ(R_memcmp(a.data(), b.data(), 2), 0);
    EXPECT_EQ(R_memcmp(a.data(), b.data(), 3), 0xff - 0x01); // unsigned bytes
    EXPECT_EQ(R_memcmp(b.data(), a.data(), 3), 0x01 - 0xff);
    EXPECT_EQ(R_memcmp(a.data(), b.data() + 2, 0), 0);
    R_memset(&buffer[1], 0x1AB, 3); // only the low byte counts
    EXPECT_EQ(buffer, FromHex("00ababab0000"));
    R_memcpy(buffer.data(), a.data(), 3);
    EXPECT_EQ(buffer, FromHex("0102ffab0000"));
}

template <typename V> class CbcVariant : public ::testing::Test {};
using Variants = ::testing::Types<Des, Desx, Des3>;
TYPED_TEST_SUITE(CbcVariant, Variants);

TYPED_TEST(CbcVariant, ChainingRestartLengthsAndInPlace) {
    Bytes plain = Join(kPlain, kPlain), joined, buffer = plain, out(16, 0xAA);
    TypeParam whole(kKey, kIv, 1), pieces(kKey, kIv, 1), dec(kKey, kIv, 0), enc(kKey, kIv, 1);
    Bytes cipher = whole.Run(plain);
    for (size_t at = 0; at < plain.size(); at += 8)
        joined = Join(joined, pieces.Run(Slice(plain, at, 8)));
    EXPECT_EQ(joined, cipher);
    Bytes decrypted = dec.Run(Slice(cipher, 0, 16));
    EXPECT_EQ(Join(decrypted, dec.Run(Slice(cipher, 16))), plain);
    whole.Restart(); // back to the initial IV
    EXPECT_EQ(whole.Run(plain), cipher);

    // Partial blocks are rejected (RE_LEN) with the output and the context untouched; then in
    // place.
    auto before = enc.ctx;
    for (size_t n : {12, 7, 1, 0})
        EXPECT_EQ(enc.Update(out, kPlain, n), n ? 0x0406 : 0) << n;
    EXPECT_EQ(out, Bytes(16, 0xAA));
    EXPECT_EQ(std::memcmp(&before, &enc.ctx, sizeof before), 0); // not the code's own R_memcmp
    ASSERT_EQ(enc.Update(buffer, buffer, buffer.size()), 0);
    EXPECT_EQ(buffer, cipher);
    dec.Restart();
    ASSERT_EQ(dec.Update(buffer, buffer, buffer.size()), 0);
    EXPECT_EQ(buffer, plain);
}

TEST(Oracle, Md5AndDes3CbcBothWaysAgreeWithOpenSsl) {
    std::mt19937 rng(1321);
    for (int round = 0; round < 3000; ++round) {
        SCOPED_TRACE(round);
        Bytes m = Random(rng, rng() % 700), digest(16);
        ASSERT_EQ(EVP_Digest(m.data(), m.size(), digest.data(), nullptr, EVP_md5(), nullptr), 1);
        ASSERT_EQ(Md5(m, 130, &rng), digest) << m.size() << " bytes";

        Bytes key = Random(rng, 24), iv = Random(rng, 8), data = Random(rng, 8 * (rng() % 40));
        Bytes cipher = Des3(key, iv, 1).Run(data);
        ASSERT_EQ(cipher, OpenSslDes3(key, iv, data, 1));
        ASSERT_EQ(Des3(key, iv, 0).Run(cipher), data);
        // Deciphering arbitrary data, not only our own output.
        ASSERT_EQ(Des3(key, iv, 0).Run(data), OpenSslDes3(key, iv, data, 0));
        // Single DES has no oracle in OpenSSL's default provider: one key thrice is single DES.
        Bytes k1 = Slice(key, 0, 8), k111 = Join(k1, k1, k1);
        ASSERT_EQ(Des(k1, iv, 1).Run(data), OpenSslDes3(k111, iv, data, 1));
        ASSERT_EQ(Des(k1, iv, 0).Run(data), OpenSslDes3(k111, iv, data, 0));
    }
}
