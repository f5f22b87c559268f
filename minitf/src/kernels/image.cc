// Image resizing (bilinear, bicubic, nearest) and box cropping over NHWC images, with TensorFlow's
// coordinate conventions (align_corners, half_pixel_centers, the clamped
// lower source index) so that graphs trained against them see the same
// pixels.
#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "kernels/array_helpers.h"
#include "op_registry.h"

namespace minitf {
namespace {

constexpr int64_t kInt32Max = std::numeric_limits<int32_t>::max();

// Reads a 1-D int32 tensor of two positive values (a target height, width).
Status ReadSize(const OpContext& ctx, const Tensor& t, const char* what, int64_t* h,
                int64_t* w) {
  if (t.rank() != 1 || t.dim(0) != 2) {
    return ctx.Error(what, " must be a 1-D tensor of 2 elements, got shape ",
                     t.shape().ToString());
  }
  *h = t.IntAt(0);
  *w = t.IntAt(1);
  if (*h <= 0 || *w <= 0) {
    return ctx.Error(what, " must be positive, got [", *h, ",", *w, "]");
  }
  return Status::OK();
}

// What the resize kernels share: the attributes, the checks of the image
// and the size, and the source-coordinate scale.
class ResizeBase : public OpKernel {
 public:
  Status Init(const KernelInit& init) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("T", &type_));
    MINITF_RETURN_IF_ERROR(init.GetAttr("align_corners", &align_corners_));
    MINITF_RETURN_IF_ERROR(init.GetAttr("half_pixel_centers", &half_pixel_centers_));
    if (align_corners_ && half_pixel_centers_) {
      return init.Error("if half_pixel_centers is true, align_corners must be false");
    }
    return Status::OK();
  }

 protected:
  struct Plan {
    int64_t batch, in_h, in_w, channels, out_h, out_w;
    float scale_h, scale_w;
  };

  Status Prepare(OpContext* ctx, Plan* p, Tensor** out) const {
    const Tensor& image = ctx->input(0);
    MINITF_ENSURE(ctx, image.rank() == 4, "images must be 4-D: ", image.shape().ToString());
    MINITF_RETURN_IF_ERROR(ReadSize(*ctx, ctx->input(1), "size", &p->out_h, &p->out_w));
    p->batch = image.dim(0);
    p->in_h = image.dim(1);
    p->in_w = image.dim(2);
    p->channels = image.dim(3);
    MINITF_ENSURE(ctx, p->in_h <= kInt32Max && p->in_w <= kInt32Max,
                  "image sizes must fit in int32: ", image.shape().ToString());
    MINITF_ENSURE(ctx, p->channels > 0, "image must have at least one channel");
    MINITF_ENSURE(ctx, p->in_h > 0 && p->in_w > 0, "input image must be of non-zero size: ",
                  image.shape().ToString());
    p->scale_h = Scale(p->in_h, p->out_h);
    p->scale_w = Scale(p->in_w, p->out_w);
    Shape shape;
    MINITF_RETURN_IF_ERROR(Shape::Make({p->batch, p->out_h, p->out_w, p->channels}, &shape));
    return ctx->allocate_output(0, shape, out);
  }

  // Source units per output pixel; with align_corners the corner pixels'
  // centres map onto each other.
  float Scale(int64_t in, int64_t out) const {
    return align_corners_ && out > 1 ? static_cast<float>(in - 1) / static_cast<float>(out - 1)
                                     : static_cast<float>(in) / static_cast<float>(out);
  }

  DataType type_ = kInvalidType;
  bool align_corners_ = false;
  bool half_pixel_centers_ = false;
};

class ResizeBilinearKernel : public ResizeBase {
 public:
  Status Compute(OpContext* ctx) const override {
    Plan p;
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(Prepare(ctx, &p, &out));
    ScratchCharge scratch;
    MINITF_RETURN_IF_ERROR(
        scratch.Reserve(*ctx, double(p.out_h + p.out_w) * sizeof(Tap)));
    const std::vector<Tap> ys = Taps(p.in_h, p.out_h, p.scale_h);
    const std::vector<Tap> xs = Taps(p.in_w, p.out_w, p.scale_w);
    const Tensor& image = ctx->input(0);
    return DispatchType<MINITF_REAL_TYPES>(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      const T* in = image.data<T>();
      float* o = out->data<float>();
      const int64_t c = p.channels;
      ctx->ParallelFor(p.batch * p.out_h, p.out_w * c * 8, [&](int64_t begin, int64_t end) {
        for (int64_t r = begin; r < end; ++r) {
          const int64_t b = r / p.out_h;
          const Tap& y = ys[r % p.out_h];
          const T* top = in + (b * p.in_h + y.lower) * p.in_w * c;
          const T* bottom = in + (b * p.in_h + y.upper) * p.in_w * c;
          float* row = o + r * p.out_w * c;
          for (int64_t xi = 0; xi < p.out_w; ++xi) {
            const Tap& x = xs[xi];
            for (int64_t ch = 0; ch < c; ++ch) {
              const float tl = static_cast<float>(top[x.lower * c + ch]);
              const float tr = static_cast<float>(top[x.upper * c + ch]);
              const float bl = static_cast<float>(bottom[x.lower * c + ch]);
              const float br = static_cast<float>(bottom[x.upper * c + ch]);
              const float t = tl + (tr - tl) * x.lerp;
              const float bt = bl + (br - bl) * x.lerp;
              row[xi * c + ch] = t + (bt - t) * y.lerp;
            }
          }
        }
      });
      return Status::OK();
    });
  }

 private:
  struct Tap {
    int64_t lower, upper;
    float lerp;
  };

  // The two source indices and the weight of the upper one, per output
  // index. The lower index is clamped at 0 but the weight is not, so a
  // half-pixel source coordinate below 0 still reads pixel 0 only.
  std::vector<Tap> Taps(int64_t in_size, int64_t out_size, float scale) const {
    std::vector<Tap> taps(out_size);
    for (int64_t i = 0; i < out_size; ++i) {
      const float src = half_pixel_centers_
                            ? (static_cast<float>(i) + 0.5f) * scale - 0.5f
                            : static_cast<float>(i) * scale;
      const float src_floor = std::floor(src);
      taps[i].lower = std::min(std::max(static_cast<int64_t>(src_floor), int64_t{0}), in_size - 1);
      taps[i].upper = std::min(static_cast<int64_t>(std::ceil(src)), in_size - 1);
      taps[i].lerp = src - src_floor;
    }
    return taps;
  }
};

class ResizeNearestNeighborKernel : public ResizeBase {
 public:
  Status Compute(OpContext* ctx) const override {
    Plan p;
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(Prepare(ctx, &p, &out));
    ScratchCharge scratch;
    MINITF_RETURN_IF_ERROR(
        scratch.Reserve(*ctx, double(p.out_h + p.out_w) * sizeof(int64_t)));
    const std::vector<int64_t> ys = Sources(p.in_h, p.out_h, p.scale_h);
    const std::vector<int64_t> xs = Sources(p.in_w, p.out_w, p.scale_w);
    const Tensor& image = ctx->input(0);
    return DispatchType<MINITF_REAL_TYPES>(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      const T* in = image.data<T>();
      T* o = out->data<T>();
      const int64_t c = p.channels;
      ctx->ParallelFor(p.batch * p.out_h, p.out_w * c, [&](int64_t begin, int64_t end) {
        for (int64_t r = begin; r < end; ++r) {
          const int64_t b = r / p.out_h;
          const T* src_row = in + (b * p.in_h + ys[r % p.out_h]) * p.in_w * c;
          T* row = o + r * p.out_w * c;
          for (int64_t x = 0; x < p.out_w; ++x) {
            std::copy(src_row + xs[x] * c, src_row + (xs[x] + 1) * c, row + x * c);
          }
        }
      });
      return Status::OK();
    });
  }

 private:
  // Source index per output index: rounded with align_corners, floored
  // otherwise; half-pixel centres here add the half pixel but do not take
  // it off again.
  std::vector<int64_t> Sources(int64_t in_size, int64_t out_size, float scale) const {
    std::vector<int64_t> idx(out_size);
    for (int64_t i = 0; i < out_size; ++i) {
      const float src = half_pixel_centers_ ? (static_cast<float>(i) + 0.5f) * scale
                                            : static_cast<float>(i) * scale;
      int64_t v = static_cast<int64_t>(align_corners_ ? std::round(src) : std::floor(src));
      v = std::min(v, in_size - 1);
      idx[i] = std::max<int64_t>(v, 0);
    }
    return idx;
  }
};

// Bicubic resizing as TensorFlow computes it: the cubic convolution kernel
// with a = -0.75, or Keys' a = -0.5 with half-pixel centres, where taps that
// fall outside the image are dropped and the rest renormalised (the legacy
// mode clamps them onto the edge instead). Weights come from a 1024-step
// table of the kernel indexed by the rounded fractional position, as
// TensorFlow's do, so results match it closely rather than the exact cubic.
class ResizeBicubicKernel : public ResizeBase {
 public:
  Status Compute(OpContext* ctx) const override {
    Plan p;
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(Prepare(ctx, &p, &out));
    ScratchCharge scratch;
    MINITF_RETURN_IF_ERROR(
        scratch.Reserve(*ctx, double(p.out_h + p.out_w) * sizeof(Taps4)));
    const std::vector<Taps4> ys = Taps(p.in_h, p.out_h, p.scale_h);
    const std::vector<Taps4> xs = Taps(p.in_w, p.out_w, p.scale_w);
    const Tensor& image = ctx->input(0);
    return DispatchType<MINITF_REAL_TYPES>(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      const T* in = image.data<T>();
      float* o = out->data<float>();
      const int64_t c = p.channels;
      ctx->ParallelFor(p.batch * p.out_h, p.out_w * c * 20, [&](int64_t begin, int64_t end) {
        for (int64_t r = begin; r < end; ++r) {
          const int64_t b = r / p.out_h;
          const Taps4& y = ys[r % p.out_h];
          const T* rows[4];
          for (int k = 0; k < 4; ++k) rows[k] = in + (b * p.in_h + y.index[k]) * p.in_w * c;
          float* row = o + r * p.out_w * c;
          for (int64_t xi = 0; xi < p.out_w; ++xi) {
            const Taps4& x = xs[xi];
            for (int64_t ch = 0; ch < c; ++ch) {
              float v[4];
              for (int k = 0; k < 4; ++k) {
                const T* src = rows[k] + ch;
                v[k] = static_cast<float>(src[x.index[0] * c]) * x.weight[0] +
                       static_cast<float>(src[x.index[1] * c]) * x.weight[1] +
                       static_cast<float>(src[x.index[2] * c]) * x.weight[2] +
                       static_cast<float>(src[x.index[3] * c]) * x.weight[3];
              }
              row[xi * c + ch] = v[0] * y.weight[0] + v[1] * y.weight[1] + v[2] * y.weight[2] +
                                 v[3] * y.weight[3];
            }
          }
        }
      });
      return Status::OK();
    });
  }

 private:
  static constexpr int kTableSize = 1024;

  struct Taps4 {
    int64_t index[4];
    float weight[4];
  };

  // table[2i] = kernel(i / size), table[2i + 1] = kernel(1 + i / size).
  static std::vector<float> KernelTable(double a) {
    std::vector<float> table(2 * (kTableSize + 1));
    for (int i = 0; i <= kTableSize; ++i) {
      float x = static_cast<float>(i * 1.0 / kTableSize);
      table[2 * i] = static_cast<float>(((a + 2) * x - (a + 3)) * x * x + 1);
      x += 1.0f;
      table[2 * i + 1] = static_cast<float>(((a * x - 5 * a) * x + 8 * a) * x - 4 * a);
    }
    return table;
  }

  std::vector<Taps4> Taps(int64_t in_size, int64_t out_size, float scale) const {
    static const std::vector<float> keys = KernelTable(-0.5);
    static const std::vector<float> legacy = KernelTable(-0.75);
    const std::vector<float>& table = half_pixel_centers_ ? keys : legacy;
    std::vector<Taps4> taps(out_size);
    for (int64_t i = 0; i < out_size; ++i) {
      const float src = half_pixel_centers_ ? (static_cast<float>(i) + 0.5f) * scale - 0.5f
                                            : static_cast<float>(i) * scale;
      const float src_floor = std::floor(src);
      const int64_t loc = static_cast<int64_t>(src_floor);
      const int64_t step = std::lrint((src - src_floor) * kTableSize);
      Taps4& t = taps[i];
      const float w[4] = {table[2 * step + 1], table[2 * step], table[2 * (kTableSize - step)],
                          table[2 * (kTableSize - step) + 1]};
      float sum = 0;
      for (int k = 0; k < 4; ++k) {
        const int64_t want = loc - 1 + k;
        t.index[k] = std::min(std::max(want, int64_t{0}), in_size - 1);
        t.weight[k] = !half_pixel_centers_ || t.index[k] == want ? w[k] : 0.0f;
        sum += t.weight[k];
      }
      if (half_pixel_centers_ && std::fabs(sum) >= 1000.0f * std::numeric_limits<float>::min()) {
        for (float& wk : t.weight) wk *= 1.0f / sum;
      }
    }
    return taps;
  }
};

class CropAndResizeKernel : public OpKernel {
 public:
  Status Init(const KernelInit& init) {
    MINITF_RETURN_IF_ERROR(init.GetAttr("T", &type_));
    std::string method;
    MINITF_RETURN_IF_ERROR(init.GetAttr("method", &method));
    bilinear_ = method == "bilinear";
    return init.GetAttr("extrapolation_value", &extrapolation_);
  }

  Status Compute(OpContext* ctx) const override {
    const Tensor& image = ctx->input(0);
    const Tensor& boxes = ctx->input(1);
    const Tensor& box_ind = ctx->input(2);
    MINITF_ENSURE(ctx, image.rank() == 4, "image must be 4-D: ", image.shape().ToString());
    const int64_t batch = image.dim(0), ih = image.dim(1), iw = image.dim(2);
    const int64_t depth = image.dim(3);
    MINITF_ENSURE(ctx, ih > 0 && iw > 0, "image dimensions must be positive: ",
                  image.shape().ToString());
    int64_t num_boxes = 0;
    // Empty boxes with empty indices are accepted whatever their shapes.
    if (boxes.num_elements() != 0 || box_ind.num_elements() != 0) {
      MINITF_ENSURE(ctx, boxes.rank() == 2 && boxes.dim(1) == 4,
                    "boxes must be [num_boxes, 4]: ", boxes.shape().ToString());
      num_boxes = boxes.dim(0);
      MINITF_ENSURE(ctx, box_ind.rank() == 1 && box_ind.dim(0) == num_boxes,
                    "box_ind must be [num_boxes]: ", box_ind.shape().ToString(), " for ",
                    num_boxes, " boxes");
    }
    int64_t ch = 0, cw = 0;
    MINITF_RETURN_IF_ERROR(ReadSize(*ctx, ctx->input(3), "crop_size", &ch, &cw));
    const int32_t* bidx = box_ind.data<int32_t>();
    for (int64_t i = 0; i < num_boxes; ++i) {
      if (bidx[i] < 0 || bidx[i] >= batch) {
        return ctx->Error("box_ind has value ", bidx[i], " at ", i, ", outside [0, ", batch, ")");
      }
    }
    Shape shape;
    MINITF_RETURN_IF_ERROR(Shape::Make({num_boxes, ch, cw, depth}, &shape));
    Tensor* out = nullptr;
    MINITF_RETURN_IF_ERROR(ctx->allocate_output(0, shape, &out));
    const float* bx = boxes.data<float>();
    return DispatchType<MINITF_REAL_TYPES>(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      const T* in = image.data<T>();
      float* o = out->data<float>();
      ctx->ParallelFor(num_boxes * ch, cw * depth * 8, [&](int64_t begin, int64_t end) {
        for (int64_t r = begin; r < end; ++r) {
          const int64_t box = r / ch, y = r % ch;
          const float* bb = bx + box * 4;
          const T* img = in + bidx[box] * ih * iw * depth;
          float* row = o + r * cw * depth;
          const float in_y = Source(bb[0], bb[2], y, ch, ih);
          if (!InRange(in_y, ih)) {
            std::fill(row, row + cw * depth, extrapolation_);
            continue;
          }
          const int64_t y0 = static_cast<int64_t>(std::floor(in_y));
          const int64_t y1 = static_cast<int64_t>(std::ceil(in_y));
          const float y_lerp = in_y - static_cast<float>(y0);
          const int64_t y_near = static_cast<int64_t>(std::round(in_y));
          for (int64_t x = 0; x < cw; ++x) {
            float* px = row + x * depth;
            const float in_x = Source(bb[1], bb[3], x, cw, iw);
            if (!InRange(in_x, iw)) {
              std::fill(px, px + depth, extrapolation_);
              continue;
            }
            if (!bilinear_) {
              const T* src = img + (y_near * iw + static_cast<int64_t>(std::round(in_x))) * depth;
              for (int64_t d = 0; d < depth; ++d) px[d] = static_cast<float>(src[d]);
              continue;
            }
            const int64_t x0 = static_cast<int64_t>(std::floor(in_x));
            const int64_t x1 = static_cast<int64_t>(std::ceil(in_x));
            const float x_lerp = in_x - static_cast<float>(x0);
            const T* tl = img + (y0 * iw + x0) * depth;
            const T* tr = img + (y0 * iw + x1) * depth;
            const T* bl = img + (y1 * iw + x0) * depth;
            const T* br = img + (y1 * iw + x1) * depth;
            for (int64_t d = 0; d < depth; ++d) {
              const float top = static_cast<float>(tl[d]) +
                                (static_cast<float>(tr[d]) - static_cast<float>(tl[d])) * x_lerp;
              const float bottom = static_cast<float>(bl[d]) +
                                   (static_cast<float>(br[d]) - static_cast<float>(bl[d])) * x_lerp;
              px[d] = top + (bottom - top) * y_lerp;
            }
          }
        }
      });
      return Status::OK();
    });
  }

 private:
  // Source coordinate of crop index i along one axis of a box spanning the
  // normalised [lo, hi]; a single-sample crop takes the box centre.
  static float Source(float lo, float hi, int64_t i, int64_t crop, int64_t size) {
    const float extent = static_cast<float>(size - 1);
    if (crop <= 1) return static_cast<float>(0.5 * (lo + hi) * extent);
    const float scale = (hi - lo) * extent / static_cast<float>(crop - 1);
    return lo * extent + static_cast<float>(i) * scale;
  }
  // NaN coordinates (from NaN boxes) count as outside too.
  static bool InRange(float v, int64_t size) {
    return v >= 0 && v <= static_cast<float>(size - 1);
  }

  DataType type_ = kInvalidType;
  bool bilinear_ = true;
  float extrapolation_ = 0;
};

constexpr const char* kResizeTypes =
    "T: {int8, uint8, int16, uint16, int32, int64, bfloat16, half, float, double}";

}  // namespace

void RegisterImageOps(OpRegistry& r) {
  r.Register(OpDef("ResizeBilinear").Input("images: T").Input("size: int32")
                 .Output("resized_images: float")
                 .Attr(kResizeTypes)
                 .Attr("align_corners: bool = false").Attr("half_pixel_centers: bool = false"),
             MakeKernel<ResizeBilinearKernel>);
  r.Register(OpDef("ResizeBicubic").Input("images: T").Input("size: int32")
                 .Output("resized_images: float")
                 .Attr(kResizeTypes)
                 .Attr("align_corners: bool = false").Attr("half_pixel_centers: bool = false"),
             MakeKernel<ResizeBicubicKernel>);
  r.Register(OpDef("ResizeNearestNeighbor").Input("images: T").Input("size: int32")
                 .Output("resized_images: T")
                 .Attr("T: {int8, uint8, int16, uint16, int32, int64, half, float, double, "
                       "bfloat16}")
                 .Attr("align_corners: bool = false").Attr("half_pixel_centers: bool = false"),
             MakeKernel<ResizeNearestNeighborKernel>);
  r.Register(OpDef("CropAndResize").Input("image: T").Input("boxes: float")
                 .Input("box_ind: int32").Input("crop_size: int32").Output("crops: float")
                 .Attr("T: {uint8, uint16, int8, int16, int32, int64, half, bfloat16, float, "
                       "double}")
                 .Attr("method: {'bilinear', 'nearest'} = 'bilinear'")
                 .Attr("extrapolation_value: float = 0"),
             MakeKernel<CropAndResizeKernel>);
}

}  // namespace minitf
