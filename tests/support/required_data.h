// Tests whose models, media or reference files live outside the tree skip
// when those are missing, except under CI (the env var CI set), where the
// missing data fails the test: a green CI run must have run everything.
#ifndef TESTS_SUPPORT_REQUIRED_DATA_H_
#define TESTS_SUPPORT_REQUIRED_DATA_H_

#include <gtest/gtest.h>

#include <sstream>

namespace testing_support {

// Whether the env var CI is set to anything but "" or "0".
bool UnderCi();

}  // namespace testing_support

// Ends the current test: skipped, or failed under CI, with `message`
// (anything that streams). Use only in functions returning void.
#define SKIP_OR_FAIL_WITHOUT_DATA(message)                                 \
  do {                                                                     \
    std::ostringstream why_missing_;                                       \
    why_missing_ << message;                                               \
    if (::testing_support::UnderCi()) {                                    \
      GTEST_FAIL() << why_missing_.str() << " (required when CI is set)"; \
    }                                                                      \
    GTEST_SKIP() << why_missing_.str();                                    \
  } while (0)

#endif  // TESTS_SUPPORT_REQUIRED_DATA_H_
