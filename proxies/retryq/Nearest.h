// The word that somebody who mistyped one may have meant.
#pragma once

#include <span>
#include <string_view>

namespace Retryq {

// The candidate that is most like the word, or an empty text when none comes near.
[[nodiscard]] std::string_view nearest(std::string_view word,
                                       std::span<const std::string_view> candidates);

} // namespace Retryq
