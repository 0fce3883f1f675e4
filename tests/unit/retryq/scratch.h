// An install location with a rule table and a spool, gone with the object.
#pragma once

#include <string>
#include <string_view>

class Scratch {
public:
    Scratch();
    ~Scratch();
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    // Writes the rule table; "vorn: deferred-directory" leads to the spool.
    void table(std::string_view lines) const;

    // A message, first and last tried that many seconds ago; recipients are whole lines.
    void queue(const std::string& leaf, int first, int last, std::string_view recipients) const;

    void write(const std::string& path, std::string_view bytes) const;
    [[nodiscard]] std::string read(const std::string& leaf) const;
    [[nodiscard]] std::string spool() const { return root_ + "/spool/"; }

private:
    std::string root_;
};
