// Hash table and digest against the standard unordered map, on the same
// 100,000 keys of 8 bytes in the same run. Figures are per key.
#include <benchmark/benchmark.h>

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

struct KeySet {
    std::vector<uint8_t> bytes;  // kKeys keys of 8 bytes, back to back
    std::vector<uint64_t> words; // the same keys as map keys
    KeySet() : bytes(kKeys * 8), words(kKeys) {
        std::mt19937_64 rng(20261122);
        for (uint32_t i = 0; i < kKeys; ++i) {
            words[i] = rng();
            memcpy(&bytes[i * 8], &words[i], 8);
        }
    }
    const uint8_t *Key(uint32_t i) const { return &bytes[i * 8]; }
};

const KeySet &Keys() {
    static const KeySet keys;
    return keys;
}

void PerKey(benchmark::State &state) {
    state.SetItemsProcessed(int64_t(state.iterations()) * kKeys);
    // Inverted rate: seconds per key, printed with its SI prefix (ns).
    state.counters["per_key"] = benchmark::Counter(double(kKeys),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

DTHash *FilledTable() {
    const KeySet &k = Keys();
    DTHash *h = DTHash_New(8, 4, kBuckets, nullptr);
    for (uint32_t i = 0; i < kKeys; ++i) DTHash_Set(h, k.Key(i), &i);
    return h;
}

void BM_DTHash_Set(benchmark::State &state) {
    const KeySet &k = Keys();
    for (auto _ : state) {
        state.PauseTiming();
        DTHash *h = DTHash_New(8, 4, kBuckets, nullptr);
        state.ResumeTiming();
        for (uint32_t i = 0; i < kKeys; ++i) benchmark::DoNotOptimize(DTHash_Set(h, k.Key(i), &i));
        state.PauseTiming();
        DTHash_Release(h);
        state.ResumeTiming();
    }
    PerKey(state);
}

void BM_Map_Set(benchmark::State &state) {
    const KeySet &k = Keys();
    for (auto _ : state) {
        state.PauseTiming();
        auto *m = new std::unordered_map<uint64_t, uint32_t>();
        m->rehash(kBuckets);
        state.ResumeTiming();
        for (uint32_t i = 0; i < kKeys; ++i) (*m)[k.words[i]] = i;
        benchmark::ClobberMemory();
        state.PauseTiming();
        delete m;
        state.ResumeTiming();
    }
    PerKey(state);
}

void BM_DTHash_Get(benchmark::State &state) {
    const KeySet &k = Keys();
    DTHash *h = FilledTable();
    uint64_t sum = 0;
    for (auto _ : state) {
        for (uint32_t i = 0; i < kKeys; ++i) {
            void *v = nullptr;
            DTHash_Get(h, k.Key(i), &v);
            uint32_t x;
            memcpy(&x, v, 4);
            sum += x;
        }
        benchmark::DoNotOptimize(sum);
    }
    DTHash_Release(h);
    PerKey(state);
}

void BM_Map_Get(benchmark::State &state) {
    const KeySet &k = Keys();
    std::unordered_map<uint64_t, uint32_t> m;
    m.rehash(kBuckets);
    for (uint32_t i = 0; i < kKeys; ++i) m[k.words[i]] = i;
    uint64_t sum = 0;
    for (auto _ : state) {
        for (uint32_t i = 0; i < kKeys; ++i) sum += m.find(k.words[i])->second;
        benchmark::DoNotOptimize(sum);
    }
    PerKey(state);
}

void BM_DTMD5_Hash(benchmark::State &state) {
    const KeySet &k = Keys();
    uint32_t acc = 0;
    for (auto _ : state) {
        for (uint32_t i = 0; i < kKeys; ++i) acc += DTMD5_Hash(k.Key(i), 8, kBuckets);
        benchmark::DoNotOptimize(acc);
    }
    PerKey(state);
}

}  // namespace

BENCHMARK(BM_DTHash_Set)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Map_Set)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DTHash_Get)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Map_Get)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DTMD5_Hash)->Unit(benchmark::kMillisecond);
