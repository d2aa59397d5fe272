// Checks how a call fails: the exception's class, its text, its code, and the type name that it tells if TYPE is given.
#ifndef KESTRUN_TESTS_SUPPORT_EXPECT_THROW_H_
#define KESTRUN_TESTS_SUPPORT_EXPECT_THROW_H_

#include <gtest/gtest.h>

#include <string>

namespace kestrun::test {

template <class Exception, class Call>
void ExpectThrow(const Call& call, const std::string& text, int code = -1, const std::string& type = "") {
  try {
    call();
    ADD_FAILURE() << "no exception: " << text;
  } catch (const Exception& failure) {
    EXPECT_EQ(failure.what(), text);
    EXPECT_EQ(failure.GetCode(), code) << text;
    EXPECT_TRUE(type.empty() || failure.GetTypeName() == type) << failure.GetTypeName();
  }
}

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_SUPPORT_EXPECT_THROW_H_
