/* DES, DESX and three-key triple DES (EDE) in CBC mode (FIPS 46-3). */
#ifndef RAVEL_DES_H
#define RAVEL_DES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Result of an Update whose length is not a multiple of 8. */
#define RE_LEN 0x0406

typedef struct {
    uint32_t subkeys[32];
    uint32_t iv[2];
    uint32_t originalIV[2];
    int encrypt;
} DES_CBC_CTX;

typedef struct {
    uint32_t subkeys[32];
    uint32_t iv[2];
    uint32_t inputWhitener[2];
    uint32_t outputWhitener[2];
    uint32_t originalIV[2];
    int encrypt;
} DESX_CBC_CTX;

typedef struct {
    uint32_t subkeys[3][32];
    uint32_t iv[2];
    uint32_t originalIV[2];
    int encrypt;
} DES3_CBC_CTX;

/* Contexts for one key and IV. Init reads an 8-byte key (parity bits ignored) for DES, 24 bytes
   for DESX (the DES key, then the input and the output whitener) and for triple DES (three keys,
   enciphered E-D-E), and an 8-byte IV; `encrypt` non-zero enciphers, zero deciphers.
   Update processes `length` bytes from `input` into `output` (which may be the same buffer) and
   carries the chaining value over to the next call; it returns 0, or RE_LEN with nothing
   processed and the context unchanged when `length` is not a multiple of 8.
   Restart goes back to the original IV, for a new message under the same key. */
void DES_CBCInit(DES_CBC_CTX* ctx, const unsigned char* key, const unsigned char* iv, int encrypt);
int DES_CBCUpdate(DES_CBC_CTX* ctx, unsigned char* output, const unsigned char* input,
                  unsigned int length);
void DES_CBCRestart(DES_CBC_CTX* ctx);

void DESX_CBCInit(DESX_CBC_CTX* ctx, const unsigned char* key, const unsigned char* iv,
                  int encrypt);
int DESX_CBCUpdate(DESX_CBC_CTX* ctx, unsigned char* output, const unsigned char* input,
                   unsigned int length);
void DESX_CBCRestart(DESX_CBC_CTX* ctx);

void DES3_CBCInit(DES3_CBC_CTX* ctx, const unsigned char* key, const unsigned char* iv,
                  int encrypt);
int DES3_CBCUpdate(DES3_CBC_CTX* ctx, unsigned char* output, const unsigned char* input,
                   unsigned int length);
void DES3_CBCRestart(DES3_CBC_CTX* ctx);

/* The classic table-driven core: 16 round keys of two words each, one block as two words. */
/* The 16 round keys of `key`, in enciphering (`encrypt` non-zero) or deciphering order. */
void deskey(uint32_t subkeys[32], const unsigned char key[8], int encrypt);
/* One DES block in place, as two big-endian words (see scrunch). */
void desfunc(uint32_t block[2], const uint32_t subkeys[32]);
/* 8 bytes to two big-endian words and back. */
void scrunch(uint32_t into[2], const unsigned char* outof);
void unscrunch(unsigned char* into, const uint32_t outof[2]);

/* Byte loops: fill with the low byte of `value`; copy; compare, giving 0 or the difference of
   the first unequal bytes taken as unsigned (0 for n = 0). */
void R_memset(unsigned char* p, int value, unsigned int n);
void R_memcpy(unsigned char* dst, const unsigned char* src, unsigned int n);
int R_memcmp(const unsigned char* a, const unsigned char* b, unsigned int n);

#ifdef __cplusplus
}
#endif

#endif
