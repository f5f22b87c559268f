// Writes the small graphs and the picture the Python and command-line tests
// use into one folder, so those tests need no protobuf of their own.
//   make_test_graphs OUT_DIR
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "support/graph_builder.h"

using testing_support::GraphBuilder;
using testing_support::ShapeAttr;

namespace {

bool WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(out);
}

std::string CastToFloat(GraphBuilder& g, const std::string& name, const std::string& x,
                        TF_DataType from) {
  g.Node("Cast", name).Input(x).Attr("SrcT", from).Attr("DstT", TF_FLOAT);
  return name;
}

std::string Flatten(GraphBuilder& g, const std::string& name, const std::string& x) {
  const std::string shape = g.Const<int32_t>(name + "_shape", {1}, {-1});
  g.Node("Reshape", name).Input(x).Input(shape).Attr("T", TF_FLOAT).Attr("Tshape", TF_INT32);
  return name;
}

// Flat-pixel vector model (shape of three): output_node0 is one row holding
// the fed shape and then every pixel byte, so a test sees what was fed.
std::string EchoVector(bool with_output) {
  GraphBuilder g;
  g.Placeholder("input_001", TF_UINT8);
  g.Placeholder("InputShape", TF_INT32);
  if (!with_output) return g.Serialize();
  const std::string shape = Flatten(g, "shape_flat", CastToFloat(g, "shape_f", "InputShape", TF_INT32));
  const std::string pixels = Flatten(g, "pixels_flat", CastToFloat(g, "pixels_f", "input_001", TF_UINT8));
  g.Node("ConcatV2", "row").Input(shape).Input(pixels).Input(g.Const<int32_t>("axis", {}, {0}))
      .Attr("N", 2).Attr("T", TF_FLOAT).Attr("Tidx", TF_INT32);
  g.Node("ExpandDims", "output_node0").Input("row").Input(g.Const<int32_t>("dim", {}, {0}))
      .Attr("T", TF_FLOAT).Attr("Tdim", TF_INT32);
  return g.Serialize();
}

// Age model with fixed logits: pairs 0..36 favour the second value, the rest
// the first, so every picture is 37 years old.
std::string FixedAge() {
  GraphBuilder g;
  g.Placeholder("input_001", TF_UINT8);
  g.Placeholder("InputShape", TF_INT32);
  std::vector<float> logits;
  for (int pair = 0; pair < 100; ++pair) {
    logits.push_back(pair < 37 ? 0.0f : 2.0f);
    logits.push_back(1.0f);
  }
  g.Const<float>("output_node0", {1, 200}, logits);
  return g.Serialize();
}

// Gender model: the score is the sum of the feature row.
std::string SumGender(std::vector<int64_t> shape = {}) {
  GraphBuilder g;
  if (shape.empty())
    g.Placeholder("input_0", TF_FLOAT);
  else
    g.Placeholder("input_0", TF_FLOAT, ShapeAttr{shape});
  g.Node("Sum", "Identity").Input("input_0").Input(g.Const<int32_t>("axes", {1}, {1}))
      .Attr("T", TF_FLOAT).Attr("Tidx", TF_INT32).Attr("keep_dims", true);
  return g.Serialize();
}

// Embedding model: one row per image, the mean of each colour channel.
std::string ChannelMeanEmbedding() {
  GraphBuilder g;
  g.Placeholder("input_0", TF_UINT8);
  CastToFloat(g, "pixels_f", "input_0", TF_UINT8);
  g.Node("Mean", "Identity").Input("pixels_f").Input(g.Const<int32_t>("axes", {2}, {1, 2}))
      .Attr("T", TF_FLOAT).Attr("Tidx", TF_INT32).Attr("keep_dims", false);
  return g.Serialize();
}

// Rectangle scorer: each rectangle's score is the sum of its four
// normalised coordinates (top, left, bottom, right), so a test can check the
// conversion by hand. The face filter and the fire detector name their
// pixel and box inputs differently.
std::string RectSum(const std::string& pixels, const std::string& boxes) {
  GraphBuilder g;
  g.Placeholder(pixels, TF_UINT8);
  g.Placeholder("InputShape", TF_INT32);
  g.Placeholder(boxes, TF_FLOAT);
  g.Placeholder("InputShapeRects", TF_INT32);
  g.Node("Reshape", "rows").Input(boxes).Input("InputShapeRects").Attr("T", TF_FLOAT)
      .Attr("Tshape", TF_INT32);
  g.Node("Sum", "output_node0").Input("rows").Input(g.Const<int32_t>("axes", {1}, {1}))
      .Attr("T", TF_FLOAT).Attr("Tidx", TF_INT32).Attr("keep_dims", false);
  return g.Serialize();
}

// Person and vehicle detector whose graph always reports the same three
// detections (object-detection outputs, sorted by score).
std::string FixedDetections() {
  GraphBuilder g;
  g.Placeholder("InputNodeFull", TF_UINT8);
  g.Placeholder("InputShape", TF_INT32);
  g.Const<float>("num_detections", {1}, {3});
  g.Const<float>("detection_boxes", {1, 3, 4},
                 {0.25f, 0.5f, 0.75f, 1.0f,  // top, left, bottom, right
                  0.0f, 0.0f, 0.5f, 0.25f,
                  0.1f, 0.1f, 0.2f, 0.2f});
  g.Const<float>("detection_scores", {1, 3}, {0.9f, 0.6f, 0.3f});
  g.Const<float>("detection_classes", {1, 3}, {1.0f, 3.0f, 2.0f});
  return g.Serialize();
}

// A 4 x 2 colour picture as binary PPM (RGB on disk), pixel (x, y) =
// (10 x + y, 20, 200).
std::string SmallPicture() {
  std::string ppm = "P6\n4 2\n255\n";
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 4; ++x) {
      ppm.push_back(static_cast<char>(10 * x + y));
      ppm.push_back(static_cast<char>(20));
      ppm.push_back(static_cast<char>(200));
    }
  return ppm;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_test_graphs OUT_DIR\n");
    return 2;
  }
  const std::string dir = argv[1];
  const std::vector<std::pair<std::string, std::string>> files = {
      {"echo_vector.pb", EchoVector(true)},
      {"no_output.pb", EchoVector(false)},
      {"age_37.pb", FixedAge()},
      {"gender_sum.pb", SumGender()},
      // Declares its row: four features, no other count.
      {"gender_4.pb", SumGender({1, 4})},
      {"embedding_mean.pb", ChannelMeanEmbedding()},
      {"face_rects_sum.pb", RectSum("input_001", "input_002")},
      {"patch_rects_sum.pb", RectSum("InputNodeFull", "InputNodeRects")},
      {"detections_fixed.pb", FixedDetections()},
      {"small.ppm", SmallPicture()},
  };
  for (const auto& [name, bytes] : files) {
    if (!WriteFile(dir + "/" + name, bytes)) {
      std::fprintf(stderr, "make_test_graphs: cannot write %s/%s\n", dir.c_str(), name.c_str());
      return 1;
    }
  }
  return 0;
}
