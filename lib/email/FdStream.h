// An input stream over an owned, close-on-exec descriptor: large reads, errors as stream states,
// nothing thrown.
#pragma once

#include "fwall/UniqueFd.h"

#include <array>
#include <istream>
#include <streambuf>

namespace Email {

class FdStreambuf : public std::streambuf {
public:
    explicit FdStreambuf(UniqueFd fd) noexcept;

    // errno of the last failed read, 0 without one. A failed read looks like the end of the file
    // to the stream; FdStream turns it into the bad state.
    [[nodiscard]] int error() const noexcept { return error_; }
    [[nodiscard]] int fd() const noexcept { return fd_.get(); }

protected:
    int_type underflow() override;
    std::streamsize xsgetn(char* out, std::streamsize n) override;
    pos_type seekoff(off_type off, std::ios_base::seekdir dir, std::ios_base::openmode which) override;
    pos_type seekpos(pos_type pos, std::ios_base::openmode which) override;

private:
    UniqueFd fd_;
    int error_ = 0;
    std::array<char, 4096> block_{};
};

} // namespace Email
