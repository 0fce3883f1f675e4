// floor_send <spool>/ <relay address, or "-" for the exchangers of each domain>
//
// One pass over messages that are all due: opens, locks and reads the files of each, holds the
// conversation in step with the body in one write, or in large blocks, and unlinks the files. The
// texts lie in the spool in their wire form, final dot included. A refused recipient is answered
// with a return mail to the sender; a server that cannot be reached costs the rewrite of the
// recipient file.
#include "floor.h"

#include <algorithm>
#include <map>

namespace {

constexpr std::string_view kReturnHeader =
    "From: Z880_SMTP_Mail_Service\r\nDate: Mon, 01 Jan 2024 00:00:00 +0000\r\nTo: "
    "<s@bench.test>\r\n"
    "Subject:Returned Mail - Error During Delivery\r\n\r\n------ Failed Recipients ------\r\n\r\n"
    "<bad@d0.bench.test>: Requested action not taken: mailbox unavailable. [SMTP Error Code "
    "550]\r\n"
    "-------- Returned Mail --------\r\n\r\n";

struct Envelope {
    std::string sender;
    std::map<std::string, std::vector<std::string>, std::less<>> byDomain;
};

Envelope parse(std::string_view text) {
    Envelope envelope;
    for (int line = 0; !text.empty(); ++line) {
        const std::size_t end = text.find('\n');
        const std::string_view item = text.substr(0, end);
        text.remove_prefix(end + 1);
        if (line == 3) {
            envelope.sender = item;
        } else if (line > 3) {
            const std::string_view address = item.substr(0, item.find('\t'));
            const std::string_view domain = address.substr(address.find('@') + 1);
            envelope.byDomain[std::string(domain)].emplace_back(address);
        }
    }
    return envelope;
}

// Asks the name server one question; the answer as it came.
std::string ask(std::string_view name, char type) {
    static const int fd = [] {
        sockaddr_in server{};
        server.sin_family = AF_INET;
        server.sin_port = htons(53);
        server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int udp = socket(AF_INET, SOCK_DGRAM, 0);
        connect(udp, reinterpret_cast<sockaddr*>(&server), sizeof server);
        return udp;
    }();
    std::string question("\1\1\1\0\0\1\0\0\0\0\0\0", 12);
    while (!name.empty()) {
        const std::size_t dot = std::min(name.find('.'), name.size());
        question += static_cast<char>(dot);
        question += name.substr(0, dot);
        name.remove_prefix(std::min(dot + 1, name.size()));
    }
    question += '\0';
    question += '\0';
    question += type;
    question += '\0';
    question += '\1';
    send(fd, question.data(), question.size(), 0);
    char answer[512];
    const ssize_t got = recv(fd, answer, sizeof answer, 0);
    return {answer, static_cast<std::size_t>(got > 0 ? got : 0)};
}

// One exchanger question and one address question, as the domain's mail costs at the least.
std::uint32_t exchangerOf(std::string_view domain) {
    const std::string mx = ask(domain, 15);
    const std::string host = "mx" + std::string(domain.substr(1)); // of "d<n>.bench.test>"
    const std::string address = ask(std::string_view(host).substr(0, host.size() - 1), 1);
    std::uint32_t value = 0;
    if (!mx.empty() && address.size() > 4) {
        address.copy(reinterpret_cast<char*>(&value), 4, address.size() - 4);
    }
    return value;
}

enum class Outcome { Sent, Refused, Unreachable };

// Calls sendText(server) when its turn has come.
template<class SendText>
Outcome converse(std::uint32_t address, std::string_view sender,
                 const std::vector<std::string>& recipients, SendText sendText) {
    Floor::Conversation server(address);
    if (!server.open()) {
        return Outcome::Unreachable;
    }
    server.say("HELO gate.bench.test\r\n");
    server.say("mail from: " + std::string(sender) + "\r\n");
    std::size_t taken = 0;
    for (const std::string& recipient : recipients) {
        taken += server.say("RCPT TO: " + recipient + "\r\n") == 250 ? 1U : 0U;
    }
    if (taken > 0) {
        server.say("DATA\r\n");
        sendText(server);
        server.reply();
    }
    server.say("QUIT\r\n");
    return taken > 0 ? Outcome::Sent : Outcome::Refused;
}

class Pass {
public:
    explicit Pass(const char* relay) : relay_(*relay == '-' ? 0 : Floor::addressOf(relay)) {}

    void deliver(const std::string& message) {
        const std::string recipientFile = message + ".rmd";
        const int lock = open(recipientFile.c_str(), O_RDWR);
        const int file = open(message.c_str(), O_RDONLY);
        if (lock < 0 || file < 0 || flock(lock, LOCK_EX | LOCK_NB) != 0) {
            std::abort();
        }
        Floor::readAll(lock, recipients_);
        body_.read(file);
        if (deliverAll(parse(recipients_))) {
            unlink(message.c_str());
            unlink(recipientFile.c_str());
        } else {
            Floor::rewrite(recipientFile, recipients_);
        }
        close(file);
        close(lock);
    }

private:
    bool deliverAll(const Envelope& envelope) {
        bool finished = true;
        for (const auto& [domain, recipients] : envelope.byDomain) {
            const Outcome outcome = deliverTo(domain, envelope.sender, recipients);
            if (outcome == Outcome::Refused) {
                returnTo(envelope.sender);
            }
            finished = finished && outcome != Outcome::Unreachable;
        }
        return finished;
    }

    void returnTo(const std::string& sender) {
        const std::string text = std::string(kReturnHeader) + std::string(body_.start());
        converse(relay_, "<>", {sender}, [&](auto& server) { server.write(text); });
    }

    // A server that was down once is not tried again.
    Outcome deliverTo(std::string_view domain, std::string_view sender,
                      const std::vector<std::string>& recipients) {
        const bool dead = domain.starts_with("dead");
        if (dead && deadSeen_) {
            return Outcome::Unreachable;
        }
        deadSeen_ = deadSeen_ || dead;
        const std::uint32_t living = relay_ != 0 ? relay_ : exchangerOf(domain);
        return converse(dead ? Floor::addressOf("10.77.9.9") : living, sender, recipients,
                        [this](auto& server) { body_.sendTo(server); });
    }

    std::uint32_t relay_;
    bool deadSeen_ = false;
    std::string recipients_;
    Floor::Body body_;
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    Pass pass(argv[2]);
    Floor::eachMessage(argv[1], [&](const std::string& message) { pass.deliver(message); });
}
