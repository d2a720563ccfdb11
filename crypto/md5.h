/* MD5 message digest (RFC 1321). */
#ifndef RAVEL_MD5_H
#define RAVEL_MD5_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
    uint32_t total[2];        /* bytes processed, low word first */
    uint32_t state[4];        /* chaining values A, B, C, D */
    unsigned char buffer[64]; /* pending partial block */
} md5_context;

/* Starts a new digest in `ctx`. */
void md5_starts(md5_context* ctx);
/* Adds `length` bytes of `input` (may be null when `length` is 0); any split of a message into
   pieces gives the same digest. */
void md5_update(md5_context* ctx, const unsigned char* input, unsigned int length);
/* Writes the 16-byte digest of everything added. `ctx` must be started again before reuse. */
void md5_finish(md5_context* ctx, unsigned char digest[16]);

#ifdef __cplusplus
}
#endif

#endif
