// Lists the compute devices TensorFlow sees, through a session over an
// empty graph configured like every model session.
#ifndef VIDEOANALYTICS_RUNTIME_DEVICELISTPROCESSOR_H_
#define VIDEOANALYTICS_RUNTIME_DEVICELISTPROCESSOR_H_

#include "interface/Records.h"
#include "runtime/TfInvoker.h"

class DeviceListProcessor : public TfInvoker {
 public:
  DeviceListProcessor();
  ~DeviceListProcessor() override;

  // A new record with one entry per device, in TensorFlow's order; null on
  // a failed status check (lock then held).
  ComputeDeviceInfo* GetDevices();

  // A new record with `count` set and an uninitialised array of that many
  // entries; a negative count fails the allocation.
  ComputeDeviceInfo* CreateComputeDeviceInfo(int count);

  // Releases the strings and the entry array and nulls `devices`; the record
  // itself is left allocated. Null record or array: nothing to do.
  void DisposeDeviceList(ComputeDeviceInfo* info);
};

#endif  // VIDEOANALYTICS_RUNTIME_DEVICELISTPROCESSOR_H_
