/* An nbdkit plugin that happens to have functions of the names that the filter's library and host use. */
#define NBDKIT_API_VERSION 2
#include <nbdkit-plugin.h>

#include <stddef.h>
#include <stdlib.h>

#define THREAD_MODEL NBDKIT_THREAD_MODEL_PARALLEL

__attribute__((visibility("default"))) uint16_t crc16_t10dif(uint16_t seed, const uint8_t *buf, uint64_t len) {
    (void)buf;
    return (uint16_t)(seed + len);
}
__attribute__((visibility("default"))) void hostlog(void) {
    abort();
}
__attribute__((visibility("default"))) int strncpy_s(void) {
    abort();
}

static void *openDisk(int readonly) {
    (void)readonly;
    return NBDKIT_HANDLE_NOT_NEEDED;
}
static int64_t sizeOfDisk(void *handle) {
    (void)handle;
    return 520;
}
static int readDisk(void *handle, void *buf, uint32_t count, uint64_t offset, uint32_t flags) {
    (void)handle, (void)buf, (void)count, (void)offset, (void)flags;
    return 0;
}
static struct nbdkit_plugin plugin = {
    .name = "interposer", .open = openDisk, .get_size = sizeOfDisk, .pread = readDisk};
NBDKIT_REGISTER_PLUGIN(plugin)
