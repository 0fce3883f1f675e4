// How Sender sends the body of a message.
#include "email/base/Alarm.h"
#include "email/base/Semaphore.h"
#include "email/file/BoundedLineReader.h"
#include "email/site/mailscanGlobals.h"
#include "email/smtp/BodyShaper.h"
#include "email/smtp/Sender.h"
#include "email/smtp/SenderParts.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <istream>
#include <utility>

using Email::milliseconds;
using Email::Stage;
using Email::store;

int GetFileSize(std::istream& stream) {
    const std::istream::pos_type here = stream.tellg();
    stream.seekg(0, std::ios::end);
    const std::streamoff size = stream.tellg();
    stream.seekg(here);
    return static_cast<int>(std::clamp<std::streamoff>(size, -1, INT32_MAX));
}

// A part of the body in its wire form. Room for one line more than goes out at a time, and for the
// end.
struct Sender::Block {
    using Shaper = Email::BodyShaper;
    static constexpr std::size_t kRoom =
        kBlockSize + Shaper::kLineLimit + Shaper::kMaxGrowth + Shaper::kTerminator.size();

    char* begin = nullptr;
    char* end = begin;

    [[nodiscard]] std::size_t size() const noexcept {
        return static_cast<std::size_t>(end - begin);
    }
};

// Sends and empties the block. A count that falls short is a failure: a body is never cut silently.
bool Sender::writeBlock(Block& block) {
    if (theSocket < 0) {
        conversation.error = Email::errorText(EBADF);
        return false;
    }
    int err = 0;
    const int length = static_cast<int>(block.size());
    const long limit = mailscanGlobals::DATA_send_interval;
    const int sent = WriteN(block.begin, length, milliseconds(limit), err);
    block.end = block.begin;
    if (err != 0) {
        conversation.error = Email::errorText(err);
    } else if (sent != length) {
        conversation.error = Email::noAnswer(ETIME, limit);
    }
    return err == 0 && sent == length;
}

bool Sender::textUnreadable(SMTPcode* code, std::string why) {
    conversation.error = std::move(why);
    logEvent(EV_TEXT_READ_FAILED, nullptr, 0);
    return giveUp(code, DATASOURCEERROR);
}

// Shapes the text into the block and sends the block whenever it is full; the last one is left to
// the caller. True at the end of the text, and when the alarm has fired.
bool Sender::sendText(std::istream& message, Block& block, SMTPcode* code) {
    using Kind = Email::BoundedLineReader::Kind;
    using Shaper = Email::BodyShaper;
    Email::BoundedLineReader reader(message, Shaper::kLineLimit, Shaper::kPieceSize);
    Shaper shaper;
    for (;;) {
        const Email::BoundedLineReader::Item item = reader.next();
        if (Email::Alarm::hasExpired()) {
            return true;
        }
        if (item.kind == Kind::End) {
            // What was added to the text meanwhile goes out; what is missing was part of the
            // message.
            return reader.consumed() >= messageSize ||
                   textUnreadable(code, Email::errorText(0, "the text became shorter"));
        }
        if (Semaphore::shuttingDown()) {
            return giveUp(code, COMMS_FAILED);
        }
        if (item.kind == Kind::Error) {
            return textUnreadable(code, Email::errorText(errno));
        }
        block.end = shaper.shape(item, block.end);
        if (block.size() >= kBlockSize && !writeBlock(block)) {
            return giveUp(code, COMMS_FAILED);
        }
    }
}

bool Sender::beginData(SMTPcode* code) {
    conversation.begin(Stage::Data);
    store(code, ACTION_OKA);
    const long limit = mailscanGlobals::DATA_initiation_interval;
    if (!sendCommand(Email::kData, nullptr, limit, code)) {
        return false;
    }
    const int number = readReply(limit, code);
    if (success(number)) {
        conversation.error = Email::errorText(0, "DATA was not answered with 354");
    }
    // What comes now would be taken for the word on a text that was not sent yet.
    if (session_.pipeline.active() && inputWaiting()) {
        conversation.error = Email::errorText(0, "a reply to no command");
        return giveUp(code, COMMS_FAILED);
    }
    return number == START_DATA;
}

// Goes to the beginning of the text, which an earlier server's turn may have left at its end.
bool Sender::rewind(std::istream& message, SMTPcode* code) {
    conversation.begin(Stage::Body);
    message.clear();
    messageSize = GetFileSize(message);
    message.clear();
    message.seekg(0);
    return message ? true : textUnreadable(code, Email::errorText(errno));
}

// The last block of the text, the dot behind it, and the server's word on both.
bool Sender::endBody(Block& block, SMTPcode* code) {
    if (CommandTimeOut()) {
        store(code, TIMEOUTEXPIRED);
        return false;
    }
    block.end = std::copy_n(Email::BodyShaper::kTerminator.data(),
                            Email::BodyShaper::kTerminator.size(), block.end);
    if (!writeBlock(block)) {
        return giveUp(code, COMMS_FAILED);
    }
    conversation.begin(Stage::Dot);
    lineSaid(Side::Us, ".\r\n");
    return success(readReply(mailscanGlobals::DATA_final_interval, code));
}

bool Sender::SendDATA(std::istream& message, const char*, SMTPcode* code) {
    if (!beginData(code) || !rewind(message, code)) {
        return false;
    }
    if (bodyRoom_ == nullptr) {
        bodyRoom_ = std::make_unique_for_overwrite<char[]>(Block::kRoom);
    }
    Block block{bodyRoom_.get()};
    if (!sendText(message, block, code) || !endBody(block, code)) {
        return false;
    }
    heldSince_.reset();
    return true;
}
