// Implementation of the DBC database: the model containers, the name
// interning table, the scanner state and the section parsers.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "dbc/dbc.h"

// Character classes of the scanner: 'i' identifier, 'w' blank (space, tab),
// 0 anything else (line ends, punctuation, bytes from 0x80 up).
using CharKindTable = std::array<unsigned char, 256>;

constexpr CharKindTable init_char_kind() {
    CharKindTable t{};
    const char* ident = "$_ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    for (const char* p = ident; *p; ++p) t[static_cast<unsigned char>(*p)] = 'i';
    t[static_cast<unsigned char>(' ')] = 'w';
    t[static_cast<unsigned char>('\t')] = 'w';
    return t;
}

extern const unsigned char* const g_char_kind;

inline bool IsIdentChar(char c) {
    return g_char_kind[static_cast<unsigned char>(c)] == 'i';
}
inline bool IsBlank(char c) {
    return g_char_kind[static_cast<unsigned char>(c)] == 'w';
}

// Shortest fixed-point text of a number, at most seven decimals.
std::string Double2String(double d);

// Converts a raw-zero quotient to its stored 64-bit pattern: truncation
// toward zero, negatives as two's complement, saturating outside the range.
uint64_t TruncateToU64(double v);

// Parses a signal definition "%u|%u@%d%c(%lf,%lf)[%lf|%lf]" (blanks already
// removed) exactly as sscanf would; returns the number of converted fields.
struct SignalDef {
    unsigned startBit = 0;
    unsigned length = 0;
    int byteOrder = 0;
    char sign = 0;
    double factor = 0, offset = 0, minimum = 0, maximum = 0;
};
int ParseSignalDef(const char* text, SignalDef& out);

namespace dbc_detail {

// A bijective 64-bit mixer: distinct states stay distinct.
inline uint64_t Mix(uint64_t x) {
    x *= 0xbf58476d1ce4e5b9ull;
    x ^= x >> 31;
    x *= 0x94d049bb133111ebull;
    return x ^ (x >> 29);
}

// Seeded identifier hash: crafted identifiers cannot share one bucket.
struct IdHash {
    uint64_t seed;
    size_t operator()(uint64_t id) const { return static_cast<size_t>(Mix(id ^ seed)); }
};

// Interning table: one owned copy per distinct string, never freed before
// the table itself. Strings live in large arena blocks beside their nodes.
class Atoms {
  public:
    static constexpr size_t kInitialBuckets = 16392;

    Atoms();
    ~Atoms();
    Atoms(const Atoms&) = delete;
    Atoms& operator=(const Atoms&) = delete;

    const char* find(const std::string& s) const { return find(s.data(), s.size()); }
    const char* find(const char* s, size_t n) const;
    const char* intern(const std::string& s) { return intern(s.data(), s.size()); }
    const char* intern(const char* s);
    const char* intern(const char* s, size_t n);

    uint64_t size() const { return m_count; }
    size_t bucket_count() const { return m_buckets.size(); }
    uint64_t Hash(const char* s, size_t n) const;
    size_t LongestChain() const;  // for tests of the bucket spread

  private:
    // The text follows its node in the arena (it starts at Text(node)). The
    // low half of the hash picks the bucket and filters comparisons.
    struct Node {
        Node* next;
        uint32_t hash;
        uint32_t length;
    };
    static constexpr size_t kTextOffset = sizeof(Node);
    static char* Text(Node* node) { return reinterpret_cast<char*>(node) + kTextOffset; }

    void Grow();
    Node* Allocate(const char* s, size_t n, uint32_t hash);

    std::vector<Node*> m_buckets;
    uint64_t m_count = 0;
    uint64_t m_seed;
    std::vector<char*> m_blocks;  // arena blocks holding nodes and texts
    char* m_free = nullptr;
    size_t m_left = 0;
};

}  // namespace dbc_detail

class DBCImpl {
  public:
    struct MarkInfo {
        const char* start;
        const char* cursor;
        uint32_t line;
        char ch;
    };

    DBCImpl();
    ~DBCImpl();
    DBCImpl(const DBCImpl&) = delete;
    DBCImpl& operator=(const DBCImpl&) = delete;

    // Loading.
    bool Load(const std::string& path, bool merge);
    bool LoadContent(const std::string& text);
    // Loads NUL-terminated text; the scan ends at the first NUL.
    bool LoadText(const char* text);
    void Clear(bool merge);

    // Lookups.
    Message* FindMsg(uint64_t id) const;
    Message* FindMsg(const std::string& id) const;
    Message* FindMsg2(const std::string& name) const;
    Signal* FindSignal(uint64_t id, const char* name) const;
    Signal* FindSignal(const Message* msg, const std::string& name) const;
    Signal* FindSignal(const std::string& msgName, const std::string& sigName, uint64_t& id) const;
    void GetAllMessage(std::vector<Message*>& out) const;
    void GetAllNetworkNode(std::vector<NetworkNode*>& out) const;
    static Signal* GetMultiplexerSwitchSignal(Message* msg);
    static bool FindValDescPair(const std::vector<ValPair>& pairs, double v);
    uint32_t GetProtocol() const { return m_protocol; }

    void SetListener(IDBCListener* listener) { m_listener = listener; }
    IDBCListener* GetListener() const { return m_listener; }
    void SetOrdered(bool ordered) { m_ordered = ordered; }
    bool IsMerge() const { return m_merge; }
    uint32_t Line() const { return m_line; }

    dbc_detail::Atoms& GetAtoms() { return m_atoms; }
    const dbc_detail::Atoms& GetAtoms() const { return m_atoms; }

    // Record-order lists (filled only while ordered).
    const std::vector<Message*>& MsgList() const { return m_msgList; }
    const std::vector<Comment>& Comments() const { return m_comments; }
    const std::vector<AttrDesc*>& AttrDefList() const { return m_attrDefList; }
    const std::vector<Attr>& AttrList() const { return m_attrList; }
    const std::vector<VAL>& Vals() const { return m_vals; }
    const std::map<const char*, AttrDesc*>& AttrDefs() const { return m_attrDefs; }
    const std::map<const char*, NetworkNode*>& Nodes() const { return m_nodes; }

    // Writer: DumpText builds the text that Dump saves as "dump.txt".
    void Dump() const;
    std::string DumpText() const;
    std::string DumpVal(const VAL& val) const;

    // Tokenizer (public so that tests can drive it over a text).
    void BeginText(const char* text);
    bool IgnoreWhiteSpace();
    bool IgnoreLine();
    std::string ReadIdentifier();
    const char* ReadIdentifierAtom();
    std::string ReadString();
    std::vector<const char*> ReadEnum();
    void SetRollback();
    bool Rollback();
    void DropRollback();
    size_t MarkDepth() const { return m_marks.size(); }
    char CurrentChar() const { return m_char; }

    // Section parsers, called after their keyword has been consumed.
    bool ParseNS();
    bool ParseBO();
    bool ParseSG(Message* msg);
    bool ParseBU();
    bool ParseSigValType();
    bool ParseCM();
    bool AddComment(const Comment& comment);
    bool ParseVAL();
    bool AddVAL(const VAL& val);
    bool ParseBADef();
    bool ParseBADefault();
    bool ParseBA();
    bool ReadAttrValue(AttrType type, AttrValue& value);
    bool AddAttr(const Attr& attr);

  private:
    void Step();
    void ScanWord(const char*& begin, size_t& len);
    const char* InternUpper(const char* s, size_t n, bool* changed = nullptr);
    const char* ScanWindow(int tokens);
    void LogLine(const char* fixed, const char* tail = "", bool blank = true) const;
    void RebuildNameIndex();
    bool DispatchLine();
    // The signal list of one message keeps its switch signal (the first
    // "M" signal in map order) and the values already described on it, so
    // that wide multiplexed messages cost the same per signal as small ones.
    struct MuxState {
        Signal* sw = nullptr;
        const Signal* seenFor = nullptr;
        size_t seenCount = 0;
        std::unordered_set<double> seen;
    };
    bool ParseSignalLine(Message* msg, MuxState& mux);
    bool ReadSignalDef(SignalDef& def);
    void AddMuxValueDesc(MuxState& mux, uint32_t value);
    Signal& StoreSignal(Message* msg, Signal& sig);
    static void TrackSwitch(Message* msg, MuxState& mux, Signal& stored);
    bool ParseBAObject(Attr& attr);
    void ReleaseModel();

    IDBCListener* m_listener = nullptr;
    std::map<const char*, NetworkNode*> m_nodes;
    uint32_t m_protocol = 2;
    std::map<const char*, uint64_t> m_msgIdByName;
    std::map<uint64_t, Message*> m_messages;
    std::map<const char*, AttrDesc*> m_attrDefs;
    bool m_warnSigned = true;
    char m_char = 0;
    const char* m_cursor = nullptr;
    const char* m_start = nullptr;
    uint32_t m_line = 0;
    std::vector<MarkInfo> m_marks;
    dbc_detail::Atoms m_atoms;
    const char* m_kwCM;
    const char* m_kwBA;
    const char* m_kwBADef;
    const char* m_kwBADefDef;
    const char* m_kwBO;
    const char* m_kwNS;
    const char* m_kwBU;
    const char* m_kwSG;
    const char* m_kwEV;
    const char* m_kwVAL;
    const char* m_kwSigValType;
    std::vector<Message*> m_msgList;
    bool m_ordered = false;
    std::vector<Comment> m_comments;
    std::vector<AttrDesc*> m_attrDefList;
    std::vector<Attr> m_attrList;
    std::vector<VAL> m_vals;
    bool m_merge = false;

    const char* m_empty;    // interned ""
    std::string m_scratch;  // reused window for numeric scans
    std::string m_defBuf;   // reused compact signal definition
    // Hashed view of m_messages: the comment, value and attribute sections
    // look a message up per line.
    std::unordered_map<uint64_t, Message*, dbc_detail::IdHash> m_msgById;
};
