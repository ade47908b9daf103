#include "fake_host.h"
#include "blocks.h"

#include "platform/crc16_t10dif.h"
#include "platform/hostlog.h"
#include "platform/intf_lookup.h"
#include "platform/osal.h"
#include "platform/secure_string.h"

#include <cstdarg>

/* The text that a variadic function is called with. */
#define FORMATTED(text)                                                                                                \
    __extension__({                                                                                                    \
        char buffer[1024];                                                                                             \
        va_list args;                                                                                                  \
        va_start(args, text);                                                                                          \
        vsnprintf(buffer, sizeof buffer, text, args);                                                                  \
        va_end(args);                                                                                                  \
        static_cast<std::string>(buffer);                                                                              \
    })

FakeHost host;

std::string format(const char *text, ...) {
    return FORMATTED(text);
}

void *FakeHost::assertionService() {
    const AssertionService service = [](const char *expression, uint64_t reserved0, uint64_t reserved1,
                                        uint32_t moduleId, const char *function, int32_t line) {
        EXPECT_EQ(moduleId, DIF_MODULE_ID);
        EXPECT_EQ(reserved0 | reserved1, 0u);
        host.record(format("ask %s(%s)", function, expression != nullptr ? expression : "null"), line);
        return host.assertAnswer;
    };
    return reinterpret_cast<void *>(service);
}

Lines FakeHost::take() {
    const std::lock_guard lock(mutex_);
    lines = std::exchange(eventLines_, {});
    return std::exchange(events_, {});
}

void FakeHost::reset() {
    take();
    filtered = 0;
    static_cast<HostState &>(*this) = {};
}

void FakeHost::record(const std::string &event, int32_t line) {
    const std::lock_guard lock(mutex_);
    if (!wantsReports && event.find(": print: ") != std::string::npos)
        return;
    events_.push_back(event);
    eventLines_.push_back(line);
    if (onEvent)
        onEvent(event);
}

extern "C" {

void hostlog(uint32_t moduleId, uint32_t level, const char *file, int32_t line, const char *function, uint32_t logId,
             const char *text, ...) {
    EXPECT_EQ(moduleId, DIF_MODULE_ID);
    host.record(format("level %u, %s, %s, %u: ", level, file, function, logId) + FORMATTED(text), line);
}

void hostlog_standard(uint32_t moduleId, uint32_t level, const char *function, int32_t line, uint32_t logId,
                      const char *text, ...) {
    hostlog(moduleId, level, "no file", line, function, logId, "%s", FORMATTED(text).c_str());
}

int32_t hostlog_level_check(uint32_t moduleId, uint32_t level) {
    EXPECT_EQ(moduleId, DIF_MODULE_ID);
    return ((host.filtered >> level) & 1) != 0 ? -1 : 0;
}

void *lookupIntfMethod(const char *interfaceName, const char *methodName, uint64_t reserved0, uint64_t reserved1) {
    EXPECT_EQ(reserved0 | reserved1, 0u);
    host.record(format("lookup %s %s", interfaceName, methodName));
    return host.hasService ? FakeHost::assertionService() : nullptr;
}

uint64_t osal_get_jiffies(void) {
    return host.tick;
}

uint64_t osal_time_getnanosec(void) {
    static uint64_t now = 0;
    return now += 500;
}

uint16_t crc16_t10dif(uint16_t seed, const uint8_t *data, uint64_t size) {
    return static_cast<uint16_t>(slowCrc16(seed, data, size) ^ (host.onCrc ? host.onCrc(data, size) : 0));
}

uint32_t osal_crc32cContinue(uint32_t reg, const uint8_t *data, uint32_t size) {
    if (host.onCrc)
        host.onCrc(data, size);
    return slowCrc32c(reg, data, size);
}

uint32_t osal_crc32c(const uint8_t *data, uint32_t size) {
    return ~slowCrc32c(~0u, data, size);
}

void osal_pid_set_name(uint32_t moduleId, const char *name) {
    host.record(format("name %u %s", moduleId, name));
}

int32_t DBG_RegCmd(const DbgCmdReg *cmd) {
    host.record(format("register diagnose %s: %s", cmd->name, cmd->description));
    host.diagnose = *cmd;
    return host.diagnoseResult;
}

int32_t DBG_RegCmdToCLI(const DbgCmdReg *cmd) {
    host.record(format("register cli %s: %s", cmd->name, cmd->description));
    host.cli = *cmd;
    return host.cliResult;
}

int32_t DBG_UnRegCmd(const char *name) {
    host.record(format("unregister diagnose %s", name));
    return host.diagnoseResult;
}

int32_t DBG_UnRegCmdToCLI(const char *name) {
    host.record(format("unregister cli %s", name));
    return host.cliResult;
}

int32_t DBG_ShowUsageAndErrMsg(const char *message) {
    host.printed += format("usage (%s)\n", message != nullptr ? message : "null");
    return FakeHost::kUsageResult;
}

void DBG_Print(const char *text, ...) {
    host.printed += FORMATTED(text);
}

int strncpy_s(char *dest, size_t destMax, const char *src, size_t count) {
    EXPECT_LT(count, destMax);
    return snprintf(dest, destMax, "%.*s", static_cast<int>(count), src) < 0 ? -1 : 0;
}

} /* extern "C" */
