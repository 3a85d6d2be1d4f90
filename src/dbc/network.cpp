// The native model's storage and lookups: the text pool, the seeded hash
// indexes and the Find functions over them.
#include "dbc/network.h"

#include <algorithm>
#include <atomic>
#include <chrono>

namespace tarn::net {

namespace {

// Texts are packed into blocks of this size; a longer text gets a block of
// its own, so a 1 MB comment wastes nothing.
constexpr size_t kPoolBlock = 64 * 1024;

uint64_t NewSeed(const void* owner) {
    static std::atomic<uint64_t> counter{0};
    uint64_t t = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    uint64_t a = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(owner));
    return MixWords(t ^ (counter.fetch_add(1, std::memory_order_relaxed) << 32), a | 1) ^
           0x243F6A8885A308D3ull;
}

template <class T>
size_t Held(const std::vector<T>& v) {
    return v.capacity() * sizeof(T);
}

}  // namespace

std::string_view TextPool::Store(std::string_view text) {
    if (text.empty()) return std::string_view("", 0);
    size_t need = text.size() + 1;
    if (need > m_left) {
        size_t size = need > kPoolBlock / 4 ? need : kPoolBlock;
        m_blocks.emplace_back(new char[size]);
        m_held += size;
        char* block = m_blocks.back().get();
        if (size != kPoolBlock) {
            // A dedicated block leaves the current one open for small texts.
            std::memcpy(block, text.data(), text.size());
            block[text.size()] = '\0';
            return std::string_view(block, text.size());
        }
        m_free = block;
        m_left = size;
    }
    char* out = m_free;
    std::memcpy(out, text.data(), text.size());
    out[text.size()] = '\0';
    m_free += need;
    m_left -= need;
    return std::string_view(out, text.size());
}

HashIndex::HashIndex() : m_seed(NewSeed(this)) {}

void HashIndex::Reserve(size_t entries) {
    size_t want = 16;
    while (want < entries * 2) want *= 2;
    if (want <= m_slots.size()) return;
    std::vector<Slot> old;
    old.swap(m_slots);
    m_slots.assign(want, Slot());
    size_t mask = want - 1;
    for (const Slot& s : old) {
        if (s.value == 0) continue;
        size_t i = s.tag & mask;
        while (m_slots[i].value != 0) i = (i + 1) & mask;
        m_slots[i] = s;
    }
}

void HashIndex::Grow() {
    Reserve(m_slots.empty() ? 8 : m_slots.size());
}

void HashIndex::Insert(uint64_t hash, uint32_t value) {
    if ((m_used + 1) * 2 > m_slots.size()) Grow();
    size_t mask = m_slots.size() - 1;
    size_t i = Tag(hash) & mask;
    while (m_slots[i].value != 0) i = (i + 1) & mask;
    m_slots[i].tag = Tag(hash);
    m_slots[i].value = value + 1;
    ++m_used;
}

namespace {

uint64_t IdKey(uint32_t id, bool extended) {
    return id | uint64_t(extended) << 32;
}

}  // namespace

void Network::IndexMessage(uint32_t message, bool byName, bool byId) {
    const Message& m = messages[message];
    if (byName) m_messageByName.Insert(HashText(m_messageByName.Seed(), 0, m.name), message);
    if (byId) m_messageById.Insert(HashId(m_messageById.Seed(), IdKey(m.id, m.extended)), message);
}

void Network::IndexSignal(uint32_t message, uint32_t signal) {
    const Range& r = messages[message].signals;
    auto insert = [&](uint32_t s) {
        m_signalByName.Insert(HashText(m_signalByName.Seed(), message, signals[s].name), s);
    };
    if (r.count == kScanSignals + 1) {
        // The message outgrew the scan: index what it had so far.
        for (uint32_t s = r.first; s < r.end(); ++s) insert(s);
    } else if (r.count > kScanSignals + 1) {
        insert(signal);
    }
}

void Network::IndexAttrDef(uint32_t def) {
    m_attrDefByName.Insert(HashText(m_attrDefByName.Seed(), 0, attrDefs[def].name), def);
}

void Network::BuildIndex() {
    m_messageByName.Clear();
    m_messageById.Clear();
    m_signalByName.Clear();
    m_attrDefByName.Clear();
    m_messageByName.Reserve(messages.size());
    m_messageById.Reserve(messages.size());
    m_attrDefByName.Reserve(attrDefs.size());
    // The reader keeps the first of duplicates; so does the index.
    for (uint32_t i = 0; i < messages.size(); ++i) {
        Message& m = messages[i];
        IndexMessage(i, !FindMessage(m.name), !FindMessage(m.id, m.extended));
        Range all = m.signals;
        if (all.count <= kScanSignals) continue;
        for (m.signals.count = 0; m.signals.count < all.count;) {
            uint32_t s = all.first + m.signals.count++;
            if (FindSignal(m, signals[s].name) == static_cast<int32_t>(s - all.first))
                IndexSignal(i, s);
        }
        m.signals = all;
    }
    for (uint32_t i = 0; i < attrDefs.size(); ++i) {
        if (FindAttrDef(attrDefs[i].name) < 0) IndexAttrDef(i);
    }
}

const Message* Network::FindMessage(std::string_view name) const {
    int64_t i = m_messageByName.Find(HashText(m_messageByName.Seed(), 0, name),
                                     [&](uint32_t m) { return messages[m].name == name; });
    return i < 0 ? nullptr : &messages[static_cast<size_t>(i)];
}

const Message* Network::FindMessage(uint32_t id, bool extended) const {
    int64_t i = m_messageById.Find(
        HashId(m_messageById.Seed(), id | uint64_t(extended) << 32),
        [&](uint32_t m) { return messages[m].id == id && messages[m].extended == extended; });
    return i < 0 ? nullptr : &messages[static_cast<size_t>(i)];
}

int32_t Network::FindSignal(const Message& msg, std::string_view name) const {
    if (msg.signals.count <= kScanSignals) {
        for (uint32_t i = 0; i < msg.signals.count; ++i) {
            if (signals[msg.signals.first + i].name == name) return static_cast<int32_t>(i);
        }
        return -1;
    }
    uint64_t scope = static_cast<uint64_t>(&msg - messages.data());
    int64_t i = m_signalByName.Find(HashText(m_signalByName.Seed(), scope, name), [&](uint32_t s) {
        return s >= msg.signals.first && s < msg.signals.end() && signals[s].name == name;
    });
    return i < 0 ? -1 : static_cast<int32_t>(i - msg.signals.first);
}

int32_t Network::FindAttrDef(std::string_view name) const {
    int64_t i = m_attrDefByName.Find(HashText(m_attrDefByName.Seed(), 0, name),
                                     [&](uint32_t d) { return attrDefs[d].name == name; });
    return static_cast<int32_t>(i);
}

const AttrValue* Network::FindAttr(Range entries, std::string_view name) const {
    int32_t def = FindAttrDef(name);
    if (def < 0) return nullptr;
    for (uint32_t i = entries.first; i < entries.end(); ++i) {
        if (attrValues[i].def == static_cast<uint32_t>(def)) return &attrValues[i].value;
    }
    const AttrDef& d = attrDefs[static_cast<size_t>(def)];
    return d.hasDefault ? &d.defaultValue : nullptr;
}

size_t Network::BytesHeld() const {
    size_t n = sizeof(*this) + pool.BytesHeld();
    n += Held(nodes) + Held(messages) + Held(signals) + Held(valueTexts) + Held(muxRanges);
    n += Held(names) + Held(attrDefs) + Held(attrValues) + Held(valueTables) + Held(diagnostics);
    n += m_messageByName.BytesHeld() + m_messageById.BytesHeld() + m_signalByName.BytesHeld();
    n += m_attrDefByName.BytesHeld();
    return n;
}

}  // namespace tarn::net
