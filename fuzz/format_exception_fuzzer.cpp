// Fuzz target: collectMessages and formatException on arbitrary texts and nesting chains.
//
// The input is split into up to eight fields; a leading byte per layer picks the exception
// class (each library class, a standard exception, or a non-exception) and the layers are
// nested innermost first, as wrappers in the library nest what they catch.

#include <cerrno>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz_input.hpp"
#include "quorvel/errors/exception.hpp"

namespace {

using quorvel::QuorvelException;

// One layer thrown from the texts; `inner` (if any) becomes its nested exception.
[[noreturn]] void throwLayer(uint8_t kind, std::vector<std::string> const& t, int errnum) {
  switch (kind % 9) {
    case 0:
      throw QuorvelException(t[0]);
    case 1:
      throw QuorvelException(t[0], t[1]);
    case 2:
      throw QuorvelException(t[0], t[1], t[2]);
    case 3:
      throw QuorvelException(t[0], t[1], errnum);
    case 4:
      throw QuorvelException(t[0], t[1], t[2], errnum);
    case 5:
      throw quorvel::QuorvelIOException(t[0], t[1], t[2], t[3], errnum);
    case 6:
      throw quorvel::QuorvelRangeException(t[0], t[1], static_cast<uint64_t>(errnum));
    case 7:
      throw quorvel::QuorvelPropertyNotSetException(t[0], t[1], t[2]);
    default:
      throw std::runtime_error(t[0]);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  quorvel::fuzz::FuzzInput in(data, size);
  size_t const layers = 1 + in.upTo(4);
  std::vector<uint8_t> kinds(layers);
  for (auto& k : kinds) k = in.byte();
  int const errnum = static_cast<int>(in.u32());
  int const threadErrno = in.byte() < 200 ? 0 : in.byte();
  bool const foreignInnermost = in.byte() >= 240;

  // Fields are separated by 0xFF; missing fields are empty.
  std::vector<std::string> fields;
  std::string field;
  for (char c : in.rest()) {
    if (static_cast<unsigned char>(c) == 0xFF) {
      fields.push_back(field);
      field.clear();
    } else {
      field += c;
    }
  }
  fields.push_back(field);
  auto textsOf = [&fields](size_t layer) {
    std::vector<std::string> t(4);
    for (size_t i = 0; i < 4; ++i) {
      size_t const index = layer * 2 + i;
      if (index < fields.size()) t[i] = fields[index];
    }
    return t;
  };

  try {
    // Innermost layer first; each outer one nests what the previous one threw.
    std::exception_ptr inner;
    try {
      if (foreignInnermost) throw 42;
      throwLayer(kinds[0], textsOf(0), errnum);
    } catch (...) {
      inner = std::current_exception();
    }
    for (size_t layer = 1; layer < layers; ++layer) {
      try {
        std::rethrow_exception(inner);
      } catch (...) {
        try {
          // throw_with_nested needs a class type that is not final; all of ours qualify.
          switch (kinds[layer] % 3) {
            case 0:
              std::throw_with_nested(QuorvelException(textsOf(layer)[0], textsOf(layer)[1]));
            case 1:
              std::throw_with_nested(
                  QuorvelException(textsOf(layer)[0], textsOf(layer)[1], textsOf(layer)[2]));
            default:
              std::throw_with_nested(std::runtime_error(textsOf(layer)[0]));
          }
        } catch (...) {
          inner = std::current_exception();
        }
      }
    }
    std::rethrow_exception(inner);
  } catch (std::exception const& e) {
    errno = threadErrno;
    std::string const collected = quorvel::collectMessages(e);
    // The outermost text always comes first.
    if (collected.compare(0, std::string(e.what()).size(), e.what()) != 0) __builtin_trap();
    std::string const formatted = quorvel::formatException(e);
    (void)formatted;
  } catch (...) {
    // The innermost non-exception alone: nothing to format.
  }
  errno = 0;
  return 0;
}
