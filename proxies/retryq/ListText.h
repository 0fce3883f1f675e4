// Changes to the text of a recipient file that leave every byte alone that they are not about.
#pragma once

#include "email/base/Utils.h"

#include <string>
#include <string_view>
#include <vector>

namespace Retryq {

// The recipient file's text with its second line, the time of the latest try, replaced and every
// other byte as it was: first try, count, sender and results stay. The time written is `due`, or
// two seconds earlier where a reader in this zone would take it for the beginning of 1970, which
// makes a file unusable. Empty when the first two lines are not whole lines.
[[nodiscard]] std::string withLatestTry(std::string_view text, const DateTime& due);

// The text without the lines of the recipients that are this address (matches() in Filter.h), which
// go into `gone`. Empty when the four lines before them are not whole, or a line is so long that a
// reader would take it for several.
[[nodiscard]] std::string withoutRecipient(std::string_view text, std::string_view address,
                                           std::vector<std::string>& gone);

} // namespace Retryq
