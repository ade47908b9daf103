/* Sets a bit of the caller's control flags for the duration of a scope; clear afterwards, whatever it was before. */
#pragma once

#include <cstdint>

class ScopedFlag {
public:
    ScopedFlag(uint32_t &flags, uint32_t bit) : flags_{flags}, bit_{bit} { flags_ |= bit_; }
    ~ScopedFlag() { flags_ &= ~bit_; }
    ScopedFlag(const ScopedFlag &) = delete;
    ScopedFlag &operator=(const ScopedFlag &) = delete;

private:
    uint32_t &flags_;
    const uint32_t bit_;
};
