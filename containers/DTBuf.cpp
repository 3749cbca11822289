#include "containers/DTBuf.h"

#include <string.h>

#include "foundation/DTMem.h"

#pragma pack(push, 4)
struct DTBuf {
    uint32_t capacity;
    uint32_t growStep;
    uint32_t elemSize;
    uint32_t length;
    uint8_t *data;
};
#pragma pack(pop)

DTBuf *DTBuf_New(uint32_t elemSize, uint32_t count, uint32_t growStep) {
    // A zero element size would make every capacity computation divide by zero.
    if (elemSize == 0) return nullptr;
    uint64_t bytes = (uint64_t)count * elemSize;
    if (bytes > 0xFFFFFFFFu) return nullptr;
    DTBuf *buf = (DTBuf *)DTMem_LocalMalloc(sizeof(DTBuf));
    if (buf == nullptr) return nullptr;
    buf->data = (uint8_t *)DTMem_LocalMalloc((uint32_t)bytes);
    if (buf->data == nullptr) {
        DTMem_LocalFree(buf);
        return nullptr;
    }
    buf->elemSize = elemSize;
    buf->growStep = growStep != 0 ? growStep : count;
    buf->length = 0;
    buf->capacity = count;
    memset(buf->data, 0, (size_t)bytes);
    return buf;
}

// Makes room for `needed` elements; the buffer is untouched when this fails.
static int grow_(DTBuf *buf, uint64_t needed) {
    if (needed <= buf->capacity) return 1;
    // With no step at all the storage grows to exactly what is needed.
    uint64_t step = buf->growStep != 0 ? buf->growStep : 1;
    uint64_t size = ((step - 1 + needed * buf->elemSize) / step) * step;
    if (size > 0xFFFFFFFFu) return 0;
    uint8_t *data = (uint8_t *)DTMem_LocalMalloc((uint32_t)size);
    if (data == nullptr) return 0;
    memset(data, 0, (size_t)size);
    memcpy(data, buf->data, (size_t)buf->length * buf->elemSize);
    DTMem_LocalFree(buf->data);
    buf->data = data;
    buf->capacity = (uint32_t)(size / buf->elemSize);
    return 1;
}

int32_t DTBuf_Append(DTBuf *buf, const void *src, uint32_t count) {
    if (buf == nullptr || src == nullptr) return 0;
    if (count == 0) count = (uint32_t)strlen((const char *)src);
    if (!grow_(buf, (uint64_t)buf->length + count)) return 0;
    memcpy(buf->data + (size_t)buf->length * buf->elemSize, src, (size_t)count * buf->elemSize);
    buf->length += count;
    return 1;
}

int32_t DTBuf_Set(DTBuf *buf, uint32_t index, const void *src, uint32_t count) {
    if (buf == nullptr || src == nullptr) return 0;
    if (!grow_(buf, (uint64_t)index + count)) return 0;
    memcpy(buf->data + (size_t)index * buf->elemSize, src, (size_t)count * buf->elemSize);
    return 1;
}

int32_t DTBuf_Get(DTBuf *buf, uint32_t index, void **out) {
    if (buf == nullptr) return 0;
    if (index >= buf->length) {
        if (out != nullptr) *out = nullptr;
        return 0;
    }
    if (out != nullptr) *out = buf->data + (size_t)index * buf->elemSize;
    return (int32_t)(buf->length - index + 1);
}

uint32_t DTBuf_Length(DTBuf *buf) { return buf != nullptr ? buf->length : 0; }

void DTBuf_Clear(DTBuf *buf) {
    if (buf == nullptr) return;
    memset(buf->data, 0, (size_t)buf->length * buf->elemSize);
    buf->length = 0;
}

void DTBuf_Release(DTBuf *buf) {
    if (buf == nullptr) return;
    DTMem_LocalFree(buf->data);
    DTMem_LocalFree(buf);
}
