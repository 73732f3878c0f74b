#pragma once
// Exceptions of the library and the readers of their tagged message text.
//
// A library exception carries one flat text of tagged fields ("#Name:", "#Location:",
// "#Description:", "#StreamName:", "#Errno:"). Wrappers nest the exception they caught
// with std::throw_with_nested, so collectMessages() can walk the whole chain and
// formatException() can print it as a readable block.

#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>

#include "quorvel/export.hpp"

namespace quorvel {

/// The library's exception. Its what() text is the composed, tagged message.
class QUORVEL_API QuorvelException : public std::runtime_error {
 public:
  /// The message as given, without tags.
  explicit QuorvelException(std::string const& message);
  /// "#Name:" name "#Location:" location.
  QuorvelException(std::string const& name, std::string const& location);
  /// ... followed by "#Description:" description.
  QuorvelException(std::string const& name, std::string const& location,
                   std::string const& description);
  /// ... followed by "#Errno:" errnum.
  QuorvelException(std::string const& name, std::string const& location, int errnum);
  /// ... "#Description:" description "#Errno:" errnum.
  QuorvelException(std::string const& name, std::string const& location,
                   std::string const& description, int errnum);

 protected:
  struct Composed {};
  QuorvelException(Composed, std::string const& text);
};

/// An I/O failure; the stream name is part of the text.
class QUORVEL_API QuorvelIOException : public QuorvelException {
 public:
  QuorvelIOException(std::string const& name, std::string const& location,
                     std::string const& streamName, int errnum);
  QuorvelIOException(std::string const& name, std::string const& location,
                     std::string const& streamName, std::string const& description, int errnum);
};

/// A value out of range; keeps the value and a copy of the location for callers.
class QUORVEL_API QuorvelRangeException : public QuorvelException {
 public:
  QuorvelRangeException(std::string const& name, std::string const& location, uint64_t value);
  uint64_t value() const noexcept { return value_; }
  std::string const& location() const noexcept { return location_; }

 private:
  uint64_t value_;
  std::string location_;
};

/// A required property was not set.
class QUORVEL_API QuorvelPropertyNotSetException : public QuorvelException {
 public:
  QuorvelPropertyNotSetException(std::string const& name, std::string const& location);
  QuorvelPropertyNotSetException(std::string const& name, std::string const& location,
                                 std::string const& description);
};

/// The flat text of `e` and of every exception nested in it, outermost first.
/// Thread-safe; reads errno of the calling thread for foreign nested exceptions.
QUORVEL_API std::string collectMessages(std::exception const& e);

/// The readable multi-line form of collectMessages(e): names as "A (B (C))", then
/// location, description, stream name and error number lines.
QUORVEL_API std::string formatException(std::exception const& e);

/// Throws QuorvelException(name, location). Out of line so that call sites stay small.
[[noreturn]] void throwQuorvel(char const* name, char const* location);
/// Throws QuorvelException(name, location, description).
[[noreturn]] void throwQuorvel(char const* name, char const* location,
                               std::string const& description);

}  // namespace quorvel
