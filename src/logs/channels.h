// The interfaces (channels) named by a log, each given a small index in the
// order first seen; a frame carries the index, the table keeps the name.
#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>

namespace tarn::logs {

class ChannelTable {
  public:
    // A frame's channel index is one byte; names are at most this long.
    static constexpr size_t kMaxChannels = 256;
    static constexpr size_t kMaxName = 64;

    // Index of `name`, added when new; -1 when the table is full or the
    // name too long, so that hostile input cannot grow it.
    int Find(std::string_view name) {
        if (m_last < m_names.size() && m_names[m_last] == name) return static_cast<int>(m_last);
        return FindSlow(name);
    }
    size_t Size() const { return m_names.size(); }
    // NUL-terminated; stays at the same address while the table lives.
    const char* Name(size_t index) const { return m_names[index].c_str(); }

  private:
    int FindSlow(std::string_view name);

    std::deque<std::string> m_names;  // a deque never moves its elements
    size_t m_last = 0;
};

}  // namespace tarn::logs
