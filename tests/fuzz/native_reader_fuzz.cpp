// Arbitrary bytes through the native reader, plain and strict. Besides what
// the sanitizers report, every range of the model must lie inside its array,
// every text must be NUL-terminated UTF-8, and diagnostics must come in line
// order; a breach aborts the run.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "dbc/network.h"

namespace {

using namespace tarn::net;

void Require(bool ok) {
    if (!ok) std::abort();
}

void CheckText(std::string_view t) {
    Require(t.data() != nullptr);
    Require(t.data()[t.size()] == '\0');
    for (size_t i = 0; i < t.size();) {
        unsigned char c = static_cast<unsigned char>(t[i]);
        size_t n = c < 0x80 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
        Require(c < 0x80 || (c >= 0xC2 && c <= 0xF4));
        Require(i + n <= t.size());
        for (size_t k = 1; k < n; ++k)
            Require((static_cast<unsigned char>(t[i + k]) & 0xC0) == 0x80);
        i += n;
    }
}

void CheckRange(Range r, size_t size) {
    Require(r.first <= size && r.count <= size - r.first);
}

void CheckModel(const Network& n) {
    CheckText(n.version);
    CheckText(n.comment);
    for (std::string_view t : n.names) CheckText(t);
    for (const Node& node : n.nodes) CheckText(node.comment);
    for (const ValueText& v : n.valueTexts) CheckText(v.text);
    for (const Diagnostic& d : n.diagnostics) CheckText(d.reason);
    for (const Message& m : n.messages) {
        CheckText(m.name);
        CheckText(m.comment);
        CheckRange(m.signals, n.signals.size());
        CheckRange(m.senders, n.names.size());
        CheckRange(m.attrs, n.attrValues.size());
        for (uint32_t i = m.signals.first; i < m.signals.end(); ++i) {
            const Signal& s = n.signals[i];
            CheckText(s.name);
            CheckText(s.unit);
            CheckText(s.comment);
            Require(s.length >= 1 && s.length <= 64);
            Require(s.switchIndex >= -1 && s.switchIndex < int32_t(m.signals.count));
            CheckRange(s.muxValues, n.muxRanges.size());
            CheckRange(s.receivers, n.names.size());
            CheckRange(s.values, n.valueTexts.size());
            CheckRange(s.attrs, n.attrValues.size());
        }
    }
    for (const AttrEntry& e : n.attrValues) {
        Require(e.def < n.attrDefs.size());
        CheckText(e.value.text);
    }
    for (size_t i = 1; i < n.diagnostics.size(); ++i)
        Require(n.diagnostics[i - 1].line <= n.diagnostics[i].line);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    for (bool strict : {false, true}) {
        Network net;
        ReadStatus s = Read(text, ReadOptions{strict, false}, net);
        if (s == ReadStatus::Ok) CheckModel(net);
        if (s == ReadStatus::Strict) Require(net.diagnostics.size() == 1);
    }
    return 0;
}
