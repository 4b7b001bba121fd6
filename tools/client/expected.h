// SPDX-License-Identifier: ISC
// A value or an error message: the client's way of reporting failures
// without forcing callers to catch exceptions. value() throws for callers
// (tests) that prefer an exception.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>
#include <variant>

namespace tav::client {

struct Error {
    std::string message;
};

class ClientError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

template <class T>
class [[nodiscard]] Expected {
  public:
    Expected(T v) : v_(std::in_place_index<0>, std::move(v)) {}
    Expected(Error e) : v_(std::in_place_index<1>, std::move(e)) {}

    bool has_value() const { return v_.index() == 0; }
    explicit operator bool() const { return has_value(); }

    T &value() & {
        check();
        return std::get<0>(v_);
    }
    const T &value() const & {
        check();
        return std::get<0>(v_);
    }
    T &&value() && {
        check();
        return std::get<0>(std::move(v_));
    }
    T &operator*() & { return value(); }
    const T &operator*() const & { return value(); }
    T *operator->() { return &value(); }
    const T *operator->() const { return &value(); }

    // Empty when there is a value.
    const std::string &error() const {
        static const std::string none;
        return has_value() ? none : std::get<1>(v_).message;
    }

  private:
    void check() const {
        if (!has_value()) throw ClientError(std::get<1>(v_).message);
    }
    std::variant<T, Error> v_;
};

template <>
class [[nodiscard]] Expected<void> {
  public:
    Expected() = default;
    Expected(Error e) : err_(std::move(e.message)), failed_(true) {}
    bool has_value() const { return !failed_; }
    explicit operator bool() const { return !failed_; }
    void value() const {
        if (failed_) throw ClientError(err_);
    }
    const std::string &error() const { return err_; }

  private:
    std::string err_;
    bool failed_ = false;
};

inline Error fail(std::string message) { return Error{std::move(message)}; }

}  // namespace tav::client
