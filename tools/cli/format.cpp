#include "format.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "database.h"

namespace tarncli {
namespace {

// Length of the valid UTF-8 sequence at s[i], or 0.
size_t utf8Length(const std::string& s, size_t i) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    size_t n = c >= 0xF0 && c <= 0xF4 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 && c < 0xE0 ? 2 : 0;
    if (n == 0 || i + n > s.size()) return 0;
    for (size_t k = 1; k < n; ++k)
        if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return 0;
    return n;
}

void appendEscaped(std::string& out, unsigned code) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "\\u%04x", code);
    out += buf;
}

bool isPlainInteger(const DBCSignal& sig) {
    return sig.valueType == TARN_VALUE_INTEGER && sig.factor == 1.0 && sig.offset == 0.0;
}

void appendSignalText(std::string& out, const DBCSignal& sig) {
    bool isNumber = true;
    out += fixedText(sig.name);
    out += '=';
    out += signalValueText(sig, isNumber);
    std::string unit = fixedText(sig.unit);
    if (!unit.empty()) out += " " + unit;
    std::string desc = fixedText(sig.valueDescription);
    if (!desc.empty()) {
        out += " \"";
        out += desc;
        out += '"';
    }
}

void appendSignalJson(std::string& out, const DBCSignal& sig) {
    bool isNumber = true;
    std::string value = signalValueText(sig, isNumber);
    appendJsonString(out, fixedText(sig.name));
    out += ":{\"value\":";
    out += isNumber ? value : "null";
    out += ",\"raw\":" + std::to_string(maskedRaw(sig));
    std::string unit = fixedText(sig.unit);
    if (!unit.empty()) {
        out += ",\"unit\":";
        appendJsonString(out, unit);
    }
    std::string desc = fixedText(sig.valueDescription);
    if (!desc.empty()) {
        out += ",\"text\":";
        appendJsonString(out, desc);
    }
    out += '}';
}

// A time stamp that JSON can carry as a number: digits, an optional fraction,
// no leading zeros ("000.123" from relative time stamps stays a string).
bool isNumberText(const std::string& s) {
    size_t dot = s.find('.');
    std::string whole = s.substr(0, dot);
    std::string frac = dot == std::string::npos ? "1" : s.substr(dot + 1);
    auto digits = [](const std::string& t) {
        return !t.empty() && t.find_first_not_of("0123456789") == std::string::npos;
    };
    return digits(whole) && digits(frac) && (whole.size() == 1 || whole[0] != '0');
}

}  // namespace

void appendJsonString(std::string& out, const std::string& s) {
    out += '"';
    for (size_t i = 0; i < s.size();) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c == 0x7F) {
            appendEscaped(out, c);
        } else if (c >= 0x80) {
            size_t n = utf8Length(s, i);
            if (n == 0) {
                appendEscaped(out, c);
                ++i;
                continue;
            }
            out.append(s, i, n);
            i += n;
            continue;
        } else {
            out += static_cast<char>(c);
        }
        ++i;
    }
    out += '"';
}

uint64_t maskedRaw(const DBCSignal& sig) {
    if (sig.valueType == TARN_VALUE_FLOAT) return sig.rawValue & 0xFFFFFFFFull;
    if (sig.valueType != TARN_VALUE_INTEGER || sig.length >= 64) return sig.rawValue;
    return sig.rawValue & ((1ull << sig.length) - 1);
}

std::string signalValueText(const DBCSignal& sig, bool& isNumber) {
    isNumber = true;
    if (isPlainInteger(sig)) {
        uint64_t raw = maskedRaw(sig);
        bool negative = sig.isSigned && sig.length > 0 && sig.length <= 64 &&
                        ((raw >> (sig.length - 1)) & 1) != 0;
        if (!negative) return std::to_string(raw);
        uint64_t magnitude = sig.length >= 64 ? ~raw + 1 : ((1ull << sig.length) - raw);
        return "-" + std::to_string(magnitude);
    }
    uint64_t raw = sig.rawValue;
    double v = TARN_CalcActualValue(&sig, &raw);
    if (std::isnan(v) || std::isinf(v)) {
        isNumber = false;
        return std::isnan(v) ? "nan" : (v > 0 ? "inf" : "-inf");
    }
    char buf[40];
    std::snprintf(buf, sizeof buf, "%.15g", v == 0.0 ? 0.0 : v);
    return buf;
}

std::string hexId(uint32_t id, bool extended) {
    char buf[16];
    std::snprintf(buf, sizeof buf, extended ? "%08X" : "%03X", id);
    return buf;
}

std::string formatText(const DBCMessage& msg, const Origin& origin) {
    std::string out;
    if (!origin.time->empty()) out += *origin.time + " ";
    out += *origin.iface + " " + hexId(msg.id, msg.extended != 0) + " " + fixedText(msg.name);
    if (origin.transfer) out += " [transfer " + std::to_string(origin.transferSize) + " bytes]";
    for (uint32_t i = 0; i < msg.signalCount && i < TARN_MAX_SIGNALS; ++i) {
        out += "  ";
        appendSignalText(out, msg.signals[i]);
    }
    out += '\n';
    return out;
}

std::string formatJson(const DBCMessage& msg, const Origin& origin) {
    std::string out = "{\"t\":";
    if (isNumberText(*origin.time))
        out += *origin.time;
    else if (origin.time->empty())
        out += "null";
    else
        appendJsonString(out, *origin.time);
    out += ",\"iface\":";
    appendJsonString(out, *origin.iface);
    out += ",\"id\":" + std::to_string(msg.id);
    out += msg.extended ? ",\"extended\":true" : ",\"extended\":false";
    out += ",\"name\":";
    appendJsonString(out, fixedText(msg.name));
    if (origin.transfer) out += ",\"transfer\":" + std::to_string(origin.transferSize);
    out += ",\"signals\":{";
    for (uint32_t i = 0; i < msg.signalCount && i < TARN_MAX_SIGNALS; ++i) {
        if (i) out += ',';
        appendSignalJson(out, msg.signals[i]);
    }
    out += "}}\n";
    return out;
}

std::string formatLogLine(const std::string& time, const std::string& iface, uint32_t id,
                          bool extended, const uint8_t* data, size_t len, bool fd) {
    std::string out = "(" + time + ") " + iface + " " + hexId(id, extended) + (fd ? "##0" : "#");
    static const char kHex[] = "0123456789ABCDEF";
    for (size_t i = 0; i < len; ++i) {
        out += kHex[data[i] >> 4];
        out += kHex[data[i] & 0xF];
    }
    out += '\n';
    return out;
}

}  // namespace tarncli
