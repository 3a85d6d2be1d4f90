// Parsers of the sections that attach text to the structure: CM_ comments
// and VAL_ value descriptions.
#include <cstdlib>

#include "common/log.h"
#include "dbc/dbc_impl.h"

bool DBCImpl::ParseCM() {
    try {
        Comment comment;
        IgnoreWhiteSpace();
        comment.type = m_empty;
        if (IsIdentChar(m_char)) {
            comment.type = ReadIdentifierAtom();
            if (comment.type == m_kwBO) {
                comment.id = std::strtoul(ReadIdentifier().c_str(), nullptr, 0);
            } else if (comment.type == m_kwSG) {
                comment.id = std::strtoul(ReadIdentifier().c_str(), nullptr, 0);
                comment.signal = ReadIdentifierAtom();
            } else if (comment.type == m_kwBU || comment.type == m_kwEV) {
                comment.signal = ReadIdentifierAtom();
            } else {
                LogLine("Unknown CM_");
            }
        }
        comment.text = ReadString();
        AddComment(comment);
        IgnoreLine();
    } catch (...) {
        LogLine("DBCImpl::ParseCM()");
    }
    return true;
}

bool DBCImpl::AddComment(const Comment& comment) {
    if (m_ordered) m_comments.push_back(comment);
    if (comment.type == m_kwBO) {
        Message* msg = FindMsg(comment.id);
        if (!msg) {
            LogLine("NULL!=msg", "", false);
            return false;
        }
        msg->comment = comment.text;
        return true;
    }
    if (comment.type == m_kwSG) {
        Signal* sig = FindSignal(comment.id, comment.signal);
        if (!sig) {
            LogLine("NULL!=signal", "", false);
            return false;
        }
        sig->comment = comment.text;
        return true;
    }
    return true;
}

bool DBCImpl::ParseVAL() {
    try {
        VAL val;
        IgnoreWhiteSpace();
        if (m_char >= '0' && m_char <= '9') {
            val.id = std::strtoul(ReadIdentifier().c_str(), nullptr, 0);
            val.signal = ReadIdentifierAtom();
        } else {
            val.signal = ReadIdentifierAtom();
            val.isSignal = false;
        }
        for (;;) {
            std::string word = ReadIdentifier();
            if (word.empty()) break;
            ValPair pair;
            pair.value = std::strtod(word.c_str(), nullptr);
            const char* desc = m_atoms.intern(ReadString());
            pair.desc = desc ? desc : "";
            val.pairs.push_back(std::move(pair));
        }
        AddVAL(val);
        IgnoreLine();
    } catch (...) {
        LogLine("DBCImpl::ParseVAL()");
    }
    return true;
}

bool DBCImpl::AddVAL(const VAL& val) {
    if (m_ordered) m_vals.push_back(val);
    if (!val.isSignal) return true;
    Signal* sig = FindSignal(val.id, val.signal);
    if (!sig) {
        LogLine("NULL!=signal", "", false);
        return false;
    }
    sig->valueDescs = val.pairs;
    return true;
}
