#include "containers/DTMD5.h"

namespace {

inline uint32_t Rotl_(uint32_t x, uint32_t s) { return (x << s) | (x >> (32 - s)); }

inline uint32_t F_(uint32_t x, uint32_t y, uint32_t z) { return (x & y) | (~x & z); }
inline uint32_t G_(uint32_t x, uint32_t y, uint32_t z) { return (x & z) | (y & ~z); }
inline uint32_t H_(uint32_t x, uint32_t y, uint32_t z) { return x ^ y ^ z; }
inline uint32_t I_(uint32_t x, uint32_t y, uint32_t z) { return y ^ (x | ~z); }

// One operation: a = b + ((a + Q(b,c,d) + x + t) <<< s). The caller names
// the registers in the order the operation uses them.
template <uint32_t (*Q)(uint32_t, uint32_t, uint32_t)>
inline void Op_(uint32_t &a, uint32_t b, uint32_t c, uint32_t d, uint32_t x, uint32_t s, uint32_t t) {
    a = b + Rotl_(a + Q(b, c, d) + x + t, s);
}

inline uint32_t LoadBE32_(const uint8_t *p) {
    return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | (uint32_t)p[3];
}

// Only the first ten words ever take part, so only 40 input bytes are read;
// bytes past the input count as zero. Words are big-endian on every host so
// that a key lands in the same bucket on the board and on the workstation.
// Whole words are assembled in one go (a single swapped load where the host
// has one); only a short tail goes byte by byte.
void LoadBlock_(uint32_t x[10], const uint8_t *in, uint32_t len) {
    uint32_t n = len < 40 ? len : 40;
    uint32_t full = n / 4;
    uint32_t k = 0;
    for (; k < full; ++k) x[k] = LoadBE32_(in + 4 * k);
    for (uint32_t j = k; j < 10; ++j) x[j] = 0;
    for (uint32_t i = 4 * full; i < n; ++i) x[k] |= (uint32_t)in[i] << (24 - 8 * (i % 4));
}

}  // namespace

extern "C" {

void DTMD5_Init(DTMD5 *ctx) {
    if (!ctx) return;
    ctx->bitCount[0] = 0;
    ctx->bitCount[1] = 0;
    ctx->state[0] = 0x67452301u;
    ctx->state[1] = 0xefcdab89u;
    ctx->state[2] = 0x98badcfeu;
    ctx->state[3] = 0x10325476u;
}

void DTMD5_Encode(uint32_t state[4], const void *input, uint32_t len) {
    if (!state || !input) return;
    uint32_t x[10];
    LoadBlock_(x, static_cast<const uint8_t *>(input), len);
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];

    Op_<F_>(a, b, c, d, x[0], 7, 0xd76aa478u);
    Op_<F_>(d, a, b, c, x[1], 12, 0xe8c7b756u);
    Op_<F_>(c, d, a, b, x[2], 17, 0x242070dbu);
    Op_<F_>(b, c, d, a, x[3], 22, 0xc1bdceeeu);
    Op_<F_>(a, b, c, d, x[4], 7, 0xf57c0fafu);
    Op_<F_>(d, a, b, c, x[5], 12, 0x4787c62au);
    Op_<F_>(c, d, a, b, x[6], 17, 0xa8304613u);
    Op_<F_>(b, c, d, a, x[7], 22, 0xfd469501u);
    Op_<F_>(a, b, c, d, x[8], 7, 0x698098d8u);
    Op_<F_>(d, a, b, c, x[9], 12, 0x8b44f7afu);

    Op_<G_>(a, b, c, d, x[1], 5, 0xf61e2562u);
    Op_<G_>(d, a, b, c, x[4], 9, 0xc040b340u);
    Op_<G_>(c, d, a, b, x[0], 14, 0x265e5a51u);
    Op_<G_>(b, c, d, a, x[5], 20, 0xe9b6c7aau);
    Op_<G_>(a, b, c, d, x[7], 5, 0xd62f105du);
    Op_<G_>(d, a, b, c, x[2], 9, 0x02441453u);
    Op_<G_>(c, d, a, b, x[6], 14, 0xd8a1e681u);
    Op_<G_>(b, c, d, a, x[8], 20, 0xe7d3fbc8u);
    Op_<G_>(a, b, c, d, x[9], 5, 0x21e1cde6u);
    Op_<G_>(c, d, a, b, x[3], 14, 0xc33707d6u);  // c, not d: this round touches d only twice

    Op_<H_>(a, b, c, d, x[5], 4, 0xfffa3942u);
    Op_<H_>(d, a, b, c, x[6], 11, 0x8771f681u);
    Op_<H_>(c, d, a, b, x[2], 16, 0x6d9d6122u);
    Op_<H_>(b, c, d, a, x[4], 23, 0xfde5380cu);
    Op_<H_>(a, b, c, d, x[7], 4, 0xa4beea44u);
    Op_<H_>(d, a, b, c, x[8], 11, 0x4bdecfa9u);
    Op_<H_>(c, d, a, b, x[1], 16, 0xf6bb4b60u);
    Op_<H_>(b, c, d, a, x[9], 23, 0xbebfbc70u);
    Op_<H_>(a, b, c, d, x[0], 4, 0x289b7ec6u);
    Op_<H_>(d, a, b, c, x[3], 11, 0xeaa127fau);

    Op_<I_>(a, b, c, d, x[9], 6, 0xf4292244u);
    Op_<I_>(d, a, b, c, x[1], 10, 0x432aff97u);
    Op_<I_>(c, d, a, b, x[4], 15, 0xab9423a7u);
    Op_<I_>(b, c, d, a, x[5], 21, 0xfc93a039u);
    Op_<I_>(a, b, c, d, x[2], 6, 0x655b59c3u);
    Op_<I_>(d, a, b, c, x[3], 10, 0x8f0ccc92u);
    Op_<I_>(c, d, a, b, x[0], 15, 0xffeff47du);
    Op_<I_>(b, c, d, a, x[6], 21, 0x85845dd1u);
    Op_<I_>(a, b, c, d, x[8], 6, 0x6fa87e4fu);
    Op_<I_>(d, a, b, c, x[7], 10, 0xfe2ce6e0u);

    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

uint32_t DTMD5_Hash(const void *input, uint32_t len, uint32_t bucketCount) {
    if (!input || bucketCount == 0) return 0;
    DTMD5 ctx;
    DTMD5_Init(&ctx);
    DTMD5_Encode(ctx.state, input, len);
    uint32_t sum = ctx.state[0] + ctx.state[1] + ctx.state[2] + ctx.state[3];
    return sum % bucketCount;
}

}  // extern "C"
