#pragma once

// std::expected for the fuzz build only.
//
// libFuzzer comes with clang, and the clang of our distribution (14) cannot
// compile the <expected> of its C++ library (libstdc++ 12): that header needs
// destructors chosen by constraints, which clang learnt in version 16, and so
// libstdc++ hides the whole header from older clangs. The fuzz build forces
// this file into every translation unit of the libraries it links; with any
// compiler that has a working std::expected it does nothing.
//
// What is here is the part of std::expected that our code uses, with the
// standard's meaning: construction from a value or from std::unexpected,
// copies and moves, has_value/operator bool, value (throws
// std::bad_expected_access), error, operator* and ->, value_or, emplace and
// comparison; expected<void, E> likewise.

#include <version>

#if !defined(__cpp_lib_expected) && defined(__clang__) && defined(__GLIBCXX__)

#include <exception>
#include <initializer_list>
#include <memory>
#include <type_traits>
#include <utility>

namespace std {

template <class E>
class unexpected {
public:
    template <class Err = E>
        requires(!is_same_v<remove_cvref_t<Err>, unexpected> && !is_same_v<remove_cvref_t<Err>, in_place_t> &&
                 is_constructible_v<E, Err>)
    constexpr explicit unexpected(Err&& error) : error_(std::forward<Err>(error)) {}

    template <class... Args>
    constexpr explicit unexpected(in_place_t, Args&&... args) : error_(std::forward<Args>(args)...) {}

    constexpr const E& error() const& noexcept { return error_; }
    constexpr E& error() & noexcept { return error_; }
    constexpr E&& error() && noexcept { return std::move(error_); }

    template <class G>
    friend constexpr bool operator==(const unexpected& x, const unexpected<G>& y) {
        return x.error() == y.error();
    }

private:
    E error_;
};

template <class E>
unexpected(E) -> unexpected<E>;

struct unexpect_t {
    explicit unexpect_t() = default;
};
inline constexpr unexpect_t unexpect{};

template <class E>
class bad_expected_access;

template <>
class bad_expected_access<void> : public exception {
public:
    const char* what() const noexcept override { return "bad access to std::expected without expected value"; }
};

template <class E>
class bad_expected_access : public bad_expected_access<void> {
public:
    explicit bad_expected_access(E error) : error_(std::move(error)) {}
    const E& error() const& noexcept { return error_; }

private:
    E error_;
};

template <class T, class E>
class expected {
public:
    using value_type = T;
    using error_type = E;
    using unexpected_type = unexpected<E>;

    constexpr expected()
        requires is_default_constructible_v<T>
        : value_(), hasValue_(true) {}

    constexpr expected(const expected& other)
        requires(is_copy_constructible_v<T> && is_copy_constructible_v<E>)
        : hasValue_(other.hasValue_) {
        if (hasValue_) {
            std::construct_at(std::addressof(value_), other.value_);
        } else {
            std::construct_at(std::addressof(error_), other.error_);
        }
    }

    constexpr expected(expected&& other) noexcept(is_nothrow_move_constructible_v<T> &&
                                                  is_nothrow_move_constructible_v<E>)
        requires(is_move_constructible_v<T> && is_move_constructible_v<E>)
        : hasValue_(other.hasValue_) {
        if (hasValue_) {
            std::construct_at(std::addressof(value_), std::move(other.value_));
        } else {
            std::construct_at(std::addressof(error_), std::move(other.error_));
        }
    }

    template <class U = T>
        requires(!is_same_v<remove_cvref_t<U>, in_place_t> && !is_same_v<remove_cvref_t<U>, expected> &&
                 !is_same_v<remove_cvref_t<U>, unexpect_t> && is_constructible_v<T, U>)
    constexpr explicit(!is_convertible_v<U, T>) expected(U&& value) : value_(std::forward<U>(value)), hasValue_(true) {}

    template <class G>
        requires is_constructible_v<E, const G&>
    constexpr explicit(!is_convertible_v<const G&, E>) expected(const unexpected<G>& error)
        : error_(error.error()), hasValue_(false) {}

    template <class G>
        requires is_constructible_v<E, G>
    constexpr explicit(!is_convertible_v<G, E>) expected(unexpected<G>&& error)
        : error_(std::move(error).error()), hasValue_(false) {}

    template <class... Args>
    constexpr explicit expected(in_place_t, Args&&... args) : value_(std::forward<Args>(args)...), hasValue_(true) {}

    template <class... Args>
    constexpr explicit expected(unexpect_t, Args&&... args) : error_(std::forward<Args>(args)...), hasValue_(false) {}

    constexpr ~expected() { destroy(); }

    constexpr expected& operator=(const expected& other)
        requires(is_copy_constructible_v<T> && is_copy_constructible_v<E>)
    {
        if (this != std::addressof(other)) {
            destroy();
            std::construct_at(this, other);
        }
        return *this;
    }

    constexpr expected& operator=(expected&& other) noexcept(is_nothrow_move_constructible_v<T> &&
                                                             is_nothrow_move_constructible_v<E>)
        requires(is_move_constructible_v<T> && is_move_constructible_v<E>)
    {
        if (this != std::addressof(other)) {
            destroy();
            std::construct_at(this, std::move(other));
        }
        return *this;
    }

    template <class U = T>
        requires(!is_same_v<remove_cvref_t<U>, expected> && !is_same_v<remove_cvref_t<U>, unexpect_t> &&
                 is_constructible_v<T, U>)
    constexpr expected& operator=(U&& value) {
        destroy();
        std::construct_at(std::addressof(value_), std::forward<U>(value));
        hasValue_ = true;
        return *this;
    }

    template <class G>
    constexpr expected& operator=(const unexpected<G>& error) {
        destroy();
        std::construct_at(std::addressof(error_), error.error());
        hasValue_ = false;
        return *this;
    }

    template <class G>
    constexpr expected& operator=(unexpected<G>&& error) {
        destroy();
        std::construct_at(std::addressof(error_), std::move(error).error());
        hasValue_ = false;
        return *this;
    }

    template <class... Args>
    constexpr T& emplace(Args&&... args) {
        destroy();
        std::construct_at(std::addressof(value_), std::forward<Args>(args)...);
        hasValue_ = true;
        return value_;
    }

    constexpr bool has_value() const noexcept { return hasValue_; }
    constexpr explicit operator bool() const noexcept { return hasValue_; }

    constexpr const T* operator->() const noexcept { return std::addressof(value_); }
    constexpr T* operator->() noexcept { return std::addressof(value_); }
    constexpr const T& operator*() const& noexcept { return value_; }
    constexpr T& operator*() & noexcept { return value_; }
    constexpr T&& operator*() && noexcept { return std::move(value_); }

    constexpr const T& value() const& {
        if (!hasValue_) throw bad_expected_access<E>(error_);
        return value_;
    }
    constexpr T& value() & {
        if (!hasValue_) throw bad_expected_access<E>(error_);
        return value_;
    }
    constexpr T&& value() && {
        if (!hasValue_) throw bad_expected_access<E>(error_);
        return std::move(value_);
    }

    constexpr const E& error() const& noexcept { return error_; }
    constexpr E& error() & noexcept { return error_; }
    constexpr E&& error() && noexcept { return std::move(error_); }

    template <class U>
    constexpr T value_or(U&& fallback) const& {
        return hasValue_ ? value_ : static_cast<T>(std::forward<U>(fallback));
    }
    template <class U>
    constexpr T value_or(U&& fallback) && {
        return hasValue_ ? std::move(value_) : static_cast<T>(std::forward<U>(fallback));
    }

    template <class T2, class E2>
    friend constexpr bool operator==(const expected& x, const expected<T2, E2>& y) {
        if (x.has_value() != y.has_value()) return false;
        return x.has_value() ? *x == *y : x.error() == y.error();
    }
    template <class T2>
        requires(!is_same_v<T2, expected>)
    friend constexpr bool operator==(const expected& x, const T2& value) {
        return x.has_value() && *x == value;
    }
    template <class E2>
    friend constexpr bool operator==(const expected& x, const unexpected<E2>& error) {
        return !x.has_value() && x.error() == error.error();
    }

private:
    constexpr void destroy() {
        if (hasValue_) {
            std::destroy_at(std::addressof(value_));
        } else {
            std::destroy_at(std::addressof(error_));
        }
    }

    union {
        T value_;
        E error_;
    };
    bool hasValue_;
};

template <class E>
class expected<void, E> {
public:
    using value_type = void;
    using error_type = E;
    using unexpected_type = unexpected<E>;

    constexpr expected() noexcept : hasValue_(true) {}

    constexpr expected(const expected& other)
        requires is_copy_constructible_v<E>
        : hasValue_(other.hasValue_) {
        if (!hasValue_) std::construct_at(std::addressof(error_), other.error_);
    }

    constexpr expected(expected&& other) noexcept(is_nothrow_move_constructible_v<E>)
        requires is_move_constructible_v<E>
        : hasValue_(other.hasValue_) {
        if (!hasValue_) std::construct_at(std::addressof(error_), std::move(other.error_));
    }

    template <class G>
        requires is_constructible_v<E, const G&>
    constexpr explicit(!is_convertible_v<const G&, E>) expected(const unexpected<G>& error)
        : error_(error.error()), hasValue_(false) {}

    template <class G>
        requires is_constructible_v<E, G>
    constexpr explicit(!is_convertible_v<G, E>) expected(unexpected<G>&& error)
        : error_(std::move(error).error()), hasValue_(false) {}

    constexpr explicit expected(in_place_t) noexcept : hasValue_(true) {}

    template <class... Args>
    constexpr explicit expected(unexpect_t, Args&&... args) : error_(std::forward<Args>(args)...), hasValue_(false) {}

    constexpr ~expected() { destroy(); }

    constexpr expected& operator=(const expected& other)
        requires is_copy_constructible_v<E>
    {
        if (this != std::addressof(other)) {
            destroy();
            std::construct_at(this, other);
        }
        return *this;
    }

    constexpr expected& operator=(expected&& other) noexcept(is_nothrow_move_constructible_v<E>)
        requires is_move_constructible_v<E>
    {
        if (this != std::addressof(other)) {
            destroy();
            std::construct_at(this, std::move(other));
        }
        return *this;
    }

    template <class G>
    constexpr expected& operator=(const unexpected<G>& error) {
        destroy();
        std::construct_at(std::addressof(error_), error.error());
        hasValue_ = false;
        return *this;
    }

    template <class G>
    constexpr expected& operator=(unexpected<G>&& error) {
        destroy();
        std::construct_at(std::addressof(error_), std::move(error).error());
        hasValue_ = false;
        return *this;
    }

    constexpr void emplace() noexcept {
        destroy();
        hasValue_ = true;
    }

    constexpr bool has_value() const noexcept { return hasValue_; }
    constexpr explicit operator bool() const noexcept { return hasValue_; }
    constexpr void operator*() const noexcept {}

    constexpr void value() const {
        if (!hasValue_) throw bad_expected_access<E>(error_);
    }

    constexpr const E& error() const& noexcept { return error_; }
    constexpr E& error() & noexcept { return error_; }
    constexpr E&& error() && noexcept { return std::move(error_); }

    template <class E2>
    friend constexpr bool operator==(const expected& x, const expected<void, E2>& y) {
        if (x.has_value() != y.has_value()) return false;
        return x.has_value() || x.error() == y.error();
    }
    template <class E2>
    friend constexpr bool operator==(const expected& x, const unexpected<E2>& error) {
        return !x.has_value() && x.error() == error.error();
    }

private:
    constexpr void destroy() {
        if (!hasValue_) std::destroy_at(std::addressof(error_));
        hasValue_ = true;
    }

    union {
        E error_;
    };
    bool hasValue_;
};

}  // namespace std

#endif
