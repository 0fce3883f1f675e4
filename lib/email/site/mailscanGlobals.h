// Every setting of the mail side, read once from the rule table and read directly everywhere.
#pragma once

#include "email/file/FileName.h"

#include <cstdint>

struct cfgrec;

class mailscanGlobals {
public:
    // Reads every key in a fixed order; an absent key leaves the built-in value. A key with a wrong
    // number of words ends the run through assert_failure(). Text settings point into the records
    // of `cfg`, which must outlive the run; null stands for a table without lines.
    static void initialise(cfgrec* cfg);

    static std::int32_t directSendSizeLimit;      // 0: fresh mail is sent at once
    static std::int32_t directSendRecipientLimit; // recipients
    static std::int32_t DATA_initiation_interval; // seconds, reply to DATA
    static std::int32_t DATA_send_interval;       // seconds, each write of the body
    static std::int32_t DATA_final_interval;      // seconds, reply after the final dot
    static std::int32_t RCPT_command_interval;    // seconds, reply to RCPT
    static std::int32_t MAIL_command_interval;    // seconds, reply to HELO, MAIL, RSET and QUIT
    static std::int32_t initial_220_interval;     // seconds, greeting after connecting
    static std::int32_t retry_max_interval;       // seconds from the first try until given up
    static std::int32_t retry_min_interval;       // seconds between two tries
    static std::int32_t max_addr_per_host;        // addresses taken of one host name
    static std::int32_t max_addr_to_try;          // addresses tried for one destination
    static std::int32_t max_returned_line_count;  // lines quoted in a return mail
    static bool mailLogEnable;                    // log delivered, deferred and returned mail
    static bool dnsEnable;                        // look for servers in DNS
    static bool TransportLogging;                 // read, consulted nowhere
    static std::int32_t mailSendPort;             // TCP port of direct sends; 25 switches them off
    static std::int32_t mailReadPort;             // TCP port that the local proxy listens on
    static const char** direct_send_internal_domain; // null-ended list, or null
    static const char* tolvaneAdmin;                 // "From:" of return mail, may be empty
    static FileName deferred_mail_path;              // directory name, ends in "/"
    static FileName outgoing_mail;                   // directory name, ends in "/"
    static const char* defaultDomain;                // appended to addresses without a dot
    static const char* CONFIGURATION_mailscan_version;
    static const char* allow_nonrfc_domain; // "yes..." accepts any domain grammar
};

// The readers behind initialise(). A null list means that the key is absent.
long intParam(const char* key, cfgrec* cfg, long dflt);
bool boolParam(const char* key, cfgrec* cfg, bool dflt);
void charParam(const char*& value, const char* key, cfgrec* cfg, const char* dflt);
// Releases the array (not the texts) that `list` holds and builds a new one, or null.
void charsParam(const char**& list, const char* key, cfgrec* cfg);
FileName fileParam(const char* key, cfgrec* cfg, const char* dflt);
