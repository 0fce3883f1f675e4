#include "email/dispatch/Worker.h"

#include "email/dispatch/DestinationName.h"
#include "email/engine/MailReSender.h"
#include "email/site/HostList.h"
#include "email/site/mailscanGlobals.h"

#include <sys/prctl.h>

#include <algorithm>
#include <cerrno>

namespace Dispatch {

namespace {

constexpr int kStoppedStatus = 1;

// For whoever looks at the processes of this host: the step, and nothing of the mail.
void showStage(std::string_view stage) {
    const std::string name = std::string("retryq:").append(stage);
    ::prctl(PR_SET_NAME, name.c_str());
}

const char* outcomeWord(Email::LogLine line) noexcept {
    switch (line) {
    case Email::LogLine::Delivered:
        return "delivered";
    case Email::LogLine::ReturnDelivered:
        return "return-delivered";
    case Email::LogLine::Deferred:
        return "deferred";
    case Email::LogLine::Returned:
        return "returned";
    default:
        return "dropped";
    }
}

// A walker whose steps are reported. While it holds a message it never waits for the dispatcher: a
// report for which there is no room is left out.
class ReportingWalker : public MailReSender {
public:
    ReportingWalker(const WorkerChannel& channel, Tells tells) : channel_(channel), tells_(tells) {}

    void logEvent(eventId event, const char* text, int value) override {
        MailReSender::logEvent(event, text, value);
        switch (event) {
        case EV_CHOOSE_SERVER:
            showStage("search");
            report(Step::Chose, 0);
            break;
        case EV_CONNECTED:
            report(Step::Connected, 0);
            break;
        case EV_CONNECT_FAILED:
            report(Step::ConnectFailed, value);
            break;
        case EV_NO_GREETING:
            report(Step::NoGreeting, greeting);
            break;
        case EV_DEFERRED:
            // It broke off, or says that it closes: perhaps we have too many conversations with it.
            if (value == COMMS_FAILED || value == kServiceCloses) {
                report(Step::Lost, value);
            }
            break;
        default:
            break;
        }
    }

    void signInFailed(const std::string& why, bool relayRefuses) override {
        MailReSender::signInFailed(why, relayRefuses);
        if (relayRefuses) {
            report(Step::NotSignedIn, 0);
        }
    }

private:
    static constexpr int kServiceCloses = 421; // RFC 5321, 3.8

    void tellOutcome(Email::LogLine line, const EmailAddr& rcpt, int code,
                     const Email::Attempt* known) override {
        MailReSender::tellOutcome(line, rcpt, code, known);
        if (tells_ == Tells::Steps) {
            return;
        }
        RecipientOutcome outcome{outcomeWord(line), rcpt.text(), {}, {}};
        IPaddress server = IPaddress::null;
        if (known != nullptr) {
            server = known->server.value_or(IPaddress::null);
            outcome.stage = stageName(known->stage);
            // Why it broke off says more than the last reply, and that more than who was passed
            // over.
            outcome.words = !known->error.empty()  ? known->error
                            : known->reply.empty() ? known->leftOut
                                                   : known->reply;
        }
        (void)channel_.send(encode(Report{Step::Outcome, server, code, outcome.text()}),
                            WorkerChannel::Wait::No);
    }

    void lineSaid(Side by, std::string_view line) override {
        showStage(by == Side::Server && conversation.stage == Email::Stage::Data
                      ? "body"
                      : stageName(conversation.stage));
        if (tells_ == Tells::Conversation) {
            line.remove_suffix(line.size() - (line.find_last_not_of("\r\n") + 1));
            (void)channel_.send(encode(Report{by == Side::Us ? Step::Said : Step::Heard,
                                              serverAddress, 0, std::string(line)}),
                                WorkerChannel::Wait::No);
        }
    }

    void report(Step step, int value) {
        const EmailAddr* const recipient = currentRecipient();
        const bool named = recipient != nullptr && (step == Step::Chose || step == Step::Lost);
        (void)channel_.send(
            encode(Report{
                step, serverAddress, value, named ? destinationOf(*recipient) : std::string(), {}}),
            WorkerChannel::Wait::No);
    }

    const WorkerChannel& channel_;
    Tells tells_;
};

void leaveAlone(const std::vector<IPaddress>& servers) {
    for (const IPaddress server : servers) {
        if (!HostList::BlackL.InList(server, true)) {
            HostList::BlackL.Add(server);
        }
    }
}

} // namespace

int work(const WorkerChannel& channel, const Task& task) {
    using Wait = WorkerChannel::Wait;
    ReportingWalker walker(channel, task.tells);
    walker.tryOnly(task.wanted);
    while (const auto record = channel.receive(Wait::Yes)) {
        const auto order = decodeOrder(*record);
        if (!order && record->empty()) {
            continue;
        }
        if (!order) {
            break; // nothing that a dispatcher says
        }
        leaveAlone(order->dead);
        FileName entry(mailscanGlobals::deferred_mail_path(), order->leaf.c_str());
        walker.tryFile(&entry);
        const Report done{Step::Done, IPaddress::null, walker.stopped(), {}, walker.counts()};
        showStage("idle");
        // The one report that is waited for: without it the message would stay in hand for ever.
        if (!channel.send(encode(done), Wait::Yes) || walker.stopped() != 0) {
            break;
        }
    }
    return walker.stopped() == 0 ? 0 : kStoppedStatus;
}

} // namespace Dispatch
