// The property bag of an event: typed values under keys.
#pragma once

#include "libevrep/ReportableEvent.h"
#include "libevrep/xtoa.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

class CArchive;

// One value of a bag with its key. Conversions never fail: a number's text is its decimal form, a
// text's number is what atox() reads in it, narrow and wide text convert as IQELHeaderString does.
class CAbstractStorageType {
public:
    virtual ~CAbstractStorageType() = default;

    // Bytes that Write emits: tag, key and value.
    [[nodiscard]] virtual std::size_t GetStorageSize() const = 0;
    [[nodiscard]] virtual StorageType GetType() const noexcept = 0;
    [[nodiscard]] virtual std::unique_ptr<CAbstractStorageType> GetCopy() const = 0;
    // Bytes of the bare value, without a text's length field.
    [[nodiscard]] virtual std::size_t GetSize() const noexcept = 0;

    // Writes type tag, key and value.
    virtual void Write(CArchive& archive) const = 0;
    // Reads key and value; the bag has read the tag to know what to create.
    virtual void Read(CArchive& archive) = 0;

    virtual explicit operator std::int32_t() const = 0;
    virtual explicit operator std::uint32_t() const = 0;
    virtual explicit operator long() const = 0;
    virtual explicit operator std::string() const = 0;
    virtual explicit operator std::wstring() const = 0;

    // The same kind, key and value.
    bool operator==(const CAbstractStorageType& other) const;

    PropEnum m_nIndex = EPROP_NOPROPERTY;

protected:
    explicit CAbstractStorageType(PropEnum key) noexcept : m_nIndex(key) {}
    CAbstractStorageType(const CAbstractStorageType&) = default;
    CAbstractStorageType& operator=(const CAbstractStorageType&) = default;
};

// The number of a store, under the name by which the gateway's other programs read it.
template<StorageType Tag>
struct NumberField {
    std::int32_t m_nValue = 0;

    [[nodiscard]] std::int32_t& number() noexcept { return m_nValue; }
    [[nodiscard]] std::int32_t number() const noexcept { return m_nValue; }
};
template<>
struct NumberField<ST_LONG> {
    std::int32_t m_lValue = 0;

    [[nodiscard]] std::int32_t& number() noexcept { return m_lValue; }
    [[nodiscard]] std::int32_t number() const noexcept { return m_lValue; }
};

// A 32-bit number and its text, which is made with the store and by Read: who writes the number
// itself leaves the text as it was. The two kinds differ in the tag they carry, which readers of
// the archive tell apart, and in the number's name.
template<StorageType Tag>
class NumberStore final : public CAbstractStorageType, public NumberField<Tag> {
public:
    explicit NumberStore(PropEnum key = EPROP_NOPROPERTY, std::int32_t value = 0) noexcept;

    [[nodiscard]] std::size_t GetStorageSize() const override;
    [[nodiscard]] StorageType GetType() const noexcept override { return Tag; }
    [[nodiscard]] std::unique_ptr<CAbstractStorageType> GetCopy() const override;
    [[nodiscard]] std::size_t GetSize() const noexcept override { return sizeof(std::int32_t); }
    void Write(CArchive& archive) const override;
    void Read(CArchive& archive) override;
    explicit operator std::int32_t() const override { return this->number(); }
    explicit operator std::uint32_t() const override;
    explicit operator long() const override { return this->number(); }
    explicit operator std::string() const override { return m_szValue; }
    explicit operator std::wstring() const override;

    char m_szValue[xtoaSize]{};
};

using CIntStore = NumberStore<ST_INT>;
// Holds the low 32 bits of a long, on every host.
using CLongStore = NumberStore<ST_LONG>;

// A text, narrow or wide. It may hold any character, zero included.
template<StorageType Tag, class Text>
class TextStore final : public CAbstractStorageType {
public:
    explicit TextStore(PropEnum key = EPROP_NOPROPERTY, Text value = {});

    [[nodiscard]] std::size_t GetStorageSize() const override;
    [[nodiscard]] StorageType GetType() const noexcept override { return Tag; }
    [[nodiscard]] std::unique_ptr<CAbstractStorageType> GetCopy() const override;
    [[nodiscard]] std::size_t GetSize() const noexcept override;
    void Write(CArchive& archive) const override;
    void Read(CArchive& archive) override;
    explicit operator std::int32_t() const override;
    explicit operator std::uint32_t() const override;
    explicit operator long() const override;
    explicit operator std::string() const override;
    explicit operator std::wstring() const override;

    Text m_szValue;
};

using CStringStore = TextStore<ST_STRING, std::string>;
using CWideStringStore = TextStore<ST_WSTRING, std::wstring>;

// Values in ascending order of their keys, at most one a key; the bag owns them.
class CPropertyBag {
public:
    CPropertyBag() : CPropertyBag("Default Property Bag", 1) {}
    CPropertyBag(std::string name, std::int32_t version);
    CPropertyBag(const CPropertyBag& other); // deep
    CPropertyBag(CPropertyBag&&) noexcept = default;
    CPropertyBag& operator=(const CPropertyBag& other);
    CPropertyBag& operator=(CPropertyBag&&) noexcept = default;
    virtual ~CPropertyBag() = default;

    explicit operator const char*() const noexcept { return m_szName.c_str(); } // the name
    explicit operator std::uint32_t() const;                                    // GetStorageSize

    // Bytes that Write emits.
    [[nodiscard]] std::size_t GetStorageSize() const;
    [[nodiscard]] std::int32_t Version() const noexcept { return m_nVersion; }
    [[nodiscard]] const std::string& Identifier() const noexcept { return m_szName; }

    // Number of keys, those without a value included.
    [[nodiscard]] std::size_t Count() const noexcept { return m_Elements.size(); }
    [[nodiscard]] std::size_t GetNumberElementsToSend() const noexcept { return Count(); }

    // The value at that position in key order; null when out of range or without a value.
    [[nodiscard]] const CAbstractStorageType* GetElementNumber(std::uint32_t number) const noexcept;
    // The value under that key, or null.
    [[nodiscard]] const CAbstractStorageType* FindIndex(PropEnum key) const noexcept;

    // Calls `use` with every value in key order.
    template<class Use>
    void ForEach(Use use) const {
        for (const auto& [key, value] : m_Elements) {
            if (value)
                use(static_cast<const CAbstractStorageType&>(*value));
        }
    }

    void Remove(PropEnum key) { m_Elements.erase(key); }
    void Cleanup() noexcept { m_Elements.clear(); }

    // The converted value under that key. False when there is none; `value` is untouched then.
    [[nodiscard]] bool Get(PropEnum key, std::string& value) const;
    [[nodiscard]] bool Get(PropEnum key, std::wstring& value) const;
    [[nodiscard]] bool Get(PropEnum key, std::int32_t& value) const;
    [[nodiscard]] bool Get(PropEnum key, std::uint32_t& value) const;
    [[nodiscard]] bool Get(PropEnum key, long& value) const;

    // Each destroys the value that was under the key. A null text changes nothing. An unsigned
    // number is kept as a CIntStore of the same 32 bits, a long as a CLongStore.
    void Set(PropEnum key, const char* text);
    void Set(PropEnum key, const wchar_t* text);
    void Set(PropEnum key, std::int32_t value);
    void Set(PropEnum key, std::uint32_t value);
    void Set(PropEnum key, long value);
    // Takes a ready value under `key`. Null leaves the key without a value: it is counted, also
    // in the archive, but not written, so no reader can make sense of such a bag.
    void Set(PropEnum key, std::unique_ptr<CAbstractStorageType> value);

    void Write(CArchive& archive) const;
    // Adds what the archive holds to the bag. When the archive fails, the bag is untouched. A tag
    // without a kind creates nothing, and what follows it is not skipped: the other programs
    // read so.
    void Read(CArchive& archive);

    // Name, version and every value are the same; keys without a value do not count.
    bool operator==(const CPropertyBag& other) const;

private:
    using Elements = std::map<PropEnum, std::unique_ptr<CAbstractStorageType>>;

    [[nodiscard]] static Elements readElements(CArchive& archive);

    Elements m_Elements;
    std::string m_szName;
    std::int32_t m_nVersion;
};
