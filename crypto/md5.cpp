// MD5 message digest after RFC 1321.
#include "md5.h"

#include <cstddef>

namespace {

// 0x80 then zeros: appended up to 56 bytes mod 64 before the bit length.
const unsigned char md5_padding[64] = {0x80};

inline uint32_t Rotl(uint32_t x, int n) {
    return (x << n) | (x >> (32 - n));
}

// Each step is a = b + ((a + f(b, c, d) + X[k] + T[i]) <<< s). The newest value is b: every
// term that does not depend on it is added first, so that the chain through b stays short.
inline void StepF(uint32_t& a, uint32_t b, uint32_t c, uint32_t d, uint32_t x, int s, uint32_t t) {
    a = b + Rotl(a + x + t + (d ^ (b & (c ^ d))), s);
}
// G = (b & d) | (c & ~d): the two halves share no bit, so they may be added one by one.
inline void StepG(uint32_t& a, uint32_t b, uint32_t c, uint32_t d, uint32_t x, int s, uint32_t t) {
    a = b + Rotl(a + x + t + (c & ~d) + (b & d), s);
}
inline void StepH(uint32_t& a, uint32_t b, uint32_t c, uint32_t d, uint32_t x, int s, uint32_t t) {
    a = b + Rotl(a + x + t + (b ^ (c ^ d)), s);
}
inline void StepI(uint32_t& a, uint32_t b, uint32_t c, uint32_t d, uint32_t x, int s, uint32_t t) {
    a = b + Rotl(a + x + t + (c ^ (b | ~d)), s);
}

inline uint32_t LoadLe(const unsigned char* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

inline void StoreLe(unsigned char* p, uint32_t v) {
    p[0] = (unsigned char)v;
    p[1] = (unsigned char)(v >> 8);
    p[2] = (unsigned char)(v >> 16);
    p[3] = (unsigned char)(v >> 24);
}

// Whole 64-byte blocks; the chaining values stay in registers from one block to the next.
void md5_process(md5_context* ctx, const unsigned char* data, size_t blocks) {
    uint32_t sa = ctx->state[0], sb = ctx->state[1], sc = ctx->state[2], sd = ctx->state[3];
    for (; blocks > 0; --blocks, data += 64) {
        uint32_t x[16];
        for (int i = 0; i < 16; ++i)
            x[i] = LoadLe(data + 4 * i);

        uint32_t a = sa, b = sb, c = sc, d = sd;

        StepF(a, b, c, d, x[0], 7, 0xD76AA478);
        StepF(d, a, b, c, x[1], 12, 0xE8C7B756);
        StepF(c, d, a, b, x[2], 17, 0x242070DB);
        StepF(b, c, d, a, x[3], 22, 0xC1BDCEEE);
        StepF(a, b, c, d, x[4], 7, 0xF57C0FAF);
        StepF(d, a, b, c, x[5], 12, 0x4787C62A);
        StepF(c, d, a, b, x[6], 17, 0xA8304613);
        StepF(b, c, d, a, x[7], 22, 0xFD469501);
        StepF(a, b, c, d, x[8], 7, 0x698098D8);
        StepF(d, a, b, c, x[9], 12, 0x8B44F7AF);
        StepF(c, d, a, b, x[10], 17, 0xFFFF5BB1);
        StepF(b, c, d, a, x[11], 22, 0x895CD7BE);
        StepF(a, b, c, d, x[12], 7, 0x6B901122);
        StepF(d, a, b, c, x[13], 12, 0xFD987193);
        StepF(c, d, a, b, x[14], 17, 0xA679438E);
        StepF(b, c, d, a, x[15], 22, 0x49B40821);

        StepG(a, b, c, d, x[1], 5, 0xF61E2562);
        StepG(d, a, b, c, x[6], 9, 0xC040B340);
        StepG(c, d, a, b, x[11], 14, 0x265E5A51);
        StepG(b, c, d, a, x[0], 20, 0xE9B6C7AA);
        StepG(a, b, c, d, x[5], 5, 0xD62F105D);
        StepG(d, a, b, c, x[10], 9, 0x02441453);
        StepG(c, d, a, b, x[15], 14, 0xD8A1E681);
        StepG(b, c, d, a, x[4], 20, 0xE7D3FBC8);
        StepG(a, b, c, d, x[9], 5, 0x21E1CDE6);
        StepG(d, a, b, c, x[14], 9, 0xC33707D6);
        StepG(c, d, a, b, x[3], 14, 0xF4D50D87);
        StepG(b, c, d, a, x[8], 20, 0x455A14ED);
        StepG(a, b, c, d, x[13], 5, 0xA9E3E905);
        StepG(d, a, b, c, x[2], 9, 0xFCEFA3F8);
        StepG(c, d, a, b, x[7], 14, 0x676F02D9);
        StepG(b, c, d, a, x[12], 20, 0x8D2A4C8A);

        StepH(a, b, c, d, x[5], 4, 0xFFFA3942);
        StepH(d, a, b, c, x[8], 11, 0x8771F681);
        StepH(c, d, a, b, x[11], 16, 0x6D9D6122);
        StepH(b, c, d, a, x[14], 23, 0xFDE5380C);
        StepH(a, b, c, d, x[1], 4, 0xA4BEEA44);
        StepH(d, a, b, c, x[4], 11, 0x4BDECFA9);
        StepH(c, d, a, b, x[7], 16, 0xF6BB4B60);
        StepH(b, c, d, a, x[10], 23, 0xBEBFBC70);
        StepH(a, b, c, d, x[13], 4, 0x289B7EC6);
        StepH(d, a, b, c, x[0], 11, 0xEAA127FA);
        StepH(c, d, a, b, x[3], 16, 0xD4EF3085);
        StepH(b, c, d, a, x[6], 23, 0x04881D05);
        StepH(a, b, c, d, x[9], 4, 0xD9D4D039);
        StepH(d, a, b, c, x[12], 11, 0xE6DB99E5);
        StepH(c, d, a, b, x[15], 16, 0x1FA27CF8);
        StepH(b, c, d, a, x[2], 23, 0xC4AC5665);

        StepI(a, b, c, d, x[0], 6, 0xF4292244);
        StepI(d, a, b, c, x[7], 10, 0x432AFF97);
        StepI(c, d, a, b, x[14], 15, 0xAB9423A7);
        StepI(b, c, d, a, x[5], 21, 0xFC93A039);
        StepI(a, b, c, d, x[12], 6, 0x655B59C3);
        StepI(d, a, b, c, x[3], 10, 0x8F0CCC92);
        StepI(c, d, a, b, x[10], 15, 0xFFEFF47D);
        StepI(b, c, d, a, x[1], 21, 0x85845DD1);
        StepI(a, b, c, d, x[8], 6, 0x6FA87E4F);
        StepI(d, a, b, c, x[15], 10, 0xFE2CE6E0);
        StepI(c, d, a, b, x[6], 15, 0xA3014314);
        StepI(b, c, d, a, x[13], 21, 0x4E0811A1);
        StepI(a, b, c, d, x[4], 6, 0xF7537E82);
        StepI(d, a, b, c, x[11], 10, 0xBD3AF235);
        StepI(c, d, a, b, x[2], 15, 0x2AD7D2BB);
        StepI(b, c, d, a, x[9], 21, 0xEB86D391);

        sa += a;
        sb += b;
        sc += c;
        sd += d;
    }
    ctx->state[0] = sa;
    ctx->state[1] = sb;
    ctx->state[2] = sc;
    ctx->state[3] = sd;
}

} // namespace

extern "C" {

void md5_starts(md5_context* ctx) {
    ctx->total[0] = 0;
    ctx->total[1] = 0;
    ctx->state[0] = 0x67452301;
    ctx->state[1] = 0xEFCDAB89;
    ctx->state[2] = 0x98BADCFE;
    ctx->state[3] = 0x10325476;
}

void md5_update(md5_context* ctx, const unsigned char* input, unsigned int length) {
    if (length == 0)
        return;
    unsigned int used = ctx->total[0] & 63;
    ctx->total[0] += length;
    if (ctx->total[0] < length)
        ++ctx->total[1];

    // Top up a pending partial block first; whole blocks then go straight from the input.
    if (used != 0) {
        unsigned int room = 64 - used;
        if (length < room) {
            for (unsigned int i = 0; i < length; ++i)
                ctx->buffer[used + i] = input[i];
            return;
        }
        for (unsigned int i = 0; i < room; ++i)
            ctx->buffer[used + i] = input[i];
        md5_process(ctx, ctx->buffer, 1);
        input += room;
        length -= room;
    }
    md5_process(ctx, input, length / 64);
    input += length / 64 * 64;
    length %= 64;
    for (unsigned int i = 0; i < length; ++i)
        ctx->buffer[i] = input[i];
}

void md5_finish(md5_context* ctx, unsigned char digest[16]) {
    unsigned char bits[8];
    StoreLe(bits, ctx->total[0] << 3);
    StoreLe(bits + 4, (ctx->total[1] << 3) | (ctx->total[0] >> 29));

    unsigned int used = ctx->total[0] & 63;
    md5_update(ctx, md5_padding, used < 56 ? 56 - used : 120 - used);
    md5_update(ctx, bits, 8);

    for (int i = 0; i < 4; ++i)
        StoreLe(digest + 4 * i, ctx->state[i]);
}

} // extern "C"
