// Sequences of info store operations, in the order the input decides, on two
// store slots: create, every record shape (framed, text, two-part, packed by a
// host through PackPre, AddInfo), walks with and without filters, GetPack,
// ShowInfo, clear, resize, ignore, flags, release, a header damaged by the
// host, and the null store.
// A model of each store (its records oldest first, its flags and switches)
// is checked after every step:
//  - the header keeps every offset inside the area, the area never passes
//    maxsize, and the free run is all 0xFF;
//  - a walk gives back the model's records, except that a successful write
//    to a store with a limit may have erased the oldest ones (never the
//    newest); no other step may lose a record;
//  - refused and ignored writes leave the store as it was, and a damaged
//    header makes every write refuse;
//  - when the input ends, every store is released and the accounted memory
//    is back where it started.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "foundation/DTMem.h"
#include "records/DTInfo.h"

namespace {

void check(bool ok, const char *what) {
    if (ok) return;
    fprintf(stderr, "fuzz_info_ops: %s\n", what);
    abort();
}

class Input {
public:
    Input(const uint8_t *p, size_t n) : p_(p), n_(n) {}
    bool done() const { return i_ >= n_; }
    uint8_t byte() { return i_ < n_ ? p_[i_++] : 0; }
    uint32_t u16() { return (uint32_t(byte()) << 8) | byte(); }
    uint32_t u32() { return (u16() << 16) | u16(); }
    // Short lengths mostly; now and then anything up to 16 bits.
    uint32_t length() {
        uint8_t b = byte();
        return b < 240 ? b : u16();
    }

private:
    const uint8_t *p_;
    size_t n_;
    size_t i_ = 0;
};

// The harness's own byte loops carry no coverage counters: they would only
// slow every step without telling the fuzzer anything about the store.
#if defined(__clang__)
#define HARNESS_LOOP __attribute__((no_sanitize("coverage")))
#else
#define HARNESS_LOOP
#endif

// Record contents that cost no input: a pattern seeded by one byte.
HARNESS_LOOP std::string pattern(uint8_t seed, size_t n, bool text) {
    std::string s(n, '\0');
    char *p = &s[0];
    for (size_t i = 0; i < n; ++i) {
        uint8_t b = uint8_t(seed + i * 7u);
        p[i] = text ? char('a' + b % 26) : char(b);
    }
    return s;
}

std::string key(Input &in) {
    static const char *const known[] = {"w", "TBhI4S2S0S", "TBhI0S0S0S", "TBhI1S1S1S", "", "B%dsH%ds", "II"};
    const uint8_t sel = in.byte();
    if (sel < 7) return known[sel];
    if (sel == 7) return pattern(in.byte(), 255, false);
    if (sel == 8) return pattern(in.byte(), 254, false);
    std::string k;
    for (uint8_t n = sel % 12; n > 0; --n) k += char(in.byte());
    return k;
}

struct Rec {
    std::string key;
    std::string data;
    bool anyTime;  // AddInfo's first four bytes are the clock
};

struct Model {
    DTInfo *store = nullptr;
    std::vector<Rec> recs;
    uint32_t maxsize = 0;
    uint32_t ignore = 0;
    uint8_t flags[250] = {};
};

uint32_t roundedMax(uint32_t m) {
    if (m > 0xFFFFFC00u) return 0xFFFFFC00u;
    return (m + 1023u) / 1024u * 1024u;
}

uint32_t pickMax(Input &in) {
    static const uint32_t odd[] = {0, 1, 1000, 1025, 0xFFFFFC00u, 0xFFFFFC01u, 0xFFFFFFFFu, 3072};
    const uint8_t sel = in.byte();
    return sel < 248 ? uint32_t(sel) * 256u : odd[sel - 248];
}

// Would a record of n bytes be refused for size alone?
bool tooBig(const Model &m, uint32_t n) { return m.maxsize != 0 && n > m.maxsize; }

// What a write operation answers while the store ignores writes, when the
// record cannot fit, and when it is stored.
struct Answers {
    int32_t ignored, refused, stored;
};

// Checks one write's answer against the store's rules and keeps the record in
// the model when it was stored; true then. Messages are built only on failure.
bool expectWrite(Model &m, int32_t r, bool unfit, Answers a, Rec rec, const char *what) {
    const int32_t want = m.ignore ? a.ignored : unfit ? a.refused : a.stored;
    if (r != want) {
        const char *why = m.ignore ? "ignoring store gave the wrong answer to a "
                          : unfit  ? "unfit, not refused: "
                                   : "not stored whole: ";
        check(false, (std::string(why) + what).c_str());
    }
    if (m.ignore || unfit) return false;
    m.recs.push_back(std::move(rec));
    return true;
}

HARNESS_LOOP bool allFree(const uint8_t *p, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i)
        if (p[i] != 0xFF) return false;
    return true;
}

bool same(const Rec &want, const void *key, uint8_t keyLen, const void *data, uint16_t dataLen) {
    if (want.key.size() != keyLen || memcmp(want.key.data(), key, keyLen) != 0) return false;
    if (want.data.size() != dataLen) return false;
    const size_t from = want.anyTime ? 4 : 0;
    return dataLen <= from || memcmp(want.data.data() + from, static_cast<const uint8_t *>(data) + from,
                                     dataLen - from) == 0;
}

// The store against its model; erasing the oldest records is allowed only
// when a write just succeeded on a store with a limit.
void verify(Model &m, bool mayErase, bool wrote) {
    DTInfo *s = m.store;
    check(s->memory != nullptr, "store lost its area");
    const uint32_t cap = s->memory->size;
    check(cap >= 1024 && cap % 1024 == 0, "area is not a multiple of 1024");
    check(s->maxsize == m.maxsize, "maxsize changed");
    check(m.maxsize == 0 || cap <= m.maxsize, "area grew past maxsize");
    check(s->freeAddr <= cap && uint64_t(s->freeAddr) + s->freesize <= cap, "free run outside the area");
    check(s->useAddr < cap, "oldest record outside the area");
    check(s->ignore == m.ignore, "ignore changed");
    check(memcmp(s->flags, m.flags, sizeof m.flags) == 0, "flags changed");
    check(allFree(s->memory->data + s->freeAddr, s->freesize), "free byte not 0xFF");
    // First how many records survive, then each against the newest of the model's.
    uint32_t cursor = DTINFO_START;
    size_t found = 0;
    while (DTInfo_Get(s, nullptr, 0, &cursor, nullptr, nullptr, nullptr, nullptr)) {
        ++found;
        check(found <= m.recs.size(), "walk found records never written");
    }
    const size_t lost = m.recs.size() - found;
    check(lost == 0 || (mayErase && m.maxsize != 0), "records lost");
    check(!wrote || found > 0, "newest record missing");
    cursor = DTINFO_START;
    void *k = nullptr;
    void *d = nullptr;
    uint8_t kl = 0;
    uint16_t dl = 0;
    uint64_t bytes = 0;
    for (size_t i = lost; i < m.recs.size(); ++i) {
        check(DTInfo_Get(s, nullptr, 0, &cursor, &k, &kl, &d, &dl) == 1, "second walk ended early");
        check(same(m.recs[i], k, kl, d, dl), "record differs from what was written");
        bytes += 3u + kl + dl;
    }
    check(bytes + s->freesize <= cap, "records and free run overlap");
    m.recs.erase(m.recs.begin(), m.recs.begin() + long(lost));
}

void checkGetPack(Model &m) {
    uint32_t c1 = DTINFO_START;
    uint32_t c2 = DTINFO_START;
    void *k = nullptr;
    void *d = nullptr;
    uint8_t kl = 0;
    size_t n = 0;
    while (DTInfo_Get(m.store, "", 0, &c1, &k, &kl, &d, nullptr)) {
        check(++n <= m.recs.size(), "GetPack walk does not end");
        // Exactly the documented room: the key length plus 2.
        std::unique_ptr<char[]> fmt(new char[kl + 2u]);
        void *pd = nullptr;
        check(DTInfo_GetPack(m.store, &c2, fmt.get(), &pd) == 1, "GetPack ended before Get");
        check(c1 == c2, "GetPack and Get cursors differ");
        check(pd == d, "GetPack data differs from Get's");
        check(fmt[0] == '*' && memcmp(fmt.get() + 1, k, kl) == 0 && fmt[kl + 1] == '\0', "GetPack format is not *key");
    }
    char spare[2];
    void *pd = nullptr;
    check(DTInfo_GetPack(m.store, &c2, spare, &pd) == 0, "GetPack went on after Get ended");
}

void checkFiltered(Model &m, const std::string &filter, bool byLength) {
    uint32_t cursor = DTINFO_START;
    void *k = nullptr;
    uint8_t kl = 0;
    size_t next = 0;
    // A filter given by length may hold NULs; one given as text stops at the first.
    const std::string f = byLength ? filter : std::string(filter.c_str());
    while (DTInfo_Get(m.store, filter.data(), byLength ? uint32_t(filter.size()) : 0, &cursor, &k, &kl, nullptr,
                      nullptr)) {
        while (next < m.recs.size() && m.recs[next].key.compare(0, f.size(), f) != 0) ++next;
        check(next < m.recs.size(), "filtered walk found a record that does not match");
        check(std::string(static_cast<char *>(k), kl) == m.recs[next].key, "filtered walk out of order");
        ++next;
    }
    while (next < m.recs.size() && m.recs[next].key.compare(0, f.size(), f) != 0) ++next;
    check(next == m.recs.size(), "filtered walk missed a matching record");
}

std::string be(uint32_t v, int bytes) {
    std::string s;
    for (int i = bytes - 1; i >= 0; --i) s += char(uint8_t(v >> (8 * i)));
    return s;
}

void nullStore() {
    uint32_t cursor = DTINFO_START;
    char fmt[4];
    void *d = nullptr;
    check(DTInfo_ReSize(nullptr, 0) == 0, "null store resized");
    check(DTInfo_Append(nullptr, "k", 1, "d", 1) == -1, "null store took a record");
    check(DTInfo_Write(nullptr, "k", "d") == -1, "null store took a text");
    check(DTInfo_Append2Message(nullptr, "k", 1, "a", 1, "b", 1) == 0, "null store took two parts");
    check(DTInfo_Get(nullptr, nullptr, 0, &cursor, nullptr, nullptr, nullptr, nullptr) == 0, "null store has a record");
    check(DTInfo_PackPre(nullptr, "k", 1, 4) == 0, "null store made room");
    check(DTInfo_GetPack(nullptr, &cursor, fmt, &d) == 0, "null store has a packed record");
    DTInfo_Clear(nullptr);
    DTInfo_Ignore(nullptr, 1);
    DTInfo_SetFlag(nullptr, 1, 1);
    DTInfo_AddInfo(nullptr, 1, 1, "a", 1, "b", 1, "c", 1, 1);
    DTInfo_ShowInfo(nullptr, -1, "", "", 0, 0, 0, 0);
    DTInfo_Release(nullptr);
}

void release(Model &m) {
    DTInfo_Release(m.store);
    m = Model();
}

// First uses that allocate for good (the print buffer) happen once, before
// the accounting of any input starts.
void warmUp() {
    static bool done = false;
    if (done) return;
    done = true;
    DTInfo *s = DTInfo_New(0);
    DTInfo_AddInfo(s, 1, 2500, "a", 1, "b", 1, "c", 1, 1);
    DTInfo_ShowInfo(s, -1, "", "", 0, 0, 0, 0);
    DTInfo_Release(s);
}

uint32_t accounted() {
    DTMemOwnerStats st;
    DTMem_GetOwnerStats(0, &st);
    return st.bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    warmUp();
    const uint32_t before = accounted();
    Input in(data, size);
    Model slots[2];
    while (!in.done()) {
        const uint8_t op = in.byte();
        Model &m = slots[op >> 7];
        if (op % 16 == 0) {
            release(m);
            m.maxsize = pickMax(in);
            m.store = DTInfo_New(m.maxsize);
            check(m.store != nullptr, "new store refused");
            m.maxsize = roundedMax(m.maxsize);
            check(m.store->memory->size == 1024, "new store's area is not 1024 bytes");
            check(m.store->freesize == 1024, "new store is not empty");
            verify(m, false, false);
            continue;
        }
        if (op % 16 == 15) {
            nullStore();
            continue;
        }
        if (m.store == nullptr) continue;
        // A store without limit grows with every record; past this size the
        // writes would only make each step slower, not find more.
        const uint8_t kind = op % 16;
        if (m.maxsize == 0 && m.store->memory->size > (4u << 20) && kind >= 1 && kind <= 5) continue;
        const DTInfo head = *m.store;
        bool mayErase = false;
        bool wrote = false;
        switch (op % 16) {
            case 1: {  // framed record
                const std::string k = key(in);
                const std::string d = pattern(in.byte(), in.length(), false);
                const uint8_t kl = uint8_t(k.size());
                const int32_t r = DTInfo_Append(m.store, k.data(), kl, d.data(), uint16_t(d.size()));
                const uint32_t n = 3u + kl + uint32_t(d.size());
                if (expectWrite(m, r, k.size() != kl || kl == 255 || tooBig(m, n), {0, -1, int32_t(n)}, {k, d, false},
                                "record"))
                    mayErase = wrote = true;
                break;
            }
            case 2: {  // text record: lengths modulo 256 and 65536
                std::string k = pattern(in.byte(), in.byte() < 16 ? 250 + in.byte() % 12 : in.byte() % 20, true);
                std::string d = pattern(in.byte(), in.length() + (in.byte() == 0xFF ? 65536u : 0u), true);
                const int32_t r = DTInfo_Write(m.store, k.c_str(), d.c_str());
                k.resize(k.size() % 256);
                d.resize(d.size() % 65536);
                const uint32_t n = 3u + uint32_t(k.size() + d.size());
                if (expectWrite(m, r, k.size() == 255 || tooBig(m, n), {0, -1, int32_t(n)}, {k, d, false}, "text"))
                    mayErase = wrote = true;
                break;
            }
            case 3: {  // two-part record
                const std::string k = key(in);
                const std::string p1 = pattern(in.byte(), in.length(), false);
                const std::string p2 = pattern(in.byte(), in.length(), false);
                const uint8_t kl = uint8_t(k.size());
                const int32_t r = DTInfo_Append2Message(m.store, k.data(), kl, p1.data(), uint16_t(p1.size()),
                                                        p2.data(), uint16_t(p2.size()));
                const uint32_t n = 3u + kl + uint32_t(p1.size() + p2.size());
                const bool unfit = k.size() != kl || kl == 255 || p1.size() + p2.size() > 0xFFFF || tooBig(m, n);
                if (expectWrite(m, r, unfit, {1, 0, 1}, {k, p1 + p2, false}, "two-part record"))
                    mayErase = wrote = true;
                break;
            }
            case 4: {  // packed by the host: PackPre makes room, the host fills it
                const std::string k = key(in);
                const bool byStrlen = (in.byte() & 1) != 0 && k.find('\0') == std::string::npos && !k.empty();
                const uint32_t dataLen = in.length() | (in.byte() == 0xFF ? 0x10000u : 0u);
                const uint32_t b = dataLen & 0xFFFFu;
                const int32_t r = DTInfo_PackPre(m.store, k.c_str(), byStrlen ? 0u : uint32_t(k.size()), dataLen);
                const uint32_t kl = uint32_t(k.size());
                if (m.ignore || kl >= 255 || tooBig(m, 3 + kl + b)) {
                    check(r == 0, "unfit packed record not refused");
                    break;
                }
                check(r == 1, "packed record refused");
                const std::string d = pattern(in.byte(), b, false);
                check(uint64_t(m.store->freeAddr) + b <= m.store->memory->size, "no room behind the preamble");
                check(m.store->freesize >= b, "free run shorter than the data");
                memcpy(m.store->memory->data + m.store->freeAddr, d.data(), b);
                m.store->freeAddr += b;
                m.store->freesize -= b;
                m.recs.push_back({k, d, false});
                mayErase = wrote = true;
                break;
            }
            case 5: {  // AddInfo
                const uint32_t type = in.u16();
                const uint32_t id = in.byte() < 32 ? 1990u + in.byte() % 20u : in.u16() % 2000u;
                const std::string s1 = pattern(in.byte(), in.byte() % 210, false);
                const std::string s2 = pattern(in.byte(), in.byte() % 210, false);
                const std::string det = pattern(in.byte(), in.u16() % 2100, false);
                const uint32_t value = in.u32();
                DTInfo_AddInfo(m.store, type, id, s1.data(), uint32_t(s1.size()), s2.data(), uint32_t(s2.size()),
                               det.data(), uint32_t(det.size()), value);
                const bool keep = id >= 2000 || ((m.flags[id / 8] >> (id % 8)) & 1) != 0;
                const std::string d3 = keep ? det : std::string();
                char k[100];
                snprintf(k, sizeof k, "TBhI%dS%dS%dS", int(s1.size()), int(s2.size()), int(d3.size()));
                const std::string d = be(0, 4) + be(type, 1) + be(id, 2) + be(value, 4) + s1 + s2 + d3;
                if (m.ignore || tooBig(m, uint32_t(3 + strlen(k) + d.size()))) break;
                m.recs.push_back({k, d, true});
                mayErase = wrote = true;
                break;
            }
            case 6: {  // filtered walk
                const bool fromRecord = !m.recs.empty() && (in.byte() & 1) != 0;
                std::string f = fromRecord ? m.recs[in.byte() % m.recs.size()].key : key(in);
                f.resize(f.size() < 1 ? 0 : f.size() - in.byte() % (f.size() + 1));
                checkFiltered(m, f, (in.byte() & 1) != 0);
                break;
            }
            case 7:
                checkGetPack(m);
                break;
            case 8: {  // ShowInfo: any filters over any records
                const int32_t id = (in.byte() & 1) != 0 ? -1 : int32_t(in.u16());
                const std::string f1 = pattern(in.byte(), in.byte() % 8 == 0 ? 420 : in.byte() % 9, true);
                std::string f2;
                for (uint8_t n = in.byte() % 9; n > 0; --n) f2 += "0123456789abcdefAF"[in.byte() % 18];
                const uint32_t value = in.byte() == 0xFF ? 0xFFFFFFFFu : in.byte();
                DTInfo_ShowInfo(m.store, id, f1.c_str(), f2.c_str(), value, in.byte() % 4, in.byte() % 4,
                                in.byte() % 4);
                break;
            }
            case 9:
                DTInfo_Clear(m.store);
                m.recs.clear();
                break;
            case 10: {
                const uint32_t want = pickMax(in);
                check(DTInfo_ReSize(m.store, want) == 1, "resize refused");
                if (roundedMax(want) != m.maxsize) m.recs.clear();
                m.maxsize = roundedMax(want);
                break;
            }
            case 11: {
                const uint32_t v = in.byte() < 128 ? 0u : in.u32() | 1u;
                DTInfo_Ignore(m.store, v);
                m.ignore = v;
                break;
            }
            case 12: {
                const uint32_t id = in.byte() < 16 ? 1995u + in.byte() % 10u : in.u16() % 2000u;
                const uint32_t action = in.byte() % 5;
                DTInfo_SetFlag(m.store, id, action);
                if (id < 2000) {
                    const uint8_t bit = uint8_t(1u << (id % 8));
                    if (action == 1) m.flags[id / 8] |= bit;
                    else if (action == 2) memset(m.flags, 0xFF, sizeof m.flags);
                    else if (action == 3) memset(m.flags, 0, sizeof m.flags);
                    else m.flags[id / 8] &= uint8_t(~bit);
                }
                const uint32_t probe = in.u16() % 2100u;
                const int32_t want = probe >= 2000 ? 1 : (m.flags[probe / 8] >> (probe % 8)) & 1;
                check(DTInfo_GetFlag(m.store, probe) == want, "flag reads back wrong");
                break;
            }
            case 13:
                release(m);
                continue;
            default: {  // 14: a host damages the header; every write must refuse, then it is put back
                const DTInfo good = *m.store;
                const uint32_t cap = m.store->memory->size;
                const uint32_t by = 1u + in.byte();
                const uint8_t how = in.byte() % 3;
                if (how == 0) m.store->freeAddr = cap + by;
                else if (how == 1) m.store->freesize = cap + by;
                else m.store->useAddr = cap - 1 + by;
                DTLogger_Dump(m.store);
                const bool ig = m.ignore != 0;
                check(DTInfo_Append(m.store, "k", 1, "d", 1) == (ig ? 0 : -1), "damaged header took a record");
                check(DTInfo_Append2Message(m.store, "k", 1, "a", 1, "b", 1) == (ig ? 1 : 0),
                      "damaged header took two parts");
                check(DTInfo_PackPre(m.store, "k", 1, 4) == 0, "damaged header made room");
                DTInfo_AddInfo(m.store, 1, 2500, "a", 1, "b", 1, "c", 1, 1);
                // A walk may find anything or nothing, but only inside the area.
                uint32_t cursor = DTINFO_START;
                const size_t bound = 2 * m.recs.size() + 4;
                for (size_t n = 0; n < bound; ++n)
                    if (!DTInfo_Get(m.store, nullptr, 0, &cursor, nullptr, nullptr, nullptr, nullptr)) break;
                check(m.store->freeAddr == (how == 0 ? cap + by : good.freeAddr) &&
                          m.store->freesize == (how == 1 ? cap + by : good.freesize) &&
                          m.store->useAddr == (how == 2 ? cap - 1 + by : good.useAddr),
                      "a refused write moved the damaged header");
                m.store->freeAddr = good.freeAddr;
                m.store->freesize = good.freesize;
                m.store->useAddr = good.useAddr;
                break;
            }
        }
        if (!wrote && op % 16 != 9 && op % 16 != 10) {
            // Nothing that stored no record may move the header.
            check(m.store->freeAddr == head.freeAddr && m.store->useAddr == head.useAddr &&
                      m.store->freesize == head.freesize,
                  "header moved without a write");
        }
        verify(m, mayErase, wrote);
    }
    release(slots[0]);
    release(slots[1]);
    check(accounted() == before, "accounted memory not returned");
    return 0;
}
