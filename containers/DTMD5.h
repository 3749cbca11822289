/* Small fixed-cost digest used to place hash table keys in buckets. It
 * borrows the round functions, constants and initial state of the well-known
 * 128-bit message digest, but mixes a single block of at most 40 input bytes,
 * read as big-endian words, so placement is the same on every host. */
#ifndef DTKIT_DTMD5_H
#define DTKIT_DTMD5_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The caller owns the context (usually on its stack), so the layout is public. */
#pragma pack(push, 4)
typedef struct DTMD5 {
    uint32_t bitCount[2]; /* cleared by DTMD5_Init, otherwise unused */
    uint32_t state[4];    /* A, B, C, D */
} DTMD5;
#pragma pack(pop)

/* Clears bitCount and loads the initial state; a null context is ignored. */
void DTMD5_Init(DTMD5 *ctx);
/* Mixes one block (the first 40 bytes of input, zero-filled) into state.
 * A null state or null input leaves everything unchanged. */
void DTMD5_Encode(uint32_t state[4], const void *input, uint32_t len);
/* Sum of the four state words after one block, modulo bucketCount; 0 for null input.
 * Choice: a bucketCount of 0 returns 0 instead of dividing by zero. */
uint32_t DTMD5_Hash(const void *input, uint32_t len, uint32_t bucketCount);

#ifdef __cplusplus
}
#endif

#endif
