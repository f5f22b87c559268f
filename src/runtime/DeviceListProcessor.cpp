#include "runtime/DeviceListProcessor.h"

#include <cstring>

#include "runtime/TFCommon.h"

namespace {

// A NUL-terminated copy on the library's heap, sized for its terminator.
char* CopyString(const char* text) {
  const size_t length = std::strlen(text);
  char* copy = new char[length + 1];
  std::memcpy(copy, text, length + 1);
  return copy;
}

}  // namespace

DeviceListProcessor::DeviceListProcessor() {
  status = TF_NewStatus();
  graph = TF_NewGraph();
  TF_SessionOptions* options = TF_NewSessionOptions();
  // Unlike a model, the configuration's outcome is not checked on its own:
  // only the session creation's status is.
  TF_SetConfig(options, TFCommon::SessionConfigBytes, TFCommon::kSessionConfigLength, status);
  session = TF_NewSession(graph, options, status);
  TF_DeleteSessionOptions(options);
  CheckStatus();
}

DeviceListProcessor::~DeviceListProcessor() {
  ReleaseHandles();
}

ComputeDeviceInfo* DeviceListProcessor::GetDevices() {
  TF_DeviceList* list = TF_SessionListDevices(session, status);
  if (!CheckStatus()) {
    TF_DeleteDeviceList(list);
    return nullptr;
  }
  const int count = TF_DeviceListCount(list);
  ComputeDeviceInfo* info = CreateComputeDeviceInfo(count);
  if (count < 1) {
    TF_DeleteDeviceList(list);
    return info;
  }
  for (int i = 0; i < count; ++i) {
    const char* name = TF_DeviceListName(list, i, status);
    const char* type = TF_DeviceListType(list, i, status);
    if (!CheckStatus()) {
      // Kept as the program has always done it: the record goes back through
      // array delete, and the list, the strings copied so far and the entry
      // array are not released.
      delete[] info;
      return nullptr;
    }
    info->devices[i].name = CopyString(name);
    info->devices[i].type = CopyString(type);
  }
  TF_DeleteDeviceList(list);
  return info;
}

ComputeDeviceInfo* DeviceListProcessor::CreateComputeDeviceInfo(int count) {
  auto* info = new ComputeDeviceInfo;
  info->count = count;
  info->devices = new ComputeDeviceEntry[count];
  return info;
}

void DeviceListProcessor::DisposeDeviceList(ComputeDeviceInfo* info) {
  if (info == nullptr || info->devices == nullptr) return;
  for (int i = 0; i < info->count; ++i) {
    delete[] info->devices[i].name;
    delete[] info->devices[i].type;
  }
  delete[] info->devices;
  info->devices = nullptr;
}
