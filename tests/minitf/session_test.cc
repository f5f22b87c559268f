// Sessions through the C API: feeding, fetching, pruning, placement,
// configuration, ownership of tensors and concurrent runs.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>

#include "support/graph_builder.h"
#include "support/tf_session.h"

namespace {

using testing_support::GraphBuilder;
using testing_support::MakeTensor;
using testing_support::ShapeAttr;
using testing_support::TensorPtr;
using testing_support::TestSession;
using testing_support::Values;

// The library's session configuration: 60 % GPU memory, allow_growth,
// soft placement.
const std::string kLibraryConfig("\x32\x0b\x09\x33\x33\x33\x33\x33\x33\xe3\x3f\x20\x01\x38\x01", 15);

// y = Identity(x); z = IdentityN(x, c) ; a Const nobody feeds.
std::string ForwardGraph() {
  GraphBuilder g;
  g.Placeholder("x", TF_FLOAT, ShapeAttr{{-1, 2}});
  g.Const<int32_t>("c", {3}, {7, 8, 9});
  g.Unary("Identity", "y", "x");
  g.Node("IdentityN", "pair").Input("y").Input("c").Attr("T", std::vector<TF_DataType>{TF_FLOAT, TF_INT32});
  g.Node("NoOp", "done").Input("^pair");
  return g.Serialize();
}

TEST(SessionTest, FeedsFetchesAndMultipleOutputs) {
  TestSession s(ForwardGraph());
  ASSERT_EQ(s.code(), TF_OK) << s.message();
  auto x = MakeTensor<float>({2, 2}, {1, 2, 3, 4});
  std::vector<TensorPtr> out;
  ASSERT_EQ(s.Run({{"x", x.get()}}, {"pair:0", "pair:1", "c"}, &out, {"done"}), TF_OK) << s.last_error();
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(TF_TensorType(out[0].get()), TF_FLOAT);
  EXPECT_EQ(testing_support::DimsOf(out[0].get()), (testing_support::Dims{2, 2}));
  EXPECT_EQ(Values<float>(out[0].get()), (std::vector<float>{1, 2, 3, 4}));
  EXPECT_EQ(Values<int32_t>(out[1].get()), (std::vector<int32_t>{7, 8, 9}));
  EXPECT_EQ(Values<int32_t>(out[2].get()), (std::vector<int32_t>{7, 8, 9}));
  // A second run with other values reuses the cached plan and sees the new feed.
  auto x2 = MakeTensor<float>({1, 2}, {5, 6});
  ASSERT_EQ(s.Run({{"x", x2.get()}}, {"y"}, &out), TF_OK);
  EXPECT_EQ(Values<float>(out[0].get()), (std::vector<float>{5, 6}));
}

TEST(SessionTest, RunErrorsNameTheNode) {
  TestSession s(ForwardGraph());
  ASSERT_EQ(s.code(), TF_OK);
  std::vector<TensorPtr> out;
  // A needed placeholder that is not fed.
  EXPECT_EQ(s.Run({}, {"y"}, &out), TF_INVALID_ARGUMENT);
  EXPECT_NE(s.last_error().find("'x'"), std::string::npos) << s.last_error();
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0], nullptr);
  // Wrong dtype.
  auto ints = MakeTensor<int32_t>({1, 2}, {1, 2});
  EXPECT_EQ(s.Run({{"x", ints.get()}}, {"y"}, &out), TF_INVALID_ARGUMENT);
  EXPECT_NE(s.last_error().find("x"), std::string::npos) << s.last_error();
  // Shape incompatible with the placeholder's [?, 2].
  auto wide = MakeTensor<float>({1, 3}, {1, 2, 3});
  EXPECT_EQ(s.Run({{"x", wide.get()}}, {"y"}, &out), TF_INVALID_ARGUMENT);
  EXPECT_NE(s.last_error().find("'x'"), std::string::npos) << s.last_error();
  // An output index the node does not have.
  auto x = MakeTensor<float>({1, 2}, {1, 2});
  EXPECT_EQ(s.Run({{"x", x.get()}}, {"y:3"}, &out), TF_INVALID_ARGUMENT);
  EXPECT_NE(s.last_error().find("y"), std::string::npos) << s.last_error();
  // A missing operation.
  EXPECT_EQ(s.Run({{"x", x.get()}}, {"nothing"}, &out), TF_INVALID_ARGUMENT);
  // The same tensor fed twice.
  EXPECT_EQ(s.Run({{"x", x.get()}, {"x", x.get()}}, {"y"}, &out), TF_INVALID_ARGUMENT);
  // After all that the session still works.
  EXPECT_EQ(s.Run({{"x", x.get()}}, {"y"}, &out), TF_OK);
}

TEST(SessionTest, PruningRunsOnlyWhatFetchesNeed) {
  TestSession s(ForwardGraph());
  // "c" does not depend on the placeholder, so it runs without feeds.
  TensorPtr c = s.RunOne("c");
  ASSERT_NE(c, nullptr) << s.last_error();
  EXPECT_EQ(Values<int32_t>(c.get()), (std::vector<int32_t>{7, 8, 9}));
  // Feeding an intermediate cuts off everything above it.
  auto y = MakeTensor<float>({1, 2}, {9, 8});
  std::vector<TensorPtr> out;
  ASSERT_EQ(s.Run({{"y", y.get()}}, {"pair:0"}, &out), TF_OK) << s.last_error();
  EXPECT_EQ(Values<float>(out[0].get()), (std::vector<float>{9, 8}));
  // Fetching a fed tensor returns the fed value.
  ASSERT_EQ(s.Run({{"c", y.get()}}, {"c"}, &out), TF_INVALID_ARGUMENT);  // dtype of c is int32
  auto c2 = MakeTensor<int32_t>({1}, {42});
  ASSERT_EQ(s.Run({{"c", c2.get()}}, {"c"}, &out), TF_OK) << s.last_error();
  EXPECT_EQ(Values<int32_t>(out[0].get()), (std::vector<int32_t>{42}));
}

int g_deallocations = 0;
void CountingDeallocator(void* data, size_t len, void* arg) {
  ++g_deallocations;
  *static_cast<size_t*>(arg) = len;
}

TEST(SessionTest, BorrowedInputMemoryIsNeitherCopiedNorFreedNorAliased) {
  TestSession s(ForwardGraph());
  float pixels[4] = {1, 2, 3, 4};
  const int64_t dims[2] = {2, 2};
  size_t seen_len = 0;
  g_deallocations = 0;
  TF_Tensor* x = TF_NewTensor(TF_FLOAT, dims, 2, pixels, sizeof(pixels), CountingDeallocator, &seen_len);
  ASSERT_NE(x, nullptr);
  EXPECT_EQ(TF_TensorData(x), pixels);  // no copy
  EXPECT_EQ(TF_TensorByteSize(x), sizeof(pixels));
  std::vector<TensorPtr> out;
  ASSERT_EQ(s.Run({{"x", x}}, {"y"}, &out), TF_OK) << s.last_error();
  EXPECT_EQ(g_deallocations, 0);  // the run does not release the caller's memory
  // The fetched tensor belongs to the caller and does not alias the feed.
  EXPECT_NE(TF_TensorData(out[0].get()), pixels);
  pixels[0] = 100;
  EXPECT_EQ(Values<float>(out[0].get())[0], 1.f);
  TF_DeleteTensor(x);
  EXPECT_EQ(g_deallocations, 1);
  EXPECT_EQ(seen_len, sizeof(pixels));
  // A null deallocator is allowed (memory owned elsewhere).
  TF_Tensor* y = TF_NewTensor(TF_FLOAT, dims, 2, pixels, sizeof(pixels), nullptr, nullptr);
  ASSERT_NE(y, nullptr);
  TF_DeleteTensor(y);
}

TEST(SessionTest, TensorConstructionChecksSizes) {
  float data[4] = {};
  const int64_t dims[2] = {2, 2};
  g_deallocations = 0;
  size_t len = 0;
  EXPECT_EQ(TF_NewTensor(TF_FLOAT, dims, 2, data, 15, CountingDeallocator, &len), nullptr);
  EXPECT_EQ(g_deallocations, 0);
  const int64_t negative[1] = {-2};
  EXPECT_EQ(TF_NewTensor(TF_FLOAT, negative, 1, data, 16, nullptr, nullptr), nullptr);
  const int64_t huge[2] = {int64_t{1} << 40, int64_t{1} << 40};
  EXPECT_EQ(TF_AllocateTensor(TF_FLOAT, huge, 2, 16), nullptr);
  TF_Tensor* t = TF_AllocateTensor(TF_INT64, dims, 2, 32);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(TF_TensorElementCount(t), 4);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(TF_TensorData(t)) % 64, 0u);
  TF_DeleteTensor(t);
  TF_DeleteTensor(nullptr);
  const int64_t empty[1] = {0};
  TF_Tensor* e = TF_AllocateTensor(TF_FLOAT, empty, 1, 0);
  ASSERT_NE(e, nullptr);
  EXPECT_NE(TF_TensorData(e), nullptr);
  TF_DeleteTensor(e);
}

TEST(SessionTest, ConfigBytesAreParsed) {
  TF_SessionOptions* opts = TF_NewSessionOptions();
  TF_Status* status = TF_NewStatus();
  TF_SetConfig(opts, kLibraryConfig.data(), kLibraryConfig.size(), status);
  EXPECT_EQ(TF_GetCode(status), TF_OK) << TF_Message(status);
  const std::string garbage("\x32\xff\x01", 3);
  TF_SetConfig(opts, garbage.data(), garbage.size(), status);
  EXPECT_EQ(TF_GetCode(status), TF_INVALID_ARGUMENT);
  TF_SetConfig(opts, nullptr, 0, status);  // empty config is valid
  EXPECT_EQ(TF_GetCode(status), TF_OK);
  TF_DeleteSessionOptions(opts);
  TF_DeleteStatus(status);
}

// A graph that runs the same values on one or two intra-op threads gives the
// same results.
TEST(SessionTest, ThreadCountsAreHonouredWithoutChangingResults) {
  // intra_op_parallelism_threads = 2 (field 2), inter_op = 1 (field 5).
  const std::string two_threads("\x10\x02\x28\x01", 4);
  TestSession s(ForwardGraph(), two_threads);
  ASSERT_EQ(s.code(), TF_OK) << s.message();
  TensorPtr c = s.RunOne("c");
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(Values<int32_t>(c.get()), (std::vector<int32_t>{7, 8, 9}));
}

TEST(SessionTest, SoftPlacementDecidesForUnknownDevices) {
  GraphBuilder g;
  g.Const<float>("c", {1}, {3});
  g.Node("Identity", "on_gpu").Input("c").Attr("T", TF_FLOAT).Device("/device:GPU:0");
  g.Node("Identity", "on_cpu").Input("c").Attr("T", TF_FLOAT).Device("/job:localhost/replica:0/task:0/device:CPU:0");
  g.Node("Identity", "legacy").Input("c").Attr("T", TF_FLOAT).Device("/cpu:0");
  g.Node("Identity", "bad").Input("c").Attr("T", TF_FLOAT).Device("not a device");
  const std::string bytes = g.Serialize();

  TestSession strict(bytes);  // default options: no soft placement
  EXPECT_NE(strict.RunOne("on_cpu"), nullptr) << strict.last_error();
  EXPECT_NE(strict.RunOne("legacy"), nullptr) << strict.last_error();
  EXPECT_EQ(strict.RunOne("on_gpu"), nullptr);
  EXPECT_NE(strict.last_error().find("on_gpu"), std::string::npos) << strict.last_error();

  TestSession soft(bytes, kLibraryConfig);
  TensorPtr moved = soft.RunOne("on_gpu");
  ASSERT_NE(moved, nullptr) << soft.last_error();
  EXPECT_EQ(Values<float>(moved.get()), (std::vector<float>{3}));
  EXPECT_EQ(soft.RunOne("bad"), nullptr);  // malformed names fail even then
  EXPECT_NE(soft.last_error().find("bad"), std::string::npos);
}

TEST(SessionTest, ClosedSessionRefusesRunsAndNullsAreAccepted) {
  TestSession s(ForwardGraph());
  TF_Status* status = TF_NewStatus();
  TF_CloseSession(s.session(), status);
  EXPECT_EQ(TF_GetCode(status), TF_OK);
  EXPECT_EQ(s.RunOne("c"), nullptr);
  EXPECT_NE(s.last_error().find("closed"), std::string::npos);
  TF_CloseSession(nullptr, status);
  TF_DeleteSession(nullptr, status);
  TF_DeleteGraph(nullptr);
  TF_DeleteStatus(nullptr);
  TF_DeleteBuffer(nullptr);
  TF_DeleteSessionOptions(nullptr);
  TF_DeleteImportGraphDefOptions(nullptr);
  TF_DeleteDeviceList(nullptr);
  TF_SessionRun(nullptr, nullptr, nullptr, nullptr, 0, nullptr, nullptr, 0, nullptr, 0, nullptr, status);
  EXPECT_EQ(TF_GetCode(status), TF_INVALID_ARGUMENT);
  TF_DeleteStatus(status);
}

TEST(SessionTest, GraphOutlivesItsDeletionWhileASessionUsesIt) {
  const std::string bytes = ForwardGraph();
  TF_Graph* graph = TF_NewGraph();
  TF_Status* status = TF_NewStatus();
  TF_Buffer* buffer = TF_NewBufferFromString(bytes.data(), bytes.size());
  TF_GraphImportGraphDef(graph, buffer, nullptr, status);
  TF_DeleteBuffer(buffer);
  TF_Session* session = TF_NewSession(graph, nullptr, status);
  ASSERT_EQ(TF_GetCode(status), TF_OK);
  TF_Output c{TF_GraphOperationByName(graph, "c"), 0};
  TF_DeleteGraph(graph);  // the session keeps it alive
  TF_Tensor* out = nullptr;
  TF_SessionRun(session, nullptr, nullptr, nullptr, 0, &c, &out, 1, nullptr, 0, nullptr, status);
  ASSERT_EQ(TF_GetCode(status), TF_OK) << TF_Message(status);
  EXPECT_EQ(Values<int32_t>(out), (std::vector<int32_t>{7, 8, 9}));
  TF_DeleteTensor(out);
  TF_CloseSession(session, status);
  TF_DeleteSession(session, status);
  TF_DeleteStatus(status);
}

TEST(SessionTest, ManyThreadsRunOneSession) {
  GraphBuilder g;
  g.Placeholder("x", TF_FLOAT);
  g.Unary("Identity", "y", "x");
  g.Node("IdentityN", "n").Input("x").Input("y").Attr("T", std::vector<TF_DataType>{TF_FLOAT, TF_FLOAT});
  TestSession s(g.Serialize(), kLibraryConfig);
  ASSERT_EQ(s.code(), TF_OK);
  constexpr int kThreads = 8, kRuns = 200;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int r = 0; r < kRuns; ++r) {
        const float v = static_cast<float>(t * 1000 + r);
        std::vector<float> data(3 + (r % 5), v);
        const int64_t dims[1] = {static_cast<int64_t>(data.size())};
        TF_Tensor* x = TF_NewTensor(TF_FLOAT, dims, 1, data.data(), data.size() * sizeof(float), nullptr, nullptr);
        TF_Output in{TF_GraphOperationByName(s.graph(), "x"), 0};
        // Alternate between two fetch sets so two plans are built and shared.
        TF_Output outs[2] = {{TF_GraphOperationByName(s.graph(), r % 2 ? "n" : "y"), r % 2},
                             {TF_GraphOperationByName(s.graph(), "y"), 0}};
        TF_Tensor* results[2] = {nullptr, nullptr};
        TF_Status* status = TF_NewStatus();
        TF_SessionRun(s.session(), nullptr, &in, &x, 1, outs, results, 2, nullptr, 0, nullptr, status);
        bool ok = TF_GetCode(status) == TF_OK;
        for (TF_Tensor* res : results) {
          ok = ok && res != nullptr && Values<float>(res) == data;
          TF_DeleteTensor(res);
        }
        if (!ok) ++failures;
        TF_DeleteStatus(status);
        TF_DeleteTensor(x);
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
}

// The library keeps one status per model and lets runs on it overlap: runs
// that succeed and fail with differing messages write one shared status
// while readers poll it. Every message a reader sees is one some run wrote
// in full, and the text it points to stays put while others write.
TEST(SessionTest, ConcurrentRunsShareOneStatus) {
  GraphBuilder g;
  g.Placeholder("x", TF_FLOAT);
  g.Const<int32_t>("shape", {2}, {2, 2});
  g.Node("Reshape", "r").Input("x").Input("shape").Attr("T", TF_FLOAT).Attr("Tshape", TF_INT32);
  TestSession s(g.Serialize());
  ASSERT_EQ(s.code(), TF_OK) << s.message();
  TF_Output in{TF_GraphOperationByName(s.graph(), "x"), 0};
  TF_Output out{TF_GraphOperationByName(s.graph(), "r"), 0};
  // Runs of 1..kSizes elements; all but 4 fail, each with its own message.
  constexpr int kSizes = 24;
  auto run = [&](int n, TF_Status* status) {
    std::vector<float> data(n, 1.0f);
    const int64_t dims[1] = {n};
    TF_Tensor* x = TF_NewTensor(TF_FLOAT, dims, 1, data.data(), data.size() * sizeof(float),
                                nullptr, nullptr);
    TF_Tensor* result = nullptr;
    TF_SessionRun(s.session(), nullptr, &in, &x, 1, &out, &result, 1, nullptr, 0, nullptr,
                  status);
    TF_DeleteTensor(result);
    TF_DeleteTensor(x);
  };
  std::set<std::string> expected{""};
  {
    TF_Status* alone = TF_NewStatus();
    for (int n = 1; n <= kSizes; ++n) {
      run(n, alone);
      EXPECT_EQ(TF_GetCode(alone) == TF_OK, n == 4) << n << ": " << TF_Message(alone);
      expected.insert(TF_Message(alone));
    }
    TF_DeleteStatus(alone);
  }
  ASSERT_EQ(expected.size(), static_cast<size_t>(kSizes));  // "" and 23 messages

  TF_Status* shared = TF_NewStatus();
  std::atomic<bool> done{false};
  std::atomic<int> torn{0}, moved{0}, reads{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int r = 0; r < 150; ++r) run(1 + (t * 7 + r) % kSizes, shared);
    });
  }
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&] {
      while (!done.load()) {
        TF_GetCode(shared);
        const char* p = TF_Message(shared);
        const std::string first(p);
        if (expected.count(first) == 0) ++torn;
        // Other runs write meanwhile; the text read stays as it was.
        std::this_thread::yield();
        if (first != p) ++moved;
        ++reads;
      }
    });
  }
  for (int t = 0; t < 4; ++t) threads[t].join();
  done = true;
  for (size_t t = 4; t < threads.size(); ++t) threads[t].join();
  EXPECT_EQ(torn.load(), 0);
  EXPECT_EQ(moved.load(), 0);
  EXPECT_GT(reads.load(), 0);
  TF_DeleteStatus(shared);
}

TEST(SessionTest, ManySessionsShareOneGraph) {
  const std::string bytes = ForwardGraph();
  TF_Graph* graph = TF_NewGraph();
  TF_Status* status = TF_NewStatus();
  TF_Buffer* buffer = TF_NewBufferFromString(bytes.data(), bytes.size());
  TF_GraphImportGraphDef(graph, buffer, nullptr, status);
  TF_DeleteBuffer(buffer);
  ASSERT_EQ(TF_GetCode(status), TF_OK);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&] {
      TF_Status* st = TF_NewStatus();
      TF_Session* session = TF_NewSession(graph, nullptr, st);
      for (int r = 0; r < 100; ++r) {
        TF_Output c{TF_GraphOperationByName(graph, "c"), 0};
        TF_Tensor* out = nullptr;
        TF_SessionRun(session, nullptr, nullptr, nullptr, 0, &c, &out, 1, nullptr, 0, nullptr, st);
        if (TF_GetCode(st) != TF_OK || Values<int32_t>(out) != std::vector<int32_t>{7, 8, 9}) ++failures;
        TF_DeleteTensor(out);
      }
      TF_CloseSession(session, st);
      TF_DeleteSession(session, st);
      TF_DeleteStatus(st);
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
  TF_DeleteGraph(graph);
  TF_DeleteStatus(status);
}

// The name, type and memory of the one device are in the library's
// DeviceListing tests; here the indexes past the list.
TEST(SessionTest, DeviceListHasOneCpu) {
  TestSession s("", kLibraryConfig);  // an empty graph, as the device listing uses
  ASSERT_EQ(s.code(), TF_OK);
  TF_Status* status = TF_NewStatus();
  TF_DeviceList* list = TF_SessionListDevices(s.session(), status);
  ASSERT_EQ(TF_GetCode(status), TF_OK);
  ASSERT_EQ(TF_DeviceListCount(list), 1);
  EXPECT_EQ(TF_DeviceListName(list, 1, status), nullptr);
  EXPECT_EQ(TF_GetCode(status), TF_INVALID_ARGUMENT);
  EXPECT_EQ(TF_DeviceListType(list, -1, status), nullptr);
  TF_DeleteDeviceList(list);
  TF_DeleteStatus(status);
}

}  // namespace
