#include "common/command_info.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "common/num_text.h"

namespace kq {

// Keys and values are short: a plain scan beats a library call per string.
static const char* PastTerminator(const char* p) {
    while (*p) ++p;
    return p + 1;
}

static uint64_t ShortLength(const char* p) {
    return static_cast<uint64_t>(PastTerminator(p) - p - 1);
}

CommandInfo* CommandInfo::Create() {
    return new CommandInfo();
}

CommandInfo::CommandInfo() {
    Reset();
}

CommandInfo::~CommandInfo() {
    std::free(m_block);
}

bool CommandInfo::Reset() {
    m_used = 0;
    if (!m_block) {
        m_capacity = 128;
        m_block = static_cast<char*>(std::malloc(m_capacity));
        if (!m_block) {
            KQ_LOG(LOG_ERROR, "out of memory\n");
            return false;
        }
    }
    return true;
}

bool CommandInfo::SetName(const char* name) {
    if (!name) return false;
    std::strncpy(m_name, name, sizeof(m_name) - 1);
    return true;
}

// Grows the block to needed + used / 2 bytes; the record is untouched on failure.
bool CommandInfo::Grow(uint64_t needed) {
    uint64_t capacity = needed + m_used / 2;
    char* block = static_cast<char*>(std::realloc(m_block, capacity));
    if (!block) {
        KQ_LOG(LOG_ERROR, "out of memory\n");
        return false;
    }
    m_block = block;
    m_capacity = capacity;
    return true;
}

bool CommandInfo::Append(const char* key, const char* value) {
    if (!key || !value) return false;
    return Append(key, std::strlen(key), value, std::strlen(value));
}

bool CommandInfo::Append(const char* key, uint64_t keyLen, const char* value, uint64_t valueLen) {
    if (!key || !value) return false;
    uint64_t needed = m_used + keyLen + 1 + valueLen + 1;
    if ((needed > m_capacity || !m_block) && !Grow(needed)) return false;
    char* p = m_block + m_used;
    std::memcpy(p, key, keyLen);
    p[keyLen] = '\0';
    p += keyLen + 1;
    std::memcpy(p, value, valueLen);
    p[valueLen] = '\0';
    m_used = needed;
    return true;
}

bool CommandInfo::AppendInt(const char* key, int value) {
    char text[64];
    std::snprintf(text, sizeof(text), "%d", value);
    return Append(key, text);
}

bool CommandInfo::AppendDouble(const char* key, double value) {
    if (!key) return false;
    char text[kFixedTextSize];
    size_t n = FormatFixed6(value, text);
    return Append(key, ShortLength(key), text, n);
}

bool CommandInfo::AppendU64(const char* key, uint64_t value) {
    if (!key) return false;
    char text[kU64TextSize];
    size_t n = FormatU64(value, text);
    return Append(key, ShortLength(key), text, n);
}

const char* CommandInfo::GetValue(const char* key) const {
    if (!key || !m_block) return nullptr;
    const char* p = m_block;
    const char* end = m_block + m_used;
    while (p < end) {
        const char* value = p + std::strlen(p) + 1;
        if (std::strcmp(p, key) == 0) return value;
        p = value + std::strlen(value) + 1;
    }
    return nullptr;
}

int64_t CommandInfo::GetInt(const char* key) const {
    return ToInt(GetValue(key));
}

double CommandInfo::GetDouble(const char* key) const {
    return ToDouble(GetValue(key));
}

uint64_t CommandInfo::GetU64(const char* key) const {
    return ToUint64(GetValue(key));
}

int64_t CommandInfo::ToInt(const char* text) {
    return text ? std::strtol(text, nullptr, 10) : 0;
}

double CommandInfo::ToDouble(const char* text) {
    return text ? std::strtod(text, nullptr) : 0.0;
}

// Reads like the scan conversion "%lu": blanks, an optional sign (a minus
// negates modulo 2^64), decimal digits; 0 when no number is there.
uint64_t CommandInfo::ToUint64(const char* text) {
    return text ? std::strtoull(text, nullptr, 10) : 0;
}

void CommandInfo::ForEach(ForEachFn fn, void* ctx) const {
    if (!fn || !m_block) return;
    uint64_t pos = 0;
    for (uint64_t index = 0; pos < m_used; ++index) {
        const char* key = m_block + pos;
        const char* value = PastTerminator(key);
        pos = static_cast<uint64_t>(PastTerminator(value) - m_block);
        fn(ctx, index, key, value);
    }
}

bool CommandInfo::SetDoneFunc(DoneFn fn, void* ctx) {
    m_doneFn = fn;
    m_doneCtx = ctx;
    return true;
}

bool CommandInfo::Done() {
    if (m_doneFn) m_doneFn(m_doneCtx, this);
    return true;
}

static void DumpPair(void*, uint64_t, const char* key, const char* value) {
    std::printf("%s=%s ", key, value);
}

void CommandInfo::Dump() const {
    std::printf("%s ", m_name);
    ForEach(DumpPair, nullptr);
    std::printf("\n");
}

}  // namespace kq
