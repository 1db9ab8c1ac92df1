#include "base/descriptor.h"

#include <cerrno>

void qx_descriptor::reset(int descriptor) {
    if (fd >= 0) {
        const int kept = errno;
        close(fd);  // nothing can be done about a failure, and the descriptor is gone in any case
        errno = kept;
    }
    fd = descriptor;
}

void qx_stream::reset(FILE* stream) {
    if (file != nullptr) {
        const int kept = errno;
        fclose(file);  // readers only: a writer closes by itself and looks at the result
        errno = kept;
    }
    file = stream;
}
