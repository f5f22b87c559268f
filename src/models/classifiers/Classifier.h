// Frame of the single-image models that answer with one number.
#ifndef VIDEOANALYTICS_MODELS_CLASSIFIERS_CLASSIFIER_H_
#define VIDEOANALYTICS_MODELS_CLASSIFIERS_CLASSIFIER_H_

#include "interface/Records.h"
#include "runtime/BaseModel.h"

class Classifier : public BaseModel {
 public:
  using BaseModel::BaseModel;

  // The model's number, or its failure value with the error state set.
  virtual float Predict(const Image& image) = 0;
};

#endif  // VIDEOANALYTICS_MODELS_CLASSIFIERS_CLASSIFIER_H_
