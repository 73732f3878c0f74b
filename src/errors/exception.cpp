#include "quorvel/errors/exception.hpp"

#include <cerrno>
#include <cstring>

namespace quorvel {
namespace {

std::string tagged(std::string const& name, std::string const& location) {
  std::string text;
  text.reserve(16 + name.size() + location.size());
  text += "#Name:";
  text += name;
  text += "#Location:";
  text += location;
  return text;
}

// The value of a tag runs from just after the tag to the next '#' or the end.
std::string valueAt(std::string const& text, size_t start) {
  size_t end = text.find('#', start);
  return text.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

}  // namespace

QuorvelException::QuorvelException(std::string const& message) : std::runtime_error(message) {}

QuorvelException::QuorvelException(Composed, std::string const& text) : std::runtime_error(text) {}

QuorvelException::QuorvelException(std::string const& name, std::string const& location)
    : std::runtime_error(tagged(name, location)) {}

QuorvelException::QuorvelException(std::string const& name, std::string const& location,
                                   std::string const& description)
    : std::runtime_error(tagged(name, location) + "#Description:" + description) {}

QuorvelException::QuorvelException(std::string const& name, std::string const& location, int errnum)
    : std::runtime_error(tagged(name, location) + "#Errno:" + std::to_string(errnum)) {}

QuorvelException::QuorvelException(std::string const& name, std::string const& location,
                                   std::string const& description, int errnum)
    : std::runtime_error(tagged(name, location) + "#Description:" + description +
                         "#Errno:" + std::to_string(errnum)) {}

QuorvelIOException::QuorvelIOException(std::string const& name, std::string const& location,
                                       std::string const& streamName, int errnum)
    : QuorvelException(Composed{}, tagged(name, location) + "#StreamName:" + streamName +
                                       "#Errno:" + std::to_string(errnum)) {}

QuorvelIOException::QuorvelIOException(std::string const& name, std::string const& location,
                                       std::string const& streamName,
                                       std::string const& description, int errnum)
    : QuorvelException(Composed{}, tagged(name, location) + "#StreamName:" + streamName +
                                       "#Description:" + description +
                                       "#Errno:" + std::to_string(errnum)) {}

QuorvelRangeException::QuorvelRangeException(std::string const& name, std::string const& location,
                                             uint64_t value)
    : QuorvelException(name, location), value_(value), location_(location) {}

QuorvelPropertyNotSetException::QuorvelPropertyNotSetException(std::string const& name,
                                                               std::string const& location)
    : QuorvelException(name, location) {}

QuorvelPropertyNotSetException::QuorvelPropertyNotSetException(std::string const& name,
                                                               std::string const& location,
                                                               std::string const& description)
    : QuorvelException(name, location, description) {}

std::string collectMessages(std::exception const& e) {
  std::string text = e.what();
  auto const* nested = dynamic_cast<std::nested_exception const*>(&e);
  if (nested == nullptr || !nested->nested_ptr()) return text;
  try {
    nested->rethrow_nested();
  } catch (QuorvelException const& inner) {
    text += collectMessages(inner);
  } catch (std::exception const& inner) {
    // errno is read at once, on this thread, before anything else can change it.
    int const err = errno;
    text += "#Name:STL error#Description:";
    text += inner.what();
    if (err != 0) {
      text += "->";
      text += std::strerror(err);
      text += "#Errno:";
      text += std::to_string(err);
    }
  } catch (...) {
    text += "#Name:Unknown exception not derived from std::exception";
  }
  return text;
}

std::string formatException(std::exception const& e) {
  std::string const text = collectMessages(e);
  std::string out;

  auto eachTag = [&text](std::string const& tag, auto&& visit) {
    size_t count = 0;
    for (size_t pos = text.find(tag); pos != std::string::npos; pos = text.find(tag, pos + 1)) {
      visit(count++, valueAt(text, pos + tag.size()));
    }
    return count;
  };

  size_t const names = eachTag("#Name:", [&](size_t i, std::string const& v) {
    if (i > 0) out += " (";
    out += v;
  });
  if (names > 1) out.append(names - 1, ')');

  eachTag("#Location:", [&](size_t i, std::string const& v) {
    out += i == 0 ? "\n  Location:     " : "<-";
    out += v;
  });
  eachTag("#Description:", [&](size_t i, std::string const& v) {
    out += i == 0 ? "\n  Description:  " : ", ";
    out += v;
  });
  eachTag("#StreamName:", [&](size_t i, std::string const& v) {
    if (i == 0) out += "\n  Streamname:   " + v;
  });
  eachTag("#Errno:", [&](size_t i, std::string const& v) {
    if (i == 0) out += "\n  Error number: " + v;
  });
  return out;
}

void throwQuorvel(char const* name, char const* location) {
  throw QuorvelException(name, location);
}

void throwQuorvel(char const* name, char const* location, std::string const& description) {
  throw QuorvelException(name, location, description);
}

}  // namespace quorvel
