// What the log lines and the records say of one conversation, recipient by recipient.
#include "email/engine/ListSender.h"
#include "support/mail.h"
#include "support/peer.h"

#include <cstring>
#include <regex>
#include <sys/syscall.h>
#include <unistd.h>

// Where a connection to port 25 goes while it is set.
static int mailPort = 0;

extern "C" int connect(int fd, const sockaddr* to, socklen_t size) {
    sockaddr_in there{};
    std::memcpy(&there, to, std::min<std::size_t>(size, sizeof there));
    if (mailPort != 0 && there.sin_family == AF_INET && there.sin_port == htons(25)) {
        there.sin_port = htons(static_cast<std::uint16_t>(mailPort));
        to = reinterpret_cast<const sockaddr*>(&there);
    }
    return static_cast<int>(::syscall(SYS_connect, fd, to, size));
}

namespace {

// One conversation: "busy" is told 450, "bad" 550, everybody else is taken.
template<typename Action>
void serve(int listener, Action inBody) {
    const UniqueFd client(::accept(listener, nullptr, nullptr));
    put(client.get(), "220 ready\r\n");
    for (std::string line; !(line = getUntil(client.get(), "\n")).empty();) {
        const bool data = line.starts_with("DATA");
        put(client.get(), line.find("<busy") != line.npos  ? "450 busy\r\n"
                          : line.find("<bad") != line.npos ? "550 no\r\n"
                          : data                           ? "354 go\r\n"
                                                           : "250 ok\r\n");
        if (data) {
            getUntil(client.get(), "\n");
            inBody();
            getUntil(client.get(), "\r\n.\r\n");
            put(client.get(), "250 taken\r\n");
        }
    }
}

// The events as "number bag", without the names that differ from run to run.
std::string events() {
    std::string text;
    for (const GW_EVENT& event : reported) {
        const auto reason = event.getManagementContext()->m_iReasonID;
        text +=
            std::to_string(event.m_EventID) + " " + std::to_string(reason) + ": " +
            std::regex_replace(bagOf(event), std::regex("12=(\\S*/q/)?(m1|rjct)\\w*"), "12=$2") +
            "\n";
    }
    return text;
}

TEST_F(Spool, LinesAndRecordsNameServerCodeAndMessageOfEachRecipient) {
    const UniqueFd listener = listenOn("127.0.0.5", mailPort);
    const auto nothing = [] {};
    std::jthread server([&] { serve(listener.get(), nothing), serve(listener.get(), nothing); });
    queue("m1", "<s@[127.0.0.5]>",
          "<bad@[127.0.0.5]>\t-1\n<busy@[127.0.0.5]>\t-1\n<one@[127.0.0.5]>"
          "\t-1\n<two@[127.0.0.5]>\t-1\n<late@[127.0.0.6]>\t-1\n");
    ListSender().Send(FileName(deferred("m1").c_str()), true, 0);
    mailPort = 0;
    for (const char* line :
         {" delivered msg=m1 from=<s@[127.0.0.5]> to=<one@[127.0.0.5]> relay=127.0.0.5 code=250 ",
          " delivered msg=m1 from=<s@[127.0.0.5]> to=<two@[127.0.0.5]> relay=127.0.0.5 code=250 ",
          " deferred msg=m1 from=<s@[127.0.0.5]> to=<busy@[127.0.0.5]> relay=127.0.0.5 code=450 ",
          " deferred msg=m1 from=<s@[127.0.0.5]> to=<late@[127.0.0.6]> relay=127.0.0.6 code=1001 ",
          " returned msg=m1 from=<s@[127.0.0.5]> to=<bad@[127.0.0.5]> relay=127.0.0.5 code=550 ",
          " from=<> to=<s@[127.0.0.5]> relay=127.0.0.5 code=250 "}) {
        EXPECT_EQ(linesWith(line), 1) << line;
    }
    EXPECT_EQ(std::regex_replace(events(), std::regex("17=\\d{3,} "), ""), // the return mail's
              "102 0: 7=127.0.0.5 12=m1 17=21 19=<s@[127.0.0.5]> "
              "20=<one@[127.0.0.5]> <two@[127.0.0.5]> \n"
              "108 0: 7=127.0.0.5 12=rjct 19=<> 20=<s@[127.0.0.5]> \n"
              "103 0: 7=127.0.0.5 12=m1 13=450 17=21 19=<s@[127.0.0.5]> 20=<busy@[127.0.0.5]> \n"
              "103 0: 7=127.0.0.5 12=m1 13=1001 17=21 19=<s@[127.0.0.5]> "
              "20=<late@[127.0.0.6]> \n"); // a record has the last server, whoever it is about
}

TEST_F(Spool, ATextThatBecomesShorterIsToldSo) {
    const UniqueFd listener = listenOn("127.0.0.5", mailPort = 0);
    queue("m1", "<s@a.test>", "<one@[127.0.0.5]>\t-1\n");
    write("m1", std::string(16 << 20, '\n')); // more than the buffers on the way hold
    const auto shrink = [&] { std::filesystem::resize_file(deferred("m1"), 5000); };
    std::jthread server([&] { serve(listener.get(), shrink); });
    ListSender().Send(FileName(deferred("m1").c_str()), true, 0);
    mailPort = 0;
    EXPECT_EQ(linesWith("<27> text-read-failed msg=m1 from=<s@a.test> error=0 (the text became"),
              1);
    EXPECT_EQ(linesWith(" to=<one@[127.0.0.5]> relay=127.0.0.5 code=1005 "), 1);
    EXPECT_EQ(linesWith(" stage=body error=0 (the text became shorter)"), 1);
}

} // namespace
