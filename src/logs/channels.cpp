#include "logs/channels.h"

namespace tarn::logs {

int ChannelTable::FindSlow(std::string_view name) {
    for (size_t i = 0; i < m_names.size(); ++i) {
        if (m_names[i] == name) {
            m_last = i;
            return static_cast<int>(i);
        }
    }
    if (m_names.size() == kMaxChannels || name.size() > kMaxName) return -1;
    m_names.emplace_back(name);
    m_last = m_names.size() - 1;
    return static_cast<int>(m_last);
}

}  // namespace tarn::logs
