// One pass over the deferred spool that finds what is due, for whoever hands it out. Takes no lock
// and changes nothing: what a message still needs is decided again, under its lock, by the engine.
#pragma once

#include "email/dispatch/DueWindow.h"

#include <dirent.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace Dispatch {

class DueReader {
public:
    // `directory` as the setting has it. Without one that can be opened there is nothing to read.
    explicit DueReader(std::string directory);

    // Looks at the next entry.
    enum class Found { Nothing, Waiting, Due, End };
    Found next(DueMessage& message);

private:
    struct Close {
        void operator()(DIR* directory) const noexcept { ::closedir(directory); }
    };

    [[nodiscard]] bool hasText(std::string_view leaf) const;
    Found judge(DueMessage& message) const;

    std::string path_; // ends in "/"
    std::unique_ptr<DIR, Close> directory_;
};

} // namespace Dispatch
