#include "adapters.h"

#include <cmath>

namespace minitf {
namespace tfjs {
namespace {

// Each helper adds one node of the ops the adapters use, with the
// attributes the runtime's op definitions require.
std::string Cast(GraphEditor* g, const std::string& name, const std::string& x, pb::DataType from,
                 pb::DataType to) {
  pb::NodeDef* n = g->Add("Cast", name, {x});
  SetAttrType(n, "SrcT", from);
  SetAttrType(n, "DstT", to);
  SetAttrBool(n, "Truncate", false);
  return n->name();
}

std::string IntConst(GraphEditor* g, const std::string& name, const std::vector<int64_t>& shape,
                     const std::vector<int32_t>& values) {
  return g->AddConst(name, IntTensor(shape, values))->name();
}

std::string FloatConst(GraphEditor* g, const std::string& name, const std::vector<int64_t>& shape,
                       const std::vector<float>& values) {
  return g->AddConst(name, FloatTensor(shape, values))->name();
}

std::string Binary(GraphEditor* g, const std::string& op, const std::string& name,
                   const std::string& a, const std::string& b) {
  return g->AddTyped(op, name, {a, b}, pb::DT_FLOAT)->name();
}

std::string Concat(GraphEditor* g, const std::string& name, const std::vector<std::string>& parts,
                   int axis) {
  std::vector<std::string> inputs = parts;
  inputs.push_back(IntConst(g, name + "/axis", {}, {axis}));
  pb::NodeDef* n = g->AddTyped("ConcatV2", name, inputs, pb::DT_FLOAT);
  SetAttrInt(n, "N", static_cast<int64_t>(parts.size()));
  SetAttrType(n, "Tidx", pb::DT_INT32);
  return n->name();
}

std::string Slice(GraphEditor* g, const std::string& name, const std::string& x,
                  const std::vector<int32_t>& begin, const std::vector<int32_t>& size) {
  const int64_t rank = static_cast<int64_t>(begin.size());
  const std::string b = IntConst(g, name + "/begin", {rank}, begin);
  const std::string s = IntConst(g, name + "/size", {rank}, size);
  pb::NodeDef* n = g->AddTyped("Slice", name, {x, b, s}, pb::DT_FLOAT);
  SetAttrType(n, "Index", pb::DT_INT32);
  return n->name();
}

// The model's placeholder `old_input` keeps feeding the model, but from a
// new placeholder `new_name` of another type and shape through `build`,
// which returns the tensor to feed in its place.
template <typename Build>
Status ReplaceInput(GraphEditor* g, const std::string& old_input, const std::string& new_name,
                    pb::DataType type, const std::vector<int64_t>& shape, Build build) {
  pb::NodeDef* old = g->FindNode(old_input);
  if (old == nullptr || old->op() != "Placeholder") {
    return NotFound("the model has no placeholder '", old_input, "'");
  }
  pb::NodeDef removed;
  MINITF_RETURN_IF_ERROR(g->Remove(old_input, &removed));
  const std::string fed = g->AddPlaceholder(new_name, type, shape)->name();
  if (fed != new_name) return InvalidArgument("input name '", new_name, "' is taken");
  const std::string result = build(fed);
  // Consumers still name the removed placeholder; the adapted tensor takes
  // over its name so none of them has to change.
  return g->Rename(result, old_input);
}

// MoveNet takes int32 RGB 192x192; the skeleton contract feeds the canvas
// bytes as uint8 in the host's BGR order, so the adapter swaps the channels.
Status ApplySkeleton(GraphEditor* g) {
  MINITF_RETURN_IF_ERROR(
      ReplaceInput(g, "input", "input_0", pb::DT_UINT8, {1, 192, 192, 3}, [g](const std::string& x) {
        const std::string order = IntConst(g, "adapter/rgb_order", {3}, {2, 1, 0});
        const std::string axis = IntConst(g, "adapter/channel_axis", {}, {3});
        pb::NodeDef* rgb = g->Add("GatherV2", "adapter/rgb", {x, order, axis});
        SetAttrType(rgb, "Tparams", pb::DT_UINT8);
        SetAttrType(rgb, "Tindices", pb::DT_INT32);
        SetAttrType(rgb, "Taxis", pb::DT_INT32);
        SetAttrInt(rgb, "batch_dims", 0);
        return Cast(g, "adapter/to_int", rgb->name(), pb::DT_UINT8, pb::DT_INT32);
      }));
  if (g->FindNode("Identity") == nullptr) return NotFound("the model has no 'Identity' output");
  return Status::OK();
}

// BlazeFace's anchors: one centre per grid cell, in pixels of the model's
// input; a stride of side/16 with 2 anchors per cell, then side/8 with 6.
std::vector<float> BlazeFaceAnchors(int side) {
  std::vector<float> xy;
  const int strides[2] = {side / 16, side / 8};
  const int per_cell[2] = {2, 6};
  for (int level = 0; level < 2; ++level) {
    const int stride = strides[level];
    const int cells = (side + stride - 1) / stride;
    for (int gy = 0; gy < cells; ++gy) {
      for (int gx = 0; gx < cells; ++gx) {
        for (int k = 0; k < per_cell[level]; ++k) {
          xy.push_back(stride * (gx + 0.5f));
          xy.push_back(stride * (gy + 0.5f));
        }
      }
    }
  }
  return xy;
}

// The face contract: "images" float [1,512,512,3] RGB in 0..255, out
// "Identity" rows (x1, y1, x2, y2, score) in fractions of the canvas. The
// model's outputs are, by shape: scores [1,512,1] and [1,384,1], boxes
// [1,512,16] and [1,384,16] (x, y, w, h offsets in input pixels, then
// keypoints, which the contract drops).
Status ApplyFace(GraphEditor* g, int side) {
  const char* outputs[4] = {"Identity", "Identity_1", "Identity_2", "Identity_3"};
  for (const char* name : outputs) {
    if (g->FindNode(name) == nullptr) return NotFound("the model has no '", name, "' output");
  }
  MINITF_RETURN_IF_ERROR(ReplaceInput(
      g, "input", "images", pb::DT_FLOAT, {1, 512, 512, 3}, [g, side](const std::string& x) {
        const std::string size = IntConst(g, "adapter/model_size", {2}, {side, side});
        pb::NodeDef* small = g->AddTyped("ResizeBilinear", "adapter/resize", {x, size}, pb::DT_FLOAT);
        SetAttrBool(small, "align_corners", false);
        SetAttrBool(small, "half_pixel_centers", true);
        // The model expects values in [-1, 1].
        const std::string scale = FloatConst(g, "adapter/scale", {}, {1.0f / 127.5f});
        const std::string one = FloatConst(g, "adapter/one", {}, {1.0f});
        const std::string scaled = Binary(g, "Mul", "adapter/scaled", small->name(), scale);
        return Binary(g, "Sub", "adapter/normalized", scaled, one);
      }));
  // The contract's output takes the name "Identity".
  MINITF_RETURN_IF_ERROR(g->Rename("Identity", "model/scores_fine"));
  const int n = 896;
  const std::string logits = Concat(g, "adapter/logits", {"model/scores_fine", "Identity_1"}, 1);
  const std::string regs = Concat(g, "adapter/regressors", {"Identity_2", "Identity_3"}, 1);
  const std::string score = g->AddTyped("Sigmoid", "adapter/score", {logits}, pb::DT_FLOAT)->name();
  const std::string offset = Slice(g, "adapter/offset", regs, {0, 0, 0}, {1, n, 2});
  const std::string extent = Slice(g, "adapter/extent", regs, {0, 0, 2}, {1, n, 2});
  const std::string anchors = FloatConst(g, "adapter/anchors", {1, n, 2}, BlazeFaceAnchors(side));
  const std::string centre = Binary(g, "Add", "adapter/centre", offset, anchors);
  const std::string half = FloatConst(g, "adapter/half", {}, {0.5f});
  const std::string radius = Binary(g, "Mul", "adapter/radius", extent, half);
  const std::string lo = Binary(g, "Sub", "adapter/top_left", centre, radius);
  const std::string hi = Binary(g, "Add", "adapter/bottom_right", centre, radius);
  const std::string corners = Concat(g, "adapter/corners", {lo, hi}, 2);
  const std::string inv = FloatConst(g, "adapter/inv_side", {}, {1.0f / static_cast<float>(side)});
  const std::string fractions = Binary(g, "Mul", "adapter/fractions", corners, inv);
  const std::string rows = Concat(g, "adapter/rows", {fractions, score}, 2);
  return g->Rename(rows, "Identity");
}

Status ApplyFaceFront(GraphEditor* g) { return ApplyFace(g, 128); }
Status ApplyFaceBack(GraphEditor* g) { return ApplyFace(g, 256); }

}  // namespace

const std::vector<Adapter>& Adapters() {
  static const std::vector<Adapter> adapters = {
      {"skeleton", "movenet-lightning",
       "skeleton detector: uint8 BGR input_0 [1,192,192,3] -> Identity [1,1,17,3]", ApplySkeleton,
       {"Identity"}},
      {"face-front", "blazeface-front",
       "face detector: float RGB images [1,512,512,3] -> Identity [1,896,5] corner rows",
       ApplyFaceFront, {"Identity"}},
      {"face-back", "blazeface-back",
       "face detector: float RGB images [1,512,512,3] -> Identity [1,896,5] corner rows",
       ApplyFaceBack, {"Identity"}},
  };
  return adapters;
}

const Adapter* FindAdapter(const std::string& name) {
  for (const Adapter& a : Adapters()) {
    if (a.name == name) return &a;
  }
  return nullptr;
}

}  // namespace tfjs
}  // namespace minitf
