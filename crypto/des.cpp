// DES, DESX and three-key triple DES in CBC mode after FIPS 46-3.
//
// The core is table-driven: each S-box is merged with the permutation P into one table of 64
// words (Spbox), so a round is eight look-ups. Inside the rounds both halves are kept rotated
// left by one bit; the expansion E then turns into two plain word views of the right half,
// one holding the odd S-box inputs and one the even ones, each group in its own byte.
#include "des.h"

namespace {

// FIPS 46-3 selection functions S1..S8, each as four rows of sixteen.
constexpr unsigned char sbox[8][64] = {
    {14, 4,  13, 1, 2,  15, 11, 8, 3, 10, 6, 12, 5,  9,  0,  7,  0,  15, 7,  4,  14, 2,
     13, 1,  10, 6, 12, 11, 9,  5, 3, 8,  4, 1,  14, 8,  13, 6,  2,  11, 15, 12, 9,  7,
     3,  10, 5,  0, 15, 12, 8,  2, 4, 9,  1, 7,  5,  11, 3,  14, 10, 0,  6,  13},
    {15, 1,  8,  14, 6,  11, 3,  4, 9,  7,  2, 13, 12, 0,  5,  10, 3,  13, 4,  7, 15, 2,
     8,  14, 12, 0,  1,  10, 6,  9, 11, 5,  0, 14, 7,  11, 10, 4,  13, 1,  5,  8, 12, 6,
     9,  3,  2,  15, 13, 8,  10, 1, 3,  15, 4, 2,  11, 6,  7,  12, 0,  5,  14, 9},
    {10, 0,  9,  14, 6, 3,  15, 5,  1,  13, 12, 7, 11, 4,  2,  8,  13, 7, 0,  9, 3, 4,
     6,  10, 2,  8,  5, 14, 12, 11, 15, 1,  13, 6, 4,  9,  8,  15, 3,  0, 11, 1, 2, 12,
     5,  10, 14, 7,  1, 10, 13, 0,  6,  9,  8,  7, 4,  15, 14, 3,  11, 5, 2,  12},
    {7, 13, 14, 3, 0, 6,  9, 10, 1,  2, 8,  5, 11, 12, 4,  15, 13, 8,  11, 5, 6, 15,
     0, 3,  4,  7, 2, 12, 1, 10, 14, 9, 10, 6, 9,  0,  12, 11, 7,  13, 15, 1, 3, 14,
     5, 2,  8,  4, 3, 15, 0, 6,  10, 1, 13, 8, 9,  4,  5,  11, 12, 7,  2,  14},
    {2,  12, 4, 1,  7,  10, 11, 6, 8, 5,  3, 15, 13, 0,  14, 9,  14, 11, 2,  12, 4,  7,
     13, 1,  5, 0,  15, 10, 3,  9, 8, 6,  4, 2,  1,  11, 10, 13, 7,  8,  15, 9,  12, 5,
     6,  3,  0, 14, 11, 8,  12, 7, 1, 14, 2, 13, 6,  15, 0,  9,  10, 4,  5,  3},
    {12, 1,  10, 15, 9,  2,  6, 8,  0, 13, 3,  4,  14, 7,  5, 11, 10, 15, 4, 2, 7, 12,
     9,  5,  6,  1,  13, 14, 0, 11, 3, 8,  9,  14, 15, 5,  2, 8,  12, 3,  7, 0, 4, 10,
     1,  13, 11, 6,  4,  3,  2, 12, 9, 5,  15, 10, 11, 14, 1, 7,  6,  0,  8, 13},
    {4, 11, 2,  14, 15, 0,  8,  13, 3, 12, 9,  7, 5,  10, 6,  1,  13, 0,  11, 7,  4, 9,
     1, 10, 14, 3,  5,  12, 2,  15, 8, 6,  1,  4, 11, 13, 12, 3,  7,  14, 10, 15, 6, 8,
     0, 5,  9,  2,  6,  11, 13, 8,  1, 4,  10, 7, 9,  5,  0,  15, 14, 2,  3,  12},
    {13, 2, 8,  4, 6, 15, 11, 1,  10, 9,  3, 14, 5,  0,  12, 7,  1,  15, 13, 8, 10, 3,
     7,  4, 12, 5, 6, 11, 0,  14, 9,  2,  7, 11, 4,  1,  9,  12, 14, 2,  0,  6, 10, 13,
     15, 3, 5,  8, 2, 1,  14, 7,  4,  10, 8, 13, 15, 12, 9,  0,  3,  5,  6,  11},
};

// Permutation P applied to the 32 S-box output bits (bit 1 is the most significant).
constexpr unsigned char perm[32] = {16, 7, 20, 21, 29, 12, 28, 17, 1,  15, 23, 26, 5,  18, 31, 10,
                                    2,  8, 24, 14, 32, 27, 3,  9,  19, 13, 30, 6,  22, 11, 4,  25};

// Permuted choice 1: the 56 key bits that matter, parity bits left out.
constexpr unsigned char pc1[56] = {57, 49, 41, 33, 25, 17, 9,  1,  58, 50, 42, 34, 26, 18,
                                   10, 2,  59, 51, 43, 35, 27, 19, 11, 3,  60, 52, 44, 36,
                                   63, 55, 47, 39, 31, 23, 15, 7,  62, 54, 46, 38, 30, 22,
                                   14, 6,  61, 53, 45, 37, 29, 21, 13, 5,  28, 20, 12, 4};

// Permuted choice 2: the 48 bits of a round key taken from C and D.
constexpr unsigned char pc2[48] = {14, 17, 11, 24, 1,  5,  3,  28, 15, 6,  21, 10, 23, 19, 12, 4,
                                   26, 8,  16, 7,  27, 20, 13, 2,  41, 52, 31, 37, 47, 55, 30, 40,
                                   51, 45, 33, 48, 44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32};

// Left rotations of C and D before each round, accumulated.
constexpr unsigned char totrot[16] = {1, 2, 4, 6, 8, 10, 12, 14, 15, 17, 19, 21, 23, 25, 27, 28};

constexpr unsigned char bytebit[8] = {0x80, 0x40, 0x20, 0x10, 0x08, 0x04, 0x02, 0x01};

constexpr uint32_t bigbyte[24] = {0x800000, 0x400000, 0x200000, 0x100000, 0x80000, 0x40000,
                                  0x20000,  0x10000,  0x8000,   0x4000,   0x2000,  0x1000,
                                  0x800,    0x400,    0x200,    0x100,    0x80,    0x40,
                                  0x20,     0x10,     0x8,      0x4,      0x2,     0x1};

constexpr bool SboxRowsArePermutations() {
    for (const auto& box : sbox)
        for (int row = 0; row < 4; ++row) {
            unsigned seen = 0;
            for (int col = 0; col < 16; ++col)
                seen |= 1u << box[16 * row + col];
            if (seen != 0xFFFF)
                return false;
        }
    return true;
}
static_assert(SboxRowsArePermutations(), "S-box table mistyped");

constexpr uint32_t Rotl(uint32_t x, int n) {
    return (x << n) | (x >> (32 - n));
}
constexpr uint32_t Rotr(uint32_t x, int n) {
    return (x >> n) | (x << (32 - n));
}

struct SpTable {
    uint32_t box[8][64];
};

// Spbox[i][v]: S-box i+1 on the six input bits v (first bit most significant), placed at its
// output position, run through P and rotated left by one like the halves inside the rounds.
constexpr SpTable MakeSpbox() {
    SpTable t{};
    for (int i = 0; i < 8; ++i)
        for (int v = 0; v < 64; ++v) {
            int row = ((v >> 4) & 2) | (v & 1);
            int col = (v >> 1) & 15;
            uint32_t s = uint32_t(sbox[i][16 * row + col]) << (28 - 4 * i);
            uint32_t p = 0;
            for (int bit = 0; bit < 32; ++bit)
                if ((s >> (32 - perm[bit])) & 1)
                    p |= 0x80000000u >> bit;
            t.box[i][v] = Rotl(p, 1);
        }
    return t;
}
constexpr SpTable Spbox = MakeSpbox();

// The cipher function f on a rotated right half. Subkey word 0 holds the inputs of S1, S3, S5,
// S7 and word 1 those of S2, S4, S6, S8, one per byte from the top.
inline uint32_t Feistel(uint32_t r, const uint32_t* k) {
    uint32_t w = Rotr(r, 4) ^ k[0];
    uint32_t f = Spbox.box[6][w & 63] ^ Spbox.box[4][(w >> 8) & 63] ^ Spbox.box[2][(w >> 16) & 63] ^
                 Spbox.box[0][(w >> 24) & 63];
    w = r ^ k[1];
    return f ^ Spbox.box[7][w & 63] ^ Spbox.box[5][(w >> 8) & 63] ^ Spbox.box[3][(w >> 16) & 63] ^
           Spbox.box[1][(w >> 24) & 63];
}

// Sixteen rounds; afterwards l and r hold L16 and R16 (the output block is R16 L16).
inline void Rounds(uint32_t& l, uint32_t& r, const uint32_t* keys) {
    for (int i = 0; i < 32; i += 4) {
        l ^= Feistel(r, keys + i);
        r ^= Feistel(l, keys + i + 2);
    }
}

// Swaps the bits of b under mask with those of a under mask << shift.
inline void DeltaSwap(uint32_t& a, uint32_t& b, int shift, uint32_t mask) {
    uint32_t t = ((a >> shift) ^ b) & mask;
    b ^= t;
    a ^= t << shift;
}

// IP as a bit-matrix transpose, leaving both halves rotated for the rounds.
inline void InitialPermutation(uint32_t& l, uint32_t& r) {
    DeltaSwap(l, r, 4, 0x0F0F0F0F);
    DeltaSwap(l, r, 16, 0x0000FFFF);
    DeltaSwap(r, l, 2, 0x33333333);
    DeltaSwap(r, l, 8, 0x00FF00FF);
    DeltaSwap(l, r, 1, 0x55555555);
    l = Rotl(l, 1);
    r = Rotl(r, 1);
}

// IP^-1: the same swaps in reverse order, on rotated halves.
inline void FinalPermutation(uint32_t& l, uint32_t& r) {
    l = Rotr(l, 1);
    r = Rotr(r, 1);
    DeltaSwap(l, r, 1, 0x55555555);
    DeltaSwap(r, l, 8, 0x00FF00FF);
    DeltaSwap(r, l, 2, 0x33333333);
    DeltaSwap(l, r, 16, 0x0000FFFF);
    DeltaSwap(l, r, 4, 0x0F0F0F0F);
}

inline void SingleDes(uint32_t block[2], const uint32_t keys[32]) {
    uint32_t l = block[0], r = block[1];
    InitialPermutation(l, r);
    Rounds(l, r, keys);
    FinalPermutation(r, l);
    block[0] = r;
    block[1] = l;
}

// Three stages back to back: IP^-1 of one stage and IP of the next cancel, so only the
// swap of the halves remains between them.
inline void TripleDes(uint32_t block[2], const uint32_t keys[3][32]) {
    uint32_t l = block[0], r = block[1];
    InitialPermutation(l, r);
    Rounds(l, r, keys[0]);
    Rounds(r, l, keys[1]);
    Rounds(l, r, keys[2]);
    FinalPermutation(r, l);
    block[0] = r;
    block[1] = l;
}

inline uint32_t LoadBe(const unsigned char* p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]);
}

inline void StoreBe(unsigned char* p, uint32_t v) {
    p[0] = (unsigned char)(v >> 24);
    p[1] = (unsigned char)(v >> 16);
    p[2] = (unsigned char)(v >> 8);
    p[3] = (unsigned char)v;
}

inline void LoadBlock(uint32_t into[2], const unsigned char* outof) {
    into[0] = LoadBe(outof);
    into[1] = LoadBe(outof + 4);
}

inline void StoreBlock(unsigned char* into, const uint32_t outof[2]) {
    StoreBe(into, outof[0]);
    StoreBe(into + 4, outof[1]);
}

inline void XorBlock(uint32_t block[2], const uint32_t with[2]) {
    block[0] ^= with[0];
    block[1] ^= with[1];
}

inline void CopyBlock(uint32_t to[2], const uint32_t from[2]) {
    to[0] = from[0];
    to[1] = from[1];
}

inline void SetIv(uint32_t iv[2], uint32_t originalIV[2], const unsigned char* bytes) {
    LoadBlock(iv, bytes);
    CopyBlock(originalIV, iv);
}

// CBC over whole blocks; cipher(block) applies the variant's stage(s) in the context's
// direction. The input block is read before the output is written, so both may overlap.
template <typename Cipher>
int CbcUpdate(uint32_t iv[2], int encrypt, unsigned char* output, const unsigned char* input,
              unsigned int length, Cipher cipher) {
    if (length % 8 != 0)
        return RE_LEN;
    uint32_t work[2], in[2];
    for (unsigned int i = 0; i < length; i += 8) {
        LoadBlock(in, input + i);
        CopyBlock(work, in);
        if (encrypt) {
            XorBlock(work, iv);
            cipher(work);
            CopyBlock(iv, work);
        } else {
            cipher(work);
            XorBlock(work, iv);
            CopyBlock(iv, in);
        }
        StoreBlock(output + i, work);
    }
    R_memset((unsigned char*)work, 0, sizeof work);
    R_memset((unsigned char*)in, 0, sizeof in);
    return 0;
}

} // namespace

extern "C" {

void scrunch(uint32_t into[2], const unsigned char* outof) {
    LoadBlock(into, outof);
}

void unscrunch(unsigned char* into, const uint32_t outof[2]) {
    StoreBlock(into, outof);
}

void deskey(uint32_t subkeys[32], const unsigned char key[8], int encrypt) {
    unsigned char cd[56], rotated[56];
    for (int j = 0; j < 56; ++j) {
        int bit = pc1[j] - 1;
        cd[j] = (key[bit >> 3] & bytebit[bit & 7]) ? 1 : 0;
    }
    for (int round = 0; round < 16; ++round) {
        // C and D rotate separately, each within its own 28 bits.
        for (int j = 0; j < 56; ++j) {
            int from = j + totrot[round];
            int end = j < 28 ? 28 : 56;
            rotated[j] = cd[from < end ? from : from - 28];
        }
        uint32_t high = 0, low = 0; // round key bits 1..24 and 25..48
        for (int j = 0; j < 24; ++j) {
            if (rotated[pc2[j] - 1])
                high |= bigbyte[j];
            if (rotated[pc2[j + 24] - 1])
                low |= bigbyte[j];
        }
        // Regroup the eight 6-bit pieces into the two words that Feistel expects.
        uint32_t odd = (high >> 18 & 63) << 24 | (high >> 6 & 63) << 16 | (low >> 18 & 63) << 8 |
                       (low >> 6 & 63);
        uint32_t even =
            (high >> 12 & 63) << 24 | (high & 63) << 16 | (low >> 12 & 63) << 8 | (low & 63);
        int slot = encrypt ? round : 15 - round;
        subkeys[2 * slot] = odd;
        subkeys[2 * slot + 1] = even;
    }
    R_memset(cd, 0, sizeof cd);
    R_memset(rotated, 0, sizeof rotated);
}

void desfunc(uint32_t block[2], const uint32_t subkeys[32]) {
    SingleDes(block, subkeys);
}

void DES_CBCInit(DES_CBC_CTX* ctx, const unsigned char* key, const unsigned char* iv, int encrypt) {
    deskey(ctx->subkeys, key, encrypt);
    SetIv(ctx->iv, ctx->originalIV, iv);
    ctx->encrypt = encrypt;
}

int DES_CBCUpdate(DES_CBC_CTX* ctx, unsigned char* output, const unsigned char* input,
                  unsigned int length) {
    return CbcUpdate(ctx->iv, ctx->encrypt, output, input, length,
                     [ctx](uint32_t block[2]) { SingleDes(block, ctx->subkeys); });
}

void DES_CBCRestart(DES_CBC_CTX* ctx) {
    CopyBlock(ctx->iv, ctx->originalIV);
}

void DESX_CBCInit(DESX_CBC_CTX* ctx, const unsigned char* key, const unsigned char* iv,
                  int encrypt) {
    deskey(ctx->subkeys, key, encrypt);
    LoadBlock(ctx->inputWhitener, key + 8);
    LoadBlock(ctx->outputWhitener, key + 16);
    SetIv(ctx->iv, ctx->originalIV, iv);
    ctx->encrypt = encrypt;
}

int DESX_CBCUpdate(DESX_CBC_CTX* ctx, unsigned char* output, const unsigned char* input,
                   unsigned int length) {
    // Deciphering meets the whiteners in the reverse order.
    const uint32_t* before = ctx->encrypt ? ctx->inputWhitener : ctx->outputWhitener;
    const uint32_t* after = ctx->encrypt ? ctx->outputWhitener : ctx->inputWhitener;
    return CbcUpdate(ctx->iv, ctx->encrypt, output, input, length, [&](uint32_t block[2]) {
        XorBlock(block, before);
        SingleDes(block, ctx->subkeys);
        XorBlock(block, after);
    });
}

void DESX_CBCRestart(DESX_CBC_CTX* ctx) {
    CopyBlock(ctx->iv, ctx->originalIV);
}

void DES3_CBCInit(DES3_CBC_CTX* ctx, const unsigned char* key, const unsigned char* iv,
                  int encrypt) {
    // EDE with K1, K2, K3 to encipher; the inverse, DED with K3, K2, K1, to decipher.
    const unsigned char* first = encrypt ? key : key + 16;
    const unsigned char* last = encrypt ? key + 16 : key;
    deskey(ctx->subkeys[0], first, encrypt);
    deskey(ctx->subkeys[1], key + 8, !encrypt);
    deskey(ctx->subkeys[2], last, encrypt);
    SetIv(ctx->iv, ctx->originalIV, iv);
    ctx->encrypt = encrypt;
}

int DES3_CBCUpdate(DES3_CBC_CTX* ctx, unsigned char* output, const unsigned char* input,
                   unsigned int length) {
    return CbcUpdate(ctx->iv, ctx->encrypt, output, input, length,
                     [ctx](uint32_t block[2]) { TripleDes(block, ctx->subkeys); });
}

void DES3_CBCRestart(DES3_CBC_CTX* ctx) {
    CopyBlock(ctx->iv, ctx->originalIV);
}

// A volatile store, so clearing key material and temporaries is not optimised away.
void R_memset(unsigned char* p, int value, unsigned int n) {
    volatile unsigned char* out = p;
    for (unsigned int i = 0; i < n; ++i)
        out[i] = (unsigned char)value;
}

void R_memcpy(unsigned char* dst, const unsigned char* src, unsigned int n) {
    for (unsigned int i = 0; i < n; ++i)
        dst[i] = src[i];
}

int R_memcmp(const unsigned char* a, const unsigned char* b, unsigned int n) {
    for (unsigned int i = 0; i < n; ++i)
        if (a[i] != b[i])
            return int(a[i]) - int(b[i]);
    return 0;
}

} // extern "C"
