// Frame of the single-image models that answer with a vector of floats.
#ifndef VIDEOANALYTICS_MODELS_CLASSIFIERS_CLASSIFIERVECTOR_H_
#define VIDEOANALYTICS_MODELS_CLASSIFIERS_CLASSIFIERVECTOR_H_

#include "interface/Records.h"
#include "runtime/BaseModel.h"

class ClassifierVector : public BaseModel {
 public:
  using BaseModel::BaseModel;

  // A new vector, or null with the error state set.
  virtual FloatVector* Predict(const Image& image) = 0;
};

#endif  // VIDEOANALYTICS_MODELS_CLASSIFIERS_CLASSIFIERVECTOR_H_
