// DBCEx: a snapshot of the messages in ascending id with a shared cursor.
#include "dbc/dbc_impl.h"

DBCEx::DBCEx() = default;

DBCEx::~DBCEx() = default;

void DBCEx::Snapshot() {
    m_msgs.clear();
    Impl()->GetAllMessage(m_msgs);
    m_count = static_cast<uint32_t>(m_msgs.size());
}

// A failed load without merging may already have destroyed the messages of
// the old snapshot, so the snapshot then follows what the model still holds;
// a failed merge load only ever adds, so the old snapshot stays valid.
bool DBCEx::Load(const std::string& path, bool merge) {
    bool ok = DBC::Load(path, merge);
    if (ok || !Impl()->IsMerge()) Snapshot();
    return ok;
}

bool DBCEx::LoadContent(const std::string& text) {
    bool ok = DBC::LoadContent(text);
    if (ok || !Impl()->IsMerge()) Snapshot();
    return ok;
}

bool DBCEx::GetFirstMessage(Message* out) {
    if (m_count == 0 || !out) return false;
    m_pos = 1;
    *out = *m_msgs[0];
    return true;
}

bool DBCEx::GetNextMessage(Message* out) {
    if (m_pos >= m_count || !out) return false;
    *out = *m_msgs[m_pos];
    ++m_pos;
    return true;
}

void DBCEx::ForEach(VisitFn fn, void* ctx) const {
    if (!fn) return;
    for (uint32_t i = 0; i < m_count; ++i) {
        if (!fn(ctx, i, *m_msgs[i])) return;
    }
}
