// A spool with its rule table, and lists of recipients as text.
#pragma once

#include "email/base/Utils.h"
#include "email/site/DomainRelay.h"
#include "email/site/mailscanGlobals.h"
#include "email/spool/MailList.h"
#include "email/telling/deliveryEvents.h"
#include "files.h"
#include "fwall/config.h"
#include "reporter.h"
#include "system_log.h"
#include "zone.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <deque>
#include <memory>
#include <sstream>

// "<a>:450 <b>:-1 ": the records of a list in their order.
inline std::string records(const MailList& list) {
    std::string text;
    for (const EmailAddr* record = list.first(); record != nullptr; record = record->next.get()) {
        text += record->text() + (':' + std::to_string(record->reason)) + ' ';
    }
    return text;
}

// The records of a rule table of these lines, each "keyword words"; they live as long as the test.
inline cfgrec* table(const std::string& lines) {
    const Scratch dir;
    std::istringstream in(lines);
    std::string text;
    for (std::string line; std::getline(in, line);) {
        text += "*:" + line + '\n';
    }
    ::setenv("TAVORIX", "", 1);
    cfg_setpfile(dir.write("table", text).c_str());
    static std::deque<std::unique_ptr<cfgrec, decltype(&cfg_free)>> kept;
    return kept.emplace_back(cfg_read("test"), &cfg_free).get();
}

// Empty spool directories, no DNS and no relays: every well-formed address fails with 1001, and one
// without "@" with 1003. Settings, log and reports are as at the start of the program.
class Spool : public testing::Test {
protected:
    Spool() {
        std::filesystem::create_directory(deferred(""));
        std::filesystem::create_directory(outgoing(""));
        mailscanGlobals::initialise(nullptr);
        mailscanGlobals::deferred_mail_path = FileName(deferred("").c_str());
        mailscanGlobals::outgoing_mail = FileName(outgoing("").c_str());
        mailscanGlobals::dnsEnable = false;
        DomainRelay::initialise(nullptr);
        DetailMode = ErrorMode = 1;
        DebugMode = 0;
        loggedLines.clear();
        reported.clear();
        setZone("UTC");
    }

    // A deferred message, last and first tried that many seconds ago.
    void queue(const std::string& leaf, const std::string& sender, const std::string& recipients,
               int last = 5000, int first = 0) const {
        write(leaf, "Subject: " + leaf + "\n\none\ntwo\n");
        write(leaf + ".rmd",
              stamp(std::max(first, last)) + stamp(last) + "1\n" + sender + "\n" + recipients);
    }
    void write(const std::string& leaf, const std::string& text) const {
        root_.write("q/" + leaf, text);
    }
    // The rule table of an install location; its first line leads to the deferred queue.
    void installTable(const std::string& lines) const {
        root_.write("table", "vorn: deferred-directory " + deferred("") + "\n" + lines);
        ::setenv("TAVORIX", root_.path("").c_str(), 1);
        cfg_setpfile("table");
    }

    std::string deferred(const std::string& leaf) const { return root_.path("q/" + leaf); }
    std::string outgoing(const std::string& leaf) const { return root_.path("o/" + leaf); }
    std::string names() const { return root_.names("q"); } // those in the deferred queue
    std::string returnMail() const { // the leaf name of a queued one, or nothing
        const std::string all = names();
        const std::size_t begin = std::min(all.find("rjct"), all.size());
        return all.substr(begin, all.find(' ', begin) - begin);
    }
    // A queued message's recipient file from the sender on.
    std::string envelope(const std::string& leaf) const {
        return contents(deferred(leaf) + ".rmd").erase(0, 24 + 24 + 2); // two stamps, the tries
    }

private:
    static std::string stamp(int ago) {
        std::array<char, DateTime::kTextSize> text{};
        return (DateTime(-1) + -ago).Get(text.data()) + std::string("\n");
    }

    Scratch root_;
};
