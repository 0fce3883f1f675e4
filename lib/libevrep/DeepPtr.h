// An owner of an optional part of a record, copied and compared with what it owns.
#pragma once

#include <memory>
#include <utility>

// Copying copies the part. Two owners are equal when their parts are; an absent part equals a
// default one, which is how it travels.
template<class T>
class DeepPtr {
public:
    DeepPtr() noexcept = default;
    explicit DeepPtr(std::unique_ptr<T> part) noexcept : part_(std::move(part)) {}
    DeepPtr(const DeepPtr& other) : part_(other.part_ ? std::make_unique<T>(*other) : nullptr) {}
    DeepPtr(DeepPtr&& other) noexcept = default;
    DeepPtr& operator=(const DeepPtr& other) { return *this = DeepPtr(other); }
    DeepPtr& operator=(DeepPtr&& other) noexcept = default;
    ~DeepPtr() = default;

    // Replaces the part by a default one and returns it.
    T& create() {
        part_ = std::make_unique<T>();
        return *part_;
    }
    void reset() noexcept { part_.reset(); }

    [[nodiscard]] T* get() noexcept { return part_.get(); }
    [[nodiscard]] const T* get() const noexcept { return part_.get(); }
    [[nodiscard]] T& operator*() noexcept { return *part_; }
    [[nodiscard]] const T& operator*() const noexcept { return *part_; }
    [[nodiscard]] T* operator->() noexcept { return part_.get(); }
    [[nodiscard]] const T* operator->() const noexcept { return part_.get(); }
    explicit operator bool() const noexcept { return part_ != nullptr; }

    // The part, or a default one when there is none.
    [[nodiscard]] const T& orDefault() const {
        static const T fallback{};
        return part_ ? *part_ : fallback;
    }

    bool operator==(const DeepPtr& other) const { return orDefault() == other.orDefault(); }

private:
    std::unique_ptr<T> part_;
};
