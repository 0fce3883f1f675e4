// One pass over the deferred spool that finds what is due, for whoever hands it out. Takes no lock
// and changes nothing: what a message still needs is decided again, under its lock, by the engine.
#pragma once

#include "email/dispatch/DueWindow.h"
#include "fwall/UniqueFd.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Dispatch {

class DueReader {
public:
    // `directory` as the setting has it. Without one that can be opened there is nothing to read.
    explicit DueReader(std::string directory);

    // Goes over these messages in place of the directory's.
    void readOnly(std::vector<std::string> leaves);
    [[nodiscard]] bool onlySome() const noexcept { return only_.has_value(); }

    // Looks at the next entry.
    enum class Found { Nothing, Waiting, Due, End };
    Found next(DueMessage& message);

private:
    [[nodiscard]] bool hasText(std::string_view leaf) const;
    Found judge(DueMessage& message) const;

    [[nodiscard]] std::string nextEntry();

    std::string path_;                             // ends in "/"
    std::optional<std::vector<std::string>> only_; // the next one at the back
    UniqueDirectory directory_;
};

} // namespace Dispatch
