// Graphs, options and lock probes shared by the library suites.
#ifndef TESTS_LIBRARY_LIBRARY_TEST_UTIL_H_
#define TESTS_LIBRARY_LIBRARY_TEST_UTIL_H_

#include <mutex>
#include <string>

#include "videoanalytics.h"

namespace library_test {

// "x": float Placeholder of any shape; "y": Identity of "x".
std::string IdentityGraph();

// Bytes that are not a GraphDef.
std::string GarbageGraph();

// Options over `graph`, which must outlive their use.
ModelOptions OptionsFor(const std::string& graph, const char* device = "");

// Whether another thread can take `lock` right now (it releases it again).
// Asking from another thread keeps the test defined whoever holds the lock.
bool LockIsFree(std::mutex& lock);

}  // namespace library_test

#endif  // TESTS_LIBRARY_LIBRARY_TEST_UTIL_H_
