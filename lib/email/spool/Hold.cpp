#include "email/spool/Hold.h"

#include "email/file/FileReplacement.h"
#include "email/spool/QueuedMessage.h"

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>

namespace Email {

namespace {

constexpr std::string_view kMark = ".hold-";

std::string ownList(const std::string& message) {
    return std::string(message).append(QueuedMessage::listEnding(QueuedMessage::Queue::Deferred));
}

template<typename Number>
bool takeNumber(std::string_view& text, Number& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return error == std::errc();
}

int rename(const std::string& directory, const std::string& from, const std::string& to) {
    const std::string source = directory + from;
    const std::string target = directory + to;
    // rename() would replace it without a word.
    if (::access(target.c_str(), F_OK) == 0) {
        return EEXIST;
    }
    if (errno != ENOENT || std::rename(source.c_str(), target.c_str()) != 0) {
        return errno;
    }
    // A hold that a power cut undid would let out what must not go.
    if (syncDirectory(target)) {
        return 0;
    }
    // Whoever asked is told that it failed: so it must not have happened.
    const int error = errno;
    static_cast<void>(std::rename(target.c_str(), source.c_str()));
    return error;
}

// To a walker "m.rmd~" is what a killed run left beside "m.rmd", unless it has a recipient file of
// its own.
bool looksLeftOver(const std::string& message) {
    return message.ends_with(ownList("") + kTemporaryEnding);
}

} // namespace

std::string Hold::listName() const {
    return ownList(message).append(kMark) + std::to_string(by) + '-' + std::to_string(since);
}

std::optional<Hold> Hold::of(std::string_view name) {
    // The last one: the message's own name may hold another.
    const std::size_t mark = name.rfind(kMark);
    if (mark == std::string_view::npos) {
        return std::nullopt;
    }
    Hold hold;
    hold.message = QueuedMessage::messageOf(QueuedMessage::Queue::Deferred, name.substr(0, mark));
    std::string_view rest = name.substr(mark + kMark.size());
    const bool whole = takeNumber(rest, hold.by) && rest.starts_with('-');
    rest.remove_prefix(whole ? 1 : 0);
    const bool known = whole && takeNumber(rest, hold.since) && rest.empty();
    return known && !hold.message.empty() ? std::optional(std::move(hold)) : std::nullopt;
}

int Hold::put(const std::string& directory) const {
    return looksLeftOver(message) ? EINVAL : rename(directory, ownList(message), listName());
}

int Hold::release(const std::string& directory) const {
    return rename(directory, listName(), ownList(message));
}

} // namespace Email
