// Makes the text of a recipient file say that its message is due.
#pragma once

#include "email/base/Utils.h"

#include <string>
#include <string_view>

namespace Retryq {

// The recipient file's text with its second line, the time of the latest try, replaced and every
// other byte as it was: first try, count, sender and results stay. The time written is `due`, or
// two seconds earlier where a reader in this zone would take it for the beginning of 1970, which
// makes a file unusable. Empty when the first two lines are not whole lines.
[[nodiscard]] std::string withLatestTry(std::string_view text, const DateTime& due);

} // namespace Retryq
