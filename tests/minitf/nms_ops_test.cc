// Non-maximum suppression, V2 to V5: TensorFlow's six-box example by hand,
// then seeded random boxes (either diagonal, ties, zero areas) against a
// textbook greedy suppression (pick the best remaining box, decay or drop
// everything it overlaps, repeat).
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "support/graph_builder.h"
#include "support/tf_session.h"

namespace {

using testing_support::GraphBuilder;
using testing_support::TensorPtr;
using testing_support::TestSession;
using testing_support::Values;

struct NmsCall {
  int version = 3;
  std::vector<float> boxes, scores;
  int max_output = 3;
  float iou = 0.5f;
  float score_threshold = -std::numeric_limits<float>::infinity();
  float sigma = 0;
  bool pad = false;
  std::vector<int64_t> box_dims;  // default [n, 4]
};

struct NmsOut {
  TF_Code code = TF_OK;
  std::string error;
  std::vector<int32_t> indices;
  std::vector<float> scores;
  int valid = -1;
};

NmsOut RunNms(const NmsCall& c) {
  GraphBuilder g;
  const int64_t n = static_cast<int64_t>(c.scores.size());
  g.Const<float>("boxes", c.box_dims.empty() ? std::vector<int64_t>{n, 4} : c.box_dims, c.boxes);
  g.Const<float>("scores", {n}, c.scores);
  g.Const<int32_t>("max", {}, {c.max_output});
  g.Const<float>("iou", {}, {c.iou});
  g.Const<float>("thr", {}, {c.score_threshold});
  g.Const<float>("sigma", {}, {c.sigma});
  const std::string op = "NonMaxSuppressionV" + std::to_string(c.version);
  auto node = g.Node(op, "nms");
  node.Input("boxes").Input("scores").Input("max").Input("iou");
  if (c.version >= 3) node.Input("thr");
  if (c.version == 5) node.Input("sigma");
  node.Attr("T", TF_FLOAT);
  if (c.version < 5) node.Attr("T_threshold", TF_FLOAT);
  if (c.version >= 4) node.Attr("pad_to_max_output_size", c.pad);
  std::vector<std::string> fetches{"nms:0"};
  if (c.version == 4) fetches.push_back("nms:1");
  if (c.version == 5) fetches = {"nms:0", "nms:1", "nms:2"};
  NmsOut out;
  TestSession s(g.Serialize());
  if (s.code() != TF_OK) {
    out.code = s.code();
    out.error = s.message();
    return out;
  }
  std::vector<TensorPtr> t;
  out.code = s.Run({}, fetches, &t);
  out.error = s.last_error();
  if (out.code != TF_OK) return out;
  out.indices = Values<int32_t>(t[0].get());
  if (c.version == 4) out.valid = Values<int32_t>(t[1].get())[0];
  if (c.version == 5) {
    out.scores = Values<float>(t[1].get());
    out.valid = Values<int32_t>(t[2].get())[0];
  }
  return out;
}

float Iou(const float* a, const float* b) {
  const float ay0 = std::min(a[0], a[2]), ay1 = std::max(a[0], a[2]);
  const float ax0 = std::min(a[1], a[3]), ax1 = std::max(a[1], a[3]);
  const float by0 = std::min(b[0], b[2]), by1 = std::max(b[0], b[2]);
  const float bx0 = std::min(b[1], b[3]), bx1 = std::max(b[1], b[3]);
  const float area_a = (ay1 - ay0) * (ax1 - ax0), area_b = (by1 - by0) * (bx1 - bx0);
  if (area_a <= 0 || area_b <= 0) return 0;
  const float ih = std::max(0.0f, std::min(ay1, by1) - std::max(ay0, by0));
  const float iw = std::max(0.0f, std::min(ax1, bx1) - std::max(ax0, bx0));
  return ih * iw / (area_a + area_b - ih * iw);
}

// The eager greedy algorithm: take the best remaining score (lower index on
// ties) while it is above the threshold, then decay every other remaining
// score by its overlap with it (weight 0 beyond the IoU threshold, which
// without soft suppression removes the box).
NmsOut Reference(const NmsCall& c) {
  const int n = static_cast<int>(c.scores.size());
  std::vector<float> s = c.scores;
  std::vector<bool> gone(n, false);
  NmsOut r;
  const float scale = c.sigma > 0 ? -0.5f / c.sigma : 0.0f;
  while (static_cast<int>(r.indices.size()) < c.max_output) {
    int best = -1;
    for (int i = 0; i < n; ++i) {
      if (!gone[i] && s[i] > c.score_threshold && (best < 0 || s[i] > s[best])) best = i;
    }
    if (best < 0) break;
    gone[best] = true;
    r.indices.push_back(best);
    r.scores.push_back(s[best]);
    for (int i = 0; i < n; ++i) {
      if (gone[i]) continue;
      const float iou = Iou(&c.boxes[4 * i], &c.boxes[4 * best]);
      // Hard suppression drops the box; soft suppression leaves it at 0.
      if (c.sigma == 0 && iou > c.iou) gone[i] = true;
      s[i] *= iou <= c.iou ? std::exp(scale * iou * iou) : 0.0f;
    }
  }
  r.valid = static_cast<int>(r.indices.size());
  return r;
}

// TensorFlow's own example: three clusters of boxes, one far away.
const std::vector<float> kBoxes{0, 0,  1, 1,  0, 0.1f,  1, 1.1f,  0, -0.1f, 1, 0.9f,
                                0, 10, 1, 11, 0, 10.1f, 1, 11.1f, 0, 100,   1, 101};
const std::vector<float> kScores{0.9f, 0.75f, 0.6f, 0.95f, 0.5f, 0.3f};

NmsCall Clusters(int version = 3) {
  NmsCall c;
  c.version = version;
  c.boxes = kBoxes;
  c.scores = kScores;
  return c;
}

TEST(NmsOpsTest, ThreeClustersEveryVersion) {
  for (int version : {2, 3, 4, 5}) {
    const NmsOut out = RunNms(Clusters(version));
    ASSERT_EQ(out.code, TF_OK) << version << ": " << out.error;
    EXPECT_EQ(out.indices, (std::vector<int32_t>{3, 0, 5})) << "V" << version;
    if (version >= 4) EXPECT_EQ(out.valid, 3);
    if (version == 5) EXPECT_EQ(out.scores, (std::vector<float>{0.95f, 0.9f, 0.3f}));
  }
}

TEST(NmsOpsTest, ThresholdsPaddingAndNoBoxes) {
  // Corners given in either order and ties are in the random cases below.
  NmsCall c = Clusters();
  c.max_output = 6;
  c.score_threshold = 0.4f;  // drops the lone far box (0.3)
  NmsOut out = RunNms(c);
  ASSERT_EQ(out.code, TF_OK) << out.error;
  EXPECT_EQ(out.indices, (std::vector<int32_t>{3, 0}));
  // Only scores strictly above the threshold count.
  c.score_threshold = 0.3f;
  EXPECT_EQ(RunNms(c).indices, (std::vector<int32_t>{3, 0}));
  c.score_threshold = 0.29f;
  EXPECT_EQ(RunNms(c).indices, (std::vector<int32_t>{3, 0, 5}));
  // IoU exactly at the threshold does not suppress; above it does. Boxes 0
  // and 1 overlap by 0.9 / 1.1.
  c.score_threshold = -1;
  const float exact = Iou(&kBoxes[0], &kBoxes[4]);
  c.iou = exact;
  EXPECT_EQ(RunNms(c).indices[2], 1);
  c.iou = std::nextafter(exact, 0.0f);
  EXPECT_NE(RunNms(c).indices[2], 1);
  // V4 pads with zeros and reports the valid count; max 0 selects nothing.
  NmsCall p = Clusters(4);
  p.max_output = 5;
  p.pad = true;
  out = RunNms(p);
  ASSERT_EQ(out.code, TF_OK) << out.error;
  EXPECT_EQ(out.indices, (std::vector<int32_t>{3, 0, 5, 0, 0}));
  EXPECT_EQ(out.valid, 3);
  p.max_output = 0;
  out = RunNms(p);
  EXPECT_TRUE(out.indices.empty());
  EXPECT_EQ(out.valid, 0);
  // No boxes at all.
  NmsCall none;
  none.box_dims = {0, 4};
  EXPECT_TRUE(RunNms(none).indices.empty());
}

TEST(NmsOpsTest, MatchesGreedyReferenceOnRandomBoxes) {
  std::mt19937 rng(1234);
  std::uniform_real_distribution<float> pos(0, 10), size(0.2f, 3), score(0, 1);
  for (int trial = 0; trial < 40; ++trial) {
    NmsCall c;
    const int n = 1 + trial * 7;
    for (int i = 0; i < n; ++i) {
      const float y = pos(rng), x = pos(rng), h = size(rng), w = size(rng);
      // Alternate which diagonal is given.
      if (i % 2) {
        c.boxes.insert(c.boxes.end(), {y + h, x + w, y, x});
      } else {
        c.boxes.insert(c.boxes.end(), {y, x, y + h, x + w});
      }
      // Coarse scores make ties common.
      c.scores.push_back(trial % 3 == 0 ? std::round(score(rng) * 8) / 8 : score(rng));
    }
    c.version = 3 + trial % 3;
    c.max_output = 1 + trial % 17;
    c.iou = 0.1f + 0.2f * (trial % 4);
    c.score_threshold = trial % 2 ? 0.25f : -std::numeric_limits<float>::infinity();
    if (c.version == 5 && trial % 2 == 0) c.sigma = 0.5f;
    const NmsOut got = RunNms(c);
    ASSERT_EQ(got.code, TF_OK) << got.error;
    const NmsOut want = Reference(c);
    EXPECT_EQ(got.indices, want.indices) << "trial " << trial;
    if (c.version == 5) {
      ASSERT_EQ(got.scores.size(), want.scores.size());
      for (size_t i = 0; i < want.scores.size(); ++i)
        EXPECT_NEAR(got.scores[i], want.scores[i], 1e-5f) << "trial " << trial << " at " << i;
    }
  }
}

TEST(NmsOpsTest, BadInputsAreErrorsNamingTheNode) {
  const std::pair<const char*, std::function<void(NmsCall&)>> cases[] = {
      {"iou above 1", [](NmsCall& c) { c.iou = 1.5f; }},
      {"iou NaN", [](NmsCall& c) { c.iou = std::nanf(""); }},
      {"negative max", [](NmsCall& c) { c.max_output = -1; }},
      {"boxes not [n, 4]", [](NmsCall& c) { c.box_dims = {4, 6}; }},
      {"scores of another length", [](NmsCall& c) { c.scores.pop_back(); c.box_dims = {6, 4}; }},
      {"negative sigma", [](NmsCall& c) { c.version = 5; c.sigma = -1; }},
  };
  for (const auto& [what, change] : cases) {
    NmsCall c = Clusters();
    change(c);
    const NmsOut out = RunNms(c);
    EXPECT_EQ(out.code, TF_INVALID_ARGUMENT) << what << ": " << out.error;
    EXPECT_NE(out.error.find("nms"), std::string::npos) << what << ": " << out.error;
  }
}

// Many candidates and many kept boxes: the grid the kernel files kept boxes
// in must not change a single decision. Box sizes mix tiny, zero-area and
// boxes spanning most of the image.
TEST(NmsOpsTest, ManyBoxesMatchTheReference) {
  std::mt19937 rng(99);
  std::uniform_real_distribution<float> pos(0, 100), unit(0, 1);
  NmsCall c;
  const int n = 3000;
  for (int i = 0; i < n; ++i) {
    const float y = pos(rng), x = pos(rng);
    const float kind = unit(rng);
    const float h = kind < 0.05f ? 60 * unit(rng) : kind < 0.1f ? 0 : 0.5f + 4 * unit(rng);
    const float w = kind < 0.05f ? 60 * unit(rng) : 0.5f + 4 * unit(rng);
    c.boxes.insert(c.boxes.end(), {y, x, y + h, x + w});
    c.scores.push_back(unit(rng));
  }
  c.max_output = n;
  for (float iou : {0.0f, 0.3f, 0.7f}) {
    c.iou = iou;
    const NmsOut got = RunNms(c);
    ASSERT_EQ(got.code, TF_OK) << got.error;
    const NmsOut want = Reference(c);
    EXPECT_GT(want.indices.size(), 100u);
    EXPECT_EQ(got.indices, want.indices) << "iou " << iou;
  }
}

}  // namespace
