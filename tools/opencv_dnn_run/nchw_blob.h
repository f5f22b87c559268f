// TensorFlow's NHWC floats as the NCHW blob OpenCV's DNN module takes.
#ifndef TOOLS_OPENCV_DNN_RUN_NCHW_BLOB_H_
#define TOOLS_OPENCV_DNN_RUN_NCHW_BLOB_H_

#include <opencv2/core.hpp>

inline cv::Mat NchwBlob(const float* nhwc, int n, int h, int w, int c) {
  const int dims[4] = {n, c, h, w};
  cv::Mat blob(4, dims, CV_32F);
  float* nchw = blob.ptr<float>();
  for (int b = 0; b < n; ++b)
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        for (int k = 0; k < c; ++k)
          nchw[((b * c + k) * h + y) * w + x] = nhwc[((b * h + y) * w + x) * c + k];
  return blob;
}

#endif  // TOOLS_OPENCV_DNN_RUN_NCHW_BLOB_H_
