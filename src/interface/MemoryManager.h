// Allocation and release of the records handed to the host. Records come
// from scalar new and the arrays inside them from array new; only these
// functions release them.
#ifndef VIDEOANALYTICS_INTERFACE_MEMORYMANAGER_H_
#define VIDEOANALYTICS_INTERFACE_MEMORYMANAGER_H_

#include "interface/Records.h"

class TfInvoker;

class MemoryManager {
 public:
  MemoryManager() = delete;

  // A new vector of `count` uninitialised values (non-null also for 0); a
  // negative count fails the allocation.
  static FloatVector* CreateFloatVector(int count);

  // Stores `payload` and a new error record in `result` (any previous error
  // record is overwritten, not released). Code 2 for a null model; otherwise
  // the model's flag and a copy of its message, read under its lock, so this
  // waits while the model's lock is held.
  static void FillProcessResult(ProcessResult* result, TfInvoker* model, void* payload);

  static void DisposeBoxDetectionResult(BoxDetectionResult* result);
  static void DisposeFloatVector(FloatVector* vector);

  // Releases the error record of `result` and, when `releaseEnvelope` is
  // true, the envelope itself; never the payload.
  static void DisposeProcessResult(ProcessResult* result, bool releaseEnvelope);
};

#endif  // VIDEOANALYTICS_INTERFACE_MEMORYMANAGER_H_
