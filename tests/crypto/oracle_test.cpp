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
    return Bytes(digest, n);
}

Bytes OpenSslDes3(const Bytes& key, const Bytes& iv, const Bytes& in, int encrypt) {
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    Bytes out(in.size() + 8, 0);
    int n = 0, tail = 0;
    EXPECT_EQ(EVP_CipherInit_ex(ctx, EVP_des_ede3_cbc(), nullptr, key.data(), iv.data(), encrypt),
              1);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EXPECT_EQ(EVP_CipherUpdate(ctx, &out[0], &n, in.data(), (int)in.size()), 1);
    EXPECT_EQ(EVP_CipherFinal_ex(ctx, &out[n], &tail), 1);
    EVP_CIPHER_CTX_free(ctx);
    out.resize(n + tail);
    return out;
}

Bytes OurDes3(const Bytes& key, const Bytes& iv, const Bytes& in, int encrypt) {
    DES3_CBC_CTX ctx;
    DES3_CBCInit(&ctx, key.data(), iv.data(), encrypt);
    Bytes out(in.size(), 0);
    EXPECT_EQ(DES3_CBCUpdate(&ctx, &out[0], in.data(), (unsigned int)in.size()), 0);
    return out;
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

TEST(Oracle, TripleDesCbcAgreesWithOpenSslBothWays) {
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
    }
}

// Single DES has no oracle in OpenSSL's default provider: triple DES with one key repeated is it.
TEST(Oracle, SingleDesAgreesWithRepeatedKeyTripleDes) {
    std::mt19937 rng(4603);
    for (int round = 0; round < 1000; ++round) {
        Bytes key = RandomBytes(rng, 8), iv = RandomBytes(rng, 8);
        Bytes data = RandomBytes(rng, 8 * (1 + rng() % 16));
        for (int encrypt = 0; encrypt < 2; ++encrypt) {
            DES_CBC_CTX ctx;
            DES_CBCInit(&ctx, key.data(), iv.data(), encrypt);
            Bytes out(data.size(), 0);
            ASSERT_EQ(DES_CBCUpdate(&ctx, &out[0], data.data(), (unsigned int)data.size()), 0);
            ASSERT_EQ(ToHex(out), ToHex(OpenSslDes3(key + key + key, iv, data, encrypt)))
                << "round " << round << " encrypt " << encrypt;
        }
    }
}
