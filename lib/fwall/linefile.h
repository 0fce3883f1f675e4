// A text file read line by line, each line bounded.
#pragma once

#include <cstdio>
#include <memory>
#include <optional>
#include <span>

class LineFile {
public:
    // Opens for reading, close-on-exec. isOpen() is false, with errno, when that fails.
    explicit LineFile(const char* path) noexcept : file_(std::fopen(path, "re")) {}

    [[nodiscard]] bool isOpen() const noexcept { return file_ != nullptr; }

    // The next physical line, its newline included, in `buffer`. Of a longer line the first
    // buffer.size() bytes are kept and the rest is skipped. Nothing at the end of the file.
    std::optional<std::span<char>> next(std::span<char> buffer) noexcept;

    // True when next() gave nothing because reading failed; errno told why.
    [[nodiscard]] bool failed() const noexcept { return std::ferror(file_.get()) != 0; }

private:
    struct Close {
        void operator()(std::FILE* file) const noexcept { std::fclose(file); }
    };
    std::unique_ptr<std::FILE, Close> file_;
};
