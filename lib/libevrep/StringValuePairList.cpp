#include "libevrep/StringValuePairList.h"

#include <algorithm>
#include <utility>

StringValuePairList::StringValuePairList(const StringValuePairList& other) {
    m_Pairs.reserve(other.size());
    for (const Pair& pair : other)
        m_Pairs.push_back(std::make_unique<GW_STRINGVALUEPAIR>(*pair));
}

StringValuePairList& StringValuePairList::operator=(const StringValuePairList& other) {
    return *this = StringValuePairList(other);
}

void StringValuePairList::Add(std::string name, std::int32_t count) {
    m_Pairs.push_back(
        std::make_unique<GW_STRINGVALUEPAIR>(GW_STRINGVALUEPAIR{std::move(name), count}));
}

void StringValuePairList::SortAscending() {
    std::stable_sort(m_Pairs.begin(), m_Pairs.end(), CompareCase);
}

void StringValuePairList::SortDescending() {
    std::stable_sort(m_Pairs.begin(), m_Pairs.end(), CompareCaseDescend);
}

bool StringValuePairList::CompareCase(const Pair& first, const Pair& second) noexcept {
    return *first < *second;
}

bool StringValuePairList::CompareCaseDescend(const Pair& first, const Pair& second) noexcept {
    return *second < *first;
}

bool StringValuePairList::operator==(const StringValuePairList& other) const {
    return std::equal(begin(), end(), other.begin(), other.end(),
                      [](const Pair& a, const Pair& b) { return *a == *b; });
}
