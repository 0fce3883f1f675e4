#include "retryq/Json.h"

#include "retryq/Format.h"

namespace Retryq {

void writeJson(std::ostream& out, const Json& object) {
    // ASCII alone, and what is no UTF-8 replaced: names and texts may hold any byte.
    out << object.dump(-1, ' ', true, Json::error_handler_t::replace) << '\n';
}

std::vector<Recipient> copyOf(const Recipients& recipients) {
    std::vector<Recipient> copy;
    for (const EmailAddr* r = recipients.first(); r != nullptr; r = r->next.get()) {
        copy.push_back({r->text(), r->reason});
    }
    return copy;
}

Json toJson(const Message& message, const std::vector<Recipient>& recipients, std::time_t now) {
    Json object{{"message", message.leaf},
                {"state", stateName(message.state)},
                {"held", message.held},
                {"size", message.size},
                {"age", message.age(now)}};
    if (message.hold) {
        object["hold_by"] = message.hold->by;
        object["hold_since"] = isoTimeText(message.hold->since);
    }
    if (message.state != State::Unreadable) {
        object["sender"] = message.sender;
        object["recipients"] = message.recipients;
        object["tries"] = message.tries;
        object["code"] = message.code;
        object["result"] = resultText(message.code);
        object["first_try"] = isoTimeText(message.firstTry);
        object["latest_try"] = isoTimeText(message.latestTry);
        object["next_try"] = isoTimeText(message.nextTry);
        object["given_up"] = isoTimeText(message.givenUp);
        Json list = Json::array();
        for (const Recipient& r : recipients) {
            list.push_back(
                {{"address", r.address}, {"code", r.code}, {"result", resultText(r.code)}});
        }
        object["recipient_list"] = std::move(list);
    }
    return object;
}

} // namespace Retryq
