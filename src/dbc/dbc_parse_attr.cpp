// Attribute definitions, defaults and assignments (BA_DEF_, BA_DEF_DEF_, BA_).
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/log.h"
#include "common/str_utils.h"
#include "dbc/dbc_impl.h"

void AttrDesc::SetType(const std::string& word) {
    static const char* const kNames[] = {"INT", "HEX", "FLOAT", "STRING", "ENUM"};
    for (int i = 0; i < 5; ++i) {
        if (word == kNames[i]) {
            type = static_cast<AttrType>(i);
            return;
        }
    }
    KQ_LOG(kq::LOG_ERROR, "%s\n", ("Unknown type" + word.substr(0, 8000)).c_str());
    type = ATTR_INT;
}

bool DBCImpl::ParseBADef() {
    try {
        std::unique_ptr<AttrDesc> desc(new AttrDesc);
        IgnoreWhiteSpace();
        if (IsIdentChar(m_char)) {
            const char* obj = ReadIdentifierAtom();
            desc->objType = obj ? obj : "";
        }
        desc->name = m_atoms.intern(ReadString());
        const char* typeWord = ReadIdentifierAtom();
        desc->SetType(typeWord ? typeWord : "");
        switch (desc->type) {
            case ATTR_FLOAT:
                std::sscanf(ScanWindow(2), "%lf%lf", &desc->fmin, &desc->fmax);
                break;
            case ATTR_INT:
                std::sscanf(ScanWindow(2), "%d%d", &desc->imin, &desc->imax);
                break;
            case ATTR_HEX:
                std::sscanf(ScanWindow(2), "%u%u", &desc->hmin, &desc->hmax);
                break;
            case ATTR_ENUM:
                desc->enums = ReadEnum();
                break;
            default:
                break;
        }
        if (m_attrDefs.count(desc->name)) {
            LogLine("BA_DEF name error", desc->name ? desc->name : "");
            return false;
        }
        AttrDesc* kept = desc.get();
        m_attrDefs.emplace(kept->name, kept);
        desc.release();
        if (m_ordered) m_attrDefList.push_back(kept);
        IgnoreLine();
        return true;
    } catch (...) {
        LogLine("DBCImpl::ParseBADef()");
        return false;
    }
}

bool DBCImpl::ParseBADefault() {
    try {
        const char* name = m_atoms.intern(ReadString());
        auto it = m_attrDefs.find(name);
        if (it == m_attrDefs.end()) {
            LogLine("can not find BA_DEF_DEF_ attribute_name", name ? name : "");
            return false;
        }
        ReadAttrValue(it->second->type, it->second->defVal);
        IgnoreLine();
        return true;
    } catch (...) {
        LogLine("DBCImpl::ParseBADefault()");
        return false;
    }
}

// Reads the object part of a BA_ statement after the keyword.
bool DBCImpl::ParseBAObject(Attr& attr) {
    if (!std::isalpha(static_cast<unsigned char>(m_char))) {
        attr.objType = m_empty;
        return true;
    }
    attr.objType = ReadIdentifierAtom();
    if (attr.objType == m_kwBU || attr.objType == m_kwEV) {
        attr.objName = ReadIdentifierAtom();
    } else if (attr.objType == m_kwBO) {
        attr.msgId = std::strtoul(ReadIdentifier().c_str(), nullptr, 0);
    } else if (attr.objType == m_kwSG) {
        attr.msgId = std::strtoul(ReadIdentifier().c_str(), nullptr, 0);
        attr.objName = ReadIdentifierAtom();
    } else {
        LogLine("Unknown BA_");
    }
    return true;
}

bool DBCImpl::ParseBA() {
    try {
        Attr attr;
        attr.name = m_atoms.intern(ReadString());
        IgnoreWhiteSpace();
        ParseBAObject(attr);
        auto it = m_attrDefs.find(attr.name);
        if (it == m_attrDefs.end()) {
            LogLine("can not find BA_DEF_DEF_ attribute_name", attr.name ? attr.name : "");
            return false;
        }
        attr.desc = it->second;
        ReadAttrValue(attr.desc->type, attr.value);
        AddAttr(attr);
        IgnoreLine();
        return true;
    } catch (...) {
        LogLine("DBCImpl::ParseBA()");
        return false;
    }
}

bool DBCImpl::ReadAttrValue(AttrType type, AttrValue& value) {
    switch (type) {
        case ATTR_INT:
            std::sscanf(ScanWindow(1), "%d", &value.ival);
            break;
        case ATTR_HEX:
            std::sscanf(ScanWindow(1), "%u", &value.uval);
            break;
        case ATTR_FLOAT:
            std::sscanf(ScanWindow(1), "%lf", &value.fval);
            break;
        case ATTR_STRING:
            value.str = ReadString();
            break;
        case ATTR_ENUM:
            value.str = ReadString();
            if (value.str.empty())
                value.uval = static_cast<uint32_t>(std::strtoul(ScanWindow(1), nullptr, 0));
            break;
        default:
            break;
    }
    return true;
}

bool DBCImpl::AddAttr(const Attr& attr) {
    if (m_ordered) m_attrList.push_back(attr);
    if (attr.objType == m_kwBO) {
        Message* msg = FindMsg(attr.msgId);
        if (!msg) {
            std::string tail = kq::StrUtils::FormatString("Find msg failed! BO_ id=%d ",
                                                          static_cast<int>(attr.msgId));
            LogLine(tail.c_str());
            return false;
        }
        msg->attrs.push_back(attr);
        return true;
    }
    if (attr.objType == m_kwSG) {
        Signal* sig = FindSignal(attr.msgId, attr.objName);
        if (!sig) {
            LogLine("NULL!=signal", "", false);
            return false;
        }
        sig->attrs.push_back(attr);
        return true;
    }
    if (attr.objType == m_kwBU) {
        auto it = m_nodes.find(attr.objName);
        if (it != m_nodes.end()) it->second->attrs.push_back(attr);
        return true;
    }
    if (attr.name && std::strcmp(attr.name, "ProtocolType") == 0)
        m_protocol = attr.value.str == "J1939" ? 0 : 1;
    return true;
}
