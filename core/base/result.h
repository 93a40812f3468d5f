#ifndef TSE_CORE_RESULT_H
#define TSE_CORE_RESULT_H

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>

namespace tse {

// Why something could not be had, in words a user understands; for input
// that could not be read, also the byte at which reading stopped.
struct Error {
    Error(std::string words, std::optional<size_t> at = std::nullopt)
        : message(std::move(words)), offset(at) {}  // NOLINT

    std::string message;
    std::optional<size_t> offset;
};

// Thrown when a value is taken from a Result that holds an error, or an
// error from one that holds a value: a fault of the caller, which should
// have asked first. The text carries the error's words, so that the fault
// says what went wrong where it was ignored.
class BadResultAccess : public std::logic_error {
public:
    explicit BadResultAccess(const std::string& what) : std::logic_error(what) {}
};

namespace detail {
[[noreturn]] inline void valueOfError(const Error& error)
{
    throw BadResultAccess("a value was taken from a failed result: " + error.message);
}
[[noreturn]] inline void errorOfValue()
{
    throw BadResultAccess("an error was taken from a result that holds a value");
}
}  // namespace detail

// What a fallible core function gives back: the value, or the error. Never
// both and never neither, so there is no empty value to forget; and it must
// be looked at, so that no error goes unseen. The names follow
// std::expected, which takes its place once the project moves to C++23.
template <typename T>
class [[nodiscard]] Result {
public:
    Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}      // NOLINT: converts implicitly
    Result(Error error) : state_(std::in_place_index<1>, std::move(error)) {}  // NOLINT

    bool has_value() const { return state_.index() == 0; }
    explicit operator bool() const { return has_value(); }

    // Throw BadResultAccess when there is no value.
    const T& value() const&
    {
        if (!has_value()) detail::valueOfError(error());
        return *std::get_if<0>(&state_);
    }
    T& value() &
    {
        if (!has_value()) detail::valueOfError(error());
        return *std::get_if<0>(&state_);
    }
    T&& value() &&
    {
        if (!has_value()) detail::valueOfError(error());
        return std::move(*std::get_if<0>(&state_));
    }
    const T& operator*() const& { return value(); }
    T& operator*() & { return value(); }
    const T* operator->() const { return &value(); }
    T* operator->() { return &value(); }

    // Throws BadResultAccess when there is a value.
    const Error& error() const
    {
        if (has_value()) detail::errorOfValue();
        return *std::get_if<1>(&state_);
    }

    // The value, or the fallback when there is none.
    T value_or(T fallback) const& { return has_value() ? value() : std::move(fallback); }
    T value_or(T fallback) && { return has_value() ? std::move(*this).value() : std::move(fallback); }

private:
    std::variant<T, Error> state_;
};

// Success that carries nothing, or the error.
template <>
class [[nodiscard]] Result<void> {
public:
    Result() = default;
    Result(Error error) : error_(std::move(error)) {}  // NOLINT: converts implicitly

    bool has_value() const { return !error_; }
    explicit operator bool() const { return has_value(); }

    // Throws BadResultAccess when there is an error.
    void value() const
    {
        if (error_) detail::valueOfError(*error_);
    }
    // Throws BadResultAccess when there is none.
    const Error& error() const
    {
        if (!error_) detail::errorOfValue();
        return *error_;
    }

private:
    std::optional<Error> error_;
};

}  // namespace tse

#endif
