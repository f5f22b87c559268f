/* The host's header compiled as C: the records must have the same layout
 * here as in the library's C++. */
#include "library/records_layout.h"

const size_t kVaCLayout[] = {VA_RECORD_LAYOUT};
const size_t kVaCLayoutCount = sizeof(kVaCLayout) / sizeof(kVaCLayout[0]);
