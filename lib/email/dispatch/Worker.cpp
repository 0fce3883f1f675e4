#include "email/dispatch/Worker.h"

#include "email/dispatch/DestinationName.h"
#include "email/engine/MailReSender.h"
#include "email/site/HostList.h"
#include "email/site/mailscanGlobals.h"

#include <algorithm>
#include <cerrno>

namespace Dispatch {

namespace {

constexpr int kStoppedStatus = 1;

// A walker whose steps are reported. While it holds a message it never waits for the dispatcher: a
// report for which there is no room is left out.
class ReportingWalker : public MailReSender {
public:
    explicit ReportingWalker(const WorkerChannel& channel) : channel_(channel) {}

    void logEvent(eventId event, const char* text, int value) override {
        MailReSender::logEvent(event, text, value);
        switch (event) {
        case EV_CHOOSE_SERVER:
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
            if (value == COMMS_FAILED || value == kServiceCloses) {
                report(Step::Lost, value);
            }
            break;
        default:
            break;
        }
    }

private:
    static constexpr int kServiceCloses = 421; // RFC 5321, 3.8

    void report(Step step, int value) {
        const EmailAddr* const recipient = currentRecipient();
        const bool named = recipient != nullptr && (step == Step::Chose || step == Step::Lost);
        (void)channel_.send(
            encode(Report{
                step, serverAddress, value, named ? destinationOf(*recipient) : std::string(), {}}),
            WorkerChannel::Wait::No);
    }

    const WorkerChannel& channel_;
};

void leaveAlone(const std::vector<IPaddress>& servers) {
    for (const IPaddress server : servers) {
        if (!HostList::BlackL.InList(server, true)) {
            HostList::BlackL.Add(server);
        }
    }
}

} // namespace

int work(const WorkerChannel& channel) {
    using Wait = WorkerChannel::Wait;
    ReportingWalker walker(channel);
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
        if (!channel.send(encode(done), Wait::Yes) || walker.stopped() != 0) {
            break;
        }
    }
    return walker.stopped() == 0 ? 0 : kStoppedStatus;
}

} // namespace Dispatch
