/* DES, DESX and three-key triple DES (EDE) in CBC mode (FIPS 46-3). */
#ifndef RAVEL_DES_H
#define RAVEL_DES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

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
void deskey(uint32_t subkeys[32], const unsigned char key[8], int encrypt);
void desfunc(uint32_t block[2], const uint32_t subkeys[32]);
void scrunch(uint32_t into[2], const unsigned char* outof);
void unscrunch(unsigned char* into, const uint32_t outof[2]);

void R_memset(unsigned char* p, int value, unsigned int n);
void R_memcpy(unsigned char* dst, const unsigned char* src, unsigned int n);
int R_memcmp(const unsigned char* a, const unsigned char* b, unsigned int n);

#ifdef __cplusplus
}
#endif

#endif
