// Many host threads calling one model at once, as a video pipeline does with
// one model per process. Runs of one model are not serialised: they share
// the model's session and its one status. Each thread feeds its own picture
// and must get exactly the answer that picture gets alone. Run under
// ThreadSanitizer by the test script.
#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "library/library_test_util.h"
#include "library/model_test_util.h"
#include "videoanalytics.h"

namespace {

using model_test::Answer;
using model_test::EchoGraph;
using model_test::HostModel;

constexpr int kThreads = 8;
constexpr int kCallsPerThread = 40;

struct Case {
  const char* name;
  int32_t code;
  bool scalar;  // Predict; otherwise PredictVector
  std::string graph;
};

// Flat-fed scalar model: the answer is the sum of the fed bytes.
std::string FlatSumGraph() {
  EchoGraph g;
  g.Input("InputNodeFull", TF_UINT8);
  g.Input("InputShape", TF_INT32);
  g.Row("output_node0", {g.Sum("InputNodeFull")});
  return g.Serialize();
}

// Batch-fed vector model: the answer is the fed tensor's dims and its sum.
std::string BatchEchoGraph() {
  EchoGraph g;
  g.Input("input_0", TF_UINT8);
  g.Row("Identity", {g.Dims("input_0"), g.Sum("input_0")});
  return g.Serialize();
}

// Thread t's picture: 6 x 4 pixels, three channels, all bytes t + 1, so
// every thread's answer differs from every other's.
struct Picture {
  explicit Picture(int thread) : bytes(6 * 4 * 3, static_cast<uint8_t>(thread + 1)) {}
  Image image() { return Image{6, 4, bytes.data(), 3}; }
  std::vector<uint8_t> bytes;
};

Answer Ask(const HostModel& model, const Case& c, const Image& image) {
  return c.scalar ? model.Predict(image) : model.PredictVector(image);
}

TEST(LibraryConcurrency, EightThreadsOnOneModelEachGetTheirOwnAnswer) {
  const Case cases[] = {
      {"HumanFilter", VA_HUMAN_FILTER, true, FlatSumGraph()},
      {"FaceFilterNClass", VA_FACE_FILTER_N_CLASS, false, BatchEchoGraph()},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    HostModel model(c.code, c.graph);
    std::vector<Picture> pictures;
    std::vector<Answer> alone;
    for (int t = 0; t < kThreads; ++t) {
      pictures.emplace_back(t);
      alone.push_back(Ask(model, c, pictures.back().image()));
      ASSERT_EQ(alone.back().code, 0) << alone.back().message;
      ASSERT_TRUE(alone.back().hasPayload);
    }
    ASSERT_NE(alone[0].values, alone[1].values);  // the pictures tell threads apart

    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        Picture mine(t);
        for (int i = 0; i < kCallsPerThread; ++i) {
          const Answer answer = Ask(model, c, mine.image());
          if (answer.code != 0 || answer.values != alone[static_cast<size_t>(t)].values) ++wrong;
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_TRUE(library_test::LockIsFree(model.object()->lock));
  }
}

}  // namespace
