#include "libevrep/storage.h"

#include "libevrep/CArchive.h"
#include "libevrep/utf.h"

#include <algorithm>
#include <iterator>
#include <type_traits>
#include <utility>

namespace {

constexpr std::size_t tagAndKey = 8;
constexpr std::size_t fieldSize = 4;

void writeTagAndKey(CArchive& archive, const CAbstractStorageType& value) {
    archive << static_cast<int>(value.GetType()) << static_cast<int>(value.m_nIndex);
}

PropEnum readKey(CArchive& archive) {
    int key = EPROP_NOPROPERTY;
    archive >> key;
    return static_cast<PropEnum>(key);
}

std::unique_ptr<CAbstractStorageType> makeStore(int tag) {
    switch (tag) {
    case ST_INT:
        return std::make_unique<CIntStore>();
    case ST_LONG:
        return std::make_unique<CLongStore>();
    case ST_STRING:
        return std::make_unique<CStringStore>();
    case ST_WSTRING:
        return std::make_unique<CWideStringStore>();
    default:
        return nullptr;
    }
}

template<class Value>
bool getValue(const CAbstractStorageType* store, Value& value) {
    if (store != nullptr)
        value = static_cast<Value>(*store);
    return store != nullptr;
}

} // namespace

bool CAbstractStorageType::operator==(const CAbstractStorageType& other) const {
    return GetType() == other.GetType() && m_nIndex == other.m_nIndex &&
           static_cast<std::wstring>(*this) == static_cast<std::wstring>(other);
}

template<StorageType Tag>
NumberStore<Tag>::NumberStore(PropEnum key, std::int32_t value) noexcept
    : CAbstractStorageType(key), NumberField<Tag>{value} {
    xtoa(value, m_szValue);
}

template<StorageType Tag>
std::size_t NumberStore<Tag>::GetStorageSize() const {
    return tagAndKey + GetSize();
}

template<StorageType Tag>
std::unique_ptr<CAbstractStorageType> NumberStore<Tag>::GetCopy() const {
    return std::make_unique<NumberStore>(*this);
}

template<StorageType Tag>
void NumberStore<Tag>::Write(CArchive& archive) const {
    writeTagAndKey(archive, *this);
    archive << this->number();
}

template<StorageType Tag>
void NumberStore<Tag>::Read(CArchive& archive) {
    m_nIndex = readKey(archive);
    archive >> this->number();
    xtoa(this->number(), m_szValue);
}

template<StorageType Tag>
NumberStore<Tag>::operator std::uint32_t() const {
    return static_cast<std::uint32_t>(this->number());
}

template<StorageType Tag>
NumberStore<Tag>::operator std::wstring() const {
    return ConvertToWide(m_szValue);
}

template<StorageType Tag, class Text>
TextStore<Tag, Text>::TextStore(PropEnum key, Text value)
    : CAbstractStorageType(key), m_szValue(std::move(value)) {}

template<StorageType Tag, class Text>
std::size_t TextStore<Tag, Text>::GetStorageSize() const {
    return tagAndKey + fieldSize + GetSize();
}

template<StorageType Tag, class Text>
std::unique_ptr<CAbstractStorageType> TextStore<Tag, Text>::GetCopy() const {
    return std::make_unique<TextStore>(*this);
}

template<StorageType Tag, class Text>
std::size_t TextStore<Tag, Text>::GetSize() const noexcept {
    return m_szValue.size() * sizeof(typename Text::value_type);
}

template<StorageType Tag, class Text>
void TextStore<Tag, Text>::Write(CArchive& archive) const {
    writeTagAndKey(archive, *this);
    archive << m_szValue;
}

template<StorageType Tag, class Text>
void TextStore<Tag, Text>::Read(CArchive& archive) {
    m_nIndex = readKey(archive);
    archive >> m_szValue;
}

template<StorageType Tag, class Text>
TextStore<Tag, Text>::operator std::int32_t() const {
    return atox(static_cast<std::string>(*this));
}

template<StorageType Tag, class Text>
TextStore<Tag, Text>::operator std::uint32_t() const {
    return static_cast<std::uint32_t>(static_cast<std::int32_t>(*this));
}

template<StorageType Tag, class Text>
TextStore<Tag, Text>::operator long() const {
    return static_cast<std::int32_t>(*this);
}

template<StorageType Tag, class Text>
TextStore<Tag, Text>::operator std::string() const {
    if constexpr (std::is_same_v<Text, std::string>)
        return m_szValue;
    else
        return ConvertToNarrow(m_szValue);
}

template<StorageType Tag, class Text>
TextStore<Tag, Text>::operator std::wstring() const {
    if constexpr (std::is_same_v<Text, std::wstring>)
        return m_szValue;
    else
        return ConvertToWide(m_szValue);
}

template class NumberStore<ST_INT>;
template class NumberStore<ST_LONG>;
template class TextStore<ST_STRING, std::string>;
template class TextStore<ST_WSTRING, std::wstring>;

CPropertyBag::CPropertyBag(std::string name, std::int32_t version)
    : m_szName(std::move(name)), m_nVersion(version) {}

CPropertyBag::CPropertyBag(const CPropertyBag& other)
    : m_szName(other.m_szName), m_nVersion(other.m_nVersion) {
    for (const auto& [key, value] : other.m_Elements)
        // An empty slot stays one: it counts when the bag is written.
        m_Elements.emplace_hint(m_Elements.end(), key, value ? value->GetCopy() : nullptr);
}

CPropertyBag& CPropertyBag::operator=(const CPropertyBag& other) {
    return *this = CPropertyBag(other);
}

CPropertyBag::operator std::uint32_t() const {
    return static_cast<std::uint32_t>(GetStorageSize());
}

std::size_t CPropertyBag::GetStorageSize() const {
    // The version, the name behind its length, and the count.
    std::size_t size = fieldSize + fieldSize + m_szName.size() + fieldSize;
    ForEach([&size](const CAbstractStorageType& value) { size += value.GetStorageSize(); });
    return size;
}

const CAbstractStorageType* CPropertyBag::GetElementNumber(std::uint32_t number) const noexcept {
    if (number >= m_Elements.size())
        return nullptr;
    return std::next(m_Elements.begin(), static_cast<std::ptrdiff_t>(number))->second.get();
}

const CAbstractStorageType* CPropertyBag::FindIndex(PropEnum key) const noexcept {
    const auto found = m_Elements.find(key);
    return found == m_Elements.end() ? nullptr : found->second.get();
}

bool CPropertyBag::Get(PropEnum key, std::string& value) const {
    return getValue(FindIndex(key), value);
}

bool CPropertyBag::Get(PropEnum key, std::wstring& value) const {
    return getValue(FindIndex(key), value);
}

bool CPropertyBag::Get(PropEnum key, std::int32_t& value) const {
    return getValue(FindIndex(key), value);
}

bool CPropertyBag::Get(PropEnum key, std::uint32_t& value) const {
    return getValue(FindIndex(key), value);
}

bool CPropertyBag::Get(PropEnum key, long& value) const {
    return getValue(FindIndex(key), value);
}

void CPropertyBag::Set(PropEnum key, const char* text) {
    if (text != nullptr)
        Set(key, std::make_unique<CStringStore>(key, text));
}

void CPropertyBag::Set(PropEnum key, const wchar_t* text) {
    if (text != nullptr)
        Set(key, std::make_unique<CWideStringStore>(key, text));
}

void CPropertyBag::Set(PropEnum key, std::int32_t value) {
    Set(key, std::make_unique<CIntStore>(key, value));
}

void CPropertyBag::Set(PropEnum key, std::uint32_t value) {
    // No store holds unsigned numbers; the getter turns it back.
    Set(key, static_cast<std::int32_t>(value));
}

void CPropertyBag::Set(PropEnum key, long value) {
    Set(key, std::make_unique<CLongStore>(key, static_cast<std::int32_t>(value)));
}

void CPropertyBag::Set(PropEnum key, std::unique_ptr<CAbstractStorageType> value) {
    if (value)
        value->m_nIndex = key;
    m_Elements.insert_or_assign(key, std::move(value));
}

void CPropertyBag::Write(CArchive& archive) const {
    // Empty slots are counted, though nothing is written for them: the other programs read it so.
    archive << m_nVersion << m_szName << static_cast<std::uint32_t>(Count());
    ForEach([&archive](const CAbstractStorageType& value) { value.Write(archive); });
}

void CPropertyBag::Read(CArchive& archive) {
    std::int32_t version = m_nVersion;
    std::string name = m_szName;
    archive >> version >> name;
    Elements fresh = readElements(archive);
    if (archive.Failed())
        return; // damaged bytes leave the bag as it was
    m_nVersion = version;
    m_szName = std::move(name);
    // What was read wins; merge() keeps what the target already has.
    fresh.merge(m_Elements);
    m_Elements = std::move(fresh);
}

CPropertyBag::Elements CPropertyBag::readElements(CArchive& archive) {
    Elements elements;
    std::size_t count = archive.ReadCount(fieldSize);
    for (; count > 0 && !archive.Failed(); --count) {
        int tag = ST_UNKNOWN;
        archive >> tag;
        auto value = archive.Failed() ? nullptr : makeStore(tag);
        // Of an unknown kind: how many bytes it has is not known, so none are skipped.
        if (!value)
            continue;
        value->Read(archive);
        // Of two with one key the later one stays.
        elements.insert_or_assign(value->m_nIndex, std::move(value));
    }
    return elements;
}

bool CPropertyBag::operator==(const CPropertyBag& other) const {
    const auto next = [](auto it, auto end) {
        return std::find_if(it, end, [](const auto& slot) { return slot.second != nullptr; });
    };
    if (m_szName != other.m_szName || m_nVersion != other.m_nVersion)
        return false;
    auto a = next(m_Elements.begin(), m_Elements.end());
    auto b = next(other.m_Elements.begin(), other.m_Elements.end());
    while (a != m_Elements.end() && b != other.m_Elements.end() && *a->second == *b->second) {
        a = next(++a, m_Elements.end());
        b = next(++b, other.m_Elements.end());
    }
    return a == m_Elements.end() && b == other.m_Elements.end();
}
