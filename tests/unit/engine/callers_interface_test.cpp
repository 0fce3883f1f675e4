// Expressions of the gateway's other programs that this one never uses: they must compile, and give
// what they say.
#include "email/base/Alarm.h"
#include "email/site/HostList.h"
#include "libevrep/EventArchive.h"
#include "libevrep/Reporter.h"
#include "libevrep/senddata.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <sstream>
#include <string>

namespace {

// An archive of a caller's own: nothing but the two transfers.
class TextArchive final : public CArchive {
public:
    std::size_t Write(const void* bytes, std::size_t count) override {
        text.append(static_cast<const char*>(bytes), count);
        return count;
    }
    std::size_t Read(void* bytes, std::size_t count) override {
        const std::size_t given = text.copy(static_cast<char*>(bytes), count);
        text.erase(0, given);
        return given;
    }
    std::string text;
};

template<class Record>
std::string sent(const Record& record, std::size_t size) {
    TextArchive archive;
    archive << record;
    EXPECT_EQ(archive.text.size(), size);
    const std::string bytes = archive.text;
    Record copy;
    archive >> copy;
    EXPECT_TRUE(copy == record && !archive.Failed() && archive.text.empty());
    archive >> copy; // nothing is left
    EXPECT_TRUE(archive.Failed());
    return bytes;
}

TEST(CallersInterface, AnArchiveOfTheirOwnTakesEveryRecord) {
    GW_MAIL mail;
    mail.m_lTotalMails = 0x41424344;
    mail.m_pAttachments.create().Add("zip", 7);
    EXPECT_TRUE(sent(mail, 4 + 56 + 4 + 4 + 7 + 4).starts_with("DCBA"));
    sent(GW_HTTP{1, 2, {}}, 12);
    sent(GW_FTP{1, 2, 3, {}}, 16);
    sent(Reporter::createEvent(MANAGEMENT_CONTEXT, 1, 2, EVENT_SYS_ERROR, Reason_Range, "here",
                               nullptr),
         108);
    TextArchive hostile;
    hostile.text = "\xff\xff\xff\x7f"
                   "abc";
    std::string text = "kept";
    hostile >> text;
    EXPECT_TRUE(hostile.Failed() && text == "kept");
}

TEST(CallersInterface, ThePiecesOfATransferAreTakenWithRead) {
    CTransfer transfer;
    transfer.Send(CSendHeader(), "data", 4);
    for (int round = 0; round < 2; ++round, transfer.ResetState()) {
        std::string taken(4, ' ');
        EXPECT_EQ(transfer.GetWriteData()->Read(taken.data(), 4), 4U);
        EXPECT_EQ(taken, "QEL_");
        EXPECT_EQ(transfer.Transition(), DATA);
        EXPECT_EQ(transfer.GetWriteData()->Read(taken.data(), 4), 4U);
        EXPECT_EQ(taken, "data");
    }
}

TEST(CallersInterface, Data) {
    const CLongStore number(EPROP_SIZE, -7);
    const CIntStore line(EPROP_LINE_NUMBER, 9);
    EXPECT_EQ(number.m_lValue + line.m_nValue, 2);
    EXPECT_STREQ(number.m_szValue, "-7");
    EXPECT_EQ(CStringStore(EPROP_HOST, "h").m_szValue + "!", "h!");
    EXPECT_TRUE(Reporter::lockInit);
    IPaddressList list;
    list.Add(IPaddress(1));
    EXPECT_EQ(list.Naddr, 1);
    IPaddress null = IPaddress::null;
    std::ostringstream text;
    text << null;
    EXPECT_EQ(text.str(), "0.0.0.0");
    SetAlarm(false, 0);
    std::signal(SIGALRM, alarmHandler);
    std::raise(SIGALRM);
    EXPECT_TRUE(Email::Alarm::hasExpired());
    SetAlarm(false, 0);
}

} // namespace
