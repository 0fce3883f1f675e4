#include "engine_support.h"

#include "email/DeliveryJournal.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <fstream>

namespace {

class Journal : public testing::Test {
protected:
    void SetUp() override {
        list_ = spool_.deferred("m.rmd");
        writeFile(list_, "list");
    }

    // A run that was killed after it was done with these.
    void cutOff(std::initializer_list<const char*> done) const {
        Email::DeliveryJournal journal(list_);
        MailList nobody;
        journal.takeDone(nobody);
        for (const char* rcpt : done) {
            MailList one;
            one.Add(rcpt, ACTION_OKA);
            journal.note(one);
            journal.flush();
        }
    }

    // Who is left of a, b, a, c (head first) in the next run.
    std::string left() const {
        MailList list;
        for (const char* rcpt : {"<c@x.test>", "<a@x.test>", "<b@x.test>", "<a@x.test>"}) {
            list.Add(rcpt, IDS_NO_REASON);
        }
        Email::DeliveryJournal(list_).takeDone(list);
        std::array<char, EmailAddr::kTextSize> names{};
        list.AllNames(names.data());
        return names.data();
    }

    [[nodiscard]] bool exists() const { return ::access((list_ + "+").c_str(), F_OK) == 0; }

    ScratchSpool spool_;
    std::string list_;
};

constexpr const char* kEverybody = "<a@x.test> <b@x.test> <a@x.test> <c@x.test>";

TEST_F(Journal, LeavesOutOneRecordForEachEntryAndKeepsTheOrder) {
    EXPECT_EQ(left(), kEverybody);
    cutOff({"<a@x.test>", "<c@x.test>", "<stranger@x.test>"});
    EXPECT_EQ(left(), "<b@x.test> <a@x.test>");
    cutOff({"<b@x.test>"}); // cut off once more
    EXPECT_EQ(left(), "<a@x.test>");
}

TEST_F(Journal, OfAnotherListIsRemoved) {
    cutOff({"<a@x.test>"});
    writeFile(list_ + "~", "list");
    ASSERT_EQ(::rename((list_ + "~").c_str(), list_.c_str()), 0);
    EXPECT_EQ(left(), kEverybody);
    EXPECT_FALSE(exists());
    cutOff({"<b@x.test>"});
    EXPECT_EQ(left(), "<a@x.test> <a@x.test> <c@x.test>");
}

TEST_F(Journal, CountsWholeLinesOnly) {
    cutOff({"<a@x.test>"});
    std::ofstream(list_ + "+", std::ios::app) << "<b@x.test>\n<b@x.test>\tdon\n<c@x.test>\tdone";
    EXPECT_EQ(left(), "<b@x.test> <a@x.test> <c@x.test>");
    writeFile(list_ + "+", "garbage\n<a@x.test>\tdone\n");
    EXPECT_EQ(left(), kEverybody);
}

TEST_F(Journal, NothingIsWrittenWithoutNeed) {
    Email::DeliveryJournal journal(list_);
    MailList done;
    done.Add("<a@x.test>", ACTION_OKA);
    journal.note(done);
    EXPECT_FALSE(exists());
    journal.flush();
    EXPECT_TRUE(exists());
    journal.remove();
    journal.flush();
    EXPECT_FALSE(exists());
}

} // namespace
