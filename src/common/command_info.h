// Named list of text key/value pairs through which the signal coder exchanges
// values with the rest of the library: one growing block of NUL-terminated
// strings (key, value, key, value ...), no index, no deduplication.
#pragma once

#include <cstdint>

namespace kq {

template <typename T>
class RefObj {
  public:
    RefObj() = default;
    virtual ~RefObj() = default;
    int AddRef() { return ++m_refs; }
    // Drops one reference; deletes the object when none is left.
    int Release() {
        int left = --m_refs;
        if (left <= 0) delete this;
        return left;
    }
    int RefCount() const { return m_refs; }

  private:
    int32_t m_refs = 1;
};

class NoneClonable {
  public:
    NoneClonable() = default;
    virtual ~NoneClonable() = default;
    NoneClonable(const NoneClonable&) = delete;
    NoneClonable& operator=(const NoneClonable&) = delete;
};

// Scope guard that drops one reference when it goes out of scope.
template <typename T>
class AutoUnref {
  public:
    AutoUnref(bool owned, T* obj) : m_owned(owned), m_obj(obj) {}
    ~AutoUnref() {
        if (m_owned && m_obj) m_obj->Release();
    }
    AutoUnref(const AutoUnref&) = delete;
    AutoUnref& operator=(const AutoUnref&) = delete;
    T* get() const { return m_obj; }
    T* operator->() const { return m_obj; }

  private:
    bool m_owned;
    T* m_obj;
};

class CommandInfo : public RefObj<CommandInfo>, public NoneClonable {
  public:
    using ForEachFn = void (*)(void* ctx, uint64_t index, const char* key, const char* value);
    using DoneFn = void (*)(void* ctx, CommandInfo* record);

    static CommandInfo* Create();
    CommandInfo();
    ~CommandInfo() override;

    bool Reset();
    bool SetName(const char* name);
    const char* GetName() const { return m_name; }

    bool Append(const char* key, const char* value);
    // Appends with explicit lengths (no terminators in the arguments needed).
    bool Append(const char* key, uint64_t keyLen, const char* value, uint64_t valueLen);
    bool AppendInt(const char* key, int value);
    bool AppendDouble(const char* key, double value);  // "%lf" text
    bool AppendU64(const char* key, uint64_t value);   // "%lu" text

    const char* GetValue(const char* key) const;
    int64_t GetInt(const char* key) const;
    double GetDouble(const char* key) const;
    uint64_t GetU64(const char* key) const;
    static int64_t ToInt(const char* text);
    static double ToDouble(const char* text);
    static uint64_t ToUint64(const char* text);

    void ForEach(ForEachFn fn, void* ctx) const;
    bool SetDoneFunc(DoneFn fn, void* ctx);
    bool Done();
    void Dump() const;

    uint64_t Used() const { return m_used; }
    uint64_t Capacity() const { return m_capacity; }

  private:
    bool Grow(uint64_t needed);

    char* m_block = nullptr;
    uint64_t m_used = 0;
    uint64_t m_capacity = 0;
    char m_name[32] = {};
    DoneFn m_doneFn = nullptr;
    void* m_doneCtx = nullptr;
};

}  // namespace kq
