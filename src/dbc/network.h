// The native database model: one DBC file as read by the native reader.
// Built once, immutable afterwards, so any number of threads may read it
// without locks. Texts live in one pool and are NUL-terminated, so the C
// interface hands them out as they are; per-object lists (signals, value
// texts, receivers, multiplexer values, attributes) are ranges into flat
// network-wide arrays, which keeps a 50,000-signal file compact.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "dbc/hash_index.h"

namespace tarn::net {

// A run of entries [first, first + count) in one of the network's arrays.
struct Range {
    uint32_t first = 0;
    uint32_t count = 0;
    uint32_t end() const { return first + count; }
};

// Append-only text storage. Every stored text is followed by a NUL byte and
// never moves, so string_views into it stay valid for the pool's lifetime.
class TextPool {
  public:
    std::string_view Store(std::string_view text);
    size_t BytesHeld() const { return m_held; }

  private:
    std::vector<std::unique_ptr<char[]>> m_blocks;
    char* m_free = nullptr;
    size_t m_left = 0;
    size_t m_held = 0;
};

enum class ValueType : uint8_t { Integer = 0, Float = 1, Double = 2 };
enum class AttrObject : uint8_t { Network = 0, Node = 1, Message = 2, Signal = 3, EnvVar = 4 };
enum class AttrType : uint8_t { Int = 0, Hex = 1, Float = 2, String = 3, Enum = 4 };

// One attribute value. Numbers (INT, HEX, FLOAT, and an ENUM's index) are in
// `number`; STRING values and an ENUM's chosen text are in `text`.
struct AttrValue {
    double number = 0.0;
    std::string_view text;
};

// BA_DEF_ (and BA_DEF_DEF_ for its default).
struct AttrDef {
    std::string_view name;
    AttrObject object = AttrObject::Network;
    AttrType type = AttrType::Int;
    double minimum = 0.0;
    double maximum = 0.0;
    Range enums;  // into Network::names
    bool hasDefault = false;
    AttrValue defaultValue;
};

// BA_: the value of definition `def` for one object.
struct AttrEntry {
    uint32_t def = 0;  // index into Network::attrDefs
    AttrValue value;
};

// One VAL_ pair: value-table keys are raw values, negative ones included.
struct ValueText {
    int64_t raw = 0;
    std::string_view text;
};

// Inclusive range of multiplexer switch values that select a signal.
struct MuxRange {
    uint64_t low = 0;
    uint64_t high = 0;
};

struct Signal {
    std::string_view name;
    std::string_view unit;
    std::string_view comment;  // "" when none
    uint32_t startBit = 0;     // as written in the SG_ line
    uint32_t length = 0;       // 1..64
    double factor = 1.0;
    double offset = 0.0;
    double minimum = 0.0;
    double maximum = 0.0;
    bool bigEndian = false;  // @0
    bool isSigned = false;   // '-'
    ValueType type = ValueType::Integer;
    bool isSwitch = false;  // "M", or an extended "mNM" switch
    // Index (within its message) of the switch that selects this signal, -1
    // for a signal present in every frame. `muxValues` lists the switch
    // values that select it: the N of "mN", or the ranges of SG_MUL_VAL_.
    int32_t switchIndex = -1;
    Range muxValues;    // into Network::muxRanges
    Range receivers;    // into Network::names
    Range values;       // into Network::valueTexts, sorted by raw value
    Range attrs;        // into Network::attrValues
    uint32_t line = 0;  // line of its SG_ in the source
};

struct Message {
    std::string_view name;
    std::string_view comment;
    uint32_t id = 0;  // without the extended flag
    bool extended = false;
    uint32_t length = 0;  // declared payload bytes
    Range senders;        // into Network::names: the BO_ transmitter, then BO_TX_BU_ ones
    Range signals;        // into Network::signals, file order
    Range attrs;          // into Network::attrValues
    uint32_t line = 0;
};

struct Node {
    std::string_view name;
    std::string_view comment;
    Range attrs;  // into Network::attrValues
};

// VAL_TABLE_: a named table that signals may share.
struct ValueTable {
    std::string_view name;
    Range values;  // into Network::valueTexts
};

// A line the reader skipped or could not fully use.
struct Diagnostic {
    uint32_t line = 0;         // 1-based; 0 when not tied to one line
    std::string_view section;  // the line's keyword ("SG_", "BA_", ...)
    std::string_view reason;
};

struct Network {
    TextPool pool;
    std::string_view version;
    std::string_view comment;
    std::vector<Node> nodes;
    std::vector<Message> messages;  // file order
    std::vector<Signal> signals;    // grouped by message
    std::vector<ValueText> valueTexts;
    std::vector<MuxRange> muxRanges;
    std::vector<std::string_view> names;  // senders, receivers, enum texts
    std::vector<AttrDef> attrDefs;
    std::vector<AttrEntry> attrValues;
    Range attrs;  // the network's own BA_ values, into attrValues
    std::vector<ValueTable> valueTables;
    std::vector<Diagnostic> diagnostics;
    // Declared by BA_ "ProtocolType" "J1939", by that attribute's default
    // alone, or forced by the caller.
    bool j1939 = false;

    // Lookups, valid after the reader has finished.
    const Message* FindMessage(std::string_view name) const;
    const Message* FindMessage(uint32_t id, bool extended) const;
    // -1 when the message has no signal of that name.
    int32_t FindSignal(const Message& msg, std::string_view name) const;
    // Index of a definition by name, -1 when none.
    int32_t FindAttrDef(std::string_view name) const;
    // The value of attribute `name` for an object's entries, falling back to
    // the definition's default; nullptr when neither exists.
    const AttrValue* FindAttr(Range entries, std::string_view name) const;

    void BuildIndex();
    size_t BytesHeld() const;  // approximate memory held, for benchmarks

  private:
    friend class Reader;  // indexes each object as it is read
    // A message of up to this many signals is searched by a scan, which
    // beats hashing; a larger one is hashed.
    static constexpr uint32_t kScanSignals = 16;
    void IndexMessage(uint32_t message, bool byName, bool byId);
    void IndexSignal(uint32_t message, uint32_t signal);  // after the range grew
    void IndexAttrDef(uint32_t def);

    // Seeded indexes over the arrays above: crafted names or ids cannot
    // degrade them, and a 2,364-signal message finds a signal in O(1).
    // Their keys are the arrays' own texts and ids.
    HashIndex m_messageByName;
    HashIndex m_messageById;   // keyed by id | extended << 32
    HashIndex m_signalByName;  // keyed by (message index, signal name)
    HashIndex m_attrDefByName;
};

struct ReadOptions {
    bool strict = false;  // fail on the first diagnostic
    bool j1939 = false;   // apply J1939 rules whatever the file declares
};

enum class ReadStatus { Ok, NotDbc, Strict, TooLarge, Io };

// Reads DBC text (not necessarily NUL-terminated) into `out`, which must be
// empty. On Strict the first diagnostic is the cause, and on NotDbc the
// input had no DBC section at all. Texts are stored as UTF-8: a file that is
// not valid UTF-8 is read as Windows-1252.
ReadStatus Read(std::string_view text, const ReadOptions& options, Network& out);
// Reads a file whole, then as Read. Files of 2 GiB or more are TooLarge.
ReadStatus ReadFile(const std::string& path, const ReadOptions& options, Network& out,
                    std::string* ioError = nullptr);

}  // namespace tarn::net
