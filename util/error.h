// The exception family of the tool, assertions and system error texts.
//
// Every failure reported to the user is an exception derived from
// util::Exception, thrown by value and caught by reference. Each carries a
// complete message when thrown; handlers that add context append it to
// `detail` and rethrow the same object, and text() gives message + detail.
// Broken internal invariants are not exceptions: assert_failed() prints one
// line and aborts.
#ifndef TALVIX_UTIL_ERROR_H_
#define TALVIX_UTIL_ERROR_H_

#include <cstdint>
#include <string>
#include <typeinfo>

namespace util {

class Exception {
 public:
  virtual ~Exception() = default;
  virtual std::string message() const = 0;
  // The message followed by the context handlers appended on the way out.
  std::string text() const { return message() + detail; }

  std::string detail;

 protected:
  Exception() = default;
  Exception(const Exception&) = default;
  Exception& operator=(const Exception&) = default;
};

// An exception class that carries nothing but its message text.
class MessageException : public Exception {
 public:
  std::string message() const override { return message_; }

 protected:
  explicit MessageException(std::string message) : message_(std::move(message)) {}

 private:
  std::string message_;
};

// Failures of the export layer and the command line.
class EFatal : public MessageException {
 public:
  explicit EFatal(std::string message) : MessageException(std::move(message)) {}
};

// Transport failures and times beyond the calendar.
class ESystemError : public MessageException {
 public:
  explicit ESystemError(std::string message) : MessageException(std::move(message)) {}
};

// Number parsing, datatype names, the TQL lexer and parser; base of protocol::EBer.
class EParseError : public MessageException {
 public:
  explicit EParseError(std::string message) : MessageException(std::move(message)) {}
};

// A BigNum that does not fit the wanted width.
class ERange : public MessageException {
 public:
  explicit ERange(std::string message) : MessageException(std::move(message)) {}
};

// Builds an ESystemError with `message` and throws it.
[[noreturn]] void throw_system_error(const std::string& message);

// A property conversion failure, carrying a server error code.
class ETqlError : public MessageException {
 public:
  ETqlError(std::string message, int32_t code) : MessageException(std::move(message)), code(code) {}

  int32_t code;
};

// A response of the wrong message type.
class EBerError : public MessageException {
 public:
  explicit EBerError(std::string message) : MessageException(std::move(message)) {}
};

// The login handshake was refused.
class EConnectError : public MessageException {
 public:
  explicit EConnectError(std::string message) : MessageException(std::move(message)) {}
};

// A property lookup in a selected object failed.
class EObjectError : public MessageException {
 public:
  explicit EObjectError(std::string message) : MessageException(std::move(message)) {}
};

// A result-set lookup failed.
class ESelectError : public MessageException {
 public:
  explicit ESelectError(std::string message) : MessageException(std::move(message)) {}
};

// Writes "Assertion failed: " + text and a line end to the error stream, then
// aborts the process. Never returns, throws nothing.
[[noreturn]] void assert_failed(const std::string& text);

// Text of an operating-system error code (errno value): the system's message
// without trailing line breaks; the decimal code when the system has no text.
std::string system_error_text(uint32_t code);
// system_error_text() of the calling thread's errno.
std::string last_error_text();

// Readable (demangled) name of a type, e.g. "protocol::Property*".
std::string readable_type_name(const std::type_info& type);

// Down-casts p to T* with a run-time type test; a failed test (or a null p) is
// an assertion failure naming the object's type and the wanted one.
template <class T, class S>
T* checked_cast(S* p) {
  T* result = p == nullptr ? nullptr : dynamic_cast<T*>(p);
  if (result == nullptr) {
    assert_failed("checked_cast failed, " +
                  (p == nullptr ? std::string("(null)") : readable_type_name(typeid(*p))) +
                  " should have been " + readable_type_name(typeid(T*)));
  }
  return result;
}

}  // namespace util

#endif  // TALVIX_UTIL_ERROR_H_
