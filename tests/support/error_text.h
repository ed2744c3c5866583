// The text of the exception a test action raises, for comparing with the
// exact message the code must give.
#ifndef TALVIX_TESTS_SUPPORT_ERROR_TEXT_H_
#define TALVIX_TESTS_SUPPORT_ERROR_TEXT_H_

#include <string>

namespace support {

// The text of the E that `action` raises; "(no error)" when it returns.
// Exceptions of other types pass through.
template <class E, class Action>
std::string errorText(Action action) {
  try {
    action();
  } catch (const E& e) {
    return e.text();
  }
  return "(no error)";
}

}  // namespace support


#endif  // TALVIX_TESTS_SUPPORT_ERROR_TEXT_H_
