// The native DBC reader's internal state, shared by its section parsers
// (reader_*.cpp). Not part of any public interface: callers use Read and
// ReadFile from network.h.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "dbc/hash_index.h"
#include "dbc/network.h"
#include "dbc/reader_scan.h"

namespace tarn::net {

// Texts that are not set point here rather than nowhere, so that every text
// of the model is a NUL-terminated string the C interface can hand out.
inline constexpr std::string_view kNoText{"", 0};

// switchIndex of a plain "mN" signal until its message is complete.
inline constexpr int32_t kSwitchPending = -2;

enum class Section : uint8_t {
    None,  // the line does not start with a section keyword
    Version,
    Ns,
    Bs,
    Bu,
    Bo,
    Sg,
    SigValType,
    BoTxBu,
    Cm,
    ValTable,
    Val,
    BaDef,
    BaDefDef,
    Ba,
    SgMulVal,
    Unmodelled,  // valid DBC the model has no place for; skipped silently
};

// Which kind of object a BA_ or CM_ line addresses.
enum class ObjectKind : uint8_t { Network, Node, Message, Signal, EnvVar };

// Utf8 and Windows-1252 handling (reader_text.cpp).
bool IsUtf8(std::string_view text);
std::string Cp1252ToUtf8(std::string_view text);

class Reader {
  public:
    Reader(const ReadOptions& options, Network& out) : m_options(options), m_net(out) {}
    ReadStatus Run(std::string_view text);

  private:
    // One BA_ value, grouped by its object once the whole file is read.
    struct PendingAttr {
        ObjectKind kind;
        uint32_t object;
        uint32_t line;
        AttrEntry entry;
    };
    // One BO_TX_BU_ sender, appended to its message's senders at the end.
    struct PendingSender {
        uint32_t message;
        std::string_view name;
    };

    // reader.cpp: the statement loop and the final assembly.
    const char* Statement(const char* p);
    const char* StatementEnd(const char* from, uint32_t& newlines, bool& unterminated);
    const char* QuoteEnd(const char* open, uint32_t& newlines);
    bool StartsSection(const char* lineStart) const;
    const char* SkipNamespaceList(const char* from);
    const char* NodeListEnd(const char* eol);
    void ReserveForText();
    void Parse(Section section, Cursor& c);
    void Finish();
    void ResolveMessageMux(uint32_t message);
    void AppendSenders();
    void GroupAttributes();
    void JoinNetworkComments();
    void Trim();

    // Diagnostics: `Fail` records one for the current line and returns false.
    bool Fail(std::string_view reason);
    void Report(uint32_t line, std::string_view section, std::string_view reason);
    std::string_view Text(const QuotedText& q);
    std::string_view Intern(std::string_view name);

    // Object lookups while reading.
    int64_t MessageByRawId(uint64_t rawId) const;
    int64_t SignalIn(uint32_t message, std::string_view name) const;
    int64_t NodeByName(std::string_view name) const;
    int64_t AttrDefByName(std::string_view name) const;
    bool FindMessageOf(Cursor& c, uint32_t& message);
    bool FindSignalOf(Cursor& c, uint32_t& message, uint32_t& signal);

    // reader_messages.cpp
    void ParseVersion(Cursor& c);
    void ParseNodes(Cursor& c);
    void ParseMessage(Cursor& c);
    void ParseSignal(Cursor& c);
    bool ParseSignalBody(Cursor& c, Signal& s);
    bool ParseMuxIndicator(Cursor& c, Signal& s);
    bool ParseReceivers(Cursor& c, Signal& s);
    bool CheckSignalFits(const Signal& s);
    void ParseValueType(Cursor& c);
    void ParseTxSenders(Cursor& c);
    void ParseMuxValues(Cursor& c);

    // reader_texts.cpp
    void ParseComment(Cursor& c);
    void ParseValues(Cursor& c);
    void ParseValueTable(Cursor& c);
    bool ReadValuePairs(Cursor& c, Range& out);

    // reader_attrs.cpp
    void ParseAttrDef(Cursor& c);
    bool ParseEnumValues(Cursor& c, AttrDef& d);
    int64_t EnumIndex(uint32_t def, std::string_view text) const;
    void ParseAttrDefault(Cursor& c);
    void ParseAttr(Cursor& c);
    bool ParseAttrObject(Cursor& c, ObjectKind& kind, uint32_t& object);
    bool ParseAttrValue(Cursor& c, uint32_t def, AttrValue& out);

    const ReadOptions& m_options;
    Network& m_net;
    const char* m_begin = nullptr;
    const char* m_end = nullptr;
    const char* m_noQuoteAfter = nullptr;  // no closing quote exists past here
    uint32_t m_line = 1;
    std::string_view m_section;  // keyword of the statement being read
    bool m_stop = false;         // strict mode hit a diagnostic
    bool m_sawSection = false;

    // The message whose SG_ lines may follow, or -1; `m_skipMessage` marks
    // a BO_ line that was not loaded, whose signals are lost with it.
    int64_t m_openMessage = -1;
    bool m_skipMessage = false;

    HashIndex m_nodeByName;
    HashIndex m_tableByName;
    HashIndex m_enumByText;  // keyed by (definition, text), values index names
    static constexpr size_t kInternCache = 64;
    HashIndex m_internIndex;
    std::vector<std::string_view> m_interned;
    std::string_view m_internCache[kInternCache];
    std::vector<uint32_t> m_muxMessages;  // messages with a plain "mN" signal
    std::vector<uint8_t> m_muxPending;    // per signal: plain "mN" not yet tied to a switch
    std::vector<uint8_t> m_muxExtended;   // per signal: set by SG_MUL_VAL_
    std::vector<PendingAttr> m_attrs;
    std::vector<PendingSender> m_senders;
    std::vector<std::string_view> m_netComments;
    std::string m_scratch;
};

}  // namespace tarn::net
