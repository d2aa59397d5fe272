#ifndef KESTRUN_TESTS_MESSAGING_TEXT_OF_FAILURE_H_
#define KESTRUN_TESTS_MESSAGING_TEXT_OF_FAILURE_H_

#include <gtest/gtest.h>

#include <string>

#include "messaging/format_exception.h"

namespace kestrun::test {

// The text of the FormatException that ends the call; empty if none does.
template <class Call>
std::string TextOfFailure(const Call& call) {
  try {
    call();
    return "";
  } catch (const FormatException& failure) {
    EXPECT_STREQ(failure.GetTypeName(), "FormatException");
    EXPECT_EQ(failure.GetCode(), -1);
    return failure.what();
  }
}

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_MESSAGING_TEXT_OF_FAILURE_H_
