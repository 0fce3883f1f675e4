#include "email/engine/MailReSender.h"

#include "email/file/FdStream.h"
#include "email/file/FileIterator.h"
#include "email/site/mailscanGlobals.h"
#include "email/spool/MessageLock.h"
#include "email/telling/DeliveryLog.h"

#include <sys/stat.h>
#include <syslog.h>

#include <array>
#include <cerrno>
#include <new>
#include <string_view>

using Email::QueuedMessage;

namespace {

constexpr unsigned kPathLimit = 200; // characters of a message's path, with the terminator

bool isEntry(const FileName& file) noexcept {
    struct stat status {};
    return ::lstat(file(), &status) == 0;
}

} // namespace

void MailReSender::RetryAll(int traceLevel) {
    walkTrace_ = traceLevel;
    // Connected now: when descriptors run out, that has to be told, too.
    ::openlog(nullptr, LOG_NDELAY, LOG_USER);
    FileIterator spool(mailscanGlobals::deferred_mail_path());
    // A trouble of the whole host would meet all the messages behind as well.
    while (stopped() == 0) {
        const auto entry = spool.Next();
        if (!entry) {
            break;
        }
        if (walkTrace_ != 0) {
            tryFile(entry.get()); // each of them has its lines
        } else {
            tryEntry(*entry);
        }
    }
    if (spool.error() != 0) {
        Email::writeLine(Email::LogLine::SpoolUnreadable,
                         {.error = spool.error(), .args = {mailscanGlobals::deferred_mail_path()}});
    }
}

// Every second entry is the list of another one and no message: it is passed over without asking
// for a list of its own. Should a message be called so, its list is an entry, too.
void MailReSender::tryEntry(FileName& entry) {
    const std::string_view ending = QueuedMessage::listEnding(QueuedMessage::Queue::Deferred);
    std::string_view path = entry();
    if (!path.ends_with(ending)) {
        return tryFile(&entry);
    }
    path.remove_suffix(ending.size());
    FileName message(std::string(path).c_str());
    if (path.ends_with(ending) && isEntry(message)) {
        tryFile(&message);
    }
}

void MailReSender::tryFile(FileName* entry) {
    std::array<char, kPathLimit> path{};
    if (!entry->Pathname(path.data(), path.size())) {
        if (walkTrace_ != 0) {
            Email::writeLine(Email::LogLine::TracePathTooLong, {});
        }
        return;
    }
    // A recipient file falls out here by itself: nothing is called L.rmd.rmd.
    std::string lockFile = path.data();
    lockFile += QueuedMessage::listEnding(QueuedMessage::Queue::Deferred);
    try {
        deliverLocked(*entry, lockFile);
    } catch (const std::bad_alloc&) {
        passOver(*entry);
    }
}

// Its list is as it was, or as it was written in the middle of the attempt; a later run may have
// more memory.
void MailReSender::passOver(const FileName& entry) {
    listLock_ = nullptr;
    CloseTransport();
    recipients_.Reset();
    Email::writeLine(Email::LogLine::OutOfMemory, {.message = entry()});
    clear();
}

void MailReSender::deliverLocked(const FileName& entry, const std::string& lockFile) {
    traceFile(Email::LogLine::TraceAttempting, lockFile);
    const Email::MessageLock lock(lockFile);
    countEntry(lock);
    if (lock.state() == Email::MessageLock::State::NotOpened && walkTrace_ != 0) {
        Email::writeLine(Email::LogLine::TraceUnableToOpen,
                         {.args = {lockFile, std::to_string(lock.error())}});
    }
    if (Email::isShortage(lock.error())) {
        stop(entry(), lock.error());
    }
    if (lock.state() != Email::MessageLock::State::Held) {
        return;
    }
    traceFile(Email::LogLine::TraceLocked, lockFile);
    // Read through the descriptor that is locked: by its name it might be another file.
    listLock_ = &lock;
    Send(entry);
    listLock_ = nullptr;
    traceFile(Email::LogLine::TraceFinished, lockFile);
}

// What has no recipient file is no message.
void MailReSender::countEntry(const Email::MessageLock& lock) noexcept {
    using State = Email::MessageLock::State;
    counts_.entries += lock.state() == State::NotOpened && lock.error() == ENOENT ? 0 : 1;
    counts_.held += lock.state() == State::Busy ? 1 : 0;
}

bool MailReSender::Send(const FileName& entry) {
    return ListSender::Send(entry, true, walkTrace_);
}

void MailReSender::traceFile(Email::LogLine line, const std::string& file) const {
    if (walkTrace_ != 0) {
        Email::writeLine(line, {.args = {file}});
    }
}
