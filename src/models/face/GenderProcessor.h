// Gender score of one face from a row of floats that describes it (type code
// 9). The exported GetGender calls Process directly; no frame is involved.
#ifndef VIDEOANALYTICS_MODELS_FACE_GENDERPROCESSOR_H_
#define VIDEOANALYTICS_MODELS_FACE_GENDERPROCESSOR_H_

#include "runtime/BaseModel.h"

class GenderProcessor : public BaseModel {
 public:
  using BaseModel::BaseModel;

  // The first value of the graph's output for the `count` floats at
  // `values`; -1.0 with the error state set on any failure.
  float Process(int count, float* values);
};

#endif  // VIDEOANALYTICS_MODELS_FACE_GENDERPROCESSOR_H_
