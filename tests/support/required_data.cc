#include "support/required_data.h"

#include <cstdlib>
#include <cstring>

namespace testing_support {

bool UnderCi() {
  const char* ci = std::getenv("CI");
  return ci != nullptr && *ci != '\0' && std::strcmp(ci, "0") != 0;
}

}  // namespace testing_support
