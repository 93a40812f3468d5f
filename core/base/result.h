#ifndef TSE_CORE_RESULT_H
#define TSE_CORE_RESULT_H

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace tse {

// Why something could not be had, in words a user understands; for input
// that could not be read, also the byte at which reading stopped.
struct Error {
    Error(std::string words, std::optional<size_t> at = std::nullopt) : message(std::move(words)), offset(at) {}  // NOLINT

    std::string message;
    std::optional<size_t> offset;
};

// What a fallible core function gives back: the value, or the error.
// Never both and never neither, so there is no empty value to forget.
template <typename T>
class Result {
public:
    Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}     // NOLINT: converts implicitly
    Result(Error error) : state_(std::in_place_index<1>, std::move(error)) {}  // NOLINT

    bool ok() const { return state_.index() == 0; }
    explicit operator bool() const { return ok(); }

    // Only when ok().
    const T& value() const& { return std::get<0>(state_); }
    T& value() & { return std::get<0>(state_); }
    T&& value() && { return std::get<0>(std::move(state_)); }
    const T& operator*() const { return value(); }
    const T* operator->() const { return &value(); }

    // Only when !ok().
    const Error& error() const { return std::get<1>(state_); }
    // The error's words; empty when ok().
    const std::string& message() const
    {
        static const std::string none;
        return ok() ? none : error().message;
    }

    // The value, or the fallback when there is none.
    T value_or(T fallback) const& { return ok() ? value() : std::move(fallback); }

    // The value, or nullopt, for code that keeps it for later.
    std::optional<T> take() && { return ok() ? std::optional<T>(std::move(*this).value()) : std::nullopt; }

private:
    std::variant<T, Error> state_;
};

}  // namespace tse

#endif
