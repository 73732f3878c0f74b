#include "quorvel/errors/exception.hpp"

#include <gtest/gtest.h>

#include <cerrno>

namespace quorvel {
namespace {

TEST(QuorvelException, ComposesTaggedTextWithoutSeparators) {
  EXPECT_STREQ(QuorvelException("plain").what(), "plain");
  EXPECT_STREQ(QuorvelException("out of bounds check failed", "L").what(),
               "#Name:out of bounds check failed#Location:L");
  EXPECT_STREQ(QuorvelException("n", "l", "d").what(), "#Name:n#Location:l#Description:d");
  EXPECT_STREQ(QuorvelException("n", "l", -5).what(), "#Name:n#Location:l#Errno:-5");
  EXPECT_STREQ(QuorvelException("n", "l", "d", 7).what(),
               "#Name:n#Location:l#Description:d#Errno:7");
  EXPECT_STREQ(QuorvelIOException("n", "l", "s", 2).what(),
               "#Name:n#Location:l#StreamName:s#Errno:2");
  EXPECT_STREQ(QuorvelIOException("n", "l", "s", "d", 2).what(),
               "#Name:n#Location:l#StreamName:s#Description:d#Errno:2");
  QuorvelRangeException range("n", "l", 42);
  EXPECT_STREQ(range.what(), "#Name:n#Location:l");
  EXPECT_EQ(range.value(), 42u);
  EXPECT_EQ(range.location(), "l");
  EXPECT_STREQ(QuorvelPropertyNotSetException("n", "l", "d").what(),
               "#Name:n#Location:l#Description:d");
}

std::exception_ptr nestedChain() {
  try {
    try {
      try {
        throw QuorvelException("C", "LC", "dc");
      } catch (...) {
        std::throw_with_nested(QuorvelException("B", "LB"));
      }
    } catch (...) {
      std::throw_with_nested(QuorvelException("A", "LA", "da"));
    }
  } catch (...) {
    return std::current_exception();
  }
  return nullptr;
}

TEST(FormatException, NestsNamesAndChainsLocationsOutermostFirst) {
  try {
    std::rethrow_exception(nestedChain());
  } catch (std::exception const& e) {
    EXPECT_EQ(collectMessages(e),
              "#Name:A#Location:LA#Description:da#Name:B#Location:LB#Name:C#Location:LC"
              "#Description:dc");
    EXPECT_EQ(formatException(e), "A (B (C))\n  Location:     LA<-LB<-LC\n  Description:  da, dc");
  }
}

TEST(FormatException, ForeignNestedExceptionsAreKept) {
  try {
    try {
      throw std::runtime_error("x");
    } catch (...) {
      std::throw_with_nested(QuorvelException("outer", "L"));
    }
  } catch (std::exception const& e) {
    errno = 0;
    EXPECT_EQ(collectMessages(e), "#Name:outer#Location:L#Name:STL error#Description:x");
    errno = ENOENT;
    std::string const withErrno = collectMessages(e);
    EXPECT_NE(withErrno.find("#Description:x->"), std::string::npos) << withErrno;
    EXPECT_NE(withErrno.find("#Errno:" + std::to_string(ENOENT)), std::string::npos);
    errno = 0;
  }
  try {
    try {
      throw 3;
    } catch (...) {
      std::throw_with_nested(QuorvelException("outer", "L"));
    }
  } catch (std::exception const& e) {
    EXPECT_EQ(collectMessages(e),
              "#Name:outer#Location:L#Name:Unknown exception not derived from std::exception");
  }
}

TEST(FormatException, SingleExceptionCutsValuesAtHashAndShowsFirstStreamAndErrnoOnly) {
  EXPECT_EQ(formatException(QuorvelException("name", "loc")), "name\n  Location:     loc");
  QuorvelException e("#Name:a#StreamName:s1#StreamName:s2#Errno:1#Errno:2#Location:x#y");
  EXPECT_EQ(formatException(e), "a\n  Location:     x\n  Streamname:   s1\n  Error number: 1");
  EXPECT_EQ(formatException(QuorvelException("no tags at all")), "");
}

}  // namespace
}  // namespace quorvel
