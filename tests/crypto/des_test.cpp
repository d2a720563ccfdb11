#include "Bytes.h"
#include "des.h"

#include <gtest/gtest.h>

namespace {

// One of the three CBC variants behind a common face, for the typed tests.
template <typename Ctx, void (*InitFn)(Ctx*, const unsigned char*, const unsigned char*, int),
          int (*UpdateFn)(Ctx*, unsigned char*, const unsigned char*, unsigned int),
          void (*RestartFn)(Ctx*), size_t KeyLength>
struct Variant {
    Ctx ctx;
    Variant(const Bytes& key, const Bytes& iv, int encrypt) {
        EXPECT_EQ(key.size(), KeyLength);
        InitFn(&ctx, key.data(), iv.data(), encrypt);
    }
    int Update(unsigned char* out, const unsigned char* in, unsigned int n) {
        return UpdateFn(&ctx, out, in, n);
    }
    Bytes Run(const Bytes& in) {
        Bytes out(in.size(), 0);
        EXPECT_EQ(Update(out.data(), in.data(), (unsigned int)in.size()), 0);
        return out;
    }
    void Restart() { RestartFn(&ctx); }
    static Bytes Key() {
        return Slice(FromHex("0123456789abcdeffedcba987654321089abcdef01234567"), 0, KeyLength);
    }
};

using Des = Variant<DES_CBC_CTX, DES_CBCInit, DES_CBCUpdate, DES_CBCRestart, 8>;
using Desx = Variant<DESX_CBC_CTX, DESX_CBCInit, DESX_CBCUpdate, DESX_CBCRestart, 24>;
using Des3 = Variant<DES3_CBC_CTX, DES3_CBCInit, DES3_CBCUpdate, DES3_CBCRestart, 24>;

const Bytes kIv = FromHex("1234567890abcdef");
const Bytes kZeroIv(8, 0);
const Bytes kPlain = FromText("Now is the time for all "); // three blocks

} // namespace

// Single blocks from FIPS 81, the classic worked example and NIST SP 800-20.
TEST(DesKnownAnswers, SingleBlocks) {
    const char* vectors[][3] = {
        {"0123456789abcdef", "4e6f772069732074", "3fa40e8a984d4815"},
        {"133457799bbcdff1", "0123456789abcdef", "85e813540f0ab405"},
        {"0101010101010101", "8000000000000000", "95f8a5e5dd31d900"},
        {"0101010101010101", "4000000000000000", "dd7f121ca5015619"},
        {"8001010101010101", "0000000000000000", "95a8d72813daa94d"},
        {"7ca110454a1a6e57", "01a1d6d039776742", "690f5b0d9a26939b"},
    };
    for (auto& v : vectors) {
        Bytes key = FromHex(v[0]);
        EXPECT_EQ(ToHex(Des(key, kZeroIv, 1).Run(FromHex(v[1]))), v[2]) << v[0];
        EXPECT_EQ(ToHex(Des(key, kZeroIv, 0).Run(FromHex(v[2]))), v[1]) << v[0];
    }
}

TEST(DesKnownAnswers, CbcMessageOfFips81) {
    const std::string cipher = "e5c7cdde872bf27c43e934008c389c0f683788499a7c05f6";
    Bytes key = FromHex("0123456789abcdef");
    EXPECT_EQ(ToHex(Des(key, kIv, 1).Run(kPlain)), cipher);
    EXPECT_EQ(Des(key, kIv, 0).Run(FromHex(cipher)), kPlain);
    // Triple DES with three equal keys is single DES.
    Bytes key3 = Join(Join(key, key), key);
    EXPECT_EQ(ToHex(Des3(key3, kIv, 1).Run(kPlain)), cipher);
    EXPECT_EQ(Des3(key3, kIv, 0).Run(FromHex(cipher)), kPlain);
}

// The example of NIST SP 800-67 (ECB), one block at a time: Restart brings back the zero IV.
TEST(DesKnownAnswers, TripleDesOfSp80067) {
    Bytes key = FromHex("0123456789abcdef23456789abcdef01456789abcdef0123");
    Bytes plain = FromText("The qufck brown fox jump");
    Bytes cipher = FromHex("a826fd8ce53b855fcce21c8112256fe668d5c05dd9b6b900");
    Des3 enc(key, kZeroIv, 1), dec(key, kZeroIv, 0);
    for (size_t at = 0; at < plain.size(); at += 8) {
        EXPECT_EQ(enc.Run(Slice(plain, at, 8)), Slice(cipher, at, 8)) << at;
        EXPECT_EQ(dec.Run(Slice(cipher, at, 8)), Slice(plain, at, 8)) << at;
        enc.Restart();
        dec.Restart();
    }
}

TEST(DesKnownAnswers, KeyParityBitsAreIgnored) {
    Bytes key = FromHex("0123456789abcdef"), flipped = key;
    for (auto& b : flipped)
        b ^= 1;
    EXPECT_EQ(Des(key, kIv, 1).Run(kPlain), Des(flipped, kIv, 1).Run(kPlain));
}

// DESX is single DES with a whitener before and after: out = W2 ^ DES_K(in ^ iv ^ W1).
TEST(Desx, MatchesItsDefinition) {
    Bytes key = Desx::Key();
    uint32_t subkeys[32], w1[2], w2[2], chain[2], block[2];
    deskey(subkeys, key.data(), 1);
    scrunch(w1, key.data() + 8);
    scrunch(w2, key.data() + 16);
    scrunch(chain, kIv.data());
    Bytes expected(kPlain.size(), 0);
    for (size_t at = 0; at < kPlain.size(); at += 8) {
        scrunch(block, kPlain.data() + at);
        for (int i = 0; i < 2; ++i)
            block[i] ^= chain[i] ^ w1[i];
        desfunc(block, subkeys);
        for (int i = 0; i < 2; ++i)
            chain[i] = block[i] ^= w2[i];
        unscrunch(&expected[at], block);
    }
    EXPECT_EQ(Desx(key, kIv, 1).Run(kPlain), expected);
    EXPECT_EQ(Desx(key, kIv, 0).Run(expected), kPlain);
}

template <typename V> class CbcVariant : public ::testing::Test {};
using Variants = ::testing::Types<Des, Desx, Des3>;
TYPED_TEST_SUITE(CbcVariant, Variants);

TYPED_TEST(CbcVariant, ChainsAcrossCallsAndRoundTrips) {
    Bytes key = TypeParam::Key(), plain = Join(kPlain, kPlain);
    TypeParam whole(key, kIv, 1), pieces(key, kIv, 1);
    Bytes cipher = whole.Run(plain);
    Bytes joined;
    for (size_t at = 0; at < plain.size(); at += 8)
        joined = Join(joined, pieces.Run(Slice(plain, at, 8)));
    EXPECT_EQ(joined, cipher);
    // Equal plain blocks give different cipher blocks.
    EXPECT_NE(Slice(cipher, 0, 24), Slice(cipher, 24, 24));

    TypeParam dec(key, kIv, 0);
    Bytes decrypted = dec.Run(Slice(cipher, 0, 16));
    decrypted = Join(decrypted, dec.Run(Slice(cipher, 16)));
    EXPECT_EQ(decrypted, plain);
}

TYPED_TEST(CbcVariant, RestartReturnsToTheInitialIv) {
    TypeParam enc(TypeParam::Key(), kIv, 1);
    Bytes first = enc.Run(kPlain);
    EXPECT_NE(enc.Run(kPlain), first);
    enc.Restart();
    EXPECT_EQ(enc.Run(kPlain), first);
}

TYPED_TEST(CbcVariant, PartialBlocksAreRejectedUntouched) {
    TypeParam enc(TypeParam::Key(), kIv, 1);
    Bytes out(16, 0xAA);
    auto before = enc.ctx;
    EXPECT_EQ(enc.Update(out.data(), kPlain.data(), 12), RE_LEN);
    EXPECT_EQ(enc.Update(out.data(), kPlain.data(), 7), 0x0406);
    EXPECT_EQ(enc.Update(out.data(), kPlain.data(), 0), 0);
    EXPECT_EQ(out, Bytes(16, 0xAA));
    EXPECT_EQ(R_memcmp((unsigned char*)&before, (unsigned char*)&enc.ctx, sizeof before), 0);
    EXPECT_EQ(enc.Run(kPlain), TypeParam(TypeParam::Key(), kIv, 1).Run(kPlain));
}

TYPED_TEST(CbcVariant, WorksInPlace) {
    Bytes key = TypeParam::Key(), buffer = kPlain;
    Bytes expected = TypeParam(key, kIv, 1).Run(kPlain);
    TypeParam enc(key, kIv, 1), dec(key, kIv, 0);
    ASSERT_EQ(enc.Update(buffer.data(), buffer.data(), (unsigned int)buffer.size()), 0);
    EXPECT_EQ(buffer, expected);
    ASSERT_EQ(dec.Update(buffer.data(), buffer.data(), (unsigned int)buffer.size()), 0);
    EXPECT_EQ(buffer, kPlain);
}

TEST(ByteHelpers, CompareSetAndCopy) {
    Bytes a = FromHex("0102ff"), b = FromHex("010201");
    EXPECT_EQ(R_memcmp(a.data(), b.data(), 2), 0);
    EXPECT_EQ(R_memcmp(a.data(), b.data(), 3), 0xff - 0x01); // unsigned bytes
    EXPECT_EQ(R_memcmp(b.data(), a.data(), 3), 0x01 - 0xff);
    EXPECT_EQ(R_memcmp(a.data(), FromHex("ff").data(), 0), 0);

    Bytes buffer(6, 0);
    R_memset(&buffer[1], 0x1AB, 3); // only the low byte counts
    EXPECT_EQ(ToHex(buffer), "00ababab0000");
    R_memcpy(buffer.data(), a.data(), 3);
    EXPECT_EQ(ToHex(buffer), "0102ffab0000");
}
