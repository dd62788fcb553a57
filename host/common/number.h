// Whole numbers in text that comes from outside: command-line options,
// destination lines, the remote agents' messages and reply subjects. One
// reader for all of them, so that each accepts exactly the same forms.
#ifndef HOST_COMMON_NUMBER_H_
#define HOST_COMMON_NUMBER_H_

#include <charconv>
#include <limits>
#include <string_view>
#include <system_error>
#include <type_traits>

namespace qmta::host {

enum class Radix {
  kDecimal,       // [-]digits
  kDecimalOrHex,  // the same, or "0x"/"0X" and hexadecimal digits
};

// Reads all of `text` as a number of type T within [low, high] into
// `*value`. False, with `*value` unchanged, for an empty text, a sign '+',
// blanks, anything after the digits, or a number out of range.
template <typename T>
bool ParseNumber(std::string_view text, T* value,
                 std::type_identity_t<T> low = std::numeric_limits<T>::min(),
                 std::type_identity_t<T> high = std::numeric_limits<T>::max(),
                 Radix radix = Radix::kDecimal) {
  int base = 10;
  if (radix == Radix::kDecimalOrHex && (text.starts_with("0x") || text.starts_with("0X"))) {
    text.remove_prefix(2);
    base = 16;
  }
  T number{};
  const char* end = text.data() + text.size();
  auto result = std::from_chars(text.data(), end, number, base);
  if (text.empty() || result.ec != std::errc() || result.ptr != end || number < low ||
      number > high)
    return false;
  *value = number;
  return true;
}

}  // namespace qmta::host

#endif  // HOST_COMMON_NUMBER_H_
