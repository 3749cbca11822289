// Drives one store with long seeded random sequences and compares it after every step
// with a model that only knows records as (offset, key, data) in a deque.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "dttest.h"
#include "records/DTInfo.h"

struct Rec { uint32_t off; std::string key, data; };

struct Model {
    uint32_t cap = 1024, limit = 0, w = 0, allocs = 0;
    std::deque<Rec> recs;

    bool wrapped() const { return !recs.empty() && recs.front().off >= w; }
    uint32_t gap() const { return wrapped() ? recs.front().off - w : cap - w; }
    void clear() {
        recs.clear();
        w = 0;
    }

    // Below the limit the area doubles (at most 256 KiB a step, a larger shortfall rounded
    // up to 1024) or goes straight to the limit; at the limit whole oldest records go.
    bool write(const std::string &k, const std::string &d) {
        uint32_t n = 3 + k.size() + d.size();
        if (k.size() == 255 || (limit != 0 && n > limit)) return false;
        while (gap() < n) {
            if (limit == 0 || cap < limit) {
                uint32_t f = gap();
                uint32_t a = std::max(std::min(cap, 262144u), (n - f + 1023) / 1024 * 1024);
                if (limit != 0 && (limit < 2 * cap || n >= limit + f - cap)) a = limit - cap;
                ++allocs;
                cap += a;
            } else if (wrapped()) {
                recs.pop_front();
            } else {
                w = 0;
            }
        }
        recs.push_back({w, k, d});
        w += n;
        return true;
    }

    int resize(uint32_t m) {
        m = (m + 1023) / 1024 * 1024;
        if (m == limit) return 1;
        clear();
        if (m != 0 && m <= cap) {  // a new, smaller area
            ++allocs;
            cap = 1024;
        }
        limit = m;
        return 1;
    }
};

static void Check(DTInfo *info, const Model &m) {
    ASSERT_TRUE(info->memory != nullptr);  // by value: the handle is only 4-byte aligned
    for (const char *filter : {(const char *)nullptr, "a", "ab"}) {
        uint32_t cursor = DTINFO_START;
        void *key, *data; uint8_t kl; uint16_t dl;
        for (const Rec &r : m.recs) {
            if (filter && r.key.compare(0, strlen(filter), filter) != 0) continue;
            ASSERT_EQ(1, DTInfo_Get(info, filter, 0, &cursor, &key, &kl, &data, &dl));
            ASSERT_EQ((uint8_t *)key, info->memory->data + r.off + 1);
            ASSERT_EQ(r.key, std::string((char *)key, kl));
            ASSERT_EQ(r.data, std::string((char *)data, dl));
        }
        ASSERT_EQ(0, DTInfo_Get(info, filter, 0, &cursor, &key, &kl, &data, &dl));
    }
    const uint32_t use = m.recs.empty() ? m.w : m.recs.front().off;
    ASSERT_EQ(std::vector<uint32_t>({m.cap, m.limit, m.w, m.gap(), use}),
              std::vector<uint32_t>({info->memory->size, info->maxsize, info->freeAddr,
                                     info->freesize, info->useAddr}));
    std::string expect(m.cap, '\xFF');
    for (const Rec &r : m.recs) {
        std::string frame = char(r.key.size()) + r.key + char(r.data.size() >> 8) +
                            char(r.data.size() & 0xFF) + r.data;
        expect.replace(r.off, frame.size(), frame);
    }
    ASSERT_TRUE(expect == std::string((char *)info->memory->data, m.cap)) << "area bytes differ";
}

TEST(DTInfoModel, RandomSequencesMatchModel) {
    const char *env = getenv("DTINFO_SEED");
    const uint32_t seed = env ? (uint32_t)strtoul(env, nullptr, 0) : 20261122u;
    std::mt19937 rng(seed);
    auto pick = [&](uint32_t n) { return (uint32_t)(rng() % n); };
    const uint32_t sizes[] = {0, 1000, 1024, 2048, 3000, 4096, 8192, 16384};
    const int64_t live = dttest::LiveBlocks();
    DTInfo *info = DTInfo_New(0);
    const uint32_t calls = dttest::MallocCalls();
    Model m;
    for (int step = 0; step < 50000 && !HasFatalFailure(); ++step) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step));
        testing::internal::CaptureStdout();  // growth and room reports
        const uint32_t op = pick(1000);
        int32_t want = 1, got = 1;
        if (op < 10) {
            const uint32_t size = sizes[pick(8)];
            want = m.resize(size);
            got = DTInfo_ReSize(info, size);
        } else if (op < 15) {
            DTInfo_Clear(info);
            m.clear();
        } else {
            // Now and then a 255-byte key (refused), or data too big for the small limits.
            const uint32_t r = pick(100), kl = r < 2 ? 255 - r : pick(r < 10 ? 255 : 6);
            const uint32_t dl = r < 3 ? pick(9000) : r < 15 ? pick(3000) : pick(150);
            std::string k(kl, 'a'), d(dl, '\0');
            for (char &c : k) c = "ab"[pick(2)];
            for (char &c : d) c = (char)pick(256);
            const bool stored = m.write(k, d);
            const uint32_t how = pick(3), split = pick(dl + 1);
            want = stored ? 1 : 0;
            if (how == 0) {
                want = stored ? (int32_t)(3 + kl + dl) : -1;
                got = DTInfo_Append(info, k.data(), (uint8_t)kl, d.data(), (uint16_t)dl);
            } else if (how == 1) {
                got = DTInfo_Append2Message(info, k.data(), (uint8_t)kl, d.data(), (uint16_t)split,
                                            d.data() + split, (uint16_t)(dl - split));
            } else if ((got = DTInfo_PackPre(info, k.c_str(), kl, dl)) == 1) {
                memcpy(info->memory->data + info->freeAddr, d.data(), dl);
                info->freeAddr += dl;
                info->freesize -= dl;
            }
        }
        testing::internal::GetCapturedStdout();
        ASSERT_EQ(want, got);
        ASSERT_EQ(m.allocs, dttest::MallocCalls() - calls) << "one allocation per growth";
        Check(info, m);
    }
    DTInfo_Release(info);
    EXPECT_EQ(live, dttest::LiveBlocks());
}
