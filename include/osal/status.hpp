// Statuses as values and as exceptions.
//
// The C++ face of the library: namespace kx, one header a subject, header-only, C++20. It calls
// through the interface tables alone, so a client links with liblcm.so and libkcstatus.so and not
// with the library. What fails throws kx::Error, unless a function says otherwise.
#pragma once

#include <exception>

#include "host/kcstatus.h"
#include "osal/status.h"

namespace kx {

// A KCSTATUS with its parts. Cheap to copy; its texts are constant.
class Status {
  public:
    constexpr Status() = default;
    constexpr Status(KCSTATUS value) : value_(value) {}

    constexpr KCSTATUS value() const { return value_; }
    constexpr bool is_error() const { return KC_IS_ERROR(value_); }
    constexpr UINT32 code() const { return KC_CODE(value_); }
    constexpr UINT32 facility() const { return KC_FACILITY(value_); }
    const char* text() const { return KcStatusName(value_); }
    const char* facility_text() const { return KcStatusFacilityName(value_); }

    friend constexpr bool operator==(Status, Status) = default;

  private:
    KCSTATUS value_ = KC_OK;
};

// A status of severity "error". Never allocates.
class Error : public std::exception {
  public:
    explicit Error(Status status) noexcept : status_(status) {}
    Status status() const noexcept { return status_; }
    UINT32 code() const noexcept { return status_.code(); }
    const char* what() const noexcept override { return status_.text(); }

  private:
    Status status_;
};

// Throws what is an error and passes on what is not: a plain value that a service returned.
inline KCSTATUS check(KCSTATUS status) {
    if (KC_IS_ERROR(status)) throw Error(status);
    return status;
}

}  // namespace kx
