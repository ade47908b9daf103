#include "fake_host.h"

#include "platform/hostlog.h"
#include "platform/intf_lookup.h"
#include "platform/osal.h"
#include "platform/secure_string.h"

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstring>

FakeHost host;

Lines FakeHost::take() {
    const std::lock_guard lock(mutex_);
    lines = std::exchange(eventLines_, {});
    return std::exchange(events_, {});
}

void FakeHost::record(const std::string &event, int32_t line) {
    const std::lock_guard lock(mutex_);
    events_.push_back(event);
    eventLines_.push_back(line);
    if (onEvent)
        onEvent(event);
}

namespace {

std::string vformat(const char *text, va_list args) {
    char buffer[1024];
    vsnprintf(buffer, sizeof buffer, text, args);
    return buffer;
}

/* Nothing for what the library always passes. */
std::string mark(uint32_t moduleId, uint64_t reserved0 = 0, uint64_t reserved1 = 0) {
    return moduleId == 250 && (reserved0 | reserved1) == 0 ? ""
                                                           : format("[module %u, or reserved arguments] ", moduleId);
}

uint8_t onAssertion(const char *expression, uint64_t reserved0, uint64_t reserved1, uint32_t moduleId,
                    const char *funcName, int32_t line) {
    const char *const text = expression != nullptr ? expression : "null";
    host.record(mark(moduleId, reserved0, reserved1) + "ask " + funcName + "(" + text + ")", line);
    return host.assertAnswer;
}

} // namespace

void *FakeHost::assertionService() {
    return reinterpret_cast<void *>(&onAssertion);
}

Lines asserted(const std::string &function, const std::string &logged, const std::string &expression) {
    return {"L0 dif_util " + function + " #0: " + logged,
            "ask " + function + "(" + (expression.empty() ? logged : expression) + ")"};
}

std::string format(const char *text, ...) {
    va_list args;
    va_start(args, text);
    std::string result = vformat(text, args);
    va_end(args);
    return result;
}

extern "C" {

void hostlog(uint32_t moduleId, uint32_t level, const char *file, int32_t line, const char *funcName, uint32_t logId,
             const char *text, ...) {
    va_list args;
    va_start(args, text);
    host.record(mark(moduleId) + format("L%u %s %s #%u: ", level, file, funcName, logId) + vformat(text, args), line);
    va_end(args);
}

void hostlog_standard(uint32_t moduleId, uint32_t level, const char *funcName, int32_t line, uint32_t logId,
                      const char *text, ...) {
    va_list args;
    va_start(args, text);
    host.record(mark(moduleId) + format("L%u - %s #%u: ", level, funcName, logId) + vformat(text, args), line);
    va_end(args);
}

int32_t hostlog_level_check(uint32_t moduleId, uint32_t level) {
    return moduleId == 250 && ((host.filtered >> level) & 1) != 0 ? -1 : 0;
}

void *lookupIntfMethod(const char *interfaceName, const char *methodName, uint64_t reserved0, uint64_t reserved1) {
    host.record(mark(250, reserved0, reserved1) + "lookup " + interfaceName + " " + methodName, 0);
    return host.serviceRegistered ? FakeHost::assertionService() : nullptr;
}

uint64_t osal_get_jiffies(void) {
    return host.tick;
}

uint64_t osal_time_getnanosec(void) {
    return static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
}

uint32_t osal_crc32cContinue(uint32_t reg, const uint8_t *data, uint32_t len) {
    for (uint64_t bit = 0; bit < uint64_t{len} * 8; ++bit)
        reg = (reg >> 1) ^ (((reg ^ (data[bit / 8] >> (bit % 8))) & 1) != 0 ? 0x82F63B78u : 0u);
    return reg;
}

uint32_t osal_crc32c(const uint8_t *data, uint32_t len) {
    return ~osal_crc32cContinue(~0u, data, len);
}

void osal_pid_set_name(uint32_t moduleId, const char *name) {
    host.record(format("name %u %s", moduleId, name), 0);
}

int32_t DBG_RegCmd(const DbgCmdReg *cmd) {
    host.record(std::string("register diagnose ") + cmd->name + ": " + cmd->description, 0);
    host.diagnoseCommand = *cmd;
    return host.diagnoseResult;
}

int32_t DBG_RegCmdToCLI(const DbgCmdReg *cmd) {
    host.record(std::string("register cli ") + cmd->name + ": " + cmd->description, 0);
    host.cliCommand = *cmd;
    return host.cliResult;
}

int32_t DBG_UnRegCmd(const char *name) {
    host.record(std::string("unregister diagnose ") + name, 0);
    return host.diagnoseResult;
}

int32_t DBG_UnRegCmdToCLI(const char *name) {
    host.record(std::string("unregister cli ") + name, 0);
    return host.cliResult;
}

int32_t DBG_ShowUsageAndErrMsg(const char *message) {
    host.record(std::string("usage ") + (message != nullptr ? message : "null"), 0);
    return host.usageResult;
}

void DBG_Print(const char *text, ...) {
    va_list args;
    va_start(args, text);
    host.printed += vformat(text, args);
    va_end(args);
}

int strncpy_s(char *dest, size_t destMax, const char *src, size_t count) {
    if (dest == nullptr || destMax == 0)
        return EINVAL;
    const size_t length = src == nullptr ? destMax : strnlen(src, count);
    if (length >= destMax) {
        dest[0] = '\0';
        return src == nullptr ? EINVAL : ERANGE;
    }
    memcpy(dest, src, length);
    dest[length] = '\0';
    return 0;
}

} // extern "C"
