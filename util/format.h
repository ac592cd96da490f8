// printf-style formatting that takes the component's messages as they are
// written, with their Windows format specifiers.
//
// Accepted conversions: %d %i %u %x %X %o %c %s %ls %hs %S %f %g %e %p %%,
// with flags, width, precision and the length prefixes h, l, ll, I64, I32, z.
// %ls, %hs, %s and %S take UTF-8 text; %I64d and %I64u take 64-bit numbers;
// %d, %u, %x and %X without a 64-bit prefix print the low 32 bits, as the
// platform's printf does (0x%08X of a result code prints its eight digits).
// Arguments are checked at run time, never trusted: a missing argument prints
// "(missing)" and a text given to a numeric conversion prints the text.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace pkgdlv {

class FormatArg {
 public:
  enum class Kind { kSigned, kUnsigned, kFloat, kText, kPointer };

  template <class T>
    requires std::is_integral_v<T> || std::is_enum_v<T>
  FormatArg(T v) {  // NOLINT(google-explicit-constructor)
    if constexpr (std::is_same_v<T, bool>) {
      kind_ = Kind::kUnsigned;
      unsigned_ = v ? 1 : 0;
    } else if constexpr (std::is_enum_v<T>) {
      kind_ = Kind::kSigned;
      signed_ = static_cast<int64_t>(v);
    } else if constexpr (std::is_signed_v<T>) {
      kind_ = Kind::kSigned;
      signed_ = v;
    } else {
      kind_ = Kind::kUnsigned;
      unsigned_ = v;
    }
  }
  FormatArg(double v) : kind_(Kind::kFloat), float_(v) {}  // NOLINT
  FormatArg(const char* v) : kind_(Kind::kText), text_(v ? v : "(null)") {}  // NOLINT
  FormatArg(const std::string& v) : kind_(Kind::kText), text_(v) {}  // NOLINT
  FormatArg(std::string_view v) : kind_(Kind::kText), text_(v) {}  // NOLINT
  FormatArg(const void* v) : kind_(Kind::kPointer), unsigned_(reinterpret_cast<uintptr_t>(v)) {}  // NOLINT

  Kind kind() const { return kind_; }
  int64_t AsSigned() const { return kind_ == Kind::kSigned ? signed_ : static_cast<int64_t>(AsUnsigned()); }
  uint64_t AsUnsigned() const;
  double AsFloat() const;
  std::string_view text() const { return text_; }

 private:
  Kind kind_;
  int64_t signed_ = 0;
  uint64_t unsigned_ = 0;
  double float_ = 0;
  std::string_view text_;
};

std::string FormatArgs(std::string_view format, std::span<const FormatArg> args);

template <class... Args>
std::string Format(std::string_view format, const Args&... args) {
  if constexpr (sizeof...(Args) == 0) {
    return FormatArgs(format, {});
  } else {
    const std::array<FormatArg, sizeof...(Args)> list{FormatArg(args)...};
    return FormatArgs(format, list);
  }
}

}  // namespace pkgdlv
