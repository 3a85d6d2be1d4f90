// libtarn for C++17: a header-only wrapper over the native C interface
// (tarn/db.h). The ABI stays in C; this adds RAII, std::string_view names,
// iterable messages and signals, and exceptions on the caller's side.
//
//   auto db = tarn::Database::open("vehicle.dbc");
//   for (tarn::Message m : db.messages())
//       for (tarn::Signal s : m.signals()) std::cout << m.name() << '.' << s.name() << '\n';
//   tarn::Decoder dec(db);
//   if (dec.decode(0x123, false, data, 8))
//       for (const tarn_value& v : dec) std::cout << dec.signal(v).name() << v.physical;
#ifndef TARN_TARN_HPP
#define TARN_TARN_HPP

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarn/db.h"

namespace tarn {

// A failed call: status() is the tarn_status, what() its text and detail.
class Error : public std::runtime_error {
  public:
    Error(int status, const std::string& detail)
        : std::runtime_error(detail.empty()
                                 ? std::string(tarn_status_text(status))
                                 : std::string(tarn_status_text(status)) + ": " + detail),
          m_status(status) {}
    int status() const noexcept { return m_status; }

  private:
    int m_status;
};

inline void check(int status, const std::string& detail = std::string()) {
    if (status != TARN_OK) throw Error(status, detail);
}

// Random-access range over items [0, n) produced by at(i).
template <class Owner, class Item>
class IndexRange {
  public:
    class iterator {
      public:
        iterator(const Owner* o, size_t i) : m_owner(o), m_index(i) {}
        Item operator*() const { return m_owner->at(m_index); }
        iterator& operator++() {
            ++m_index;
            return *this;
        }
        bool operator!=(const iterator& other) const { return m_index != other.m_index; }
        bool operator==(const iterator& other) const { return m_index == other.m_index; }

      private:
        const Owner* m_owner;
        size_t m_index;
    };
    IndexRange(const Owner* o, size_t n) : m_owner(o), m_size(n) {}
    iterator begin() const { return iterator(m_owner, 0); }
    iterator end() const { return iterator(m_owner, m_size); }
    size_t size() const { return m_size; }

  private:
    const Owner* m_owner;
    size_t m_size;
};

// A signal of an open database; valid while the database is.
class Signal {
  public:
    explicit Signal(const tarn_signal* s) : m_sig(s) { check(tarn_signal_get_info(s, &m_info)); }
    const tarn_signal* handle() const { return m_sig; }
    const tarn_signal_info& info() const { return m_info; }
    std::string_view name() const { return m_info.name; }
    std::string_view unit() const { return m_info.unit; }
    std::string_view comment() const { return m_info.comment; }
    uint32_t index() const { return m_info.index; }
    uint32_t start_bit() const { return m_info.start_bit; }
    uint32_t length() const { return m_info.length; }
    bool big_endian() const { return m_info.big_endian; }
    bool is_signed() const { return m_info.is_signed; }
    tarn_value_type value_type() const { return static_cast<tarn_value_type>(m_info.value_type); }
    double factor() const { return m_info.factor; }
    double offset() const { return m_info.offset; }
    double minimum() const { return m_info.minimum; }
    double maximum() const { return m_info.maximum; }
    bool is_switch() const { return m_info.is_switch; }
    bool multiplexed() const { return m_info.switch_index >= 0; }
    // Value-table entries, ordered by raw value.
    std::vector<std::pair<int64_t, std::string_view>> values() const {
        std::vector<std::pair<int64_t, std::string_view>> out;
        for (size_t i = 0; i < m_info.value_count; ++i) {
            int64_t raw;
            const char* text;
            check(tarn_signal_value_text(m_sig, i, &raw, &text));
            out.emplace_back(raw, text);
        }
        return out;
    }
    // The raw integer a physical value encodes to (throws tarn::Error).
    tarn_value to_raw(double physical, bool strict = false) const {
        tarn_value v;
        check(tarn_signal_physical_to_raw(m_sig, physical, strict ? TARN_ENCODE_STRICT : 0, &v),
              std::string(name()));
        return v;
    }

  private:
    const tarn_signal* m_sig;
    tarn_signal_info m_info;
};

// A message of an open database; valid while the database is.
class Message {
  public:
    explicit Message(const tarn_message* m) : m_msg(m) { check(tarn_message_get_info(m, &m_info)); }
    const tarn_message* handle() const { return m_msg; }
    const tarn_message_info& info() const { return m_info; }
    std::string_view name() const { return m_info.name; }
    std::string_view comment() const { return m_info.comment; }
    uint32_t id() const { return m_info.id; }
    bool extended() const { return m_info.extended; }
    uint32_t length() const { return m_info.length; }
    uint32_t pgn() const { return m_info.pgn; }
    int32_t cycle_time_ms() const { return m_info.cycle_time_ms; }
    bool multiplexed() const { return m_info.multiplexed; }

    Signal at(size_t i) const {
        const tarn_signal* s;
        check(tarn_message_signal(m_msg, i, &s));
        return Signal(s);
    }
    IndexRange<Message, Signal> signals() const { return {this, m_info.signal_count}; }
    std::optional<Signal> find_signal(const std::string& name) const {
        const tarn_signal* s;
        if (tarn_message_find_signal(m_msg, name.c_str(), &s) != TARN_OK) return std::nullopt;
        return Signal(s);
    }

    // Encodes physical values by signal name; throws tarn::Error naming the
    // offending signal.
    std::vector<uint8_t> encode(const std::vector<std::pair<std::string, double>>& physical,
                                bool strict = false) const {
        std::vector<tarn_input> in(physical.size());
        for (size_t i = 0; i < physical.size(); ++i) {
            in[i] = tarn_input{};
            in[i].name = physical[i].first.c_str();
            in[i].kind = TARN_INPUT_PHYSICAL;
            in[i].physical = physical[i].second;
        }
        std::vector<uint8_t> out(m_info.length);
        size_t written = 0, failed = 0;
        const int rc = tarn_encode(m_msg, in.data(), in.size(), strict ? TARN_ENCODE_STRICT : 0,
                                   out.data(), out.size(), &written, &failed);
        check(rc,
              rc == TARN_OK || failed >= physical.size() ? std::string() : physical[failed].first);
        out.resize(written);
        return out;
    }

  private:
    const tarn_message* m_msg;
    tarn_message_info m_info;
};

// An open database. Move-only; closing it ends every Message and Signal.
class Database {
  public:
    static Database open(const std::string& path, unsigned flags = 0) {
        return Database([&](tarn_db** db, char* err, size_t n) {
            return tarn_db_open(path.c_str(), flags, db, err, n);
        });
    }
    static Database from_text(std::string_view text, unsigned flags = 0) {
        return Database([&](tarn_db** db, char* err, size_t n) {
            return tarn_db_open_buffer(text.data(), text.size(), flags, db, err, n);
        });
    }
    Database(Database&& other) noexcept : m_db(std::exchange(other.m_db, nullptr)) {}
    Database& operator=(Database&& other) noexcept {
        std::swap(m_db, other.m_db);
        return *this;
    }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;
    ~Database() { tarn_db_close(m_db); }

    const tarn_db* handle() const { return m_db; }
    tarn_db_info info() const {
        tarn_db_info i;
        check(tarn_db_get_info(m_db, &i));
        return i;
    }
    bool j1939() const { return info().j1939; }

    Message at(size_t i) const {
        const tarn_message* m;
        check(tarn_db_message(m_db, i, &m));
        return Message(m);
    }
    IndexRange<Database, Message> messages() const { return {this, info().message_count}; }
    std::optional<Message> find(uint32_t id, bool extended) const {
        const tarn_message* m;
        if (tarn_db_find_message(m_db, id, extended, &m) != TARN_OK) return std::nullopt;
        return Message(m);
    }
    std::optional<Message> find(const std::string& name) const {
        const tarn_message* m;
        if (tarn_db_find_message_by_name(m_db, name.c_str(), &m) != TARN_OK) return std::nullopt;
        return Message(m);
    }
    std::vector<tarn_diagnostic> diagnostics() const {
        std::vector<tarn_diagnostic> out(tarn_db_diagnostic_count(m_db));
        for (size_t i = 0; i < out.size(); ++i) check(tarn_db_diagnostic(m_db, i, &out[i]));
        return out;
    }

  private:
    template <class OpenFn>
    explicit Database(OpenFn open) {
        char err[256] = {0};
        const int rc = open(&m_db, err, sizeof err);
        if (rc != TARN_OK) throw Error(rc, err);
    }
    tarn_db* m_db = nullptr;
};

// Decodes frames into a buffer it owns and reuses: one per thread.
class Decoder {
  public:
    explicit Decoder(const Database& db)
        : m_db(db.handle()), m_values(std::max<size_t>(1, db.info().max_signals)) {}

    // False when the database has no message for the frame.
    bool decode(uint32_t id, bool extended, const uint8_t* data, size_t length) {
        const int rc = tarn_decode(m_db, id, extended, data, length, m_values.data(),
                                   m_values.size(), &m_result);
        if (rc == TARN_ERR_NOT_FOUND) return false;
        check(rc);
        return true;
    }
    const tarn_decoded& result() const { return m_result; }
    Message message() const { return Message(m_result.message); }
    const tarn_value* begin() const { return m_values.data(); }
    const tarn_value* end() const { return m_values.data() + m_result.count; }
    size_t size() const { return m_result.count; }
    Signal signal(const tarn_value& v) const { return message().at(v.signal); }

  private:
    const tarn_db* m_db;
    std::vector<tarn_value> m_values;
    tarn_decoded m_result{};
};

}  // namespace tarn

#endif  // TARN_TARN_HPP
