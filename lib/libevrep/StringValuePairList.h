// Counted names: attachment types or file extensions of a statistics context.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// Ordered by the bytes of the name.
struct GW_STRINGVALUEPAIR {
    std::string m_szName;
    std::int32_t m_lCount = 0;

    bool operator<(const GW_STRINGVALUEPAIR& other) const noexcept {
        return m_szName < other.m_szName;
    }
    bool operator==(const GW_STRINGVALUEPAIR&) const = default;
};

// A list that owns its pairs, in the order in which they were added or last sorted.
class StringValuePairList {
public:
    using Pair = std::unique_ptr<GW_STRINGVALUEPAIR>;

    StringValuePairList() = default;
    StringValuePairList(const StringValuePairList& other);
    StringValuePairList(StringValuePairList&&) noexcept = default;
    StringValuePairList& operator=(const StringValuePairList& other);
    StringValuePairList& operator=(StringValuePairList&&) noexcept = default;
    ~StringValuePairList() = default;

    void Add(std::string name, std::int32_t count);

    // Pairs of the same name keep their order.
    void SortAscending();
    void SortDescending();

    // True when the first belongs before the second.
    [[nodiscard]] static bool CompareCase(const Pair& first, const Pair& second) noexcept;
    [[nodiscard]] static bool CompareCaseDescend(const Pair& first, const Pair& second) noexcept;

    [[nodiscard]] std::size_t size() const noexcept { return m_Pairs.size(); }
    [[nodiscard]] auto begin() const noexcept { return m_Pairs.begin(); }
    [[nodiscard]] auto end() const noexcept { return m_Pairs.end(); }

    // The same pairs in the same order.
    bool operator==(const StringValuePairList& other) const;

private:
    std::vector<Pair> m_Pairs; // none is null
};
