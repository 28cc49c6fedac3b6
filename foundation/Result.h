// What an operation that can fail gives back: Status (nothing but success or an Error) and Result<T> (a T or an Error).
// Both are [[nodiscard]]. An Error is for people first: its message is one plain sentence part, "operation object:
// reason".

#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace vpnctl {

struct Error {
  std::string domain;  // "POSIX" (code is an errno), "PropertyList", or a name of the caller's
  int code = 0;
  std::string message;

  bool operator==(const Error &) const = default;
};

inline constexpr std::string_view kPOSIXErrorDomain = "POSIX";

// An Error in the POSIX domain: "CONTEXT: the system's text for ERRNUM".
Error errnoError(int errnum, std::string_view context);

class [[nodiscard]] Status {
 public:
  Status() = default;
  Status(Error error) : error_(std::move(error)), ok_(false) {}

  explicit operator bool() const { return ok_; }
  // Only meaningful on failure.
  const Error &error() const { return error_; }

 private:
  Error error_;
  bool ok_ = true;
};

template <class T>
class [[nodiscard]] Result {
 public:
  Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
  Result(Error error) : state_(std::in_place_index<1>, std::move(error)) {}

  explicit operator bool() const { return state_.index() == 0; }
  // The value; on failure std::bad_variant_access, a programming error.
  T &value() { return std::get<0>(state_); }
  const T &value() const { return std::get<0>(state_); }
  T &operator*() { return value(); }
  const T &operator*() const { return value(); }
  T *operator->() { return &value(); }
  const T *operator->() const { return &value(); }
  // The error; only on failure.
  const Error &error() const { return std::get<1>(state_); }

 private:
  std::variant<T, Error> state_;
};

}  // namespace vpnctl
