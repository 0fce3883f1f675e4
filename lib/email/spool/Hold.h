// A message on hold: no walker attempts it until somebody releases it.
//
// Its recipient file L.rmd stands under another name, L.rmd.hold-UID-TIME, which tells who put it
// on hold, and when (seconds since the epoch). What makes L a message to a walker is a file L.rmd,
// and the other name is no recipient file of anything: so every walker passes it over, also
// one of an older version. Hold and release are one rename each of the file that carries the lock:
// a crash leaves one name or the other.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Email {

struct Hold {
    std::string message; // leaf name of the text
    uid_t by = 0;
    std::int64_t since = 0; // seconds since the epoch

    // The leaf name that its recipient file has.
    [[nodiscard]] std::string listName() const;

    // What the leaf name of a directory entry tells; nothing for any other name.
    [[nodiscard]] static std::optional<Hold> of(std::string_view name);

    // Puts the message on hold, or releases it, in that directory (a path that ends in "/"), and
    // syncs the directory. The caller holds the message's lock. 0, or an errno number, and then the
    // name is as before: EEXIST when the message has a recipient file of its own again, which
    // stays; EINVAL for a message that is not put on hold because its name ends in ".rmd~", for
    // a walker would take its text for the left-over of a killed run.
    [[nodiscard]] int put(const std::string& directory) const;
    [[nodiscard]] int release(const std::string& directory) const;
};

} // namespace Email
