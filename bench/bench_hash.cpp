// Hash table and digest against the standard unordered map and the usual
// one-shot message digest, in pairs measured in the same run. Each benchmark
// iteration is one operation on one 8-byte key, so the reported time is the
// time per key.
#include <benchmark/benchmark.h>
// The one-shot digest is deprecated in favour of the EVP interface, but it
// is what a user would call for a single short key.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/md5.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <unordered_map>
#include <vector>

#include "containers/DTHash.h"
#include "containers/DTMD5.h"

namespace {

constexpr uint32_t kKeys = 100000;
constexpr uint32_t kBuckets = 65536;

// The same cheap mixing for both tables, so that only the tables differ.
inline uint32_t Mix(uint64_t w) { return uint32_t((w * 0x9E3779B97F4A7C15ull) >> 32); }

uint32_t CheapHash(const void *key, uint32_t, uint32_t) {
    uint64_t w;
    memcpy(&w, key, 8);
    return Mix(w);
}

struct CheapMapHash {
    size_t operator()(uint64_t w) const noexcept { return Mix(w); }
};

using Map = std::unordered_map<uint64_t, uint32_t, CheapMapHash>;

struct KeySet {
    std::vector<uint8_t> bytes;    // kKeys keys of 8 bytes, back to back
    std::vector<uint64_t> words;   // the same keys as map keys
    std::vector<uint32_t> order;   // a shuffled order of the key indices
    KeySet() : bytes(kKeys * 8), words(kKeys), order(kKeys) {
        std::mt19937_64 rng(20261122);
        for (uint32_t i = 0; i < kKeys; ++i) {
            words[i] = rng();
            memcpy(&bytes[i * 8], &words[i], 8);
            order[i] = i;
        }
        std::shuffle(order.begin(), order.end(), rng);
    }
    const uint8_t *Key(uint32_t i) const { return &bytes[i * 8]; }
};

const KeySet &Keys() {
    static const KeySet keys;
    return keys;
}

DTHash *NewTable() { return DTHash_New(8, 4, kBuckets, CheapHash); }

// Both maps get the bucket count of the table and keep it while filling,
// so that both walk chains of the same mean length.
Map *NewMap() {
    Map *m = new Map();
    m->max_load_factor(4.0f);
    m->rehash(kBuckets);
    return m;
}

// Inserts the keys in their generated order; a full table is swapped for an
// empty one outside the timing, so every figure is for a fresh key.
void BM_HashSet_dtkit(benchmark::State &state) {
    const KeySet &k = Keys();
    DTHash *h = NewTable();
    uint32_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(DTHash_Set(h, k.Key(i), &i));
        if (++i == kKeys) {
            state.PauseTiming();
            DTHash_Release(h);
            h = NewTable();
            i = 0;
            state.ResumeTiming();
        }
    }
    DTHash_Release(h);
}

void BM_HashSet_peer(benchmark::State &state) {
    const KeySet &k = Keys();
    Map *m = NewMap();
    uint32_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(m->insert({k.words[i], i}).second);
        if (++i == kKeys) {
            state.PauseTiming();
            delete m;
            m = NewMap();
            i = 0;
            state.ResumeTiming();
        }
    }
    delete m;
}

// Looks every key up in shuffled order, so that consecutive lookups share
// no cache lines by construction.
void BM_HashGet_dtkit(benchmark::State &state) {
    const KeySet &k = Keys();
    DTHash *h = NewTable();
    for (uint32_t i = 0; i < kKeys; ++i) DTHash_Set(h, k.Key(i), &i);
    uint32_t sum = 0;
    uint32_t n = 0;
    for (auto _ : state) {
        void *v = nullptr;
        DTHash_Get(h, k.Key(k.order[n]), &v);
        uint32_t x;
        memcpy(&x, v, 4);
        sum += x;
        if (++n == kKeys) n = 0;
    }
    benchmark::DoNotOptimize(sum);
    DTHash_Release(h);
}

void BM_HashGet_peer(benchmark::State &state) {
    const KeySet &k = Keys();
    Map *m = NewMap();
    for (uint32_t i = 0; i < kKeys; ++i) m->insert({k.words[i], i});
    uint32_t sum = 0;
    uint32_t n = 0;
    for (auto _ : state) {
        sum += m->find(k.words[k.order[n]])->second;
        if (++n == kKeys) n = 0;
    }
    benchmark::DoNotOptimize(sum);
    delete m;
}

void BM_MD5_dtkit(benchmark::State &state) {
    const KeySet &k = Keys();
    uint32_t acc = 0;
    uint32_t n = 0;
    for (auto _ : state) {
        acc += DTMD5_Hash(k.Key(n), 8, kBuckets);
        if (++n == kKeys) n = 0;
    }
    benchmark::DoNotOptimize(acc);
}

void BM_MD5_peer(benchmark::State &state) {
    const KeySet &k = Keys();
    uint8_t digest[MD5_DIGEST_LENGTH];
    uint32_t acc = 0;
    uint32_t n = 0;
    for (auto _ : state) {
        MD5(k.Key(n), 8, digest);
        acc += digest[0];
        if (++n == kKeys) n = 0;
    }
    benchmark::DoNotOptimize(acc);
}

}  // namespace

BENCHMARK(BM_HashGet_dtkit);
BENCHMARK(BM_HashGet_peer);
BENCHMARK(BM_HashSet_dtkit);
BENCHMARK(BM_HashSet_peer);
BENCHMARK(BM_MD5_dtkit);
BENCHMARK(BM_MD5_peer);
