// The list of buffer descriptors that phantom reads fill and a phantom write consumes.
#include <new>

#include "device/qfs_device.h"
#include "support/qfs_logging.h"

qfs_result qfs_io_context_append(qfs_io_context *context, const qfs_io_buffer &buffer) {
    if (context == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    try {
        context->buffers.push_back(buffer);
    } catch (const std::bad_alloc &) {
        const qfs_result r = QFS_ERR_SYS_NO_MEMORY;
        QFS_LOG_ERROR("Error while allocating I/O buffer descriptor %zu: %lu (%s)", context->buffers.size(),
                      QFS_ERR_ARGS(r));
        return r;
    }
    context->total_size += buffer.size;
    return QFS_OK;
}
