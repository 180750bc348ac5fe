#include "common/Descriptor.h"

#include <fcntl.h>

namespace kestrel {

void openStandardStreams() {
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) < 0) open("/dev/null", O_RDWR);
  }
}

}  // namespace kestrel
