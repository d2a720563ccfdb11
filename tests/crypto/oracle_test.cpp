// MD5 and triple-DES-CBC against OpenSSL on random messages, keys and IVs.
#include "Bytes.h"
#include "des.h"
#include "md5.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <random>

namespace {

Bytes RandomBytes(std::mt19937& rng, size_t n) {
    Bytes out(n, 0);
    for (auto& b : out)
        b = (unsigned char)rng();
    return out;
}

Bytes OpenSslDigest(const Bytes& message) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    EXPECT_EQ(EVP_Digest(message.data(), message.size(), digest, &n, EVP_md5(), nullptr), 1);
    return Bytes(digest, digest + n);
}

Bytes OpenSslDes3(const Bytes& key, const Bytes& iv, const Bytes& in, int encrypt) {
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    Bytes out(in.size() + 8, 0);
    int n = 0, tail = 0;
    EXPECT_EQ(EVP_CipherInit_ex(ctx, EVP_des_ede3_cbc(), nullptr, key.data(), iv.data(), encrypt),
              1);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EXPECT_EQ(EVP_CipherUpdate(ctx, out.data(), &n, in.data(), (int)in.size()), 1);
    EXPECT_EQ(EVP_CipherFinal_ex(ctx, &out[n], &tail), 1);
    EVP_CIPHER_CTX_free(ctx);
    out.resize(n + tail);
    return out;
}

template <typename Ctx, typename Init, typename Update>
Bytes Ours(Init init, Update update, const Bytes& key, const Bytes& iv, const Bytes& in,
           int encrypt) {
    Ctx ctx;
    init(&ctx, key.data(), iv.data(), encrypt);
    Bytes out(in.size(), 0);
    EXPECT_EQ(update(&ctx, out.data(), in.data(), (unsigned int)in.size()), 0);
    return out;
}

Bytes OurDes3(const Bytes& key, const Bytes& iv, const Bytes& in, int encrypt) {
    return Ours<DES3_CBC_CTX>(DES3_CBCInit, DES3_CBCUpdate, key, iv, in, encrypt);
}

Bytes OurDes(const Bytes& key, const Bytes& iv, const Bytes& in, int encrypt) {
    return Ours<DES_CBC_CTX>(DES_CBCInit, DES_CBCUpdate, key, iv, in, encrypt);
}

} // namespace

TEST(Oracle, Md5InRandomPiecesAgreesWithOpenSsl) {
    std::mt19937 rng(1321);
    for (int round = 0; round < 3000; ++round) {
        Bytes message = RandomBytes(rng, rng() % 700);
        md5_context ctx;
        md5_starts(&ctx);
        for (size_t at = 0; at < message.size();) {
            size_t n = std::min<size_t>(message.size() - at, rng() % 130);
            md5_update(&ctx, message.data() + at, (unsigned int)n);
            at += n;
        }
        unsigned char digest[16];
        md5_finish(&ctx, digest);
        ASSERT_EQ(ToHex(digest, 16), ToHex(OpenSslDigest(message))) << message.size() << " bytes";
    }
}

TEST(Oracle, DesCbcAgreesWithOpenSslBothWays) {
    std::mt19937 rng(463);
    for (int round = 0; round < 3000; ++round) {
        Bytes key = RandomBytes(rng, 24), iv = RandomBytes(rng, 8);
        Bytes data = RandomBytes(rng, 8 * (rng() % 40));
        Bytes cipher = OurDes3(key, iv, data, 1);
        ASSERT_EQ(ToHex(cipher), ToHex(OpenSslDes3(key, iv, data, 1))) << "round " << round;
        ASSERT_EQ(OurDes3(key, iv, cipher, 0), data) << "round " << round;
        // Deciphering arbitrary data, not only our own output.
        ASSERT_EQ(ToHex(OurDes3(key, iv, data, 0)), ToHex(OpenSslDes3(key, iv, data, 0)))
            << "round " << round;
        // Single DES has no oracle in OpenSSL's default provider: one key thrice is single DES.
        Bytes k1 = Slice(key, 0, 8), k111 = Join(Join(k1, k1), k1);
        ASSERT_EQ(OurDes(k1, iv, data, 1), OpenSslDes3(k111, iv, data, 1)) << "round " << round;
        ASSERT_EQ(OurDes(k1, iv, data, 0), OpenSslDes3(k111, iv, data, 0)) << "round " << round;
    }
}
