// A message that exists only in memory gets its text file in the deferred queue.
#pragma once

#include "email/file/FileName.h"

#include <iosfwd>
#include <string>

namespace Email {

inline constexpr int kNameDraws = 100; // attempts to find a free name

// A name for a return mail, "rjctfileXXXXXX", that no message in the deferred queue has.
[[nodiscard]] std::string newReturnName();

// Writes the whole stream, from its beginning, to the new file and syncs it. False with errno: the
// file exists already (EEXIST, and is untouched), or could not be written (and is removed again).
[[nodiscard]] bool storeText(std::istream& text, const FileName& file);

} // namespace Email
