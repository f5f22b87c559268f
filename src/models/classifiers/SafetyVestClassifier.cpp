#include "models/classifiers/SafetyVestClassifier.h"

float SafetyVestClassifier::Predict(const Image& image) { return PredictOwnChannelsScore(image); }
