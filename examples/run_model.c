/* A host in C: builds a model from a graph file, runs it once on a
 * synthetic picture through the model type's entry point, prints the result
 * and disposes of everything.
 *
 *   run_model TYPE GRAPH.pb [WIDTH HEIGHT]
 */
#include <stdio.h>
#include <stdlib.h>

#include <videoanalytics.h>

static void* read_file(const char* path, long* size) {
  FILE* f = fopen(path, "rb");
  if (f == NULL) return NULL;
  void* data = NULL;
  if (fseek(f, 0, SEEK_END) == 0 && (*size = ftell(f)) >= 0 && fseek(f, 0, SEEK_SET) == 0) {
    data = malloc(*size > 0 ? (size_t)*size : 1);
    if (data != NULL && fread(data, 1, (size_t)*size, f) != (size_t)*size) {
      free(data);
      data = NULL;
    }
  }
  fclose(f);
  return data;
}

/* Prints the envelope's error, releases the envelope and returns its code. */
static int finish(ProcessResult* result) {
  int code = result->error != NULL ? result->error->code : 2;
  if (code != 0) {
    fprintf(stderr, "run_model: error %d: %s\n", code,
            result->error != NULL && result->error->message != NULL ? result->error->message
                                                                     : "no model");
  }
  DisposeProcessResult(result);
  return code;
}

static int print_floats(ProcessResult* result) {
  FloatVector* v = (FloatVector*)result->payload;
  if (v != NULL) {
    printf("values %d:", v->count);
    for (int32_t i = 0; i < v->count; ++i) printf(" %g", v->values[i]);
    printf("\n");
    DisposeFloatVector(v);
  }
  return finish(result);
}

static int print_boxes(ProcessResult* result) {
  BoxDetectionResult* boxes = (BoxDetectionResult*)result->payload;
  if (boxes != NULL) {
    printf("boxes %d\n", boxes->count);
    for (int32_t i = 0; i < boxes->count; ++i) {
      const NativeBoundingBox* b = &boxes->boxes[i];
      printf("  %g %g %g %g class %d score %g\n", b->x, b->y, b->width, b->height, b->classId,
             b->score);
    }
    DisposeBoxDetectionResult(boxes);
  }
  return finish(result);
}

static int run(void* model, int type, Image image) {
  switch (type) {
    case VA_MULTI_BOX3: case VA_SINGLE_HEAD_DETECTOR: case VA_FACE_DETECTOR:
    case VA_PERSON_VEHICLE_DETECTOR: case VA_QUEUE_MULTI_BOX3: case VA_MULTI_BOX4: {
      BoxDetectionInputData input = {image, 0.5f, 0.45f};
      return print_boxes(DetectBoxes(model, input));
    }
    case VA_HARD_HAT_CLASSIFIER: case VA_AGE: case VA_HUMAN_FILTER:
    case VA_FACE_MASK_CLASSIFIER: case VA_SAFETY_VEST_CLASSIFIER:
      return print_floats(Predict(model, image));
    case VA_FACE_FILTER_BATCH: case VA_FACE_EMBEDDING: case VA_FACE_LANDMARKS:
    case VA_FACE_LIGHT_EMBEDDING: {
      BatchImageInput batch = {1, image};
      return print_floats(PredictBatch(model, batch));
    }
    case VA_GENDER: {
      float features[3] = {0.25f, 0.5f, 1.0f};
      return print_floats(GetGender(model, 3, features));
    }
    case VA_FACE_FILTER_MULTIPLE: {
      RelRect whole = {0, 0, (float)image.width, (float)image.height};
      ImageWithRectsInput input = {image, 1, &whole};
      return print_floats(GetFaceRecallMultiple(model, input));
    }
    case VA_PATCH_FIRE_DETECTOR: {
      RelRect whole = {0, 0, (float)image.width, (float)image.height};
      BatchImageInput batch = {1, image};
      PatchInput patches = {1, &whole};
      return print_floats(GetPatchDetections(model, batch, patches));
    }
    default:
      return print_floats(PredictVector(model, image));
  }
}

int main(int argc, char** argv) {
  if (argc != 3 && argc != 5) {
    fprintf(stderr, "usage: run_model TYPE GRAPH.pb [WIDTH HEIGHT]\n");
    return 2;
  }
  const int type = atoi(argv[1]);
  const int width = argc == 5 ? atoi(argv[3]) : 2;
  const int height = argc == 5 ? atoi(argv[4]) : 2;
  if (width <= 0 || height <= 0 || width > 8192 || height > 8192) {
    fprintf(stderr, "run_model: picture size must be 1 to 8192\n");
    return 2;
  }
  long size = 0;
  void* graph = read_file(argv[2], &size);
  if (graph == NULL || size > 0x7fffffffL) {
    fprintf(stderr, "run_model: cannot read %s\n", argv[2]);
    free(graph);
    return 1;
  }

  /* A BGR gradient: blue follows x, green follows y, red is 128. */
  uint8_t* pixels = malloc((size_t)width * (size_t)height * 3);
  if (pixels == NULL) return 1;
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      uint8_t* p = pixels + ((size_t)y * (size_t)width + (size_t)x) * 3;
      p[0] = (uint8_t)(x * 255 / width);
      p[1] = (uint8_t)(y * 255 / height);
      p[2] = 128;
    }
  Image image = {width, height, pixels, 3};

  ModelOptions options = {(int32_t)size, graph, ""};
  ProcessResult created = {NULL, NULL};
  void* model = CreateModel(type, options, &created);
  free(graph); /* read during CreateModel only */
  int code = created.error != NULL ? created.error->code : 2;
  if (code != 0) {
    fprintf(stderr, "run_model: cannot create model of type %d (error %d)\n", type, code);
  }
  DisposeModelProcessResult(&created);
  if (code == 0) code = run(model, type, image);
  DisposeModel(model);
  free(pixels);
  return code == 0 ? 0 : 1;
}
